// The session number in a sync root's identity against a model that reads it digit by digit.

#include <stdexcept>

#include "common/session-number.h"
#include "feed.h"
#include "win-cf/sync-root.h"

namespace {

using corvdrive::cloud_filter::kSessionPrefix;
using corvdrive::cloud_filter::MakeSyncRootIdentity;
using corvdrive::cloud_filter::ParseSessionNumber;
using nimbra_native::Require;

enum class Outcome { kNumber, kNoNumber, kOutOfRange };

struct Reading {
  Outcome outcome;
  std::int64_t number;
  friend bool operator==(const Reading&, const Reading&) = default;
};

Reading ModelOfNumber(const std::string& text) {
  std::size_t at = 0;
  while (at < text.size() && (text[at] == ' ' || (text[at] >= 9 && text[at] <= 13))) ++at;
  const bool isNegative = at < text.size() && text[at] == '-';
  if (isNegative || (at < text.size() && text[at] == '+')) ++at;
  std::int64_t number = 0;
  bool hasDigits = false;
  bool isTooLarge = false;
  for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
    hasDigits = true;
    if (!isTooLarge) number = number * 10 + (text[at] - '0');
    isTooLarge = isTooLarge || number > (isNegative ? 2147483648 : 2147483647);
  }
  if (!hasDigits) return {Outcome::kNoNumber, 0};
  if (isTooLarge) return {Outcome::kOutOfRange, 0};
  return {Outcome::kNumber, isNegative ? -number : number};
}

// The prefix counts only at the start, and only once.
Reading Model(const std::string& name) {
  std::size_t count = 0;
  for (std::size_t i = 0; i + kSessionPrefix.size() <= name.size(); ++i) {
    if (name.compare(i, kSessionPrefix.size(), kSessionPrefix) == 0) ++count;
  }
  if (count != 1 || !name.starts_with(kSessionPrefix)) return {Outcome::kNumber, 0};
  return ModelOfNumber(name.substr(kSessionPrefix.size()));
}

Reading Actual(const std::string& name) try {
  return {Outcome::kNumber, ParseSessionNumber(name)};
} catch (const std::invalid_argument& failure) {
  Require(std::string(failure.what()) == "invalid stoi argument", "the exact words");
  return {Outcome::kNoNumber, 0};
} catch (const std::out_of_range& failure) {
  Require(std::string(failure.what()) == "stoi argument out of range", "the exact words");
  return {Outcome::kOutOfRange, 0};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  nimbra_native::Feed feed(data, size);
  const auto mode = feed.Take<std::uint8_t>();
  if ((mode & 4U) != 0) {
    const auto session = feed.Take<std::uint64_t>();
    const Reading expected = session <= 2147483647
                                 ? Reading{Outcome::kNumber, static_cast<std::int64_t>(session)}
                                 : Reading{Outcome::kOutOfRange, 0};
    Require(Actual(MakeSyncRootIdentity(session)) == expected, "what is written is read");
    return 0;
  }
  std::string name;
  if ((mode & 1U) != 0) name = kSessionPrefix;
  name += feed.TakeBytes(feed.Take<std::uint8_t>());
  if ((mode & 2U) != 0) name += kSessionPrefix;
  name += feed.TakeRest();
  Require(Actual(name) == Model(name), "the number is the model's");
  return 0;
}
