#ifndef NIMBRA_SIMULATOR_FILTER_PLACEHOLDER_RANGES_H_
#define NIMBRA_SIMULATOR_FILTER_PLACEHOLDER_RANGES_H_

// How calls name the part of a file that they are about.

#include <algorithm>
#include <cstdint>

#include "codes.h"
#include "range-set.h"

namespace cloud_filter {

inline constexpr std::int64_t kToEnd = -1;

// `offset` must not be negative.
inline Range RangeFrom(std::int64_t offset, std::int64_t length, std::int64_t size) {
  const auto end = length == kToEnd || length > size - offset ? size : offset + length;
  return {offset, std::max(end, offset)};
}

// Guessed: as for updates, what is dropped is whole pages, or reaches the end.
inline bool IsDehydratable(std::int64_t offset, std::int64_t length, std::int64_t size) {
  if (offset < 0 || length < kToEnd || offset % kPage != 0) return false;
  return length == kToEnd || length % kPage == 0 || length >= size - offset;
}

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_PLACEHOLDER_RANGES_H_
