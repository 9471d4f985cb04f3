#include "tests/support/heap-watch.h"

#include <windows.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

#include "tests/support/test-scope.h"

namespace nimbra_test {
namespace {

// Stands in front of every block of the C++ heap.
struct Block {
  Block* previous;
  Block* next;
  void* data;
  std::size_t size;
  // Made on the watching thread during the current watch.
  bool counted;
  unsigned watch;
};

constexpr unsigned char kFreedFill = 0xDD;

// What is allocated in front of a block: a multiple of the alignment that new promises, and room
// for the header also where the heap of the checked build aligns less.
constexpr std::size_t kPrefix = 64;
static_assert(sizeof(Block) + alignof(Block) <= kPrefix);
static_assert(kPrefix % __STDCPP_DEFAULT_NEW_ALIGNMENT__ == 0);

SRWLOCK lock = SRWLOCK_INIT;
Block* live = nullptr;
Block* quarantine = nullptr;

// The current watch.
bool watching = false;
unsigned watchNumber = 0;
DWORD watchThread = 0;
int allocations = 0;
int failFirst = 0;
int failLast = 0;
bool hasFailed = false;
std::size_t largest = 0;

class LockGuard {
 public:
  LockGuard() { AcquireSRWLockExclusive(&lock); }
  ~LockGuard() { ReleaseSRWLockExclusive(&lock); }
  LockGuard(const LockGuard&) = delete;
  LockGuard& operator=(const LockGuard&) = delete;
};

void Link(Block*& list, Block* block) {
  block->previous = nullptr;
  block->next = list;
  if (list != nullptr) {
    list->previous = block;
  }
  list = block;
}

void Unlink(Block*& list, Block* block) {
  if (block->previous != nullptr) {
    block->previous->next = block->next;
  } else {
    list = block->next;
  }
  if (block->next != nullptr) {
    block->next->previous = block->previous;
  }
}

const Block* Find(const Block* list, const void* address) {
  const auto wanted = reinterpret_cast<std::uintptr_t>(address);
  for (const Block* block = list; block != nullptr; block = block->next) {
    const auto begin = reinterpret_cast<std::uintptr_t>(block->data);
    if (wanted >= begin && wanted < begin + std::max<std::size_t>(block->size, 1)) {
      return block;
    }
  }
  return nullptr;
}

void* Memory(void* address) { return static_cast<std::byte*>(address) - kPrefix; }

Block* HeaderOf(void* address) {
  const auto data = reinterpret_cast<std::uintptr_t>(address);
  const std::size_t behind = (data - sizeof(Block)) % alignof(Block);
  return reinterpret_cast<Block*>(static_cast<std::byte*>(address) - sizeof(Block) - behind);
}

bool Counts() { return watching && GetCurrentThreadId() == watchThread && !TestScope::Active(); }

void* Allocate(std::size_t size) {
  LockGuard guard;
  const bool counted = Counts();
  if (counted) {
    ++allocations;
    largest = std::max(largest, size);
    if (allocations >= failFirst && allocations <= failLast) {
      hasFailed = true;
      return nullptr;
    }
  }
  if (size > SIZE_MAX - kPrefix) {
    return nullptr;
  }
  auto* memory = static_cast<std::byte*>(std::malloc(kPrefix + size));
  if (memory == nullptr) {
    return nullptr;
  }
  void* address = memory + kPrefix;
  auto* block = new (HeaderOf(address)) Block;
  block->data = address;
  block->size = size;
  block->counted = counted;
  block->watch = watchNumber;
  Link(live, block);
  return address;
}

// The heap of the checked build gives no address out twice, and takes the memory of a freed block
// away so that a use ends the program. So there a copy of the header is all that is kept.
#ifdef NIMBRA_CHECKED
constexpr bool kKeepsMemory = false;
#else
constexpr bool kKeepsMemory = true;
#endif

// Sets a freed block aside while the watch lasts.
void Retire(Block* block, void* address) {
  if (kKeepsMemory) {
    Link(quarantine, block);
    return;
  }
  if (void* copy = std::malloc(sizeof(Block)); copy != nullptr) {
    Link(quarantine, new (copy) Block(*block));
  }
  std::free(Memory(address));
}

void Free(void* address) {
  if (address == nullptr) {
    return;
  }
  LockGuard guard;
  Block* block = HeaderOf(address);
  Unlink(live, block);
  std::memset(address, kFreedFill, block->size);
  if (watching) {
    Retire(block, address);
  } else {
    std::free(Memory(address));
  }
}

template <typename Visit>
void ForEachCounted(Visit visit) {
  for (const Block* block = live; block != nullptr; block = block->next) {
    if (block->counted && block->watch == watchNumber) {
      visit(*block);
    }
  }
}

}  // namespace

HeapWatch::HeapWatch() {
  LockGuard guard;
  if (watching) {
    std::abort();
  }
  watching = true;
  ++watchNumber;
  watchThread = GetCurrentThreadId();
  allocations = 0;
  failFirst = failLast = 0;
  hasFailed = false;
  largest = 0;
}

HeapWatch::~HeapWatch() {
  LockGuard guard;
  watching = false;
  while (quarantine != nullptr) {
    Block* block = quarantine;
    Unlink(quarantine, block);
    std::free(kKeepsMemory ? Memory(block->data) : block);
  }
}

void HeapWatch::FailAllocation(int n) {
  LockGuard guard;
  failFirst = failLast = allocations + n;
  hasFailed = false;
}

void HeapWatch::FailAllocationsFrom(int n) {
  LockGuard guard;
  failFirst = allocations + n;
  failLast = INT_MAX;
  hasFailed = false;
}

void HeapWatch::StopFailing() {
  LockGuard guard;
  failFirst = failLast = 0;
}

bool HeapWatch::Failed() const {
  LockGuard guard;
  return hasFailed;
}

int HeapWatch::Allocations() const {
  LockGuard guard;
  return allocations;
}

int HeapWatch::LiveBlocks() const {
  LockGuard guard;
  int count = 0;
  ForEachCounted([&](const Block&) { ++count; });
  return count;
}

std::size_t HeapWatch::LiveBytes() const {
  LockGuard guard;
  std::size_t bytes = 0;
  ForEachCounted([&](const Block& block) { bytes += block.size; });
  return bytes;
}

std::size_t HeapWatch::LargestAllocation() const {
  LockGuard guard;
  return largest;
}

bool HeapWatch::IsAllocated(const void* address) {
  LockGuard guard;
  return Find(live, address) != nullptr;
}

bool HeapWatch::WasFreed(const void* address) {
  LockGuard guard;
  return Find(quarantine, address) != nullptr;
}

std::size_t HeapWatch::BlockSize(const void* address) {
  LockGuard guard;
  const Block* block = Find(live, address);
  return block != nullptr && block->data == address ? block->size : 0;
}

}  // namespace nimbra_test

// The replaced allocation functions. The array and sized forms of the standard library forward to
// these, except the sized delete.
void* operator new(std::size_t size) {
  void* address = nimbra_test::Allocate(size);
  if (address == nullptr) {
    throw std::bad_alloc();
  }
  return address;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return nimbra_test::Allocate(size);
}

void operator delete(void* address) noexcept { nimbra_test::Free(address); }

void operator delete(void* address, std::size_t) noexcept { nimbra_test::Free(address); }

void operator delete(void* address, const std::nothrow_t&) noexcept { nimbra_test::Free(address); }
