#ifndef NIMBRA_COMMON_SESSION_NUMBER_H_
#define NIMBRA_COMMON_SESSION_NUMBER_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace corvdrive::cloud_filter {

// What every sync root identity of this client starts with; its session number follows.
inline constexpr std::string_view kSessionPrefix = "Corvane.Drive.FileStreaming.session.";

// The session number that a sync root identity carries; 0 for a name that does not start with the
// prefix or repeats it further on. Throws std::invalid_argument ("invalid stoi argument") when no
// number follows the prefix and std::out_of_range ("stoi argument out of range") when it does not
// fit into 32 bits.
[[nodiscard]] std::int32_t ParseSessionNumber(const std::string& name);

}  // namespace corvdrive::cloud_filter

#endif
