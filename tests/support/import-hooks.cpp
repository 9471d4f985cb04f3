#include "tests/support/import-hooks.h"

#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <string>

namespace nimbra_test {
namespace {

// The slot of `function` among the imports of one DLL, or null.
void** FindInDescriptor(std::byte* base, const IMAGE_IMPORT_DESCRIPTOR& descriptor,
                        const char* function) {
  const DWORD namesAt =
      descriptor.OriginalFirstThunk != 0 ? descriptor.OriginalFirstThunk : descriptor.FirstThunk;
  const auto* name = reinterpret_cast<const IMAGE_THUNK_DATA*>(base + namesAt);
  auto* slot = reinterpret_cast<IMAGE_THUNK_DATA*>(base + descriptor.FirstThunk);
  for (; name->u1.AddressOfData != 0; ++name, ++slot) {
    if (IMAGE_SNAP_BY_ORDINAL(name->u1.Ordinal)) {
      continue;
    }
    const auto* entry =
        reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + name->u1.AddressOfData);
    if (std::strcmp(reinterpret_cast<const char*>(entry->Name), function) == 0) {
      return reinterpret_cast<void**>(&slot->u1.Function);
    }
  }
  return nullptr;
}

void** FindSlot(HMODULE image, const char* function) {
  auto* base = reinterpret_cast<std::byte*>(image);
  const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  const auto* headers = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
  const IMAGE_DATA_DIRECTORY& directory =
      headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  if (directory.VirtualAddress == 0) {
    return nullptr;
  }
  const auto* descriptor =
      reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + directory.VirtualAddress);
  for (; descriptor->Name != 0; ++descriptor) {
    if (void** slot = FindInDescriptor(base, *descriptor, function)) {
      return slot;
    }
  }
  return nullptr;
}

void* Exchange(void** slot, void* value) {
  DWORD protection = 0;
  if (!VirtualProtect(slot, sizeof(*slot), PAGE_READWRITE, &protection)) {
    throw std::runtime_error("the import table cannot be written");
  }
  void* previous = InterlockedExchangePointer(slot, value);
  VirtualProtect(slot, sizeof(*slot), protection, &protection);
  return previous;
}

}  // namespace

ScopedImportHook::ScopedImportHook(const char* function, void* replacement)
    : ScopedImportHook(GetModuleHandleW(nullptr), function, replacement) {}

ScopedImportHook::ScopedImportHook(HMODULE image, const char* function, void* replacement)
    : slot_(FindSlot(image, function)) {
  if (slot_ == nullptr) {
    throw std::runtime_error(std::string(function) + " is not imported, nothing can be watched");
  }
  original_ = Exchange(slot_, replacement);
}

ScopedImportHook::~ScopedImportHook() { Exchange(slot_, original_); }

}  // namespace nimbra_test
