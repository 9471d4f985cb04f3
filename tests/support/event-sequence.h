#ifndef NIMBRA_TESTS_SUPPORT_EVENT_SEQUENCE_H_
#define NIMBRA_TESTS_SUPPORT_EVENT_SEQUENCE_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/log-capture.h"
#include "tests/support/test-scope.h"

namespace nimbra_test {

// What happened, in order: the calls that doubles note, and between them the messages of the log
// lines, each as "log: message".
class EventSequence {
 public:
  explicit EventSequence(const LogCapture& log) : log_(log), seen_(log.Lines().size()) {}

  void Note(std::string event) {
    const TestScope scope;
    AddMessages();
    events_.push_back(std::move(event));
  }
  const std::vector<std::string>& Events() {
    AddMessages();
    return events_;
  }
  void Clear() {
    AddMessages();
    events_.clear();
  }

 private:
  void AddMessages() {
    const auto lines = log_.Lines();
    for (; seen_ < lines.size(); ++seen_) {
      const std::string_view line = lines[seen_];
      const std::size_t begin = line.find(" | ") + 3;
      events_.push_back("log: " + std::string(line.substr(begin, line.size() - begin - 2)));
    }
  }

  const LogCapture& log_;
  std::size_t seen_;
  std::vector<std::string> events_;
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_EVENT_SEQUENCE_H_
