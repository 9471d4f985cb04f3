#include "common/text.h"

#include <windows.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <new>

namespace corvdrive::cloud_filter {
namespace {

// Runs a converter twice, first for the length it needs, and gives the text up to its first NUL.
// Text for which there is no memory is empty, as is text that cannot be converted.
template <typename Char, typename Convert>
std::basic_string<Char> ConvertInTwoPasses(Convert convert) try {
  const int count = convert(nullptr, 0);
  if (count <= 0) {
    return {};
  }
  const std::unique_ptr<Char[]> buffer(new (std::nothrow) Char[static_cast<std::size_t>(count)]);
  const int written = buffer ? convert(buffer.get(), count) : 0;
  if (written <= 0) {
    return {};
  }
  // Wine writes no NUL behind a text that ends in the middle of a character.
  const Char* const begin = buffer.get();
  return std::basic_string<Char>(begin, std::find(begin, begin + written, Char{}));
} catch (const std::bad_alloc&) {
  return {};
}

}  // namespace

std::wstring Utf8ToWide(const char* text) {
  if (*text == '\0') {
    return {};
  }
  return ConvertInTwoPasses<wchar_t>([text](wchar_t* buffer, int size) {
    return MultiByteToWideChar(CP_UTF8, 0, text, -1, buffer, size);
  });
}

std::string WideToUtf8(const wchar_t* text) {
  if (*text == L'\0') {
    return {};
  }
  return ConvertInTwoPasses<char>([text](char* buffer, int size) {
    return WideCharToMultiByte(CP_UTF8, 0, text, -1, buffer, size, nullptr, nullptr);
  });
}

WideText::WideText(std::string_view text) noexcept {
  if (text.empty() || text.size() > std::numeric_limits<int>::max()) {
    return;
  }
  // No text has more UTF-16 units than UTF-8 bytes, so there is no need to ask for the length.
  wchar_t* const buffer = buffer_.Reserve(text.size() + 1);
  const int size = static_cast<int>(text.size());
  const int written =
      buffer == nullptr ? 0 : MultiByteToWideChar(CP_UTF8, 0, text.data(), size, buffer, size);
  if (written > 0) {
    buffer[written] = L'\0';
    text_ = buffer;
  }
}

}  // namespace corvdrive::cloud_filter
