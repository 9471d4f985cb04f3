#ifndef NIMBRA_TESTS_E2E_COMMAND_LOOP_H_
#define NIMBRA_TESTS_E2E_COMMAND_LOOP_H_

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace e2e {

// A program that a test drives through its standard streams. One line is one message: words
// separated by tabs, the arguments as `name=value` with everything unusual as %XX.
//   in:  <number> TAB <command> TAB name=value ...
//   out: R TAB <number> TAB name=value ...     the answer to that command
//        E TAB <event> TAB name=value ...      something that happened
// Every command runs on a thread of its own, so that one that waits holds up no other.

class Fields {
 public:
  Fields& Set(const std::string& name, std::string_view value);
  Fields& Set(const std::string& name, std::int64_t value);
  [[nodiscard]] bool Has(const std::string& name) const;
  // The program ends with a message when a command lacks the argument: a mistake in the test.
  [[nodiscard]] const std::string& Text(const std::string& name) const;
  [[nodiscard]] std::string Text(const std::string& name, const std::string& fallback) const;
  [[nodiscard]] std::int64_t Number(const std::string& name) const;
  [[nodiscard]] std::int64_t Number(const std::string& name, std::int64_t fallback) const;
  [[nodiscard]] std::string Encode() const;
  static Fields Decode(std::string_view text);

 private:
  std::map<std::string, std::string> values_;
};

void EmitEvent(std::string_view event, const Fields& fields);

class CommandLoop {
 public:
  using Command = std::function<Fields(const Fields&)>;

  void Add(const std::string& name, Command command);
  // Serves standard input until it ends. The process ends with it, whatever still waits.
  [[noreturn]] void Run();

 private:
  void Start(std::string_view line);

  std::map<std::string, Command> commands_;
};

}  // namespace e2e

#endif  // NIMBRA_TESTS_E2E_COMMAND_LOOP_H_
