// The commands that change the state of items: hydrate, dehydrate, pin, unpin, exclude, in-sync.

#include <nimbra/nimbra.h>

#include <string>
#include <vector>

#include "commands.h"
#include "console.h"
#include "items.h"
#include "platform.h"
#include "progress.h"

namespace nimbractl {
namespace {

using Function = CORVWinCFStatus (*)(CORVWinCFPlaceholderHandle);

ExitCode Finish(const std::string& verb, const Tally& tally) {
  auto text = Count(tally.done, "item") + " " + verb;
  if (tally.skipped > 0) text += ", " + std::to_string(tally.skipped) + " skipped";
  if (tally.failed > 0) text += ", " + std::to_string(tally.failed) + " failed";
  WriteLine(Stream::kOutput, text);
  return tally.failed == 0 ? ExitCode::kOk : ExitCode::kSomeFailed;
}

// Only files have data to fetch or to drop.
void RequireData(const Item& item, bool recursive) {
  if (!item.isFolder || recursive) return;
  throw Failure(item.Name() + " is a folder, which has no data of its own",
                "use --recursive for the files below it");
}

// What was found below a folder and is none of the platform's business is passed over; what was
// named fails.
bool IsPassedOver(const OpenItem& open, const Item& item) {
  return !item.wasNamed && !open.Is(CORVWinCFPlaceholderIsPlaceholder);
}

// ForEachItem for what changes items. Those of other providers are not touched.
Tally ChangeEachItem(const ItemOptions& options, const Work& work) {
  OtherProviders others;
  return ForEachItem(options.paths, options.recursive, [&](const Item& item) {
    return others.Own(item) ? Outcome::kSkipped : work(item);
  });
}

// One call for each item. For the pin states the platform itself goes down the folders.
ExitCode Apply(const ItemOptions& options, Function function, const std::string& verb,
               const std::string& whatFailed) {
  RequirePlatform();
  const auto tally = ChangeEachItem(options, [&](const Item& item) {
    const OpenItem open(item);
    if (IsPassedOver(open, item)) return Outcome::kSkipped;
    open.Do(function, whatFailed);
    return Outcome::kDone;
  });
  return Finish(verb, tally);
}

// The files whose data is missing. The rest of the tally is as if they had been fetched.
std::vector<Item> FindMissing(const ItemOptions& options, Tally& tally) {
  std::vector<Item> missing;
  tally = ChangeEachItem(options, [&](const Item& item) {
    RequireData(item, options.recursive);
    if (item.isFolder) return Outcome::kSkipped;
    const OpenItem open(item);
    if (IsPassedOver(open, item)) return Outcome::kSkipped;
    if (open.Is(CORVWinCFPlaceholderIsPlaceholder) &&
        open.Is(CORVWinCFPlaceholderIsFullyHydrated)) {
      return Outcome::kSkipped;
    }
    missing.push_back(item);
    return Outcome::kDone;
  });
  return missing;
}

}  // namespace

ExitCode RunHydrate(const ItemOptions& options, Progress progress) {
  RequirePlatform();
  Tally tally;
  const auto missing = FindMissing(options, tally);
  std::int64_t bytes = 0;
  for (const auto& item : missing) bytes += item.size;
  const bool isShown = progress == Progress::kAlways ||
                       (progress == Progress::kOnTerminals && IsTerminal(Stream::kError));
  {
    ProgressBar bar(bytes, static_cast<std::int64_t>(missing.size()), isShown);
    for (const auto& item : missing) {
      bar.Begin(item.path, item.size);
      try {
        OpenItem(item).Do(CORVWinCFPlaceholderHydrateAll, "was not hydrated");
      } catch (const Failure& failure) {
        bar.Fail();
        PrintFailure(failure);
        --tally.done;
        ++tally.failed;
        continue;
      }
      bar.End();
    }
  }
  return Finish("hydrated", tally);
}

ExitCode RunDehydrate(const ItemOptions& options) {
  RequirePlatform();
  const auto tally = ChangeEachItem(options, [&](const Item& item) {
    RequireData(item, options.recursive);
    if (item.isFolder) return Outcome::kSkipped;
    const OpenItem open(item);
    // An empty file has nothing to drop, and the platform may refuse to.
    if (IsPassedOver(open, item) ||
        (item.size == 0 && open.Is(CORVWinCFPlaceholderIsPlaceholder))) {
      return Outcome::kSkipped;
    }
    open.Do(CORVWinCFPlaceholderDehydrateAll, "was not dehydrated");
    return Outcome::kDone;
  });
  return Finish("dehydrated", tally);
}

ExitCode RunPin(const ItemOptions& options) {
  return Apply(options, CORVWinCFPlaceholderPinToLocal, "pinned", "was not pinned");
}

ExitCode RunUnpin(const ItemOptions& options, bool inherit) {
  const auto function = inherit ? CORVWinCFPlaceholderUnpin : CORVWinCFPlaceholderForceUnpin;
  return Apply(options, function, "unpinned", "was not unpinned");
}

ExitCode RunExclude(const ItemOptions& options) {
  return Apply(options, CORVWinCFPlaceholderSetExcluded, "excluded", "was not excluded");
}

ExitCode RunInSync(const ItemOptions& options, bool notInSync) {
  const auto function =
      notInSync ? CORVWinCFPlaceholderSetNotInSync : CORVWinCFPlaceholderSetInSync;
  const std::string state = notInSync ? "marked as not in sync" : "marked as in sync";
  return Apply(options, function, state, "was not " + state);
}

}  // namespace nimbractl
