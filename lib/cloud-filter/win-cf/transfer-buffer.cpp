#include "win-cf/transfer-buffer.h"

#include <algorithm>
#include <atomic>
#include <cstring>

namespace corvdrive::cloud_filter {
namespace {

// The one buffer that no transfer has. How far it is dirty stands in its first bytes, which makes
// these dirty, too.
std::atomic<void*> kept = nullptr;

std::size_t DirtyEndOf(const void* pages) noexcept {
  std::size_t dirtyEnd = 0;
  std::memcpy(&dirtyEnd, pages, sizeof dirtyEnd);
  return dirtyEnd;
}

// Whether clearing a buffer behind a chunk takes no longer than having fresh pages made for it:
// that takes as long as clearing these many bytes, and for each byte of the chunk these many more.
bool IsWorthClearing(std::size_t dirtyEnd, std::size_t length) noexcept {
  constexpr std::size_t kForAny = 65536;
  constexpr std::size_t kForEachByte = 8;
  return dirtyEnd <= length || dirtyEnd - length <= kForAny + kForEachByte * length;
}

// Keeps a buffer if none is kept, else frees it.
void Keep(UniquePages pages) noexcept {
  void* none = nullptr;
  if (kept.compare_exchange_strong(none, pages.Get(), std::memory_order_release,
                                   std::memory_order_relaxed)) {
    static_cast<void>(pages.Release());
  }
}

}  // namespace

TransferBuffer::~TransferBuffer() {
  if (pages_.IsValid()) {
    dirtyEnd_ = std::max(dirtyEnd_, sizeof dirtyEnd_);
    std::memcpy(pages_.Get(), &dirtyEnd_, sizeof dirtyEnd_);
    Keep(std::move(pages_));
  }
}

bool TransferBuffer::Obtain(std::size_t length) noexcept {
  if (!TakeKept(length)) {
    // Zero, all of it, and free of charge until it is touched.
    pages_.Reset(VirtualAlloc(nullptr, kSize, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
  }
  return pages_.IsValid();
}

bool TransferBuffer::TakeKept(std::size_t length) noexcept {
  UniquePages pages(kept.exchange(nullptr, std::memory_order_acquire));
  if (!pages.IsValid()) {
    return false;
  }
  const std::size_t dirtyEnd = DirtyEndOf(pages.Get());
  if (!IsWorthClearing(dirtyEnd, length)) {
    Keep(std::move(pages));
    return false;
  }
  pages_ = std::move(pages);
  dirtyEnd_ = dirtyEnd;
  return true;
}

void* TransferBuffer::PrepareChunk(std::size_t length) noexcept {
  if (dirtyEnd_ > length) {
    std::memset(static_cast<std::byte*>(pages_.Get()) + length, 0, dirtyEnd_ - length);
  }
  dirtyEnd_ = length;
  return pages_.Get();
}

void FreeKeptTransferBuffer() noexcept {
  const UniquePages pages(kept.exchange(nullptr, std::memory_order_acquire));
}

}  // namespace corvdrive::cloud_filter
