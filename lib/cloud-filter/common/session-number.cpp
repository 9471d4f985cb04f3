#include "common/session-number.h"

#include <charconv>
#include <stdexcept>
#include <system_error>

namespace corvdrive::cloud_filter {
namespace {

// std::stoi's reading of a decimal number, with this library's own wording of its failures: the
// standard leaves the text of the exceptions open.
std::int32_t ParseInt(std::string_view text) {
  const auto start = text.find_first_not_of(" \t\n\v\f\r");
  text.remove_prefix(start == std::string_view::npos ? text.size() : start);
  // from_chars knows a minus sign, but neither a plus sign nor the plus before a minus.
  if (text.starts_with('+') && !text.starts_with("+-")) {
    text.remove_prefix(1);
  }
  std::int32_t number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  if (result.ec == std::errc::invalid_argument) {
    throw std::invalid_argument("invalid stoi argument");
  }
  if (result.ec == std::errc::result_out_of_range) {
    throw std::out_of_range("stoi argument out of range");
  }
  return number;
}

}  // namespace

std::int32_t ParseSessionNumber(const std::string& name) {
  if (name.rfind(kSessionPrefix) != 0) {
    return 0;
  }
  return ParseInt(std::string_view(name).substr(kSessionPrefix.size()));
}

}  // namespace corvdrive::cloud_filter
