// Thumbnails, through the class object that the library registers.

#include <windows.h>

#include <shobjidl.h>
#include <thumbcache.h>

#include <algorithm>

#include "tests/faults/scenario.h"
#include "tests/support/image-files.h"
#include "tests/support/shell-item-double.h"
#include "tests/support/thread-watch.h"

namespace nimbra_test {
namespace {

constexpr char kStarting[] = "nimbra|729|Registring shell services";
constexpr char kRequested[] = "thumbnail-provider|#|Thumbnail requested for {item}";
constexpr char kDone[] = "thumbnail-provider|#|Thumbnail done for {item}";

std::wstring image;

bool Retrieve(const wchar_t*, wchar_t* path) {
  std::copy_n(image.c_str(), image.size() + 1, path);
  return true;
}

CallJournal& Journal() {
  static CallJournal journal;
  return journal;
}
ShellItemDouble& Item() {
  static auto& item = *new ShellItemDouble(Journal(), L"C:\\Sync\\item.jpg");
  return item;
}

void StartServices(Stage& stage) {
  const ThreadWatch threads;
  CALL(CORVWinCFStartShellServices);
  threads.WaitUntilEnded();
}

void PrepareThumbnail(Stage& stage) {
  if (stage.gates.ClassObject() == nullptr) {
    StartServices(stage);
    // 24 bits, so that it needs a conversion.
    const Picture picture = MakePicture(4, 4, [](auto x, auto y) { return 0xFF000000 + x + y; });
    image = Wide(stage.folder.WriteFile("image.bmp", BmpFile(picture, 24)));
    stage.names["image"] = Narrow(image);
    stage.names["item"] = "C:\\Sync\\item.jpg";
    stage.gates.Watch(&Item(), "IShellItem2");
  }
}

HRESULT AskForThumbnail(Stage& stage, HBITMAP& bitmap, WTS_ALPHATYPE& alpha) {
  auto* const factory = static_cast<IClassFactory*>(stage.gates.ClassObject());
  IInitializeWithItem* raw = nullptr;
  HRESULT result = factory->CreateInstance(nullptr, __uuidof(IInitializeWithItem),
                                           reinterpret_cast<void**>(&raw));
  if (FAILED(result)) {
    return result;
  }
  const ComOwner<IInitializeWithItem> initialize(raw);
  result = initialize->Initialize(&Item(), 0);
  if (FAILED(result)) {
    return result;
  }
  IThumbnailProvider* rawProvider = nullptr;
  result = initialize->QueryInterface(__uuidof(IThumbnailProvider),
                                      reinterpret_cast<void**>(&rawProvider));
  if (FAILED(result)) {
    return result;
  }
  const ComOwner<IThumbnailProvider> provider(rawProvider);
  return provider->GetThumbnail(256, &bitmap, &alpha);
}

std::int64_t ThumbnailCall(Stage& stage) {
  CALL(CORVWinCFSetThumbRetrieverCb, Retrieve);
  HBITMAP bitmap = nullptr;
  WTS_ALPHATYPE alpha = WTSAT_UNKNOWN;
  const HRESULT result = AskForThumbnail(stage, bitmap, alpha);
  stage.state = bitmap == nullptr ? "no bitmap" : alpha == WTSAT_ARGB ? "bitmap" : "bad bitmap";
  if (bitmap != nullptr) {
    DeleteObject(bitmap);
    stage.gates.GiveBack("bitmap");
  }
  return result;
}

std::vector<Row> ThumbnailRows() {
  const std::string failed = "thumbnail-provider|#|WICCreate32bppHBITMAP: ";
  const Outcome undecoded{kItsCode, {kRequested, failed + "{code}"}, "no bitmap"};
  std::vector<Row> rows = {
      {"QISearch", {kItsCode, {}, "no bitmap"}, 1},
      {"QISearch", {kItsCode, {kRequested}, "no bitmap"}, 2},
      {"IShellItem2::QueryInterface", {kItsCode, {}, "no bitmap"}},
      {"IShellItem2::GetDisplayName", {kItsCode, {}, "no bitmap"}},
      {"SHCreateStreamOnFileW",
       {kItsCode,
        {kRequested, "thumbnail-provider|#|SHCreateStreamOnFileW: {code}path: {image}"},
        "no bitmap"}},
      {"CreateDIBSection", {E_OUTOFMEMORY, {kRequested, failed + "-2147024882"}, "no bitmap"}},
      // Taken as it is.
      {"IWICBitmapSource::GetPixelFormat", {0, {kRequested, kDone}, "bitmap"}},
  };
  for (const char* function :
       {"CoCreateInstance", "IWICImagingFactory::CreateDecoderFromStream",
        "IWICBitmapDecoder::GetFrame", "IWICImagingFactory::CreateFormatConverter",
        "IWICFormatConverter::Initialize", "IWICFormatConverter::QueryInterface",
        "IWICBitmapSource::GetSize", "IWICBitmapSource::CopyPixels"}) {
    rows.push_back({function, undecoded});
  }
  return rows;
}

}  // namespace

std::vector<Scenario> ThumbnailScenarios() {
  std::vector<Scenario> scenarios;
  scenarios.push_back({"CORVWinCFSetThumbRetrieverCb",
                       PrepareThumbnail,
                       ThumbnailCall,
                       [](Stage& stage) {
                         CALL(CORVWinCFSetThumbRetrieverCb, nullptr);
                         Item().FreePaths();
                       },
                       {0, {kRequested, kDone}, "bitmap"},
                       ThumbnailRows(),
                       E_OUTOFMEMORY,
                       // Without a text for the log the thumbnail is made all the same.
                       {0},
                       false,
                       {},
                       {{"COM reference", 1}, {"task text", 1}},
                       "an object keeps its item and the item's path",
                       100,
                       "the decoders are the system's own"});
  scenarios.back().keepsParts = true;
  scenarios.push_back({"CORVWinCFStartShellServices",
                       {},
                       [](Stage& stage) -> std::int64_t {
                         StartServices(stage);
                         return 0;
                       },
                       {},
                       {0, {kStarting}},
                       {{"GetModuleHandleExW", {0, {kStarting}}},
                        {"CoInitializeEx", {0, {kStarting}}},
                        {"CoRegisterClassObject", {0, {kStarting}}},
                        {"CreateEventW", {0, {kStarting}}},
                        {"CoWaitForMultipleHandles", {0, {kStarting}}},
                        {"_beginthreadex", {kThrown, {kStarting}}}},
                       kThrown,
                       {0},
                       true,
                       {},
                       {{"memory block", 1}, {"memory byte", 16}, {"kernel handle", 1}},
                       "the class object and its event live until the process ends",
                       1000,
                       "each round is a thread"});
  scenarios.back().keepsParts = true;
  scenarios.back().startsThread = true;
  return scenarios;
}

}  // namespace nimbra_test
