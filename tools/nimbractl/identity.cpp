// nimbractl identity: the client's own names of items, and of their sync root.

#include "identity.h"

#include <nimbra/nimbra.h>

#include <algorithm>

#include "basics.h"
#include "commands.h"
#include "console.h"
#include "items.h"
#include "json.h"
#include "platform.h"
#include "results.h"

namespace nimbractl {
namespace {

constexpr std::size_t kMostIdentity = 4096;
constexpr std::int32_t kNotACloudFile = static_cast<std::int32_t>(0x80070178);

std::string IdentityOf(const OpenItem& item) {
  return BytesWritten(kMostIdentity, [&](void* buffer) {
    CORVWinCFPlaceholderGetFileIdentity(item.Handle(), buffer);
  });
}

// Text as it is, other bytes as digits, and a word where there are none.
std::string ForPeople(const std::string& bytes) {
  if (bytes.empty()) return "(empty)";
  return IsText(bytes) ? bytes : "hex:" + Hex(bytes);
}

Json ToJson(const std::string& bytes) {
  return {{"text", IsText(bytes) ? Json(bytes) : Json()},
          {"hex", Hex(bytes)},
          {"length", bytes.size()}};
}

}  // namespace

bool IsText(std::string_view bytes) {
  const bool hasControls = std::any_of(bytes.begin(), bytes.end(), [](char byte) {
    return static_cast<unsigned char>(byte) < ' ' || byte == 0x7F;
  });
  return !hasControls && Utf8(Wide(bytes)) == bytes;
}

std::string Hex(std::string_view bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    text += kDigits[value / 16];
    text += kDigits[value % 16];
  }
  return text;
}

ExitCode RunIdentity(const ItemOptions& options) {
  RequirePlatform();
  Json items = Json::array();
  const auto work = [&](const Item& item) {
    const OpenItem open(item);
    if (!open.Is(CORVWinCFPlaceholderIsPlaceholder)) {
      if (!item.wasNamed) return Outcome::kSkipped;
      throw Failure(item.Name() + " has no identity: " + ResultText(kNotACloudFile),
                    ResultAdvice(kNotACloudFile));
    }
    const auto identity = IdentityOf(open);
    const auto root = SyncRootIdentity(item.path).value_or("");
    if (options.json) {
      items.push_back(
          {{"path", item.Name()}, {"identity", ToJson(identity)}, {"syncRoot", ToJson(root)}});
    } else {
      WriteLine(Stream::kOutput, item.Name() + "\n  identity   " + ForPeople(identity) +
                                     "\n  sync root  " + ForPeople(root));
    }
    return Outcome::kDone;
  };
  const auto onFailure = [&](const std::string& path, const Failure& failure) {
    items.push_back({{"path", path}, {"error", failure.what()}});
  };
  const auto tally = ForEachItem(options.paths, options.recursive, work, onFailure);
  if (options.json) WriteLine(Stream::kOutput, JsonText(items));
  return tally.failed == 0 ? ExitCode::kOk : ExitCode::kSomeFailed;
}

}  // namespace nimbractl
