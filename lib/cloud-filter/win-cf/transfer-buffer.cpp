#include "win-cf/transfer-buffer.h"

#include <algorithm>
#include <atomic>
#include <cstring>

namespace corvdrive::cloud_filter {
namespace {

// The one buffer that no transfer has. How far it is dirty stands in its first bytes, which makes
// these dirty, too. Freed when the module is unloaded.
class KeptPages {
 public:
  constexpr KeptPages() noexcept = default;
  ~KeptPages() { Take(); }
  KeptPages(const KeptPages&) = delete;
  KeptPages& operator=(const KeptPages&) = delete;

  UniquePages Take() noexcept {
    return UniquePages(pages_.exchange(nullptr, std::memory_order_acquire));
  }

  // Frees them if there are some already.
  void Put(UniquePages pages) noexcept {
    void* none = nullptr;
    if (pages_.compare_exchange_strong(none, pages.Get(), std::memory_order_release,
                                       std::memory_order_relaxed)) {
      static_cast<void>(pages.Release());
    }
  }

 private:
  std::atomic<void*> pages_ = nullptr;
};
constinit KeptPages kept;

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

}  // namespace

TransferBuffer::~TransferBuffer() {
  if (pages_.IsValid()) {
    dirtyEnd_ = std::max(dirtyEnd_, sizeof dirtyEnd_);
    std::memcpy(pages_.Get(), &dirtyEnd_, sizeof dirtyEnd_);
    kept.Put(std::move(pages_));
  }
}

bool TransferBuffer::Obtain(std::size_t length) noexcept {
  if (TakeKept([length](std::size_t dirtyEnd) { return IsWorthClearing(dirtyEnd, length); })) {
    return true;
  }
  // Zero, all of it, and free of charge until it is touched.
  pages_.Reset(VirtualAlloc(nullptr, kSize, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
  dirtyEnd_ = 0;
  if (pages_.IsValid()) {
    return true;
  }
  // Nobody shall fail for want of the memory that is kept.
  const DWORD error = GetLastError();
  const bool isTaken = TakeKept([](std::size_t) { return true; });
  SetLastError(error);
  return isTaken;
}

template <typename Predicate>
bool TransferBuffer::TakeKept(Predicate isWanted) noexcept {
  UniquePages pages = kept.Take();
  if (!pages.IsValid()) {
    return false;
  }
  const std::size_t dirtyEnd = DirtyEndOf(pages.Get());
  if (!isWanted(dirtyEnd)) {
    kept.Put(std::move(pages));
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

void FreeKeptTransferBuffer() noexcept { kept.Take(); }

}  // namespace corvdrive::cloud_filter
