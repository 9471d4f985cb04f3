#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "tests/unit/thumbnail-file-fixture.h"

// Images of formats that Windows decodes, compared with the pixels that the test put into them.
namespace nimbra_test {
namespace {

constexpr std::uint32_t kOpaque = 0xFF000000;

// Every colour is another one, and so is each channel.
std::uint32_t Gradient(std::uint32_t x, std::uint32_t y) {
  return kOpaque | (x * 37 + 11) % 256 << 16 | (y * 53 + 7) % 256 << 8 | (x * 5 + y * 91) % 256;
}

int Difference(std::uint32_t one, std::uint32_t other) {
  int largest = 0;
  for (int shift = 0; shift < 32; shift += 8) {
    const int channels =
        static_cast<int>(one >> shift & 0xFF) - static_cast<int>(other >> shift & 0xFF);
    largest = std::max(largest, std::abs(channels));
  }
  return largest;
}

// Whether the pixels are the same up to that difference in each channel.
testing::AssertionResult IsSame(const Picture& got, const Picture& wanted, int tolerance) {
  if (got.width != wanted.width || got.height != wanted.height) {
    return testing::AssertionFailure() << got.width << " x " << got.height;
  }
  for (std::size_t i = 0; i < wanted.pixels.size(); ++i) {
    if (Difference(got.pixels[i], wanted.pixels[i]) > tolerance) {
      return testing::AssertionFailure()
             << "pixel " << i % wanted.width << ", " << i / wanted.width << " is " << std::hex
             << got.pixels[i] << " instead of " << wanted.pixels[i];
    }
  }
  return testing::AssertionSuccess();
}

class ThumbnailPixelsTest : public ThumbnailFileTest {
 protected:
  void Expect(std::string_view name, const std::string& content, const Picture& wanted,
              int tolerance = 0) {
    SCOPED_TRACE(name);
    log_.Clear();
    const std::size_t sections = bitmaps_.Sections().size();
    const Thumbnail thumbnail = AskAbout(name, content);
    const BitmapOwner bitmap(thumbnail.bitmap);
    ASSERT_THAT(thumbnail, IsThumbnail());
    EXPECT_TRUE(IsSame(PixelsOf(bitmap.Get()), wanted, tolerance));
    EXPECT_THAT(log_.Lines(), testing::ElementsAre(IsDoneLine()));
    ASSERT_EQ(bitmaps_.Sections().size(), sections + 1);
    EXPECT_EQ(bitmaps_.Sections().back().header.biHeight, -static_cast<LONG>(wanted.height));
  }
};

TEST_F(ThumbnailPixelsTest, OnePixelIsOnePixel) {
  const Picture picture{1, 1, {0xFF336699}};
  Expect("one.bmp", BmpFile(picture, 24), picture);
  Expect("one.png", PngFile(picture, 8), picture);
  Expect("one.tif", TiffFile({picture}), picture);
  const PalettedPicture paletted{1, 1, {0xFF336699, kOpaque}, {0}};
  Expect("one.gif", GifFile({paletted}), paletted.Colours());
}

TEST_F(ThumbnailPixelsTest, ImagesOf24BitsAreOpaque) {
  // Row lengths of every remainder by four.
  for (const std::uint32_t width : {60U, 61U, 62U, 63U}) {
    const Picture picture = MakePicture(width, 31, Gradient);
    Expect("rgb.bmp", BmpFile(picture, 24), picture);
    Expect("rgb.png", PngFile(picture, 8), picture);
    Expect("rgb.tif", TiffFile({picture}), picture);
  }
}

TEST_F(ThumbnailPixelsTest, PalettedImagesHaveTheirColours) {
  for (const int bits : {1, 4, 8}) {
    SCOPED_TRACE(bits);
    const PalettedPicture picture = MakePaletted(67, 45, std::size_t{1} << bits);
    Expect("palette.bmp", BmpFile(picture, bits), picture.Colours());
    Expect("palette.png", PngFile(picture, bits), picture.Colours());
  }
  const PalettedPicture picture = MakePaletted(67, 45, 256);
  Expect("palette.gif", GifFile({picture}), picture.Colours());
}

TEST_F(ThumbnailPixelsTest, PaletteMayBeTranslucent) {
  PalettedPicture picture = MakePaletted(9, 7, 16);
  for (std::uint32_t i = 0; i < picture.palette.size(); ++i) {
    picture.palette[i] = (picture.palette[i] & 0xFFFFFF) | i * 17 << 24;
  }
  Expect("translucent.png", PngFile(picture, 4), picture.Colours());
}

TEST_F(ThumbnailPixelsTest, ImagesOf16BitsAPixelHaveTheirColours) {
  // Shares of 31 whose share of 255 is the same however it is rounded.
  constexpr std::uint32_t kLevels[] = {0, 8, 247, 255};
  const Picture picture = MakePicture(13, 9, [&](std::uint32_t x, std::uint32_t y) {
    return kOpaque | kLevels[x % 4] << 16 | kLevels[y % 4] << 8 | kLevels[(x + y / 4) % 4];
  });
  Expect("16.bmp", BmpFile(picture, 16), picture);
}

TEST_F(ThumbnailPixelsTest, ImagesOf16BitsAChannelHaveTheirColours) {
  const Picture picture = MakePicture(33, 21, Gradient);
  Expect("16.png", PngFile(picture, 16), picture);
}

TEST_F(ThumbnailPixelsTest, GreyImagesAreGrey) {
  const Picture picture = MakePicture(16, 16, [](std::uint32_t x, std::uint32_t y) {
    const std::uint32_t grey = y * 16 + x;
    return kOpaque | grey << 16 | grey << 8 | grey;
  });
  Expect("grey.png", GreyPngFile(picture), picture);
}

TEST_F(ThumbnailPixelsTest, AlphaIsKeptAsItIs) {
  const Picture picture = MakePicture(64, 64, [](std::uint32_t x, std::uint32_t y) {
    return (Gradient(x, y) & 0xFFFFFF) | (y * 64 + x) % 256 << 24;
  });
  Expect("alpha.png", PngFileWithAlpha(picture), picture);
  Expect("alpha.bmp", BmpFileWithAlpha(picture), picture);
}

TEST_F(ThumbnailPixelsTest, AnimationGivesItsFirstFrame) {
  const PalettedPicture first = MakePaletted(20, 10, 256);
  PalettedPicture second = first;
  PalettedPicture third = first;
  for (std::size_t i = 0; i < first.indices.size(); ++i) {
    second.indices[i] = static_cast<std::uint8_t>(first.indices[i] + 1);
    third.indices[i] = static_cast<std::uint8_t>(first.indices[i] + 2);
  }
  Expect("animation.gif", GifFile({first, second, third}), first.Colours());
  Expect("animation.gif", GifFile({third, first}), third.Colours());
}

TEST_F(ThumbnailPixelsTest, DocumentGivesItsFirstPage) {
  const Picture first = MakePicture(20, 10, Gradient);
  const Picture second = MakePicture(31, 17, [](auto x, auto y) { return Gradient(y, x); });
  Expect("pages.tif", TiffFile({first, second, first}), first);
  Expect("pages.tif", TiffFile({second, first}), second);
}

TEST_F(ThumbnailPixelsTest, PhotographHasItsValues) {
  std::vector<std::uint8_t> blocks;
  for (std::uint32_t i = 0; i < 15 * 11; ++i) {
    blocks.push_back(static_cast<std::uint8_t>(i * 97 % 256));
  }
  // Decoders may round the result of the cosine transform, a whole number here, either way.
  Expect("photo.jpg", GreyJpegFile(15, 11, blocks), GreyJpegPixels(15, 11, blocks), 1);
}

TEST_F(ThumbnailPixelsTest, LargeImageComesWhole) {
  const PalettedPicture picture = MakePaletted(8000, 6000, 256);
  Expect("large.bmp", BmpFile(picture, 8), picture.Colours());
}

TEST_F(ThumbnailPixelsTest, LongAndNarrowImagesComeWhole) {
  const Picture flat = MakePicture(10'000, 1, Gradient);
  const Picture tall = MakePicture(1, 10'000, Gradient);
  Expect("flat.png", PngFile(flat, 8), flat);
  Expect("tall.bmp", BmpFile(tall, 24), tall);
}

TEST_F(ThumbnailPixelsTest, ContentDecidesNotTheName) {
  const Picture picture = MakePicture(12, 12, Gradient);
  Expect("really-png.jpg", PngFile(picture, 8), picture);
  Expect("really-bmp.txt", BmpFile(picture, 24), picture);
  Expect("no-extension", TiffFile({picture}), picture);
  Expect("Vorschau \xC3\xA4\xE4\xB8\x96 (1).exe", PngFile(picture, 8), picture);
}

TEST_F(ThumbnailPixelsTest, ImageIsFreeAgainAfterwards) {
  const std::string path = folder_.WriteFile("x.png", PngFile(Picture{1, 1, {kOpaque}}, 8));
  const BitmapOwner bitmap(AskAbout(path).bitmap);
  ASSERT_NE(bitmap.Get(), nullptr);
  EXPECT_TRUE(DeleteFileW(Wide(path).c_str()));
}

}  // namespace
}  // namespace nimbra_test
