#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "tests/support/handle-census.h"
#include "tests/support/heap-watch.h"
#include "tests/unit/thumbnail-file-fixture.h"

// Files that are no images, or bad ones: a failure and its line, and nothing stays behind.
namespace nimbra_test {
namespace {

using testing::ElementsAre;

Picture SmallPicture() {
  return MakePicture(64, 48, [](std::uint32_t x, std::uint32_t y) {
    return 0xFF000000 | x * 4 << 16 | y * 5 << 8 | (x ^ y);
  });
}

class ThumbnailHostileTest : public ThumbnailFileTest {
 protected:
  // The failure is whatever the imaging component gives.
  void ExpectRefused(std::string_view name, std::string_view content) {
    SCOPED_TRACE(name);
    log_.Clear();
    const Thumbnail thumbnail = AskAbout(name, content);
    EXPECT_LT(thumbnail.result, 0);
    EXPECT_THAT(thumbnail, IsFailedThumbnail(thumbnail.result));
    EXPECT_THAT(log_.Lines(),
                ElementsAre(IsLine("WICCreate32bppHBITMAP: " + std::to_string(thumbnail.result))));
    EXPECT_EQ(bitmaps_.Alive(), 0);
    EXPECT_TRUE(DeleteFileW(Wide(folder_.Item(name)).c_str())) << "the file is still open";
  }
  // Whatever the decoder makes of the content, the outputs and the log agree with the result.
  void ExpectAnswered(std::string_view name, std::string_view content) {
    SCOPED_TRACE(name);
    log_.Clear();
    const Thumbnail thumbnail = AskAbout(name, content);
    const BitmapOwner bitmap(thumbnail.bitmap);
    if (thumbnail.result < 0) {
      EXPECT_THAT(thumbnail, IsFailedThumbnail(thumbnail.result));
      EXPECT_EQ(bitmaps_.Alive(), 0);
    } else {
      EXPECT_THAT(thumbnail, IsThumbnail());
      EXPECT_EQ(bitmaps_.Alive(), 1);
    }
    EXPECT_EQ(log_.Lines().size(), 1U);
    EXPECT_TRUE(DeleteFileW(Wide(folder_.Item(name)).c_str())) << "the file is still open";
  }
};

TEST_F(ThumbnailHostileTest, EmptyFilesAndJunkAreRefused) {
  ExpectRefused("empty.png", "");
  ExpectRefused("byte.png", "\x89");
  ExpectRefused("zeros.bmp", std::string(4096, '\0'));
  ExpectRefused("text.jpg", "This is no image, whatever its name says.\r\n");
  std::string junk;
  for (std::uint32_t i = 0, value = 1; i < 65536; ++i) {
    value = value * 1664525 + 1013904223;
    junk.push_back(static_cast<char>(value >> 24));
  }
  ExpectRefused("junk.gif", junk);
}

TEST_F(ThumbnailHostileTest, MarkersAloneAreRefused) {
  ExpectRefused("marker.png", "\x89PNG\r\n\x1A\n");
  ExpectRefused("marker.gif", "GIF89a");
  ExpectRefused("marker.bmp", "BM");
  ExpectRefused("marker.tif", std::string_view("II*\0\x08\0\0\0", 8));
  ExpectRefused("marker.jpg", "\xFF\xD8\xFF");
}

TEST_F(ThumbnailHostileTest, ImagesCutAnywhereAreAnswered) {
  const PalettedPicture paletted = MakePaletted(64, 48, 256);
  const std::pair<std::string_view, std::string> files[] = {
      {"cut.png", PngFile(SmallPicture(), 8)},
      {"cut.bmp", BmpFile(SmallPicture(), 24)},
      {"cut.gif", GifFile({paletted})},
      {"cut.tif", TiffFile({SmallPicture()})},
      {"cut.jpg", GreyJpegFile(2, 2, {1, 50, 100, 200})},
  };
  for (const auto& [name, content] : files) {
    for (int part = 1; part < 16; ++part) {
      SCOPED_TRACE(part);
      const std::size_t size = content.size() * static_cast<std::size_t>(part) / 16;
      ExpectAnswered(name, std::string_view(content).substr(0, size));
    }
  }
}

TEST_F(ThumbnailHostileTest, HeadersWithoutPixelsAreRefused) {
  ExpectRefused("cut.png", PngFile(SmallPicture(), 8).substr(0, 60));
  ExpectRefused("cut.bmp", BmpFile(SmallPicture(), 24).substr(0, 30));
}

TEST_F(ThumbnailHostileTest, FilesThatDeclareHugeSizesAreRefusedWithoutABitmap) {
  ExpectRefused("huge.png", PngFileOfDeclaredSize(100'000, 100'000));
  ExpectRefused("huge.bmp", BmpFileOfDeclaredSize(100'000, 100'000));
  ExpectRefused("huge.gif", GifFileOfDeclaredSize(65'535, 65'535));
  ExpectRefused("huge.tif", TiffFileOfDeclaredSize(100'000, 100'000));
  // A size that looks small once its bytes are counted in 32 bits.
  ExpectRefused("wrapped.png", PngFileOfDeclaredSize(65'537, 65'536));
  ExpectRefused("wrapped.bmp", BmpFileOfDeclaredSize(65'537, 65'536));
  ExpectRefused("wrapped.tif", TiffFileOfDeclaredSize(65'537, 65'536));
  ExpectRefused("most.png", PngFileOfDeclaredSize(0x7FFFFFFF, 0x7FFFFFFF));
  ExpectRefused("most.tif", TiffFileOfDeclaredSize(0xFFFFFFFF, 0xFFFFFFFF));
  EXPECT_THAT(bitmaps_.Sections(), testing::IsEmpty());
}

TEST_F(ThumbnailHostileTest, FilesThatDeclareNoSizeAreRefusedWithoutABitmap) {
  ExpectRefused("none.png", PngFileOfDeclaredSize(0, 0));
  ExpectRefused("none.bmp", BmpFileOfDeclaredSize(0, 0));
  ExpectRefused("none.tif", TiffFileOfDeclaredSize(0, 0));
  EXPECT_THAT(bitmaps_.Sections(), testing::IsEmpty());
}

TEST_F(ThumbnailHostileTest, EveryChangedByteOfAHeaderIsAnswered) {
  const std::string small = BmpFile(MakePicture(4, 4, [](auto, auto) { return 0xFF102030; }), 24);
  for (std::size_t at = 0; at < 54; ++at) {
    SCOPED_TRACE(at);
    std::string changed = small;
    changed[at] = static_cast<char>(~changed[at]);
    ExpectAnswered("changed.bmp", changed);
  }
}

TEST_F(ThumbnailHostileTest, MissingFileIsLoggedWithItsPath) {
  const std::string path = folder_.Item("nicht da \xC3\xA4.png");
  EXPECT_THAT(AskAbout(path), IsFailedThumbnail(0x80070002));
  EXPECT_THAT(log_.Lines(), ElementsAre(IsLine("SHCreateStreamOnFileW: -2147024894path: " + path)));
}

TEST_F(ThumbnailHostileTest, PathsThatNameNoFileAreRefusedWithTheirLine) {
  for (const std::string& path :
       {folder_.MakeFolder("folder"), folder_.Item(R"(no\such\file.png)"), std::string(R"(\\.\)"),
        std::string("???"), folder_.Item("x.png") + std::string(200, 'x')}) {
    log_.Clear();
    const Thumbnail thumbnail = AskAbout(path);
    EXPECT_LT(thumbnail.result, 0);
    EXPECT_THAT(thumbnail, IsFailedThumbnail(thumbnail.result));
    EXPECT_THAT(log_.Lines(),
                ElementsAre(IsLine("SHCreateStreamOnFileW: " + std::to_string(thumbnail.result) +
                                   "path: " + path)));
  }
}

TEST_F(ThumbnailHostileTest, PathsWithoutRoomForTheirEndAreRefusedWithTheirLine) {
  for (const std::size_t length : {259U, 260U}) {
    const std::string path = "C:\\" + std::string(length - 3, 'p');
    const Retriever retriever([&](const wchar_t*, wchar_t* imagePath) {
      std::copy_n(path.begin(), length, imagePath);
      return true;
    });
    const auto provider = Initialized();
    const Thumbnail thumbnail = Ask(*provider);
    EXPECT_LT(thumbnail.result, 0);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(IsLine("SHCreateStreamOnFileW: " + std::to_string(thumbnail.result) +
                                   "path: " + path)));
  }
}

TEST_F(ThumbnailHostileTest, FailuresLeaveNoHandleOpen) {
  const auto refuse = [&] {
    ExpectRefused("junk.png", "junk");
    ExpectRefused("huge.tif", TiffFileOfDeclaredSize(100'000, 100'000));
    AskAbout(folder_.Item("missing.png"));
  };
  refuse();
  const std::size_t before = OpenHandleCount();
  for (int i = 0; i < 20; ++i) refuse();
  EXPECT_EQ(OpenHandleCount(), before);
}

TEST_F(ThumbnailHostileTest, EveryFailingAllocationIsAResult) {
  // The line about a thumbnail that is done has no room on the stack.
  item_.BecomePath(LR"(C:\Sync\)" + std::wstring(600, L'i'));
  int withoutLine = 0;
  const std::string good = folder_.WriteFile("good.png", PngFile(SmallPicture(), 8));
  const std::string junk = folder_.WriteFile("junk.png", "junk");
  int failures = 0;
  for (const std::string& path : {good, junk, folder_.Item("missing.png")}) {
    SCOPED_TRACE(path);
    const HRESULT usual = [&] {
      const Thumbnail thumbnail = AskAbout(path);
      const BitmapOwner bitmap(thumbnail.bitmap);
      return thumbnail.result;
    }();
    const Retriever retriever(Wide(path));
    failures += ForEachFailingAllocation([&](auto&& watched, const bool& failed) {
      const auto provider = Initialized();
      Thumbnail thumbnail{};
      watched([&] { thumbnail = Ask(*provider); });
      const BitmapOwner bitmap(thumbnail.bitmap);
      // A bitmap that only its line is missing for is still given.
      EXPECT_TRUE(thumbnail.result == usual || (failed && thumbnail.result == E_OUTOFMEMORY));
      if (thumbnail.result == S_OK) {
        EXPECT_THAT(thumbnail, IsThumbnail());
        withoutLine += log_.Lines().empty() ? 1 : 0;
        log_.Clear();
      } else {
        EXPECT_THAT(thumbnail, IsFailedThumbnail(thumbnail.result));
      }
      EXPECT_EQ(bitmaps_.Alive(), thumbnail.result == S_OK ? 1 : 0);
    });
  }
  EXPECT_GE(failures, 2);
  EXPECT_GE(withoutLine, 1);
}

}  // namespace
}  // namespace nimbra_test
