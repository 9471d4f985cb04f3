#ifndef NIMBRA_COMMON_TEXT_H_
#define NIMBRA_COMMON_TEXT_H_

#include <string>
#include <string_view>

#include "common/small-buffer.h"

namespace corvdrive::cloud_filter {

// Text crosses the library's interface as UTF-8 and reaches Windows as UTF-16. Both conversions
// take NUL-terminated text that must not be null; text that cannot be converted, for whatever
// reason, becomes empty, and ill-formed sequences become U+FFFD. Nothing is logged.

[[nodiscard]] std::wstring Utf8ToWide(const char* text);
[[nodiscard]] std::string WideToUtf8(const wchar_t* text);

// Text after an embedded NUL is dropped, as Windows would.
[[nodiscard]] inline std::wstring Utf8ToWide(const std::string& text) {
  return Utf8ToWide(text.c_str());
}
[[nodiscard]] inline std::string WideToUtf8(const std::wstring& text) {
  return WideToUtf8(text.c_str());
}

// The UTF-16 form of a text for one call of the system: what Utf8ToWide gives for it, without the
// heap for the usual lengths.
class WideText {
 public:
  explicit WideText(std::string_view text) noexcept;
  WideText(const WideText&) = delete;
  WideText& operator=(const WideText&) = delete;

  // NUL-terminated.
  [[nodiscard]] const wchar_t* Get() const noexcept { return text_; }

 private:
  // Long enough for every path but those with a prefix that lifts Windows' usual limit.
  static constexpr std::size_t kUsualSize = 512;

  SmallBuffer<wchar_t, kUsualSize> buffer_;
  const wchar_t* text_ = L"";
};

}  // namespace corvdrive::cloud_filter

#endif
