#include "common/session-number.h"

#include <charconv>
#include <stdexcept>
#include <system_error>

namespace corvdrive::cloud_filter {
namespace {

constexpr char kInvalid[] = "invalid stoi argument";
constexpr char kOutOfRange[] = "stoi argument out of range";

// std::stoi's reading of a decimal number, with this library's own wording of its failures: the
// standard leaves the text of the exceptions open.
SessionNumber ReadInt(std::string_view text) noexcept {
  const auto start = text.find_first_not_of(" \t\n\v\f\r");
  text.remove_prefix(start == std::string_view::npos ? text.size() : start);
  // from_chars knows a minus sign, but neither a plus sign nor the plus before a minus.
  if (text.starts_with('+') && !text.starts_with("+-")) {
    text.remove_prefix(1);
  }
  SessionNumber number;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number.value);
  if (result.ec == std::errc::invalid_argument) {
    number.failure = kInvalid;
  } else if (result.ec == std::errc::result_out_of_range) {
    number.failure = kOutOfRange;
  }
  return number;
}

}  // namespace

SessionNumber ReadSessionNumber(std::string_view name) noexcept {
  return name.rfind(kSessionPrefix) == 0 ? ReadInt(name.substr(kSessionPrefix.size()))
                                         : SessionNumber{};
}

std::int32_t ParseSessionNumber(std::string_view name) {
  const SessionNumber number = ReadSessionNumber(name);
  if (number.failure == kInvalid) {
    throw std::invalid_argument(kInvalid);
  }
  if (number.failure == kOutOfRange) {
    throw std::out_of_range(kOutOfRange);
  }
  return number.value;
}

}  // namespace corvdrive::cloud_filter
