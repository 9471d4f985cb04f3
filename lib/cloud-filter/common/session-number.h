#ifndef NIMBRA_COMMON_SESSION_NUMBER_H_
#define NIMBRA_COMMON_SESSION_NUMBER_H_

#include <cstdint>
#include <string_view>

namespace corvdrive::cloud_filter {

// What every sync root identity of this client starts with; its session number follows.
inline constexpr std::string_view kSessionPrefix = "Corvane.Drive.FileStreaming.session.";

// A session number, or why there is none.
struct SessionNumber {
  std::int32_t value = 0;
  // The wording of the failure; null for a number that could be read.
  const char* failure = nullptr;
};

// The session number that a sync root identity carries; 0 for a name that does not start with the
// prefix or repeats it further on. It fails with "invalid stoi argument" when no number follows the
// prefix, and with "stoi argument out of range" when it does not fit into 32 bits.
[[nodiscard]] SessionNumber ReadSessionNumber(std::string_view name) noexcept;

// The same, where a failure is an exception: std::invalid_argument or std::out_of_range.
[[nodiscard]] std::int32_t ParseSessionNumber(std::string_view name);

}  // namespace corvdrive::cloud_filter

#endif
