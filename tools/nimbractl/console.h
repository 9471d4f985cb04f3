#ifndef NIMBRA_NIMBRACTL_CONSOLE_H_
#define NIMBRA_NIMBRACTL_CONSOLE_H_

// The standard streams, in UTF-8 whatever the console's code page is.

#include <cstddef>
#include <string>
#include <vector>

namespace nimbractl {

enum class Stream { kOutput, kError };

// Writes the text at once. Gives false when nobody reads it any more, or it cannot be written.
bool Write(Stream stream, const std::string& text);

// Whether some of the output could not be written for another reason than that nobody reads it,
// such as a full disk.
[[nodiscard]] bool IsOutputLost();

// Write with a line break after it.
bool WriteLine(Stream stream, const std::string& line);

[[nodiscard]] bool IsTerminal(Stream stream);

// Rows of texts below each other; the last column is as wide as it gets.
class Table {
 public:
  explicit Table(std::vector<std::string> titles);
  void Add(std::vector<std::string> row);
  [[nodiscard]] std::string Text() const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace nimbractl

#endif
