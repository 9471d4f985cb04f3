// nimbractl state: what the platform knows of files and folders.

#include <nimbra/nimbra.h>

#include <cstdint>
#include <optional>
#include <string>

#include "commands.h"
#include "console.h"
#include "items.h"
#include "json.h"
#include "platform.h"

namespace nimbractl {
namespace {

struct State {
  bool isPlaceholder = false;
  bool isHydrated = false;
  // Nothing for what is no placeholder.
  std::optional<bool> isPinned, isExcluded, isInSync;
  std::optional<std::int64_t> onDisk;
};

State Ask(const Item& item) {
  const OpenItem open(item);
  State state;
  state.isPlaceholder = open.Is(CORVWinCFPlaceholderIsPlaceholder);
  state.isHydrated = open.Is(CORVWinCFPlaceholderIsFullyHydrated);
  state.onDisk = BytesOnDisk(item.path);
  if (!state.isPlaceholder) return state;
  state.isPinned = open.Is(CORVWinCFPlaceholderIsPinned);
  state.isExcluded = open.Is(CORVWinCFPlaceholderIsExcluded);
  state.isInSync = open.Is(CORVWinCFPlaceholderIsInSync);
  return state;
}

std::string NumberText(const std::optional<std::int64_t>& number) {
  return number ? std::to_string(*number) : "-";
}

Json ToJson(const Item& item, const State& state) {
  return {{"path", item.Name()},
          {"folder", item.isFolder},
          {"link", false},
          {"placeholder", state.isPlaceholder},
          {"hydrated", state.isHydrated},
          {"pinned", OrNull(state.isPinned)},
          {"excluded", OrNull(state.isExcluded)},
          {"inSync", OrNull(state.isInSync)},
          {"size", item.isFolder ? Json() : Json(item.size)},
          {"bytesOnDisk", item.isFolder ? Json() : OrNull(state.onDisk)}};
}

// Nothing is asked of a link: the answer would be about what it leads to.
Json ToJson(const Item& link) {
  Json json{{"path", link.Name()}, {"folder", link.isFolder}, {"link", true}};
  for (const auto* question :
       {"placeholder", "hydrated", "pinned", "excluded", "inSync", "size", "bytesOnDisk"}) {
    json[question] = Json();
  }
  return json;
}

Tally PrintTable(const ItemOptions& options) {
  Table table(
      {"placeholder", "hydrated", "pinned", "excluded", "in sync", "size", "on disk", "path"});
  const auto work = [&](const Item& item) {
    const auto state = Ask(item);
    table.Add({YesNo(state.isPlaceholder), YesNo(state.isHydrated), YesNo(state.isPinned),
               YesNo(state.isExcluded), YesNo(state.isInSync),
               item.isFolder ? "folder" : std::to_string(item.size),
               item.isFolder ? "-" : NumberText(state.onDisk), item.Name()});
    return Outcome::kDone;
  };
  const auto onLink = [&](const Item& link) {
    table.Add({"-", "-", "-", "-", "-", "link", "-", link.Name()});
  };
  const auto tally = ForEachItem(options.paths, options.recursive, work, {}, onLink);
  if (tally.done + tally.skipped > 0) Write(Stream::kOutput, table.Text());
  return tally;
}

Tally PrintJson(const ItemOptions& options) {
  Json items = Json::array();
  const auto work = [&](const Item& item) {
    items.push_back(ToJson(item, Ask(item)));
    return Outcome::kDone;
  };
  const auto onFailure = [&](const std::string& path, const Failure& failure) {
    items.push_back({{"path", path}, {"error", failure.what()}});
  };
  const auto onLink = [&](const Item& link) { items.push_back(ToJson(link)); };
  const auto tally = ForEachItem(options.paths, options.recursive, work, onFailure, onLink);
  WriteLine(Stream::kOutput, JsonText(items));
  return tally;
}

}  // namespace

ExitCode RunState(const ItemOptions& options) {
  RequirePlatform();
  const auto tally = options.json ? PrintJson(options) : PrintTable(options);
  return tally.failed == 0 ? ExitCode::kOk : ExitCode::kSomeFailed;
}

}  // namespace nimbractl
