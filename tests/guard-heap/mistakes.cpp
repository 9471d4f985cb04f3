#include "tests/guard-heap/mistakes.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

// The compiler would warn of every one of these, or leave it out, if it could see it: so sizes,
// indexes and pointers come out of volatile variables.

namespace nimbra_test::guard_heap {
namespace {

volatile std::size_t sink;

template <typename T>
T Opaque(T value) {
  volatile T hidden = value;
  return hidden;
}

void Read(const char* address) { sink = static_cast<unsigned char>(*Opaque(address)); }

void Write(char* address) { *static_cast<volatile char*>(Opaque(address)) = 'x'; }

void WritePastArray() {
  const std::unique_ptr<char[]> block(new char[Opaque<std::size_t>(39)]);
  Write(block.get() + 39);
}

void ReadPastArray() {
  const std::unique_ptr<char[]> block(new char[Opaque<std::size_t>(39)]);
  Read(block.get() + 39);
}

void ReadPastText() {
  const std::string text(Opaque<std::size_t>(38), 'x');
  Read(text.c_str() + 39);
}

void WritePastVector() {
  std::vector<int> numbers(Opaque<std::size_t>(3));
  Write(reinterpret_cast<char*>(numbers.data() + 3));
}

void WritePastMalloc() {
  const std::unique_ptr<char, decltype(&std::free)> block(
      static_cast<char*>(std::malloc(Opaque<std::size_t>(5000))), &std::free);
  // 5000 is a multiple of 8: there are 8 bytes between the block and the end of its page.
  Write(block.get() + 5008);
}

void ReadPastDuplicate() {
  const std::unique_ptr<char, decltype(&std::free)> copy(strdup("twelve bytes"), &std::free);
  Read(copy.get() + 13);
}

void ReadPastReallocated() {
  void* block = std::realloc(std::malloc(Opaque<std::size_t>(100)), Opaque<std::size_t>(33));
  Read(static_cast<char*>(block) + 33);
}

void UseAfterDelete() {
  auto block = std::make_unique<char[]>(Opaque<std::size_t>(24));
  const char* kept = Opaque(block.get());
  block.reset();
  Read(kept);
}

void UseAfterRealloc() {
  char* block = Opaque(static_cast<char*>(std::malloc(Opaque<std::size_t>(100))));
  char* const kept = Opaque(block);
  block = static_cast<char*>(std::realloc(block, Opaque<std::size_t>(200)));
  Write(kept + 99);
}

void FreeTwice() {
  void* block = std::malloc(Opaque<std::size_t>(24));
  std::free(Opaque(block));
  std::free(Opaque(block));
}

void DeleteTwice() {
  auto* block = Opaque(new std::string(Opaque<std::size_t>(100), 'x'));
  operator delete(Opaque<void*>(block));
  operator delete(Opaque<void*>(block));
}

void WriteShortlyPast() {
  char* block = Opaque(static_cast<char*>(std::malloc(Opaque<std::size_t>(24))));
  Write(block + 24);
  std::free(block);
}

void WriteInFront() {
  char* block = Opaque(static_cast<char*>(std::malloc(Opaque<std::size_t>(24))));
  Write(block - 1);
  std::free(block);
}

void FreeInside() {
  char* block = Opaque(static_cast<char*>(std::malloc(Opaque<std::size_t>(24))));
  std::free(Opaque<void*>(block + 8));
}

void ShiftTooFar() { sink = std::size_t{1} << Opaque(64); }

void Overflow() { sink = static_cast<std::size_t>(Opaque(INT_MAX) + Opaque(1)); }

void DivideByZero() { sink = static_cast<std::size_t>(Opaque(7) / Opaque(0)); }

void UseNull() { sink = static_cast<std::size_t>(*Opaque(static_cast<int*>(nullptr))); }

void LeaveArray() {
  int numbers[4] = {1, 2, 3, 4};
  numbers[Opaque(0)] = Opaque(5);
  sink = static_cast<std::size_t>(numbers[Opaque(4)]);
}

void Misalign() {
  alignas(8) char bytes[16] = {};
  sink = static_cast<std::size_t>(*reinterpret_cast<int*>(Opaque(bytes + 1)));
}

void LoadBadBool() {
  unsigned char byte = Opaque<unsigned char>(2);
  sink = *reinterpret_cast<volatile bool*>(&byte) ? 1 : 0;
}

void ReachTheUnreachable() {
  if (Opaque(1) == 1) {
    __builtin_unreachable();
  }
}

void CopyFromNull() {
  char to[4];
  std::memcpy(to, Opaque(static_cast<const char*>(nullptr)), Opaque<std::size_t>(0));
  sink = static_cast<std::size_t>(Opaque(to[0]));
}

constexpr NamedMistake kMistakes[] = {
    {"WritePastArray", WritePastArray, Mistake::kOutsideBlock, "0 bytes past the end of a block"},
    {"ReadPastArray", ReadPastArray, Mistake::kOutsideBlock, "0 bytes past the end of a block"},
    {"ReadPastText", ReadPastText, Mistake::kOutsideBlock, "0 bytes past the end of a block"},
    {"WritePastVector", WritePastVector, Mistake::kOutsideBlock, "0 bytes past the end of a block"},
    {"WritePastMalloc", WritePastMalloc, Mistake::kOutsideBlock, "8 bytes past the end of a block"},
    {"ReadPastDuplicate", ReadPastDuplicate, Mistake::kOutsideBlock, "of 13 bytes"},
    {"ReadPastReallocated", ReadPastReallocated, Mistake::kOutsideBlock, "of 33 bytes"},
    {"UseAfterDelete", UseAfterDelete, Mistake::kUseAfterFree, "0 bytes into a freed block of 24"},
    {"UseAfterRealloc", UseAfterRealloc, Mistake::kUseAfterFree, "99 bytes into a freed block"},
    {"FreeTwice", FreeTwice, Mistake::kDoubleFree, "freed already: a freed block of 24 bytes"},
    {"DeleteTwice", DeleteTwice, Mistake::kDoubleFree, "freed already: a freed block"},
    {"WriteShortlyPast", WriteShortlyPast, Mistake::kDamagedBlock,
     "outside of its bounds: a block"},
    {"WriteInFront", WriteInFront, Mistake::kDamagedBlock, "outside of its bounds: a block of 24"},
    {"FreeInside", FreeInside, Mistake::kNotABlock, "not the beginning of a block: a block of 24"},
    {"ShiftTooFar", ShiftTooFar, Mistake::kUndefinedBehaviour, "undefined behaviour at"},
    {"Overflow", Overflow, Mistake::kUndefinedBehaviour, "undefined behaviour at"},
    {"DivideByZero", DivideByZero, Mistake::kUndefinedBehaviour, "undefined behaviour at"},
    {"UseNull", UseNull, Mistake::kUndefinedBehaviour, "undefined behaviour at"},
    {"LeaveArray", LeaveArray, Mistake::kUndefinedBehaviour, "undefined behaviour at"},
    {"Misalign", Misalign, Mistake::kUndefinedBehaviour, "undefined behaviour at"},
    {"LoadBadBool", LoadBadBool, Mistake::kUndefinedBehaviour, "undefined behaviour at"},
    {"ReachTheUnreachable", ReachTheUnreachable, Mistake::kUndefinedBehaviour,
     "undefined behaviour at"},
    {"CopyFromNull", CopyFromNull, Mistake::kUndefinedBehaviour, "undefined behaviour at"},
};

}  // namespace

std::span<const NamedMistake> AllMistakes() { return kMistakes; }

}  // namespace nimbra_test::guard_heap
