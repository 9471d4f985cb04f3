#include "console.h"

#include <windows.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>
#include <utility>

#include "basics.h"

namespace nimbractl {
namespace {

HANDLE HandleOf(Stream stream) {
  return GetStdHandle(stream == Stream::kOutput ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE);
}

// A console takes UTF-16, so its code page, which other programs share, need not be changed.
bool WriteToConsole(HANDLE console, const std::wstring& text) {
  constexpr std::size_t kMost = 8192;  // older consoles refuse more at once
  for (std::size_t at = 0; at < text.size();) {
    const auto length = static_cast<DWORD>(std::min(kMost, text.size() - at));
    DWORD written = 0;
    if (!WriteConsoleW(console, text.data() + at, length, &written, nullptr) || written == 0) {
      return false;
    }
    at += written;
  }
  return true;
}

struct Range {
  char32_t first, last;
};
constexpr Range kWide[]{{0x1100, 0x115F}, {0x2E80, 0xA4CF},   {0xAC00, 0xD7A3},
                        {0xF900, 0xFAFF}, {0xFE30, 0xFE6F},   {0xFF00, 0xFF60},
                        {0xFFE0, 0xFFE6}, {0x1F300, 0x1FAFF}, {0x20000, 0x3FFFD}};
constexpr Range kNarrowest[]{{0x0300, 0x036F}, {0x200B, 0x200F}, {0xFE00, 0xFE0F}};

template <std::size_t kCount>
bool IsIn(const Range (&ranges)[kCount], char32_t character) {
  return std::any_of(std::begin(ranges), std::end(ranges), [&](const Range& range) {
    return range.first <= character && character <= range.last;
  });
}

// How many cells a text takes on a screen: near enough for the names that appear in columns.
std::size_t Width(const std::string& text) {
  std::size_t cells = 0;
  char32_t high = 0;
  for (const auto unit : Wide(text)) {
    char32_t character = unit;
    if (IS_HIGH_SURROGATE(unit)) {
      high = character;
      continue;
    }
    if (IS_LOW_SURROGATE(unit)) character = 0x10000 + ((high & 0x3FFU) << 10U) + (unit & 0x3FFU);
    if (!IsIn(kNarrowest, character)) cells += IsIn(kWide, character) ? 2 : 1;
  }
  return cells;
}

// Whether the reader has gone, or there never was one. What errno has of a failed write does not
// tell: it is the same for whatever the runtime has no word for.
bool IsUnread(Stream stream) {
  const HANDLE handle = HandleOf(stream);
  if (handle == nullptr || handle == INVALID_HANDLE_VALUE) return true;
  SetLastError(ERROR_SUCCESS);
  const DWORD type = GetFileType(handle);
  return type == FILE_TYPE_PIPE ||
         (type == FILE_TYPE_UNKNOWN && GetLastError() == ERROR_INVALID_HANDLE);
}

bool isOutputLost = false;

}  // namespace

bool Write(Stream stream, const std::string& text) {
  if (IsTerminal(stream)) return WriteToConsole(HandleOf(stream), Wide(text));
  FILE* const file = stream == Stream::kOutput ? stdout : stderr;
  if (std::fwrite(text.data(), 1, text.size(), file) == text.size() && std::fflush(file) == 0) {
    return true;
  }
  isOutputLost = isOutputLost || (stream == Stream::kOutput && !IsUnread(stream));
  return false;
}

bool IsOutputLost() { return isOutputLost; }

bool WriteLine(Stream stream, const std::string& line) { return Write(stream, line + "\n"); }

bool IsTerminal(Stream stream) {
  DWORD mode = 0;
  return GetConsoleMode(HandleOf(stream), &mode) != 0;
}

Table::Table(std::vector<std::string> titles) { rows_.push_back(std::move(titles)); }

void Table::Add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }

std::string Table::Text() const {
  std::vector<std::size_t> widths(rows_.front().size());
  for (const auto& row : rows_) {
    for (std::size_t at = 0; at < row.size(); ++at) {
      widths[at] = std::max(widths[at], Width(row[at]));
    }
  }
  std::string text;
  for (const auto& row : rows_) {
    for (std::size_t at = 0; at + 1 < row.size(); ++at) {
      text += row[at] + std::string(widths[at] - Width(row[at]) + 2, ' ');
    }
    text += row.back() + "\n";
  }
  return text;
}

}  // namespace nimbractl
