#include "tests/guard-heap/guard-heap.h"

#include <windows.h>

#include <algorithm>
#include <cstring>

// Nothing here may allocate, and nothing may go through the module's imports once the heap is in
// use: tests count and replace those.

namespace nimbra_test::guard_heap {
namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kChunkPages = (std::size_t{256} << 20) / kPage;
constexpr std::size_t kMostChunks = 1024;
// The largest request that is worth asking the system for.
constexpr std::size_t kMostBytes = std::size_t{1} << 36;
// Linux limits the mappings of a process to 65530, and each block under Wine takes two.
constexpr int kMostLive = 24000;

constexpr unsigned char kNewFill = 0xCD;
constexpr unsigned char kFence = 0xFD;
constexpr std::size_t kFrontFence = 64;
constexpr std::size_t kDefaultAlignment = 16;

// Stands at the index of the page that its block begins in. No two blocks share a page.
struct Record {
  std::uintptr_t address;
  std::size_t size;
  std::uint32_t firstPage;
  std::uint32_t pages;
  bool live;
};

// A range of addresses, handed out from the front and never a second time.
struct Chunk {
  std::uintptr_t base;
  std::size_t pages;
  std::size_t used;
  Record* records;
};

struct System {
  decltype(&::VirtualAlloc) allocate;
  decltype(&::VirtualFree) free;
  decltype(&::AcquireSRWLockExclusive) lock;
  decltype(&::ReleaseSRWLockExclusive) unlock;
};

System windows;
SRWLOCK lock = SRWLOCK_INIT;
Chunk chunks[kMostChunks];
std::size_t chunkCount = 0;
int liveBlocks = 0;

class Locked {
 public:
  Locked() { windows.lock(&lock); }
  ~Locked() { windows.unlock(&lock); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;
};

bool AddChunk(std::size_t pages) {
  if (chunkCount == kMostChunks) {
    return false;
  }
  void* base = windows.allocate(nullptr, pages * kPage, MEM_RESERVE, PAGE_NOACCESS);
  // Pages of it that are never touched cost nothing.
  void* records =
      windows.allocate(nullptr, pages * sizeof(Record), MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
  if (base == nullptr || records == nullptr) {
    return false;
  }
  chunks[chunkCount++] = {reinterpret_cast<std::uintptr_t>(base), pages, 0,
                          static_cast<Record*>(records)};
  return true;
}

// `size` bytes that end at the end of the last page or, for the alignment, shortly before.
Record* TakePages(std::size_t size, std::size_t alignment) {
  const std::size_t padded = (size + alignment - 1) / alignment * alignment;
  const std::size_t pages = std::max<std::size_t>(1, (padded + kPage - 1) / kPage);
  const std::size_t taken = pages + 1;
  if (chunkCount == 0 || chunks[chunkCount - 1].used + taken > chunks[chunkCount - 1].pages) {
    if (!AddChunk(std::max(kChunkPages, taken))) {
      return nullptr;
    }
  }
  Chunk& chunk = chunks[chunkCount - 1];
  const std::size_t first = chunk.used;
  const std::uintptr_t address = chunk.base + (first + pages) * kPage - padded;
  if (windows.allocate(reinterpret_cast<void*>(chunk.base + first * kPage), pages * kPage,
                       MEM_COMMIT, PAGE_READWRITE) == nullptr) {
    return nullptr;
  }
  chunk.used += taken;
  Record& record = chunk.records[(address - chunk.base) / kPage];
  record = {address, size, static_cast<std::uint32_t>(first), static_cast<std::uint32_t>(pages),
            true};
  return &record;
}

Chunk* ChunkOf(std::uintptr_t address) {
  for (std::size_t i = 0; i < chunkCount; ++i) {
    Chunk& chunk = chunks[i];
    if (address >= chunk.base && address < chunk.base + chunk.used * kPage) {
      return &chunk;
    }
  }
  return nullptr;
}

// The record of the page that the address lies in, or null outside the heap.
Record* RecordOf(const void* address, Chunk** in = nullptr) {
  const auto wanted = reinterpret_cast<std::uintptr_t>(address);
  Chunk* chunk = ChunkOf(wanted);
  if (in != nullptr) {
    *in = chunk;
  }
  return chunk != nullptr ? &chunk->records[(wanted - chunk->base) / kPage] : nullptr;
}

struct Fences {
  unsigned char* front;
  std::size_t frontSize;
  unsigned char* back;
  std::size_t backSize;
};

Fences FencesOf(const Chunk& chunk, const Record& record) {
  const std::uintptr_t begin = chunk.base + record.firstPage * kPage;
  const std::uintptr_t end = begin + record.pages * kPage;
  const std::size_t frontSize = std::min<std::size_t>(record.address - begin, kFrontFence);
  return {reinterpret_cast<unsigned char*>(record.address - frontSize), frontSize,
          reinterpret_cast<unsigned char*>(record.address + record.size),
          end - record.address - record.size};
}

bool IsFence(const unsigned char* bytes, std::size_t count) {
  return std::all_of(bytes, bytes + count, [](unsigned char byte) { return byte == kFence; });
}

}  // namespace

void Initialise() {
  windows = {&::VirtualAlloc, &::VirtualFree, &::AcquireSRWLockExclusive,
             &::ReleaseSRWLockExclusive};
}

// The compiler and the C++ library count on 16 for what can hold an object of 8 bytes or a multiple
// of them. Texts and arrays of small things have other sizes: those blocks are exact to the byte.
std::size_t NaturalAlignment(std::size_t size) {
  return size % 8 == 0 ? kDefaultAlignment : size & (~size + 1);
}

void* Allocate(std::size_t size, std::size_t alignment) {
  if (size > kMostBytes || alignment > kPage) {
    return nullptr;
  }
  Record made;
  Fences fences;
  {
    Locked locked;
    const Record* record = liveBlocks < kMostLive ? TakePages(size, alignment) : nullptr;
    if (record == nullptr) {
      return nullptr;
    }
    ++liveBlocks;
    made = *record;
    fences = FencesOf(chunks[chunkCount - 1], made);
  }
  std::memset(fences.front, kFence, fences.frontSize);
  std::memset(fences.back, kFence, fences.backSize);
  std::memset(reinterpret_cast<void*>(made.address), kNewFill, size);
  return reinterpret_cast<void*>(made.address);
}

Ownership Find(const void* address) {
  Locked locked;
  const Record* record = RecordOf(address);
  if (record == nullptr) {
    return Ownership::kForeign;
  }
  if (record->address != reinterpret_cast<std::uintptr_t>(address)) {
    return Ownership::kInside;
  }
  return record->live ? Ownership::kLive : Ownership::kFreed;
}

std::size_t SizeOf(const void* address) {
  Locked locked;
  return RecordOf(address)->size;
}

bool IsIntact(const void* address) {
  Locked locked;
  Chunk* chunk = nullptr;
  const Record* record = RecordOf(address, &chunk);
  const Fences fences = FencesOf(*chunk, *record);
  return IsFence(fences.front, fences.frontSize) && IsFence(fences.back, fences.backSize);
}

void Free(void* address) {
  Locked locked;
  Chunk* chunk = nullptr;
  Record* record = RecordOf(address, &chunk);
  record->live = false;
  --liveBlocks;
  windows.free(reinterpret_cast<void*>(chunk->base + record->firstPage * kPage),
               record->pages * kPage, MEM_DECOMMIT);
}

bool FindNearest(std::uintptr_t address, Block* block) {
  Locked locked;
  const Chunk* chunk = ChunkOf(address);
  if (chunk == nullptr) {
    return false;
  }
  std::size_t page = (address - chunk->base) / kPage;
  // Shortly in front of a block lies the end of the page behind its neighbour.
  const bool latePart = address % kPage >= kPage / 2;
  if (latePart && chunk->records[page].address == 0 && page + 1 < chunk->used &&
      chunk->records[page + 1].firstPage == page + 1 && chunk->records[page + 1].address != 0) {
    ++page;
  }
  while (page > 0 && chunk->records[page].address == 0) {
    --page;
  }
  const Record& record = chunk->records[page];
  *block = {record.address, record.size, record.live};
  return record.address != 0;
}

}  // namespace nimbra_test::guard_heap
