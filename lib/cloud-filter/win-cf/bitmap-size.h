#ifndef NIMBRA_WIN_CF_BITMAP_SIZE_H_
#define NIMBRA_WIN_CF_BITMAP_SIZE_H_

#include <cstdint>
#include <limits>
#include <optional>

namespace corvdrive::cloud_filter {

// The bytes of a bitmap of 32 bits per pixel; nothing for one without pixels, or that is too large:
// its sides are signed 32-bit numbers to GDI, and its bytes are counted in 32 bits. Asked before
// anything is allocated, as an image file may declare any size.
[[nodiscard]] constexpr std::optional<std::uint32_t> BitmapBytes(std::uint32_t width,
                                                                 std::uint32_t height) {
  constexpr std::uint32_t kLongestSide = std::numeric_limits<std::int32_t>::max();
  constexpr std::uint64_t kMostPixels = std::numeric_limits<std::uint32_t>::max() / 4;
  if (width == 0 || height == 0 || width > kLongestSide || height > kLongestSide ||
      std::uint64_t{width} * height > kMostPixels) {
    return std::nullopt;
  }
  return width * height * 4;
}

}  // namespace corvdrive::cloud_filter

#endif
