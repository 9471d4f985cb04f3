#include "placeholder-service.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <limits>

#include "execute-service.h"
#include "file-service.h"
#include "tree-walk.h"

namespace cloud_filter {
namespace {

constexpr std::int64_t kToEnd = -1;
constexpr std::chrono::milliseconds kCloseGrace{1000};
constexpr std::chrono::milliseconds kCallerCheck{100};

Range RangeFrom(std::int64_t offset, std::int64_t length, std::int64_t size) {
  const auto end = length == kToEnd || length > size - offset ? size : offset + length;
  return {offset, std::max(end, offset)};
}

bool IsDehydratable(std::int64_t offset, std::int64_t length, std::int64_t size) {
  if (offset < 0 || length < kToEnd || offset % kPage != 0) return false;
  return length == kToEnd || length % kPage == 0 || length >= size - offset;
}

// Waits for an answer that comes from another thread, as long as the caller is there.
struct Answer {
  std::mutex mutex;
  std::condition_variable came;
  std::optional<Verdict> verdict;

  void Give(const Verdict& given) {
    const std::lock_guard lock(mutex);
    verdict = given;
    came.notify_all();
  }
  // Calls `abandon` once the caller has gone; the answer follows from that.
  Verdict Wait(const PlaceholderService::CallerGone& gone, const std::function<void()>& abandon) {
    std::unique_lock lock(mutex);
    while (!came.wait_for(lock, kCallerCheck, [this] { return verdict.has_value(); })) {
      if (!gone || !gone()) continue;
      lock.unlock();
      abandon();
      lock.lock();
    }
    return *verdict;
  }
};

std::string FolderOf(const std::string& path) {
  return std::filesystem::path(path).parent_path().string();
}

}  // namespace

Hresult CheckDehydration(const Item& item, bool becomesInSync) {
  if (item.record.directory || item.root->Hydration() == policy::kHydrationAlwaysFull) {
    return hr::kNotSupported;
  }
  if (item.record.alwaysFull) return hr::kDehydrationDisallowed;
  if (item.record.pin == PinState::kPinned) return hr::kPinned;
  if (!item.record.inSync && !becomesInSync) return hr::kNotInSync;
  return hr::kOk;
}

void PlaceholderService::Invalidate(const ItemPtr& item) {
  std::shared_ptr<FrontEnd> frontEnd;
  {
    Guard guard(core_);
    frontEnd = item->root->frontEnd;
  }
  if (frontEnd != nullptr) frontEnd->Invalidate(item->record.inode);
}

Hresult PlaceholderService::Convert(const wire::ItemRef& ref, const std::string& identity,
                                    std::uint32_t flags, std::int64_t& usn,
                                    const CallerGone& gone) {
  const auto dehydrates = (flags & flag::kConvertDehydrate) != 0;
  {
    Guard guard(core_);
    Located located;
    if (const auto result = core_.Locate(guard, ref, located)) return result;
    if ((flags & ~flag::kConvertAll) != 0 || identity.size() > kMaxFileIdentity ||
        (dehydrates && identity.empty())) {
      return hr::kInvalidParameter;
    }
    if (!located.facts.IsFile() && !located.facts.IsDirectory()) return hr::kNotSupported;
    const auto isRoot = located.facts.inode == located.root->inode;
    // Guessed: the code for what is a placeholder already. Documented: the root may be converted.
    if (located.item != nullptr && !isRoot) return hr::kInvalidRequest;
    if (dehydrates) {
      if (located.facts.IsDirectory() ||
          located.root->Hydration() == policy::kHydrationAlwaysFull) {
        return hr::kNotSupported;
      }
      if ((flags & flag::kConvertInSync) == 0) return hr::kNotInSync;
    }
    if (!MayWrite(located.reference.Get())) return hr::kAccessDenied;
    auto record = located.item != nullptr ? located.item->record : ItemRecord();
    record.directory = located.facts.IsDirectory();
    record.full = true;
    record.identity = identity;
    record.inSync = record.inSync || (flags & flag::kConvertInSync) != 0;
    record.alwaysFull = (flags & flag::kConvertAlwaysFull) != 0;
    record.populated = (flags & flag::kConvertEnablePopulation) == 0;
    record.attributes = record.directory ? 0 : static_cast<std::uint32_t>(attribute::kArchive);
    if (record.creationTime == 0) record.creationTime = FileTimeOf(located.facts.writeTime);
    if (record.changeTime == 0) record.changeTime = FileTimeNow();
    if (located.item != nullptr) {
      located.item->record = std::move(record);
      core_.items.Save(*located.item);
      usn = located.item->record.usn;
    } else {
      usn =
          core_.items.Add(located.root, located.reference.Get(), located.facts, std::move(record))
              ->record.usn;
    }
  }
  return dehydrates ? Dehydrate(ref, 0, kToEnd, 0, gone) : hr::kOk;
}

Hresult PlaceholderService::WaitUntilUnused(Guard& guard, const ItemPtr& item) {
  // The caller's own handle counts as one. A program's close reaches the filter a little later.
  const auto unused = [&] { return item->Opens() <= 1 && item->job == nullptr; };
  return core_.changed.wait_for(guard.Lock(), kCloseGrace, unused) ? hr::kOk : hr::kInUse;
}

Hresult PlaceholderService::DropData(const ItemPtr& item, const std::vector<Range>& ranges,
                                     const std::optional<std::string>& identity) {
  {
    const std::unique_lock hold(item->data);
    {
      Guard guard(core_);
      if (item->job != nullptr) return hr::kInUse;
      auto& record = item->record;
      auto present = item->PresentRanges();
      for (const auto& range : ranges) {
        present.Remove(range);
        record.validated.Remove(range);
      }
      record.present = std::move(present);
      record.full = record.present.Contains({0, item->Size()});
      if (identity) record.identity = *identity;
      core_.items.Save(*item);
    }
    // Dropped from the store first: a death in between only means another fetch.
    UniqueFd file;
    if (const auto error = OpenData(item->reference.Get(), O_RDWR, file)) {
      return HresultOfErrno(error);
    }
    const TimeKeeper keeper(file.Get());
    for (const auto& range : ranges) {
      if (const auto error = PunchHole(file.Get(), range)) return HresultOfErrno(error);
    }
  }
  Invalidate(item);
  return hr::kOk;
}

Hresult PlaceholderService::AskDehydrate(const ItemPtr& item, std::uint32_t flags,
                                         const CallerGone& gone) {
  auto answer = std::make_shared<Answer>();
  const auto waiterId = core_.NextWaiterId();
  {
    Guard guard(core_);
    const auto connection = item->root->connection;
    if (connection == nullptr || !connection->Wants(callback::kDehydrate)) return hr::kOk;
    auto event = core_.MakeEvent(*item, callback::kDehydrate, {});
    event.flags = flags;
    event.range[0] = callback::kReasonUserManual;
    core_.notifications.Ask(guard, item, std::move(event), true, waiterId,
                            [answer](const Verdict& verdict) { answer->Give(verdict); });
  }
  const auto verdict = answer->Wait(gone, [&] {
    Guard guard(core_);
    core_.notifications.Abandon(guard, waiterId, hr::kInterrupted);
  });
  if (verdict.result == hr::kOk && verdict.identity) {
    Guard guard(core_);
    item->record.identity = *verdict.identity;
  }
  return verdict.result;
}

void PlaceholderService::TellDehydrated(const ItemPtr& item, std::uint32_t flags, bool hadData) {
  Guard guard(core_);
  const auto connection = item->root->connection;
  if (connection == nullptr || !connection->Wants(callback::kDehydrateCompletion)) return;
  auto event = core_.MakeEvent(*item, callback::kDehydrateCompletion, {});
  event.requestKey = core_.NextRequestKey();
  event.flags = flags | (hadData ? callback::kDehydrated : 0);
  event.range[0] = callback::kReasonUserManual;
  connection->sink->Send(event);
}

Hresult PlaceholderService::Dehydrate(const wire::ItemRef& ref, std::int64_t offset,
                                      std::int64_t length, std::uint32_t flags,
                                      const CallerGone& gone) {
  ItemPtr item;
  Range range;
  auto hadData = false;
  {
    Guard guard(core_);
    Located located;
    if (const auto result = core_.LocateItem(guard, ref, located)) return result;
    if ((flags & ~flag::kDehydrateBackground) != 0 ||
        !IsDehydratable(offset, length, located.facts.size)) {
      return hr::kInvalidParameter;
    }
    item = located.item;
    if (const auto result = CheckDehydration(*item, false)) return result;
    if (const auto result = WaitUntilUnused(guard, item)) return result;
    range = RangeFrom(offset, length, located.facts.size);
    hadData = item->PresentRanges().TotalWithin(range) > 0;
  }
  if (const auto result = AskDehydrate(item, flags, gone)) return result;
  const auto result = DropData(item, {range}, std::nullopt);
  if (result == hr::kOk) TellDehydrated(item, flags, hadData);
  return result;
}

Hresult PlaceholderService::UpdateItem(const wire::ItemRef& ref, const Update& update,
                                       std::int64_t& usn) {
  ItemPtr item;
  std::vector<Range> ranges;
  const auto flags = update.flags;
  {
    Guard guard(core_);
    Located located;
    if (const auto result = core_.LocateItem(guard, ref, located)) return result;
    item = located.item;
    if ((flags & ~flag::kUpdateAll) != 0 || update.identity.size() > kMaxFileIdentity ||
        (update.metadata && update.metadata->fileSize < 0)) {
      return hr::kInvalidParameter;
    }
    constexpr auto kBoth = flag::kUpdateAlwaysFull | flag::kUpdateAllowPartial;
    if ((flags & kBoth) == kBoth) return hr::kInvalidRequest;
    const auto size = located.facts.size;
    if ((flags & flag::kUpdateDehydrate) != 0) {
      ranges.push_back({0, size});
    } else {
      for (const auto& range : update.dehydrate) {
        if (!IsDehydratable(range.start, range.length, size)) return hr::kInvalidParameter;
        ranges.push_back(RangeFrom(range.start, range.length, size));
      }
    }
    if (!ranges.empty()) {
      const auto becomesInSync = (flags & flag::kUpdateInSync) != 0;
      if (const auto result = CheckDehydration(*item, becomesInSync)) return result;
    }
    if (!MayWrite(located.reference.Get())) return hr::kAccessDenied;
    const auto verifies = (flags & flag::kUpdateVerifyInSync) != 0;
    if ((verifies && !item->record.inSync) || (update.usn != 0 && update.usn != item->record.usn)) {
      return hr::kNotInSync;
    }
    // Guessed: what must be full has to be full first.
    if ((flags & flag::kUpdateAlwaysFull) != 0 && !item->record.full) return hr::kInvalidRequest;
    const auto resizes =
        update.metadata && !item->record.directory && update.metadata->fileSize != size;
    if (!ranges.empty()) {
      if (const auto result = WaitUntilUnused(guard, item)) return result;
    } else if (resizes && item->job != nullptr) {
      return hr::kInUse;
    }
  }
  if (const auto result = ApplyUpdate(item, update, ranges)) return result;
  Invalidate(item);
  Guard guard(core_);
  usn = item->record.usn;
  return hr::kOk;
}

namespace {

void ChangeRecord(ItemRecord& record, const Update& update) {
  const auto has = [&](std::uint32_t bit) { return (update.flags & bit) != 0; };
  if (has(flag::kUpdateRemoveIdentity)) {
    record.identity.clear();
  } else if (!update.identity.empty()) {
    record.identity = update.identity;
  }
  if (has(flag::kUpdateInSync)) {
    record.inSync = true;
    record.modified.Clear();
  }
  if (has(flag::kUpdateClearInSync)) record.inSync = false;
  if (has(flag::kUpdateAlwaysFull)) record.alwaysFull = true;
  if (has(flag::kUpdateAllowPartial)) record.alwaysFull = false;
  if (has(flag::kUpdateEnablePopulation)) record.populated = false;
  if (has(flag::kUpdateDisablePopulation)) record.populated = true;
  if (!update.metadata) return;
  const auto& metadata = *update.metadata;
  if (metadata.creationTime != 0) record.creationTime = metadata.creationTime;
  if (metadata.changeTime != 0) record.changeTime = metadata.changeTime;
  if (metadata.attributes != 0) record.attributes = metadata.attributes & attribute::kKept;
}

}  // namespace

Hresult PlaceholderService::ApplyUpdate(const ItemPtr& item, const Update& update,
                                        const std::vector<Range>& ranges) {
  const std::unique_lock hold(item->data);
  FileFacts facts;
  if (const auto error = GetFacts(item->reference.Get(), facts)) return HresultOfErrno(error);
  const auto resizes = update.metadata && !item->record.directory;
  // Documented: the size given counts always, 0 as well.
  const auto size = resizes ? update.metadata->fileSize : facts.size;
  {
    Guard guard(core_);
    auto& record = item->record;
    auto present = item->PresentRanges();
    for (const auto& range : ranges) present.Remove(range);
    constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
    for (auto* set : {&present, &record.validated, &record.modified}) set->Remove({size, kMax});
    if (!record.directory) {
      record.full = present.Contains({0, size});
      record.present = record.full ? RangeSet() : std::move(present);
    }
    ChangeRecord(record, update);
    core_.items.Save(*item);
  }
  if (!item->record.directory && (resizes || !ranges.empty())) {
    UniqueFd file;
    if (const auto error = OpenData(item->reference.Get(), O_RDWR, file)) {
      return HresultOfErrno(error);
    }
    const TimeKeeper keeper(file.Get());
    for (const auto& range : ranges) {
      if (const auto error = PunchHole(file.Get(), range)) return HresultOfErrno(error);
    }
    if (size != facts.size && ftruncate(file.Get(), size) != 0) return HresultOfErrno(errno);
  }
  if (!update.metadata) return hr::kOk;
  if (update.metadata->attributes != 0) {
    SetDosAttributes(item->reference.Get(), facts, update.metadata->attributes);
  }
  return HresultOfErrno(SetTimes(item->reference.Get(), update.metadata->lastAccessTime,
                                 update.metadata->lastWriteTime));
}

Hresult PlaceholderService::HydrateItem(const ItemPtr& item, Range range, const CallerGone& gone) {
  auto answer = std::make_shared<Answer>();
  Demand demand;
  demand.need = range;
  demand.explicitRequest = true;
  demand.waiterId = core_.NextWaiterId();
  demand.done = [answer](Hresult result) { answer->Give({result, false, std::nullopt}); };
  const auto waiterId = demand.waiterId;
  {
    Guard guard(core_);
    const auto result = core_.hydration.Require(guard, item, std::move(demand));
    if (result != hr::kPending) return result;
  }
  return answer
      ->Wait(gone,
             [&] {
               Guard guard(core_);
               core_.hydration.Abandon(guard, waiterId, hr::kInterrupted);
             })
      .result;
}

Hresult PlaceholderService::Hydrate(const wire::ItemRef& ref, std::int64_t offset,
                                    std::int64_t length, std::uint32_t flags,
                                    const CallerGone& gone) {
  Located located;
  {
    Guard guard(core_);
    if (const auto result = core_.LocateItem(guard, ref, located)) return result;
    if (flags != 0 || offset < 0 || length < kToEnd) return hr::kInvalidParameter;
    // Documented: files only. Guessed: the code.
    if (located.item->record.directory) return hr::kNotSupported;
  }
  const auto result =
      HydrateItem(located.item, RangeFrom(offset, length, located.facts.size), gone);
  if (result == hr::kOk) Invalidate(located.item);
  return result;
}

Hresult PlaceholderService::Revert(const wire::ItemRef& ref, std::uint32_t flags,
                                   const CallerGone& gone) {
  Located located;
  {
    Guard guard(core_);
    if (const auto result = core_.LocateItem(guard, ref, located)) return result;
    if (flags != 0) return hr::kInvalidParameter;
    if (located.facts.inode == located.root->inode) return hr::kNotSupported;
    if (!MayWrite(located.reference.Get())) return hr::kAccessDenied;
  }
  if (!located.item->record.directory &&
      HydrateItem(located.item, {0, located.facts.size}, gone) != hr::kOk) {
    return hr::kAccessDenied;  // documented
  }
  Guard guard(core_);
  core_.items.Forget(*located.root, located.facts.inode, false);
  return hr::kOk;
}

Hresult PlaceholderService::SetPin(Guard& guard, const RootPtr& root, int reference,
                                   const FileFacts& facts, PinState pin, PinState parent) {
  auto& items = guard.core.items;
  const auto item = items.Find(root, reference, facts);
  if (item == nullptr) return hr::kNotACloudFile;
  const auto wanted = pin == PinState::kInherit
                          ? InheritedPin(item->record.pin, parent, item->record.directory)
                          : pin;
  if (wanted == item->record.pin) return hr::kOk;
  item->record.pin = wanted;
  items.Save(*item);
  return hr::kOk;
}

Hresult PlaceholderService::SetPinState(const wire::ItemRef& ref, std::uint32_t pin,
                                        std::uint32_t flags) {
  constexpr auto kAllFlags = flag::kPinRecurse | flag::kPinRecurseOnly | flag::kPinStopOnError;
  if (pin > static_cast<std::uint32_t>(PinState::kInherit) || (flags & ~kAllFlags) != 0) {
    return hr::kInvalidParameter;
  }
  const auto wanted = static_cast<PinState>(pin);
  Guard guard(core_);
  Located located;
  if (const auto result = core_.LocateItem(guard, ref, located)) return result;
  const auto pinOf = [&](int folder) {
    FileFacts facts;
    if (GetFacts(folder, facts) != 0) return PinState::kUnspecified;
    const auto item = core_.items.Find(located.root, folder, facts);
    return item == nullptr ? PinState::kUnspecified : item->record.pin;
  };
  Store::Transaction transaction(core_.store);
  if ((flags & flag::kPinRecurseOnly) == 0) {
    Located parent;
    auto parentPin = PinState::kUnspecified;
    if (located.facts.inode != located.root->inode &&
        core_.Locate(guard, {FolderOf(ref.path), 0}, parent) == hr::kOk) {
      parentPin = pinOf(parent.reference.Get());
    }
    SetPin(guard, located.root, located.reference.Get(), located.facts, wanted, parentPin);
  }
  auto result = hr::kOk;
  const auto recurses = (flags & (flag::kPinRecurse | flag::kPinRecurseOnly)) != 0;
  if (recurses && located.facts.IsDirectory()) {
    // Documented: errors are passed over, unless the flag says to stop.
    WalkTree(located.reference.Get(), WalkOrder::kFolderFirst, [&](const TreeEntry& entry) {
      const auto one = SetPin(guard, located.root, entry.reference.Get(), entry.facts, wanted,
                              pinOf(entry.folder));
      if (one != hr::kOk && (flags & flag::kPinStopOnError) != 0) result = one;
      return result == hr::kOk;
    });
  }
  transaction.Commit();
  return result;
}

Hresult PlaceholderService::SetInSync(const wire::ItemRef& ref, std::uint32_t inSync,
                                      std::uint32_t flags, std::int64_t& usn) {
  Guard guard(core_);
  Located located;
  if (const auto result = core_.LocateItem(guard, ref, located)) return result;
  if (inSync > 1 || flags != 0) return hr::kInvalidParameter;
  if (!MayWrite(located.reference.Get())) return hr::kAccessDenied;
  auto& item = *located.item;
  if (usn != 0 && usn != item.record.usn) return hr::kNotInSync;
  item.record.inSync = inSync == 1;
  if (item.record.inSync) item.record.modified.Clear();
  core_.items.Save(item);
  usn = item.record.usn;
  return hr::kOk;
}

Hresult PlaceholderService::GetInfo(const wire::ItemRef& ref, wire::PlaceholderInfo& info) {
  Guard guard(core_);
  Located located;
  if (const auto result = core_.LocateItem(guard, ref, located)) return result;
  const auto& item = *located.item;
  const auto& record = item.record;
  if (!record.directory) {
    const Range whole{0, located.facts.size};
    auto validated = item.UsableRanges();
    for (const auto& run : record.modified.Runs()) validated.Remove(run);
    info.onDiskDataSize = item.PresentRanges().TotalWithin(whole);
    info.validatedDataSize = validated.TotalWithin(whole);
    info.modifiedDataSize = record.modified.TotalWithin(whole);
  }
  info.pinState = static_cast<std::uint32_t>(record.pin);
  info.inSyncState = record.inSync ? 1 : 0;
  info.fileId = static_cast<std::int64_t>(record.inode);
  info.syncRootFileId = static_cast<std::int64_t>(located.root->inode);
  info.identity = record.identity;
  return hr::kOk;
}

Hresult PlaceholderService::GetRanges(const wire::ItemRef& ref, std::uint32_t rangeClass,
                                      std::int64_t offset, std::int64_t length,
                                      std::vector<Range>& ranges) {
  Guard guard(core_);
  Located located;
  if (const auto result = core_.LocateItem(guard, ref, located)) return result;
  if (located.item->record.directory) return hr::kNotSupported;
  return RangesOf(*located.item, rangeClass, offset, length, ranges);
}

Hresult PlaceholderService::GetState(const wire::ItemRef& ref, ItemState& itemState) {
  Guard guard(core_);
  Located located;
  if (const auto result = core_.Locate(guard, ref, located)) return result;
  const auto directory = located.facts.IsDirectory();
  itemState = {};
  itemState.attributes = DosAttributesOf(located.reference.Get(), located.facts) |
                         (directory ? attribute::kDirectory : attribute::kArchive);
  if (located.item == nullptr) return hr::kOk;
  const auto& record = located.item->record;
  // Observed: the attributes of placeholders. Invented: what the tag's digit tells.
  constexpr auto kInFile = attribute::kReadonly | attribute::kHidden | attribute::kSystem;
  itemState.attributes |= attribute::kReparsePoint | (record.attributes & ~kInFile);
  itemState.reparseTag = reparse::kCloud;
  itemState.state = state::kPlaceholder;
  if (located.facts.inode == located.root->inode) {
    itemState.state |= state::kSyncRoot;
    itemState.reparseTag |= reparse::kSyncRoot;
  }
  if (record.inSync) {
    itemState.state |= state::kInSync;
    itemState.reparseTag |= reparse::kInSync;
  }
  const auto partial = directory ? !record.populated : !record.full;
  if (partial) {
    itemState.state |= state::kPartial | state::kPartiallyOnDisk;
    itemState.attributes |= attribute::kRecallOnDataAccess;
    if (!directory) itemState.attributes |= attribute::kSparse | attribute::kOffline;
  }
  if (record.pin == PinState::kPinned) itemState.attributes |= attribute::kPinned;
  if (record.pin == PinState::kUnpinned) itemState.attributes |= attribute::kUnpinned;
  // Guessed: both bits.
  if (record.pin == PinState::kExcluded) {
    itemState.attributes |= attribute::kPinned | attribute::kUnpinned;
  }
  return hr::kOk;
}

}  // namespace cloud_filter
