#ifndef NIMBRA_NIMBRACTL_LIBRARY_LOG_H_
#define NIMBRA_NIMBRACTL_LIBRARY_LOG_H_

// The lines that the library writes to the debugger output.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace nimbractl {

struct LibraryLine {
  std::string source;  // such as "win-cf\placeholder"
  int number = 0;
  std::string message;
};

// Takes a line of the library apart; nothing for one of another program.
[[nodiscard]] std::optional<LibraryLine> ParseLibraryLine(std::string_view text);

// The message with its results spelled out: "-2147024504" becomes "0x80070188 ERROR_…, it is …".
[[nodiscard]] std::string ReadableMessage(const std::string& message);

// The result at the end of a message, if there is one.
[[nodiscard]] std::optional<std::int32_t> ResultIn(const std::string& message);

// Keeps the lines that the library writes on this thread for as long as it exists. They go to the
// debugger output nevertheless.
class LibraryLogCapture {
 public:
  LibraryLogCapture();
  ~LibraryLogCapture();
  LibraryLogCapture(const LibraryLogCapture&) = delete;
  LibraryLogCapture& operator=(const LibraryLogCapture&) = delete;

  // The last result that a line told of.
  [[nodiscard]] std::optional<std::int32_t> Result() const;
  [[nodiscard]] const std::vector<LibraryLine>& Lines() const { return lines_; }
  void Add(std::string_view text);

 private:
  std::vector<LibraryLine> lines_;
  void* registration_;
};

}  // namespace nimbractl

#endif
