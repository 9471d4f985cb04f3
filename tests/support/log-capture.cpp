#include "tests/support/log-capture.h"

#include <algorithm>
#include <cctype>

#include "tests/support/temp-folder.h"

namespace nimbra_test {
namespace {

// Writing to the debugger may change the last error; the double always does.
constexpr DWORD kClobberedError = 0x5EED;

bool IsSourceLineNumber(std::string_view digits) {
  return !digits.empty() && digits.front() != '0' && digits.size() < 6 &&
         std::all_of(digits.begin(), digits.end(),
                     [](unsigned char c) { return std::isdigit(c) != 0; });
}

}  // namespace

LogCapture::LogCapture()
    : output_([this](auto, LPCWSTR text) {
        {
          std::lock_guard lock(mutex_);
          lines_.push_back(text != nullptr ? Narrow(text) : "(null)");
        }
        SetLastError(kClobberedError);
      }) {}

std::vector<std::string> LogCapture::Lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

void LogCapture::Clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
}

std::string ExpectedLine(std::string_view sourcePath, int line, std::string_view message) {
  return std::string(sourcePath) + " (" + std::to_string(line) + ") | " + std::string(message) +
         "\r\n";
}

testing::Matcher<const std::string&> IsLogLine(std::string_view sourcePath,
                                               std::string_view message) {
  const std::string head = std::string(sourcePath) + " (";
  const std::string tail = ") | " + std::string(message) + "\r\n";
  return testing::Truly([head, tail](const std::string& line) {
    if (line.size() <= head.size() + tail.size() || !line.starts_with(head) ||
        !line.ends_with(tail)) {
      return false;
    }
    return IsSourceLineNumber(
        std::string_view(line).substr(head.size(), line.size() - head.size() - tail.size()));
  });
}

}  // namespace nimbra_test
