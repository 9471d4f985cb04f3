#ifndef NIMBRA_TESTS_UNIT_THUMBNAIL_FIXTURE_H_
#define NIMBRA_TESTS_UNIT_THUMBNAIL_FIXTURE_H_

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "nimbra/nimbra.h"
#include "tests/support/com-double.h"
#include "tests/support/nimbra-test.h"
#include "tests/support/shell-item-double.h"
#include "tests/support/temp-folder.h"
#include "tests/support/test-scope.h"
#include "win-cf/thumbnail-provider.h"

namespace nimbra_test {

inline constexpr std::string_view kThumbnailSource =
    R"(lib\cloud-filter\win-cf\thumbnail-provider)";

// The client's side: what answers the library's questions for an image while it lives.
class Retriever {
 public:
  using Answer = std::function<bool(const wchar_t* itemPath, wchar_t* imagePath)>;

  explicit Retriever(Answer answer) : answer_(std::move(answer)) {
    current_ = this;
    CORVWinCFSetThumbRetrieverCb(&Retriever::Call);
  }
  // One that names the same image for every item.
  explicit Retriever(const std::wstring& imagePath)
      : Retriever([imagePath](const wchar_t*, wchar_t* out) {
          std::copy_n(imagePath.c_str(), imagePath.size() + 1, out);
          return true;
        }) {}
  ~Retriever() {
    corvdrive::cloud_filter::thumbRetriever = nullptr;
    current_ = nullptr;
  }
  Retriever(const Retriever&) = delete;
  Retriever& operator=(const Retriever&) = delete;

  // The items that it was asked about.
  std::vector<std::wstring> Items() const {
    const std::lock_guard lock(mutex_);
    return items_;
  }

 private:
  static bool Call(const wchar_t* itemPath, wchar_t* imagePath) {
    const TestScope scope;
    Retriever& self = *current_;
    {
      const std::lock_guard lock(self.mutex_);
      self.items_.emplace_back(itemPath);
    }
    return self.answer_(itemPath, imagePath);
  }

  static inline std::atomic<Retriever*> current_{nullptr};
  Answer answer_;
  mutable std::mutex mutex_;
  std::vector<std::wstring> items_;
};

struct Thumbnail {
  HRESULT result;
  HBITMAP bitmap;
  WTS_ALPHATYPE alpha;
};

inline ComOwner<WinCFThumbnailProvider> NewProvider() {
  return ComOwner<WinCFThumbnailProvider>(new WinCFThumbnailProvider);
}

// Asks for a thumbnail with outputs that hold something else before.
inline Thumbnail Ask(IThumbnailProvider& provider, UINT size = 256) {
  Thumbnail thumbnail{E_FAIL, reinterpret_cast<HBITMAP>(0x10), WTSAT_RGB};
  thumbnail.result = provider.GetThumbnail(size, &thumbnail.bitmap, &thumbnail.alpha);
  return thumbnail;
}

MATCHER_P(IsFailedThumbnail, result, "") {
  return arg.result == static_cast<HRESULT>(result) && arg.bitmap == nullptr &&
         arg.alpha == WTSAT_UNKNOWN;
}

MATCHER(IsThumbnail, "") {
  return arg.result == S_OK && arg.bitmap != nullptr && arg.alpha == WTSAT_ARGB;
}

inline void PrintTo(const Thumbnail& thumbnail, std::ostream* out) {
  *out << "result " << std::hex << static_cast<unsigned long>(thumbnail.result) << ", bitmap "
       << static_cast<void*>(thumbnail.bitmap) << ", alpha " << thumbnail.alpha;
}

// A test about an item that the shell wants a thumbnail of.
class ThumbnailTest : public NimbraTest {
 protected:
  static constexpr wchar_t kItemPath[] = L"C:\\Sync\\Gr\u00FC\u00DFe \u4E16.jpg";

  // A provider that was initialised with the item; the line about it is not in the log.
  ComOwner<WinCFThumbnailProvider> Initialized() {
    auto provider = NewProvider();
    EXPECT_EQ(provider->Initialize(&item_, 0), S_OK);
    log_.Clear();
    return provider;
  }
  static auto IsLine(std::string_view message) { return IsLogLine(kThumbnailSource, message); }
  static auto IsDoneLine() { return IsLine("Thumbnail done for " + Narrow(kItemPath)); }

  CallJournal journal_;
  ShellItemDouble item_{journal_, kItemPath};
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_UNIT_THUMBNAIL_FIXTURE_H_
