#ifndef NIMBRA_COMMON_SMALL_BUFFER_H_
#define NIMBRA_COMMON_SMALL_BUFFER_H_

#include <cstddef>
#include <memory>
#include <new>

#include "common/exception-state.h"

namespace corvdrive::cloud_filter {

// Memory for one call: within the object, that is on the stack, for the usual sizes, and a block of
// the heap for larger ones.
template <typename Element, std::size_t kUsualSize>
class SmallBuffer {
 public:
  // The compiler's own would be the same, but would clear the memory where it is asked for a value.
  SmallBuffer() noexcept {}  // NOLINT(modernize-use-equals-default)
  SmallBuffer(const SmallBuffer&) = delete;
  SmallBuffer& operator=(const SmallBuffer&) = delete;

  // Room for so many elements, which are not cleared; null when there is no memory. To be called
  // once.
  [[nodiscard]] Element* Reserve(std::size_t size) noexcept {
    if (size <= kUsualSize) {
      return inline_;
    }
    PrepareExceptionState();  // which the new below needs inside
    heap_.reset(new (std::nothrow) Element[size]);
    return heap_.get();
  }

 private:
  Element inline_[kUsualSize];
  std::unique_ptr<Element[]> heap_;
};

}  // namespace corvdrive::cloud_filter

#endif
