#include "reference-text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>

namespace nimbra_native {
namespace {

struct ByteRange {
  unsigned char low;
  unsigned char high;
};

// A row of the table; unused places at the end are empty.
struct Row {
  std::size_t length;
  std::array<ByteRange, 4> bytes;
};

constexpr ByteRange kTail{0x80, 0xBF};
constexpr Row kWellFormed[] = {
    {1, {{{0x00, 0x7F}}}},
    {2, {{{0xC2, 0xDF}, kTail}}},
    {3, {{{0xE0, 0xE0}, {0xA0, 0xBF}, kTail}}},
    {3, {{{0xE1, 0xEC}, kTail, kTail}}},
    {3, {{{0xED, 0xED}, {0x80, 0x9F}, kTail}}},
    {3, {{{0xEE, 0xEF}, kTail, kTail}}},
    {4, {{{0xF0, 0xF0}, {0x90, 0xBF}, kTail, kTail}}},
    {4, {{{0xF1, 0xF3}, kTail, kTail, kTail}}},
    {4, {{{0xF4, 0xF4}, {0x80, 0x8F}, kTail, kTail}}},
};

// How many bytes at the start of the text are the start of such a row.
std::size_t MatchLength(const Row& row, std::string_view text) {
  std::size_t count = 0;
  while (count < row.length && count < text.size()) {
    const auto byte = static_cast<unsigned char>(text[count]);
    if (byte < row.bytes[count].low || byte > row.bytes[count].high) break;
    ++count;
  }
  return count;
}

// The number that well-formed bytes stand for: their payload bits in a row.
std::uint32_t NumberOf(std::string_view bytes) {
  constexpr std::uint32_t kMarks[] = {0, 0, 0x3080, 0xE2080, 0x3C82080};
  std::uint32_t sum = 0;
  for (const char byte : bytes) sum = sum * 64 + static_cast<unsigned char>(byte);
  return sum - kMarks[bytes.size()];
}

template <typename Text>
Text UpToNul(Text text) {
  return text.substr(0, std::min(text.find(typename Text::value_type{0}), text.size()));
}

void AppendUnits(std::u16string& units, std::uint32_t number) {
  if (number < 0x10000) {
    units += static_cast<char16_t>(number);
  } else {
    units += static_cast<char16_t>(0xD7C0 + number / 0x400);
    units += static_cast<char16_t>(0xDC00 + number % 0x400);
  }
}

bool IsPair(std::u16string_view units) {
  return units.size() >= 2 && units[0] >= 0xD800 && units[0] <= 0xDBFF && units[1] >= 0xDC00 &&
         units[1] <= 0xDFFF;
}

// The bytes of a number of the given length, from its last digit to base 64 on.
std::string BytesOf(std::uint32_t number, std::size_t length) {
  constexpr unsigned kLeads[] = {0, 0, 0xC0, 0xE0, 0xF0};
  std::string bytes(length, '\0');
  for (std::size_t i = length; i-- > 1;) {
    bytes[i] = static_cast<char>(0x80 + number % 64);
    number /= 64;
  }
  bytes[0] = static_cast<char>(kLeads[length] + number);
  return bytes;
}

}  // namespace

std::u16string ReferenceToUtf16(std::string_view utf8) {
  std::u16string units;
  for (auto rest = UpToNul(utf8); !rest.empty();) {
    std::size_t best = 0;
    bool whole = false;
    for (const Row& row : kWellFormed) {
      const std::size_t count = MatchLength(row, rest);
      whole = whole || count == row.length;
      best = std::max(best, count);
    }
    if (whole) {
      AppendUnits(units, NumberOf(rest.substr(0, best)));
    } else {
      units += u'\xFFFD';
    }
    rest.remove_prefix(std::max<std::size_t>(best, 1));
  }
  return units;
}

std::string ReferenceToUtf8(std::u16string_view units) {
  std::string utf8;
  for (auto rest = UpToNul(units); !rest.empty();) {
    if (IsPair(rest)) {
      utf8 += BytesOf((rest[0] - 0xD7C0U) * 0x400U + (rest[1] - 0xDC00U), 4);
      rest.remove_prefix(2);
      continue;
    }
    const bool isLone = rest[0] >= 0xD800 && rest[0] <= 0xDFFF;
    const std::uint32_t number = isLone ? 0xFFFD : rest[0];
    utf8 += BytesOf(number, number < 0x80 ? 1 : number < 0x800 ? 2 : 3);
    rest.remove_prefix(1);
  }
  return utf8;
}

}  // namespace nimbra_native
