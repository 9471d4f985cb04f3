#ifndef NIMBRA_NIMBRACTL_BASICS_H_
#define NIMBRA_NIMBRACTL_BASICS_H_

// What all of nimbractl is written with: text, exit codes, failures.

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace nimbractl {

// Ill-formed text reaches the other form as U+FFFD.
[[nodiscard]] std::string Utf8(std::wstring_view text);
[[nodiscard]] std::wstring Wide(std::string_view utf8);

// What the process ends with. docs/nimbractl.md tells users of them.
enum class ExitCode { kOk = 0, kSomeFailed = 1, kUsage = 2, kNoPlatform = 3 };

// What went wrong, with what, and what to do about it.
struct Failure : std::runtime_error {
  Failure(const std::string& what, std::string whatToDo, ExitCode exitCode = ExitCode::kSomeFailed)
      : std::runtime_error(what), advice(std::move(whatToDo)), code(exitCode) {}
  std::string advice;
  ExitCode code;
};

// A number of bytes for people: "12.3 MB".
[[nodiscard]] std::string BytesText(std::int64_t bytes);

// "yes" or "no", and "-" for what is not known.
[[nodiscard]] std::string YesNo(std::optional<bool> value);

// A count with its noun: "1 file", "2 files".
[[nodiscard]] std::string Count(std::int64_t number, const std::string& noun);

}  // namespace nimbractl

#endif
