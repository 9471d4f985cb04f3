#ifndef NIMBRA_COMMON_DEBUG_LOG_H_
#define NIMBRA_COMMON_DEBUG_LOG_H_

#include <windows.h>

#include <charconv>
#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <string_view>

namespace corvdrive::cloud_filter {

// Writes one complete line (UTF-8, with its "\r\n") to the debugger output, in one call.
void EmitDebugLog(std::string_view line);

// One piece of a message. A text must outlive the object.
class LogPiece {
 public:
  explicit LogPiece(const char* text) : text_(text) {}
  explicit LogPiece(std::string_view text) : text_(text) {}
  explicit LogPiece(const char& character) : text_(&character, 1) {}
  // In decimal.
  template <std::integral Number>
  explicit LogPiece(Number number) : text_(Format("", number, 10)) {}
  // In hexadecimal, with "0x" in front of all but null.
  explicit LogPiece(const void* address)
      : text_(Format(address == nullptr ? "" : "0x", reinterpret_cast<std::uintptr_t>(address),
                     16)) {}
  LogPiece(const LogPiece&) = delete;
  LogPiece& operator=(const LogPiece&) = delete;

  [[nodiscard]] std::string_view Text() const { return text_; }

 private:
  template <std::integral Number>
  std::string_view Format(std::string_view prefix, Number number, int base) {
    char* const digits = digits_ + prefix.copy(digits_, prefix.size());
    char* const end = std::to_chars(digits, digits_ + sizeof digits_, number, base).ptr;
    return {digits_, static_cast<std::size_t>(end - digits_)};
  }

  // The longest are a 64-bit number's: 20 characters.
  char digits_[24];
  std::string_view text_;
};

// Writes one line of the debugger output that consists of the pieces.
void WriteLogLine(std::initializer_list<LogPiece> pieces);

// Writes one line of the diagnostic log: the source file's path from the source tree's root (with
// backslashes, without extension), the line number, and the pieces of the message, as they are.
// Numbers are decimal whatever locale the host has set; pass error codes as `HRESULT` or through
// `ErrorNumber`, so that a failure prints as a negative number. The thread's last error survives.
// Throws only std::bad_alloc.
template <typename... Pieces>
void Log(const char* source, int line, const Pieces&... pieces) {
  WriteLogLine({LogPiece(source), LogPiece(" ("), LogPiece(line), LogPiece(") | "),
                LogPiece(pieces)..., LogPiece("\r\n")});
}

// A Win32 error code in the form in which the log prints it.
[[nodiscard]] inline LONG ErrorNumber(DWORD code) { return static_cast<LONG>(code); }

}  // namespace corvdrive::cloud_filter

#endif
