#ifndef NIMBRA_TESTS_SUPPORT_IMAGE_FILES_H_
#define NIMBRA_TESTS_SUPPORT_IMAGE_FILES_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace nimbra_test {

// An image: row by row from the top, each pixel 0xAARRGGBB, which is a 32-bit BGRA bitmap's memory.
struct Picture {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::vector<std::uint32_t> pixels;

  bool operator==(const Picture&) const = default;
};

template <typename Colour>
Picture MakePicture(std::uint32_t width, std::uint32_t height, Colour colour) {
  Picture picture{width, height, {}};
  picture.pixels.reserve(std::size_t{width} * height);
  for (std::uint32_t y = 0; y < height; ++y) {
    for (std::uint32_t x = 0; x < width; ++x) {
      picture.pixels.push_back(colour(x, y));
    }
  }
  return picture;
}

// An image whose pixels are numbers of colours.
struct PalettedPicture {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::vector<std::uint32_t> palette;
  std::vector<std::uint8_t> indices;

  Picture Colours() const;
};

// An image of that many different colours, up to 256, all of them used when there is room.
PalettedPicture MakePaletted(std::uint32_t width, std::uint32_t height, std::size_t colours);

// The contents of image files, written from the formats' descriptions, without a codec.

// 24 bits, or 16 (5 a colour), per pixel: the alpha values are lost.
std::string BmpFile(const Picture& picture, int bits);
// 32 bits per pixel, with alpha in a version 4 header.
std::string BmpFileWithAlpha(const Picture& picture);
// 1, 4 or 8 bits per pixel.
std::string BmpFile(const PalettedPicture& picture, int bits);

// Red, green and blue of 8 or 16 bits; the alpha values are lost.
std::string PngFile(const Picture& picture, int bits);
std::string PngFileWithAlpha(const Picture& picture);
// 1, 4 or 8 bits per pixel, with the palette's alpha values.
std::string PngFile(const PalettedPicture& picture, int bits);
// Grey of 8 bits: what the pixels have as blue.
std::string GreyPngFile(const Picture& picture);

// One frame for each picture; the first one's palette is all frames'.
std::string GifFile(const std::vector<PalettedPicture>& frames);

// One page for each picture, without compression or alpha.
std::string TiffFile(const std::vector<Picture>& pages);

// Grey; each block of 8 x 8 pixels has one value. The cosine transform of such a block is its
// first coefficient alone, and nothing is quantised: nothing is lost but by rounding.
std::string GreyJpegFile(std::uint32_t blocksAcross, std::uint32_t blocksDown,
                         const std::vector<std::uint8_t>& blocks);
Picture GreyJpegPixels(std::uint32_t blocksAcross, std::uint32_t blocksDown,
                       const std::vector<std::uint8_t>& blocks);

// Files that declare this size and hold next to nothing.
std::string BmpFileOfDeclaredSize(std::uint32_t width, std::uint32_t height);
std::string PngFileOfDeclaredSize(std::uint32_t width, std::uint32_t height);
std::string GifFileOfDeclaredSize(std::uint16_t width, std::uint16_t height);
std::string TiffFileOfDeclaredSize(std::uint32_t width, std::uint32_t height);

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_IMAGE_FILES_H_
