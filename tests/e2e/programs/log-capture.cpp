#include "log-capture.h"

#include <windows.h>

#include <string>
#include <string_view>

#include "command-loop.h"
#include "wide-text.h"

namespace e2e {
namespace {

// The exceptions that carry a line to the debugger: the length, terminator included, and the
// address of the text. Windows raises the wide one, Wine the narrow one, whose text is in the
// program's code page: UTF-8, by its manifest.
constexpr DWORD kWideLine = 0x4001000A;
constexpr DWORD kNarrowLine = 0x40010006;

template <class Character>
std::basic_string_view<Character> TextOf(const EXCEPTION_RECORD& record) {
  const auto length = record.ExceptionInformation[0];
  return {reinterpret_cast<const Character*>(record.ExceptionInformation[1]),
          length == 0 ? 0 : length - 1};
}

LONG CALLBACK TakeLine(EXCEPTION_POINTERS* pointers) {
  const auto& record = *pointers->ExceptionRecord;
  if (record.ExceptionCode == kWideLine) {
    EmitEvent("log", Fields().Set("text", ToNarrow(TextOf<wchar_t>(record))));
    return EXCEPTION_CONTINUE_EXECUTION;
  }
  if (record.ExceptionCode == kNarrowLine) {
    EmitEvent("log", Fields().Set("text", TextOf<char>(record)));
    return EXCEPTION_CONTINUE_EXECUTION;
  }
  return EXCEPTION_CONTINUE_SEARCH;
}

}  // namespace

void CaptureDebugOutput() { AddVectoredExceptionHandler(1, TakeLine); }

}  // namespace e2e
