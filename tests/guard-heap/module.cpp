// Puts the guard heap into the module that this is linked into, and tells of mistakes.

#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "tests/guard-heap/guard-heap.h"
#include "tests/guard-heap/report.h"

// The module's import slots.
extern "C" {
extern void* __imp_malloc;
extern void* __imp_calloc;
extern void* __imp_realloc;
extern void* __imp_free;
extern void* __imp__msize;
extern void* __imp_strdup;
extern void* __imp__strdup;
extern void* __imp_wcsdup;
extern void* __imp__wcsdup;
extern void* __imp__aligned_malloc;
extern void* __imp__aligned_free;
}

namespace nimbra_test::guard_heap {
namespace {

// The C runtime's own functions, for memory that it allocated itself and, without a guard, for more
// blocks than there may be.
void* (*runtimeMalloc)(std::size_t);
void* (*runtimeRealloc)(void*, std::size_t);
void (*runtimeFree)(void*);
std::size_t (*runtimeSize)(void*);
void (*runtimeAlignedFree)(void*);

void* vectoredHandler = nullptr;

void* Malloc(std::size_t size) {
  void* memory = Allocate(size, NaturalAlignment(size));
  return memory != nullptr ? memory : runtimeMalloc(size);
}

void* Calloc(std::size_t count, std::size_t size) {
  if (size != 0 && count > SIZE_MAX / size) {
    return nullptr;
  }
  void* memory = Malloc(count * size);
  if (memory != nullptr) {
    std::memset(memory, 0, count * size);
  }
  return memory;
}

// Gives false for memory of the C runtime, and does not return for what is none at all.
bool IsOwn(void* address, const char* function) {
  switch (Find(address)) {
    case Ownership::kForeign:
      return false;
    case Ownership::kLive:
      break;
    case Ownership::kFreed:
      EndWithReport(Mistake::kDoubleFree, function, address);
    case Ownership::kInside:
      EndWithReport(Mistake::kNotABlock, function, address);
  }
  if (!IsIntact(address)) {
    EndWithReport(Mistake::kDamagedBlock, function, address);
  }
  return true;
}

void FreeBlock(void* address) {
  if (address == nullptr) {
    return;
  }
  if (IsOwn(address, "free")) {
    Free(address);
  } else {
    runtimeFree(address);
  }
}

void* Realloc(void* address, std::size_t size) {
  if (address == nullptr) {
    return Malloc(size);
  }
  if (!IsOwn(address, "realloc")) {
    return runtimeRealloc(address, size);
  }
  if (size == 0) {
    Free(address);
    return nullptr;
  }
  void* moved = Malloc(size);
  if (moved != nullptr) {
    std::memcpy(moved, address, std::min(size, SizeOf(address)));
    Free(address);
  }
  return moved;
}

std::size_t Size(void* address) {
  return IsOwn(address, "_msize") ? SizeOf(address) : runtimeSize(address);
}

template <typename Character>
Character* Duplicate(const Character* text, std::size_t length) {
  const std::size_t size = (length + 1) * sizeof(Character);
  auto* copy = static_cast<Character*>(Malloc(size));
  if (copy != nullptr) {
    std::memcpy(copy, text, size);
  }
  return copy;
}

char* DuplicateText(const char* text) { return Duplicate(text, std::strlen(text)); }

wchar_t* DuplicateWideText(const wchar_t* text) { return Duplicate(text, std::wcslen(text)); }

void* AlignedMalloc(std::size_t size, std::size_t alignment) {
  return Allocate(size, std::max(alignment, NaturalAlignment(size)));
}

void AlignedFree(void* address) {
  if (address == nullptr) {
    return;
  }
  if (IsOwn(address, "_aligned_free")) {
    Free(address);
  } else {
    runtimeAlignedFree(address);
  }
}

template <typename Function>
Function Replace(void*& slot, Function replacement) {
  DWORD protection = 0;
  VirtualProtect(&slot, sizeof(slot), PAGE_READWRITE, &protection);
  auto original = reinterpret_cast<Function>(slot);
  slot = reinterpret_cast<void*>(replacement);
  VirtualProtect(&slot, sizeof(slot), protection, &protection);
  return original;
}

void TakeOver() {
  Initialise();
  runtimeMalloc = Replace(__imp_malloc, &Malloc);
  runtimeRealloc = Replace(__imp_realloc, &Realloc);
  runtimeFree = Replace(__imp_free, &FreeBlock);
  runtimeSize = Replace(__imp__msize, &Size);
  runtimeAlignedFree = Replace(__imp__aligned_free, &AlignedFree);
  Replace(__imp__aligned_malloc, &AlignedMalloc);
  Replace(__imp_calloc, &Calloc);
  // What the runtime duplicates, it allocates itself, without a guard.
  Replace(__imp_strdup, &DuplicateText);
  Replace(__imp__strdup, &DuplicateText);
  Replace(__imp_wcsdup, &DuplicateWideText);
  Replace(__imp__wcsdup, &DuplicateWideText);
}

// The loader calls this before the module's entry point, and so before all constructors.
void NTAPI OnModuleEvent(void* /*module*/, DWORD reason, void* processEnds) {
  if (reason == DLL_PROCESS_ATTACH) {
    TakeOver();
    vectoredHandler = AddVectoredExceptionHandler(1, &ReportException);
  } else if (reason == DLL_PROCESS_DETACH && processEnds == nullptr) {
    RemoveVectoredExceptionHandler(vectoredHandler);
  }
}

// The first of the module's thread-local storage callbacks.
extern "C" {
extern const PIMAGE_TLS_CALLBACK kNimbraGuardHeapCallback;
[[gnu::section(".CRT$XLB"), gnu::used]] const PIMAGE_TLS_CALLBACK kNimbraGuardHeapCallback =
    &OnModuleEvent;
}

}  // namespace
}  // namespace nimbra_test::guard_heap
