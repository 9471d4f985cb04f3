#include "placeholder-service.h"

#include <filesystem>

#include "execute-service.h"
#include "file-service.h"
#include "placeholder-ranges.h"
#include "tree-walk.h"

namespace cloud_filter {
namespace {

std::string FolderOf(const std::string& path) {
  return std::filesystem::path(path).parent_path().string();
}

// In the documented order.
Hresult CheckConvert(const Located& located, const std::string& identity, std::uint32_t flags) {
  const auto dehydrates = (flags & flag::kConvertDehydrate) != 0;
  if ((flags & ~flag::kConvertAll) != 0 || identity.size() > kMaxFileIdentity ||
      (dehydrates && identity.empty())) {
    return hr::kInvalidParameter;
  }
  if (!located.facts.IsFile() && !located.facts.IsDirectory()) return hr::kNotSupported;
  // Guessed: the code for what is a placeholder already. Documented: the root may be converted.
  const auto isRoot = located.facts.inode == located.root->inode;
  if (located.item != nullptr && !isRoot) return hr::kInvalidRequest;
  if (dehydrates) {
    if (located.facts.IsDirectory() || located.root->Hydration() == policy::kHydrationAlwaysFull) {
      return hr::kNotSupported;
    }
    if ((flags & flag::kConvertInSync) == 0) return hr::kNotInSync;
  }
  return MayWrite(located.reference.Get()) ? hr::kOk : hr::kAccessDenied;
}

ItemRecord ConvertedRecord(const Located& located, const std::string& identity,
                           std::uint32_t flags) {
  auto record = located.item != nullptr ? located.item->record : ItemRecord();
  record.directory = located.facts.IsDirectory();
  record.full = true;
  record.identity = identity;
  record.inSync = record.inSync || (flags & flag::kConvertInSync) != 0;
  record.alwaysFull = (flags & flag::kConvertAlwaysFull) != 0;
  record.populated = (flags & flag::kConvertEnablePopulation) == 0;
  record.attributes = record.directory ? 0U : attribute::kArchive;
  if (record.creationTime == 0) record.creationTime = FileTimeOf(located.facts.writeTime);
  if (record.changeTime == 0) record.changeTime = FileTimeNow();
  return record;
}

}  // namespace

Hresult PlaceholderService::Convert(const wire::ItemRef& ref, const std::string& identity,
                                    std::uint32_t flags, std::int64_t& usn,
                                    const CallerGone& gone) {
  {
    Guard guard(core_);
    Located located;
    if (const auto result = core_.Locate(guard, ref, located)) return result;
    if (const auto result = CheckConvert(located, identity, flags)) return result;
    auto record = ConvertedRecord(located, identity, flags);
    if (located.item == nullptr) {
      located.item =
          core_.items.Add(located.root, located.reference.Get(), located.facts, std::move(record));
    } else {
      located.item->record = std::move(record);
      core_.items.Save(*located.item);
    }
    usn = located.item->record.usn;
  }
  const auto dehydrates = (flags & flag::kConvertDehydrate) != 0;
  return dehydrates ? Dehydrate(ref, 0, kToEnd, 0, gone) : hr::kOk;
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
