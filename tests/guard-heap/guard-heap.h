#ifndef NIMBRA_TESTS_GUARD_HEAP_GUARD_HEAP_H_
#define NIMBRA_TESTS_GUARD_HEAP_GUARD_HEAP_H_

#include <cstddef>
#include <cstdint>

// A heap that turns mistakes with memory into crashes at the very instruction. There is no address
// sanitizer for this platform, and a block of the ordinary heap has neighbours that can be written
// to for a long time before anybody notices.
//
// Each block has pages of its own and ends where a page begins that nobody may touch, so that one
// byte too far is an access violation. A freed block loses its memory, and its addresses are never
// given out again: a use after the free is an access violation too. Where the alignment leaves some
// bytes between the block and its page's end, and in front of the block, a pattern stands that is
// looked at when the block is freed.
//
// Every checked module (a program, Nimbra.dll, the simulator's cldapi.dll) has a copy of its own,
// which takes the place of malloc and its relatives among the module's imports before any other
// code of the module runs. So operator new, the C++ library and what is linked in use it as well,
// and a test can still put its own double on top.
namespace nimbra_test::guard_heap {

// What a process ends with whose mistake was noticed. It says more on its standard error.
enum class Mistake : unsigned {
  kOutsideBlock = 81,
  kUseAfterFree = 82,
  kDoubleFree = 83,
  kDamagedBlock = 84,
  kNotABlock = 85,
  kUndefinedBehaviour = 86,
};

// Whether a pointer given to free is a block of this heap.
enum class Ownership { kForeign, kLive, kFreed, kInside };

struct Block {
  std::uintptr_t address;
  std::size_t size;
  bool live;
};

// Learns the system's functions. Must come first.
void Initialise();

// Null where the system has no memory, or has so many blocks that another one would fail.
void* Allocate(std::size_t size, std::size_t alignment);
// The alignment that a block of this size may be asked for; see guard-heap.cpp.
std::size_t NaturalAlignment(std::size_t size);

Ownership Find(const void* address);
// Of a live block.
std::size_t SizeOf(const void* address);
// Whether the bytes around a live block are as they were.
bool IsIntact(const void* address);
// Of a live block.
void Free(void* address);

// The block, live or freed, that an address in or near it is about.
bool FindNearest(std::uintptr_t address, Block* block);

}  // namespace nimbra_test::guard_heap

#endif  // NIMBRA_TESTS_GUARD_HEAP_GUARD_HEAP_H_
