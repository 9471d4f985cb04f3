// The conversions of text, as Windows does them since Vista: every maximal part of an ill-formed
// sequence becomes one U+FFFD, and so does every lone surrogate.

#include <windows.h>

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "windows-stand-in.h"

namespace {

constexpr char32_t kReplacement = 0xFFFD;

struct Lead {
  int following;
  char32_t bits;
  unsigned char firstLow;  // the range of the byte behind the lead, which rules out overlong forms,
  unsigned char firstHigh;  // surrogates and numbers past U+10FFFF
};

Lead ReadLead(unsigned char byte) {
  const auto bits = [byte](unsigned mask) { return static_cast<char32_t>(byte & mask); };
  if (byte < 0x80) return {0, byte, 0, 0};
  if (byte < 0xC2) return {-1, 0, 0, 0};
  if (byte < 0xE0) return {1, bits(0x1F), 0x80, 0xBF};
  if (byte < 0xF0) {
    return {2, bits(0x0F), static_cast<unsigned char>(byte == 0xE0 ? 0xA0 : 0x80),
            static_cast<unsigned char>(byte == 0xED ? 0x9F : 0xBF)};
  }
  if (byte < 0xF5) {
    return {3, bits(0x07), static_cast<unsigned char>(byte == 0xF0 ? 0x90 : 0x80),
            static_cast<unsigned char>(byte == 0xF4 ? 0x8F : 0xBF)};
  }
  return {-1, 0, 0, 0};
}

// Takes one character, or one ill-formed part, off the text.
char32_t TakeCharacter(std::string_view& text) {
  const Lead lead = ReadLead(static_cast<unsigned char>(text.front()));
  text.remove_prefix(1);
  if (lead.following < 0) return kReplacement;
  char32_t character = lead.bits;
  unsigned char low = lead.firstLow;
  unsigned char high = lead.firstHigh;
  for (int i = 0; i < lead.following; ++i) {
    const auto byte = text.empty() ? 0U : static_cast<unsigned char>(text.front());
    if (byte < low || byte > high) return kReplacement;
    character = (character << 6U) | (byte & 0x3FU);
    text.remove_prefix(1);
    low = 0x80;
    high = 0xBF;
  }
  return character;
}

std::wstring Decode(std::string_view text) {
  std::wstring wide;
  while (!text.empty()) {
    const char32_t character = TakeCharacter(text);
    if (character >= 0x10000) {
      wide += static_cast<wchar_t>(0xD800U + ((character - 0x10000U) >> 10U));
      wide += static_cast<wchar_t>(0xDC00U + ((character - 0x10000U) & 0x3FFU));
    } else {
      wide += static_cast<wchar_t>(character);
    }
  }
  return wide;
}

char32_t TakeCharacter(std::wstring_view& text) {
  const char32_t unit = text.front();
  text.remove_prefix(1);
  if ((unit & 0xF800U) != 0xD800U) return unit;
  if (unit >= 0xDC00U || text.empty() || (text.front() & 0xFC00) != 0xDC00) return kReplacement;
  const char32_t low = text.front();
  text.remove_prefix(1);
  return 0x10000U + ((unit & 0x3FFU) << 10U) + (low & 0x3FFU);
}

std::string Encode(std::wstring_view text) {
  std::string bytes;
  const auto put = [&bytes](char32_t value) { bytes += static_cast<char>(value); };
  while (!text.empty()) {
    const char32_t character = TakeCharacter(text);
    if (character < 0x80) {
      put(character);
      continue;
    }
    if (character < 0x800) {
      put(0xC0U | (character >> 6U));
    } else {
      if (character < 0x10000) {
        put(0xE0U | (character >> 12U));
      } else {
        put(0xF0U | (character >> 18U));
        put(0x80U | ((character >> 12U) & 0x3FU));
      }
      put(0x80U | ((character >> 6U) & 0x3FU));
    }
    put(0x80U | (character & 0x3FU));
  }
  return bytes;
}

int Fail(DWORD error) {
  SetLastError(error);
  return 0;
}

// The common rules for arguments and results.
template <typename Char, typename Result, typename Convert>
int ConvertText(UINT page, const Char* text, int length, Result* buffer, int capacity,
                Convert convert) {
  if (page != CP_UTF8 || text == nullptr || length == 0 || length < -1 || capacity < 0 ||
      (buffer == nullptr && capacity != 0)) {
    return Fail(ERROR_INVALID_PARAMETER);
  }
  std::basic_string_view<Char> source(text, length < 0 ? 0 : static_cast<std::size_t>(length));
  if (length < 0) {
    // The terminator is converted too.
    source = {text, std::char_traits<Char>::length(text) + 1};
  }
  const auto result = convert(source);
  if (result.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
    return Fail(ERROR_INVALID_PARAMETER);
  }
  const int count = static_cast<int>(result.size());
  if (capacity == 0) return count;
  const int fitting = count < capacity ? count : capacity;
  for (int i = 0; i < fitting; ++i) buffer[i] = result[static_cast<std::size_t>(i)];
  return count > capacity ? Fail(ERROR_INSUFFICIENT_BUFFER) : count;
}

}  // namespace

int MultiByteToWideChar(UINT page, DWORD flags, LPCSTR text, int length, LPWSTR buffer,
                        int capacity) {
  if (flags != 0) return Fail(ERROR_INVALID_FLAGS);  // Strict conversion is not stood in for.
  const bool swallows = nimbra_native::Windows().swallowsTerminator && length == -1;
  return ConvertText(page, text, length, buffer, capacity, [swallows](std::string_view source) {
    std::wstring wide = Decode(source);
    const bool endsWithin = wide.size() > 1 && wide[wide.size() - 2] == kReplacement;
    if (swallows && endsWithin) wide.pop_back();
    return wide;
  });
}

// NOLINTBEGIN(readability-non-const-parameter): Windows writes to it.
int WideCharToMultiByte(UINT page, DWORD flags, LPCWSTR text, int length, LPSTR buffer,
                        int capacity, LPCSTR defaultChar, BOOL* usedDefault) {
  if (flags != 0) return Fail(ERROR_INVALID_FLAGS);
  if (defaultChar != nullptr || usedDefault != nullptr) return Fail(ERROR_INVALID_PARAMETER);
  return ConvertText(page, text, length, buffer, capacity, Encode);
}
// NOLINTEND(readability-non-const-parameter)
