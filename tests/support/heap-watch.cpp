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

// Stands in front of every block of the C++ heap; as large as a multiple of the alignment that new
// promises.
struct alignas(64) Block {
  Block* previous;
  Block* next;
  std::size_t size;
  // Made on the watching thread during the current watch.
  bool counted;
  unsigned watch;
};

constexpr unsigned char kFreedFill = 0xDD;

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
    const auto begin = reinterpret_cast<std::uintptr_t>(block + 1);
    if (wanted >= begin && wanted < begin + std::max<std::size_t>(block->size, 1)) {
      return block;
    }
  }
  return nullptr;
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
  if (size > SIZE_MAX - sizeof(Block)) {
    return nullptr;
  }
  auto* block = static_cast<Block*>(std::malloc(sizeof(Block) + size));
  if (block == nullptr) {
    return nullptr;
  }
  block->size = size;
  block->counted = counted;
  block->watch = watchNumber;
  Link(live, block);
  return block + 1;
}

void Free(void* address) {
  if (address == nullptr) {
    return;
  }
  LockGuard guard;
  Block* block = static_cast<Block*>(address) - 1;
  Unlink(live, block);
  std::memset(address, kFreedFill, block->size);
  if (watching) {
    Link(quarantine, block);
  } else {
    std::free(block);
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
    std::free(block);
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
  return block != nullptr && block + 1 == address ? block->size : 0;
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
