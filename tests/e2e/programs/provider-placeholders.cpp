#include "provider-placeholders.h"

#include <array>
#include <map>
#include <mutex>

#include "wide-text.h"

namespace e2e {
namespace {

using Operation = CORVWinCFStatus (*)(CORVWinCFPlaceholderHandle);

struct MetaReleaser {
  void operator()(CORVWinCFPlaceholderMetaHandle handle) const {
    CORVWinCFPlaceholderMetaRelease(handle);
  }
};
using Meta = std::unique_ptr<std::remove_pointer_t<CORVWinCFPlaceholderMetaHandle>, MetaReleaser>;

Meta MetaOf(const Fields& command) {
  const auto time = command.Number("time", 0);
  return Meta(CORVWinCFPlaceholderMetaNew(
      command.Number("accessTime", time), command.Number("changeTime", time),
      command.Number("creationTime", time), command.Number("writeTime", time),
      command.Number("size", 0), static_cast<std::int32_t>(command.Number("type", 0))));
}

Fields Outcome(std::int64_t status) { return Fields().Set("status", status); }

Fields Create(const Fields& command) {
  const auto placeholder = MakePlaceholder(command.Text("path"));
  const auto meta = MetaOf(command);
  return Outcome(
      CORVWinCFPlaceholderCreate(placeholder.get(), command.Text("identity").c_str(), meta.get()));
}

// Placeholders that stay open across commands, by path: `open` puts them here, `close` takes them.
std::mutex openMutex;
std::map<std::string, Placeholder> openPlaceholders;

Fields Open(const Fields& command) {
  auto placeholder = MakePlaceholder(command.Text("path"));
  const auto status = CORVWinCFPlaceholderOpen(placeholder.get());
  const std::lock_guard lock(openMutex);
  openPlaceholders[command.Text("path")] = std::move(placeholder);
  return Outcome(status);
}

Fields Close(const Fields& command) {
  const std::lock_guard lock(openMutex);
  return Outcome(openPlaceholders.erase(command.Text("path")) == 1 ? 0 : -1);
}

// Runs `operation` on the item, opened for it. `opened` in the answer tells the two failures apart.
template <class OperationOnHandle>
Fields OnOpened(const Fields& command, OperationOnHandle operation) {
  const auto placeholder = MakePlaceholder(command.Text("path"));
  const auto opened = CORVWinCFPlaceholderOpen(placeholder.get());
  if (opened != 0) return Outcome(-1).Set("opened", opened);
  return Outcome(operation(placeholder.get())).Set("opened", opened);
}

Fields Update(const Fields& command) {
  return OnOpened(command, [&](auto handle) {
    const auto meta = command.Number("withoutMeta", 0) != 0 ? Meta() : MetaOf(command);
    return CORVWinCFPlaceholderUpdate(handle, command.Text("identity").c_str(), meta.get());
  });
}

Fields UpdateUnopened(const Fields& command) {
  const auto placeholder = MakePlaceholder(command.Text("path"));
  return Outcome(
      CORVWinCFPlaceholderUpdate(placeholder.get(), command.Text("identity").c_str(), nullptr));
}

Fields Convert(const Fields& command) {
  return OnOpened(command, [&](auto handle) {
    return CORVWinCFPlaceholderConvertToPlaceholder(handle, command.Text("identity").c_str());
  });
}

Fields DehydrateRange(const Fields& command) {
  return OnOpened(command, [&](auto handle) {
    return CORVWinCFPlaceholderDehydrate(handle, command.Number("offset"),
                                         command.Number("length"));
  });
}

Fields State(const Fields& command) {
  const auto placeholder = MakePlaceholder(command.Text("path"));
  const auto handle = placeholder.get();
  // A zero byte more than the longest identity, which comes without a terminator.
  std::array<char, 4097> identity{};
  Fields state;
  state.Set("opened", CORVWinCFPlaceholderOpen(handle))
      .Set("placeholder", CORVWinCFPlaceholderIsPlaceholder(handle))
      .Set("hydrated", CORVWinCFPlaceholderIsFullyHydrated(handle))
      .Set("pinned", CORVWinCFPlaceholderIsPinned(handle))
      .Set("excluded", CORVWinCFPlaceholderIsExcluded(handle))
      .Set("inSync", CORVWinCFPlaceholderIsInSync(handle));
  CORVWinCFPlaceholderGetFileIdentity(handle, identity.data());
  return state.Set("identity", identity.data());
}

Fields PathState(const Fields& command) {
  const auto& path = command.Text("path");
  return Fields()
      .Set("placeholder", CORVWinCFIsPlaceholder(path.c_str()))
      .Set("hydrated", CORVWinCFIsFullyHydrated(path.c_str()))
      .Set("hydratedWide", CORVWinCFIsFullyHydratedW(ToWide(path).c_str()));
}

}  // namespace

Placeholder MakePlaceholder(const std::string& path) {
  CORVWinCFPlaceholderHandle handle = nullptr;
  CORVWinCFPlaceholderNew(&handle, path.c_str());
  return Placeholder(handle);
}

void AddPlaceholderCommands(CommandLoop& loop) {
  constexpr std::pair<const char*, Operation> kOperations[] = {
      {"revert", CORVWinCFPlaceholderRevertToNormal},
      {"hydrate", CORVWinCFPlaceholderHydrateAll},
      {"hydrateAsync", CORVWinCFPlaceholderHydrateAllAsync},
      {"dehydrateAll", CORVWinCFPlaceholderDehydrateAll},
      {"pin", CORVWinCFPlaceholderPinToLocal},
      {"unpin", CORVWinCFPlaceholderUnpin},
      {"forceUnpin", CORVWinCFPlaceholderForceUnpin},
      {"exclude", CORVWinCFPlaceholderSetExcluded},
      {"setInSync", CORVWinCFPlaceholderSetInSync},
      {"setNotInSync", CORVWinCFPlaceholderSetNotInSync},
  };
  for (const auto& [name, operation] : kOperations) {
    loop.Add(name, [run = operation](const Fields& command) { return OnOpened(command, run); });
  }
  loop.Add("create", Create);
  loop.Add("open", Open);
  loop.Add("close", Close);
  loop.Add("update", Update);
  loop.Add("updateUnopened", UpdateUnopened);
  loop.Add("convert", Convert);
  loop.Add("dehydrate", DehydrateRange);
  loop.Add("state", State);
  loop.Add("pathState", PathState);
}

}  // namespace e2e
