#include "tests/guard-heap/report.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace nimbra_test::guard_heap {
namespace {

// Puts a text together without the heap.
class Text {
 public:
  Text& operator<<(const char* text) {
    const std::size_t count = std::min(std::strlen(text), sizeof(buffer_) - used_);
    std::memcpy(buffer_ + used_, text, count);
    used_ += count;
    return *this;
  }
  Text& operator<<(std::size_t number) { return Number(number, 10); }
  Text& operator<<(const void* address) {
    *this << "0x";
    return Number(reinterpret_cast<std::uintptr_t>(address), 16);
  }

  void Print() const {
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_ERROR_HANDLE), buffer_, static_cast<DWORD>(used_), &written,
              nullptr);
  }

 private:
  Text& Number(std::size_t number, unsigned base) {
    char digits[24];
    char* digit = digits + sizeof(digits) - 1;
    *digit = '\0';
    do {
      *--digit = "0123456789abcdef"[number % base];
      number /= base;
    } while (number != 0);
    return *this << static_cast<const char*>(digit);
  }

  char buffer_[4000];
  std::size_t used_ = 0;
};

// A place in the code as module and offset, which addr2line takes when the module's preferred base
// is added.
void AppendPlace(Text& text, const void* place) {
  HMODULE module = nullptr;
  char path[MAX_PATH] = "?";
  if (GetModuleHandleExA(
          GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
          static_cast<LPCSTR>(place), &module)) {
    GetModuleFileNameA(module, path, MAX_PATH);
    const char* name = std::strrchr(path, '\\');
    text << (name != nullptr ? name + 1 : path) << "+";
  }
  text << reinterpret_cast<const void*>(reinterpret_cast<std::uintptr_t>(place) -
                                        reinterpret_cast<std::uintptr_t>(module));
}

void AppendStack(Text& text) {
  void* places[40];
  const USHORT count = RtlCaptureStackBackTrace(1, 40, places, nullptr);
  text << "  called from:\n";
  for (USHORT i = 0; i < count; ++i) {
    text << "    ";
    AppendPlace(text, places[i]);
    text << "\n";
  }
}

[[noreturn]] void End(Mistake mistake, Text& text) {
  static LONG reporting = 0;
  if (InterlockedExchange(&reporting, 1) == 0) {
    AppendStack(text);
    text.Print();
  }
  TerminateProcess(GetCurrentProcess(), static_cast<UINT>(mistake));
  std::abort();
}

void AppendBlock(Text& text, const Block& block) {
  text << (block.live ? "a block of " : "a freed block of ") << block.size << " bytes at "
       << reinterpret_cast<const void*>(block.address);
}

[[noreturn]] void EndForAccess(const EXCEPTION_RECORD& record, std::uintptr_t address,
                               const Block& block) {
  Text text;
  text << "guard heap: " << (record.ExceptionInformation[0] == 0 ? "read of " : "write to ")
       << reinterpret_cast<const void*>(address) << ", ";
  const std::uintptr_t end = block.address + block.size;
  if (address < block.address) {
    text << block.address - address << " bytes in front of ";
  } else if (address >= end) {
    text << address - end << " bytes past the end of ";
  } else {
    text << address - block.address << " bytes into ";
  }
  AppendBlock(text, block);
  text << "\n  by ";
  AppendPlace(text, record.ExceptionAddress);
  text << "\n";
  End(block.live ? Mistake::kOutsideBlock : Mistake::kUseAfterFree, text);
}

// Whether the instruction is the one that the sanitizer puts where undefined behaviour is met.
bool IsSanitizerTrap(const void* instruction) {
  HMODULE module = nullptr;
  const auto* bytes = static_cast<const unsigned char*>(instruction);
  return GetModuleHandleExA(
             GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
             static_cast<LPCSTR>(instruction), &module) &&
         module == reinterpret_cast<HMODULE>(&__ImageBase) && bytes[0] == 0x0F && bytes[1] == 0x0B;
}

const char* Describe(Mistake mistake) {
  switch (mistake) {
    case Mistake::kDoubleFree:
      return "freed already: ";
    case Mistake::kDamagedBlock:
      return "written to outside of its bounds: ";
    case Mistake::kNotABlock:
      return "not the beginning of a block: ";
    default:
      return "";
  }
}

}  // namespace

void EndWithReport(Mistake mistake, const char* function, const void* address) {
  Text text;
  text << "guard heap: " << function << " of " << address << ", " << Describe(mistake);
  Block block{};
  if (FindNearest(reinterpret_cast<std::uintptr_t>(address), &block)) {
    AppendBlock(text, block);
  }
  text << "\n";
  End(mistake, text);
}

LONG CALLBACK ReportException(EXCEPTION_POINTERS* exception) {
  const EXCEPTION_RECORD& record = *exception->ExceptionRecord;
  if (record.ExceptionCode == STATUS_ACCESS_VIOLATION && record.NumberParameters >= 2) {
    const std::uintptr_t address = record.ExceptionInformation[1];
    Block block{};
    if (FindNearest(address, &block)) {
      EndForAccess(record, address, block);
    }
  } else if (record.ExceptionCode == STATUS_ILLEGAL_INSTRUCTION &&
             IsSanitizerTrap(record.ExceptionAddress)) {
    Text text;
    text << "undefined behaviour at ";
    AppendPlace(text, record.ExceptionAddress);
    text << "\n";
    End(Mistake::kUndefinedBehaviour, text);
  }
  return EXCEPTION_CONTINUE_SEARCH;
}

}  // namespace nimbra_test::guard_heap
