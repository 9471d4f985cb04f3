#include <windows.h>

#include <shlwapi.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "tests/support/bitmap-watch.h"
#include "tests/support/import-double.h"
#include "tests/support/wic-double.h"
#include "tests/unit/thumbnail-fixture.h"

// How the provider works with the imaging component, of which the tests have one of their own.
namespace nimbra_test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;

constexpr wchar_t kImagePath[] = L"C:\\Cache\\Vorschau \u00E4.png";
constexpr char kBitmapSource[] = "QueryInterface {00000120-A8F2-4877-BA0A-FD2B6645FB94}";

class ThumbnailImagingTest : public ThumbnailTest {
 protected:
  // Everything that was handed out came back.
  void ExpectNothingLeft() {
    EXPECT_EQ(stream_.References(), 0U);
    EXPECT_EQ(wic_.factory.References(), 0U);
    EXPECT_EQ(wic_.decoder.References(), 0U);
    EXPECT_EQ(wic_.frame.References(), 0U);
    EXPECT_EQ(wic_.converter.References(), 0U);
  }
  // What the imaging was asked since the provider was initialised.
  std::vector<std::string> Calls() const {
    const auto entries = journal_.Entries();
    return {entries.begin() + 2, entries.end()};
  }

  StreamDouble stream_{journal_};
  WicDouble wic_{journal_};
  HRESULT openResult_ = S_OK;
  HRESULT createResult_ = S_OK;
  BitmapWatch bitmaps_;
  Retriever retriever_{std::wstring(kImagePath)};

 private:
  ImportDouble<"SHCreateStreamOnFileW", decltype(&::SHCreateStreamOnFileW)> open_{
      [this](auto, LPCWSTR path, DWORD mode, IStream** out) {
        journal_.Note("SHCreateStreamOnFileW " + Narrow(path) + ", " + std::to_string(mode));
        *out = nullptr;
        if (FAILED(openResult_)) return openResult_;
        stream_.AddRef();
        *out = &stream_;
        return S_OK;
      }};
  ImportDouble<"CoCreateInstance", decltype(&::CoCreateInstance)> create_{
      [this](auto, const IID& clsid, IUnknown* outer, DWORD context, const IID& iid, void** out) {
        journal_.Note("CoCreateInstance " + GuidText(clsid) + (outer != nullptr ? ", outer" : "") +
                      ", " + std::to_string(context) + ", " + GuidText(iid));
        *out = nullptr;
        if (FAILED(createResult_)) return createResult_;
        wic_.factory.AddRef();
        *out = static_cast<IWICImagingFactory*>(&wic_.factory);
        return S_OK;
      }};
};

const std::string kOpen = "SHCreateStreamOnFileW " + Narrow(kImagePath) + ", 0";
constexpr char kCreate[] =
    "CoCreateInstance {317D06E8-5F24-433D-BDF7-79CE68D8ABC2}, 1, "
    "{EC5EC8A9-C395-4314-9C77-54D7A935FF70}";
constexpr char kDecoder[] =
    "factory: CreateDecoderFromStream {F0E749CA-EDEF-4589-A73A-EE0E626A2A2B}, 0";

TEST_F(ThumbnailImagingTest, ImageInTheBitmapsFormatIsCopiedWithoutConverter) {
  wic_.script.width = 7;
  wic_.script.height = 5;
  const auto provider = Initialized();
  const Thumbnail thumbnail = Ask(*provider);
  const BitmapOwner bitmap(thumbnail.bitmap);

  EXPECT_THAT(thumbnail, IsThumbnail());
  EXPECT_THAT(Calls(),
              ElementsAre(kOpen, kCreate, kDecoder, "decoder: GetFrame 0", "frame: GetPixelFormat",
                          std::string("frame: ") + kBitmapSource, "frame: GetSize",
                          "frame: CopyPixels 0 0 7 5, 28, 140", "frame: gone", "decoder: gone",
                          "factory: gone", "stream: gone"));
  EXPECT_EQ(wic_.factory.stream, &stream_);
  EXPECT_EQ(PixelsOf(bitmap.Get()),
            MakePicture(7, 5, [](auto, auto) -> std::uint32_t { return 0x11111111; }));
  ExpectNothingLeft();
}

TEST_F(ThumbnailImagingTest, ImageInAnotherFormatIsConverted) {
  wic_.script.pixelFormat = GUID_WICPixelFormat24bppBGR;
  const auto provider = Initialized();
  const Thumbnail thumbnail = Ask(*provider);
  const BitmapOwner bitmap(thumbnail.bitmap);

  EXPECT_THAT(thumbnail, IsThumbnail());
  EXPECT_THAT(
      Calls(),
      ElementsAre(kOpen, kCreate, kDecoder, "decoder: GetFrame 0", "frame: GetPixelFormat",
                  "factory: CreateFormatConverter",
                  "converter: Initialize {6FDDC324-4E03-4BFE-B185-3D77768DC90F}, 0, no palette, "
                  "0.000000, 0",
                  std::string("converter: ") + kBitmapSource, "converter: GetSize",
                  "converter: CopyPixels 0 0 2 3, 8, 24", "converter: gone", "frame: gone",
                  "decoder: gone", "factory: gone", "stream: gone"));
  EXPECT_EQ(wic_.converter.source, &wic_.frame);
  EXPECT_EQ(PixelsOf(bitmap.Get()),
            MakePicture(2, 3, [](auto, auto) -> std::uint32_t { return 0x22222222; }));
  ExpectNothingLeft();
}

TEST_F(ThumbnailImagingTest, EveryOtherFormatIsConvertedHoweverSimilar) {
  for (const GUID& format :
       {GUID_WICPixelFormat32bppBGR, GUID_WICPixelFormat32bppPBGRA, GUID_WICPixelFormat32bppRGBA,
        GUID_WICPixelFormatDontCare, GUID_WICPixelFormat8bppIndexed}) {
    wic_.script.pixelFormat = format;
    const BitmapOwner bitmap(Ask(*Initialized()).bitmap);
    EXPECT_EQ(PixelsOf(bitmap.Get()).pixels.at(0), 0x22222222U) << GuidText(format);
  }
}

TEST_F(ThumbnailImagingTest, ImageOfUnreadableFormatIsCopiedAsItStands) {
  wic_.script.pixelFormat = GUID_WICPixelFormat24bppBGR;
  wic_.script.getPixelFormat = E_ACCESSDENIED;
  const Thumbnail thumbnail = Ask(*Initialized());
  const BitmapOwner bitmap(thumbnail.bitmap);
  EXPECT_THAT(thumbnail, IsThumbnail());
  EXPECT_EQ(PixelsOf(bitmap.Get()).pixels.at(0), 0x11111111U);
  EXPECT_THAT(Calls(), testing::Not(testing::Contains("factory: CreateFormatConverter")));
  ExpectNothingLeft();
}

TEST_F(ThumbnailImagingTest, SectionIsATopDownBitmapOf32Bits) {
  wic_.script.width = 300;
  wic_.script.height = 200;
  const BitmapOwner bitmap(Ask(*Initialized()).bitmap);
  ASSERT_EQ(bitmaps_.Sections().size(), 1U);
  const BitmapWatch::Section section = bitmaps_.Sections()[0];
  EXPECT_EQ(section.context, nullptr);
  EXPECT_EQ(section.usage, 0U);
  EXPECT_EQ(section.file, nullptr);
  EXPECT_EQ(section.offset, 0U);
  EXPECT_EQ(section.bitmap, bitmap.Get());
  EXPECT_EQ(static_cast<const void*>(wic_.frame.copiedTo), section.bits);
  BITMAPINFOHEADER header{};
  header.biSize = 40;
  header.biWidth = 300;
  header.biHeight = -200;
  header.biPlanes = 1;
  header.biBitCount = 32;
  EXPECT_EQ(std::memcmp(&section.header, &header, sizeof(header)), 0);
  EXPECT_EQ(bitmaps_.Alive(), 1);
}

TEST_F(ThumbnailImagingTest, AnyWantedSizeGivesTheSameBitmap) {
  const auto provider = Initialized();
  for (const UINT size : {0U, 1U, 96U, 256U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
    const Thumbnail thumbnail = Ask(*provider, size);
    const BitmapOwner bitmap(thumbnail.bitmap);
    EXPECT_THAT(thumbnail, IsThumbnail());
    EXPECT_EQ(PixelsOf(bitmap.Get()),
              MakePicture(2, 3, [](auto, auto) -> std::uint32_t { return 0x11111111; }));
  }
}

TEST_F(ThumbnailImagingTest, DoneLineNamesTheItemAndStandsBeforeTheStreamGoes) {
  const auto provider = Initialized();
  std::size_t linesWhenGone = 0;
  stream_.whenGone = [&] { linesWhenGone = log_.Lines().size(); };
  const BitmapOwner bitmap(Ask(*provider).bitmap);
  EXPECT_THAT(log_.Lines(), ElementsAre(IsDoneLine()));
  EXPECT_EQ(linesWhenGone, 1U);
}

TEST_F(ThumbnailImagingTest, FileThatCannotBeOpenedIsLoggedWithItsPath) {
  openResult_ = static_cast<HRESULT>(0x80030005);
  EXPECT_THAT(Ask(*Initialized()), IsFailedThumbnail(0x80030005));
  EXPECT_THAT(log_.Lines(),
              ElementsAre(IsLine("SHCreateStreamOnFileW: -2147287035path: " + Narrow(kImagePath))));
  EXPECT_THAT(Calls(), ElementsAre(kOpen));
}

TEST_F(ThumbnailImagingTest, PathMayFillTheBuffer) {
  for (const std::size_t length : {259U, 260U}) {
    const std::wstring path = L"C:\\" + std::wstring(length - 3, L'p');
    const Retriever retriever([&](const wchar_t*, wchar_t* imagePath) {
      // At 260 there is no room for the terminator.
      std::copy_n(path.c_str(), std::min<std::size_t>(length + 1, MAX_PATH), imagePath);
      return true;
    });
    const BitmapOwner bitmap(Ask(*Initialized()).bitmap);
    EXPECT_THAT(journal_.Entries(),
                testing::Contains("SHCreateStreamOnFileW " + Narrow(path) + ", 0"));
  }
}

// A step that fails, and what is released after it.
struct FailingStep {
  const char* name;
  void (*fail)(WicDouble& wic, HRESULT result);
  GUID format;
  std::vector<std::string> released;
};

void PrintTo(const FailingStep& step, std::ostream* out) { *out << step.name; }

const std::vector<std::string> kFromFrame = {"frame: gone", "decoder: gone", "factory: gone",
                                             "stream: gone"};
const std::vector<std::string> kFromConverter = {"converter: gone", "frame: gone", "decoder: gone",
                                                 "factory: gone", "stream: gone"};
const GUID kBgra = GUID_WICPixelFormat32bppBGRA;
const GUID kOther = GUID_WICPixelFormat8bppGray;

const FailingStep kFailingSteps[] = {
    {"Decoder",
     [](WicDouble& wic, HRESULT r) { wic.script.createDecoder = r; },
     kBgra,
     {"factory: gone", "stream: gone"}},
    {"Frame",
     [](WicDouble& wic, HRESULT r) { wic.script.getFrame = r; },
     kBgra,
     {"decoder: gone", "factory: gone", "stream: gone"}},
    {"Converter", [](WicDouble& wic, HRESULT r) { wic.script.createConverter = r; }, kOther,
     kFromFrame},
    {"Initialization", [](WicDouble& wic, HRESULT r) { wic.script.initialize = r; }, kOther,
     kFromConverter},
    {"SourceOfConverter", [](WicDouble& wic, HRESULT r) { wic.converter.queryResult = r; }, kOther,
     kFromConverter},
    {"SourceOfFrame", [](WicDouble& wic, HRESULT r) { wic.frame.queryResult = r; }, kBgra,
     kFromFrame},
    {"SizeOfFrame", [](WicDouble& wic, HRESULT r) { wic.script.getSize = r; }, kBgra, kFromFrame},
    {"SizeOfConverter", [](WicDouble& wic, HRESULT r) { wic.script.getSize = r; }, kOther,
     kFromConverter},
    {"CopyOfFrame", [](WicDouble& wic, HRESULT r) { wic.script.copyPixels = r; }, kBgra,
     kFromFrame},
    {"CopyOfConverter", [](WicDouble& wic, HRESULT r) { wic.script.copyPixels = r; }, kOther,
     kFromConverter},
};

class ThumbnailImagingFailureTest : public ThumbnailImagingTest,
                                    public testing::WithParamInterface<FailingStep> {};

TEST_P(ThumbnailImagingFailureTest, IsLoggedAndGivesEverythingBack) {
  constexpr auto kFailure = static_cast<HRESULT>(0x88982F50);
  wic_.script.pixelFormat = GetParam().format;
  GetParam().fail(wic_, kFailure);
  const auto provider = Initialized();
  std::size_t linesWhenGone = 0;
  stream_.whenGone = [&] { linesWhenGone = log_.Lines().size(); };

  EXPECT_THAT(Ask(*provider), IsFailedThumbnail(kFailure));

  EXPECT_THAT(log_.Lines(), ElementsAre(IsLine("WICCreate32bppHBITMAP: -2003292336")));
  EXPECT_EQ(linesWhenGone, 1U);
  EXPECT_EQ(bitmaps_.Alive(), 0);
  ExpectNothingLeft();
  auto calls = Calls();
  ASSERT_GE(calls.size(), GetParam().released.size());
  calls.erase(calls.begin(), calls.end() - static_cast<std::ptrdiff_t>(GetParam().released.size()));
  EXPECT_THAT(calls, ElementsAreArray(GetParam().released));
}

INSTANTIATE_TEST_SUITE_P(Every, ThumbnailImagingFailureTest, testing::ValuesIn(kFailingSteps),
                         testing::PrintToStringParamName());

TEST_F(ThumbnailImagingTest, MissingFactoryIsLoggedLikeEveryFailedStep) {
  createResult_ = static_cast<HRESULT>(0x80040154);
  EXPECT_THAT(Ask(*Initialized()), IsFailedThumbnail(0x80040154));
  EXPECT_THAT(log_.Lines(), ElementsAre(IsLine("WICCreate32bppHBITMAP: -2147221164")));
  EXPECT_THAT(Calls(), ElementsAre(kOpen, kCreate, "stream: gone"));
}

TEST_F(ThumbnailImagingTest, RefusedSectionIsOutOfMemory) {
  bitmaps_.RefuseSections();
  EXPECT_THAT(Ask(*Initialized()), IsFailedThumbnail(E_OUTOFMEMORY));
  EXPECT_THAT(log_.Lines(), ElementsAre(IsLine("WICCreate32bppHBITMAP: -2147024882")));
  EXPECT_EQ(wic_.frame.copiedTo, nullptr);
  EXPECT_THAT(bitmaps_.Deleted(), testing::IsEmpty());
  ExpectNothingLeft();
}

TEST_F(ThumbnailImagingTest, BitmapOfAFailedCopyIsDeleted) {
  wic_.script.copyPixels = E_FAIL;
  EXPECT_THAT(Ask(*Initialized()), IsFailedThumbnail(E_FAIL));
  ASSERT_EQ(bitmaps_.Sections().size(), 1U);
  EXPECT_THAT(bitmaps_.Deleted(), ElementsAre(bitmaps_.Sections()[0].bitmap));
}

TEST_F(ThumbnailImagingTest, ImageWithoutOrWithTooManyPixelsIsRefusedBeforeAnySection) {
  struct {
    UINT width, height;
  } const sizes[] = {{0, 1},
                     {1, 0},
                     {0, 0},
                     {0x40000000, 1},
                     {1, 0x40000000},
                     {65536, 16384},
                     {32768, 32768},
                     {65536, 65536},
                     {100000, 100000},
                     {0x7FFFFFFF, 2},
                     {0x80000000, 1},
                     {1, 0x80000000},
                     {0xFFFFFFFF, 1},
                     {1, 0xFFFFFFFF},
                     {0x80000000, 2},
                     {65537, 65537},
                     {0x10001, 0xFFFF},
                     {0, 0xFFFFFFFF},
                     {0x20000001, 8},
                     {0xFFFFFFFF, 0xFFFFFFFF}};
  for (const auto& size : sizes) {
    wic_.script.width = size.width;
    wic_.script.height = size.height;
    EXPECT_THAT(Ask(*Initialized()), IsFailedThumbnail(E_OUTOFMEMORY))
        << size.width << " x " << size.height;
    EXPECT_THAT(log_.Lines(), ElementsAre(IsLine("WICCreate32bppHBITMAP: -2147024882")));
  }
  EXPECT_THAT(bitmaps_.Sections(), testing::IsEmpty());
  EXPECT_EQ(wic_.frame.copiedTo, nullptr);
  ExpectNothingLeft();
}

TEST_F(ThumbnailImagingTest, LargestImagesThat32BitsCountAreAskedOfTheSystem) {
  bitmaps_.RefuseSections();
  struct {
    UINT width, height;
  } const sizes[] = {{0x3FFFFFFF, 1}, {1, 0x3FFFFFFF}, {65535, 16384}, {32767, 32768}};
  for (const auto& size : sizes) {
    wic_.script.width = size.width;
    wic_.script.height = size.height;
    EXPECT_THAT(Ask(*Initialized()), IsFailedThumbnail(E_OUTOFMEMORY));
    const BITMAPINFOHEADER header = bitmaps_.Sections().back().header;
    EXPECT_EQ(header.biWidth, static_cast<LONG>(size.width));
    EXPECT_EQ(header.biHeight, -static_cast<LONG>(size.height));
  }
  EXPECT_EQ(bitmaps_.Sections().size(), 4U);
}

}  // namespace
}  // namespace nimbra_test
