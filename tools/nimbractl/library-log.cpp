#include "library-log.h"

#include <windows.h>

#include <charconv>
#include <regex>

#include "basics.h"
#include "results.h"

namespace nimbractl {
namespace {

constexpr std::string_view kSourceRoot = R"(lib\cloud-filter\)";

// The exceptions that carry a line to the debugger: the length, terminator included, and the
// address of the text. Windows raises the wide one and, if nobody takes it, the narrow one too;
// others only the narrow one, in the process's code page, which this program's manifest sets to
// UTF-8.
constexpr DWORD kWideLine = 0x4001000A;
constexpr DWORD kNarrowLine = 0x40010006;

thread_local LibraryLogCapture* current = nullptr;
thread_local bool hasWideLines = false;

template <class Character>
std::basic_string_view<Character> TextOf(const EXCEPTION_RECORD& record) {
  const auto length = record.ExceptionInformation[0];
  return {reinterpret_cast<const Character*>(record.ExceptionInformation[1]),
          length == 0 ? 0 : length - 1};
}

// Looks on only, so that debuggers and `nimbractl log` see the line too.
LONG CALLBACK TakeLine(EXCEPTION_POINTERS* pointers) noexcept {
  const auto& record = *pointers->ExceptionRecord;
  if (current == nullptr) return EXCEPTION_CONTINUE_SEARCH;
  if (record.ExceptionCode == kWideLine) {
    hasWideLines = true;
    current->Add(Utf8(TextOf<wchar_t>(record)));
  } else if (record.ExceptionCode == kNarrowLine && !hasWideLines) {
    current->Add(TextOf<char>(record));
  }
  return EXCEPTION_CONTINUE_SEARCH;
}

// Results stand alone, behind a blank, a stop or an equals sign, or at the very end behind a word;
// Windows' error codes after "ec:" or "error:".
const std::regex& ResultPattern() {
  static const std::regex pattern(R"((^|[ .=]|[a-z](?=-[12]\d{9}$))(-\d{9,10})(?= |$))");
  return pattern;
}
const std::regex& ErrorPattern() {
  static const std::regex pattern(R"(((?:ec|err|error)(?:: | = ))(\d{1,5})$)");
  return pattern;
}

std::int32_t Number(const std::string& text) {
  std::int64_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return static_cast<std::int32_t>(number);
}

}  // namespace

std::optional<LibraryLine> ParseLibraryLine(std::string_view text) {
  if (!text.starts_with(kSourceRoot)) return std::nullopt;
  text.remove_prefix(kSourceRoot.size());
  const auto open = text.find(" ("), close = text.find(") | ");
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) {
    return std::nullopt;
  }
  LibraryLine line;
  line.source = text.substr(0, open);
  const auto* const end = text.data() + close;
  const auto read = std::from_chars(text.data() + open + 2, end, line.number);
  if (read.ec != std::errc() || read.ptr != end) return std::nullopt;
  text.remove_prefix(close + 4);
  const auto last = text.find_last_not_of("\r\n");
  line.message = text.substr(0, last == std::string_view::npos ? 0 : last + 1);
  return line;
}

std::string ReadableMessage(const std::string& message) {
  std::string text;
  std::string rest = message;
  for (std::smatch found; std::regex_search(rest, found, ResultPattern());) {
    text += found.prefix().str() + found[1].str() + ResultText(Number(found[2]));
    rest = found.suffix();
  }
  std::smatch found;
  if (std::regex_search(rest, found, ErrorPattern())) {
    return text + found.prefix().str() + found[1].str() +
           ErrorText(static_cast<std::uint32_t>(Number(found[2])));
  }
  return text + rest;
}

std::optional<std::int32_t> ResultIn(const std::string& message) {
  std::smatch found;
  if (std::regex_search(message, found, ResultPattern())) return Number(found[2]);
  if (!std::regex_search(message, found, ErrorPattern())) return std::nullopt;
  return HRESULT_FROM_WIN32(static_cast<DWORD>(Number(found[2])));
}

LibraryLogCapture::LibraryLogCapture() : registration_(AddVectoredExceptionHandler(1, TakeLine)) {
  current = this;
}

LibraryLogCapture::~LibraryLogCapture() {
  current = nullptr;
  RemoveVectoredExceptionHandler(registration_);
}

std::optional<std::int32_t> LibraryLogCapture::Result() const {
  std::optional<std::int32_t> last;
  for (const auto& line : lines_) {
    if (const auto result = ResultIn(line.message)) last = result;
  }
  return last;
}

void LibraryLogCapture::Add(std::string_view text) {
  if (auto line = ParseLibraryLine(text)) lines_.push_back(*std::move(line));
}

}  // namespace nimbractl
