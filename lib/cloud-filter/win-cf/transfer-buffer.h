#ifndef NIMBRA_WIN_CF_TRANSFER_BUFFER_H_
#define NIMBRA_WIN_CF_TRANSFER_BUFFER_H_

#include <cstddef>

#include "common/owners.h"

namespace corvdrive::cloud_filter {

struct PagesTraits {
  using Type = void*;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type pages) noexcept { VirtualFree(pages, 0, MEM_RELEASE); }
};
using UniquePages = UniqueResource<PagesTraits>;

// What the chunks of one transfer are read into, for that transfer alone. The system makes fresh
// pages one by one as they are touched, which takes longer than reading a cached file into them. So
// one buffer of the process is kept when its transfer ends, for the next one.
class TransferBuffer {
 public:
  static constexpr std::size_t kSize = std::size_t{4} << 20;

  TransferBuffer() noexcept = default;
  ~TransferBuffer();
  TransferBuffer(const TransferBuffer&) = delete;
  TransferBuffer& operator=(const TransferBuffer&) = delete;

  // Takes the kept buffer or fresh pages, whichever is ready sooner for a first chunk of that
  // length, or what there is. False with the last error when there is nothing. To be called once.
  [[nodiscard]] bool Obtain(std::size_t length) noexcept;

  // Where a chunk of that length is to be written, and no byte behind it: those are zero.
  [[nodiscard]] void* PrepareChunk(std::size_t length) noexcept;

 private:
  // Takes the kept buffer if it is wanted as dirty as it is.
  template <typename Predicate>
  [[nodiscard]] bool TakeKept(Predicate isWanted) noexcept;

  UniquePages pages_;
  // From here on all bytes are zero. What a chunk is written to counts as dirty from before it is
  // written, so also where that fails halfway or is left by an exception.
  std::size_t dirtyEnd_ = 0;
};

// Frees the buffer that is kept, if there is one. Those of running transfers are not touched.
void FreeKeptTransferBuffer() noexcept;

}  // namespace corvdrive::cloud_filter

#endif
