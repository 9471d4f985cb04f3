// The size of a bitmap against a count in numbers that are wide enough.

#include "feed.h"
#include "win-cf/bitmap-size.h"

using corvdrive::cloud_filter::BitmapBytes;
using nimbra_native::Require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  nimbra_native::Feed feed(data, size);
  const auto width = feed.Take<std::uint32_t>();
  const auto height = feed.Take<std::uint32_t>();
  const auto bytes = BitmapBytes(width, height);
  // Neither factor has more than 32 bits, so only the last step could overflow.
  const std::uint64_t pixels = std::uint64_t{width} * height;
  const bool fits = pixels != 0 && pixels < (std::uint64_t{1} << 30) &&
                    width < (std::uint32_t{1} << 31) && height < (std::uint32_t{1} << 31);
  Require(bytes.has_value() == fits, "all that fits and nothing else");
  Require(!bytes || (*bytes / 4 / width == height && *bytes % 4 == 0), "four bytes a pixel");
  return 0;
}
