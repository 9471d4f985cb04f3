#ifndef NIMBRA_COMMON_DEBUG_LOG_H_
#define NIMBRA_COMMON_DEBUG_LOG_H_

#include <windows.h>

#include <locale>
#include <sstream>
#include <string>

namespace corvdrive::cloud_filter {

// Writes one complete line (UTF-8, with its "\r\n") to the debugger output, in one call.
void EmitDebugLog(const std::string& line);

// Writes one line of the diagnostic log: the source file's path from the source tree's root (with
// backslashes, without extension), the line number, and the pieces of the message, as they are.
// Numbers are decimal whatever locale the host has set; pass error codes as `HRESULT` or through
// `ErrorNumber`, so that a failure prints as a negative number. The thread's last error survives.
// Throws only std::bad_alloc.
template <typename... Pieces>
void Log(const char* source, int line, const Pieces&... pieces) {
  const DWORD lastError = GetLastError();
  std::ostringstream text;
  // A stream swallows an exhausted memory unless told otherwise, and a cut line would go out.
  text.exceptions(std::ios_base::badbit);
  text.imbue(std::locale::classic());
  text << source << " (" << line << ") | ";
  (text << ... << pieces);
  text << "\r\n";
  EmitDebugLog(text.str());
  SetLastError(lastError);
}

// A Win32 error code in the form in which the log prints it.
[[nodiscard]] inline LONG ErrorNumber(DWORD code) { return static_cast<LONG>(code); }

}  // namespace corvdrive::cloud_filter

#endif
