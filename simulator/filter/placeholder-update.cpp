#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <limits>

#include "placeholder-ranges.h"
#include "placeholder-service.h"

namespace cloud_filter {
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

// Fills the ranges to be dropped.
Hresult CheckUpdate(const Located& located, const Update& update, std::vector<Range>& ranges) {
  const auto has = [&](std::uint32_t bit) { return (update.flags & bit) != 0; };
  const auto& item = *located.item;
  if ((update.flags & ~flag::kUpdateAll) != 0 || update.identity.size() > kMaxFileIdentity ||
      (update.metadata && update.metadata->fileSize < 0)) {
    return hr::kInvalidParameter;
  }
  if (has(flag::kUpdateAlwaysFull) && has(flag::kUpdateAllowPartial)) return hr::kInvalidRequest;
  const auto size = located.facts.size;
  // Documented: with the flag, the ranges are passed over.
  if (has(flag::kUpdateDehydrate)) {
    ranges.push_back({0, size});
  } else {
    for (const auto& range : update.dehydrate) {
      if (!IsDehydratable(range.start, range.length, size)) return hr::kInvalidParameter;
      ranges.push_back(RangeFrom(range.start, range.length, size));
    }
  }
  if (!ranges.empty()) {
    if (const auto result = CheckDehydration(item, has(flag::kUpdateInSync))) return result;
  }
  if (!MayWrite(located.reference.Get())) return hr::kAccessDenied;
  if (has(flag::kUpdateVerifyInSync) && !item.record.inSync) return hr::kNotInSync;
  if (update.usn != 0 && update.usn != item.record.usn) return hr::kNotInSync;
  // Guessed: what must be full has to be full first.
  return has(flag::kUpdateAlwaysFull) && !item.record.full ? hr::kInvalidRequest : hr::kOk;
}

}  // namespace

Hresult PlaceholderService::UpdateItem(const wire::ItemRef& ref, const Update& update,
                                       std::int64_t& usn) {
  Located located;
  std::vector<Range> ranges;
  auto resizes = false;
  {
    Guard guard(core_);
    if (const auto result = core_.LocateItem(guard, ref, located)) return result;
    if (const auto result = CheckUpdate(located, update, ranges)) return result;
    resizes = update.metadata && !located.item->record.directory &&
              update.metadata->fileSize != located.facts.size;
    if (!ranges.empty()) {
      if (const auto result = WaitUntilUnused(guard, located.item)) return result;
    } else if (resizes && located.item->job != nullptr) {
      return hr::kInUse;
    }
  }
  const auto applied = ApplyUpdate(located.item, update, ranges);
  // Also where only a part of it was done.
  if (located.facts.IsDirectory()) core_.FolderChanged(located.root, located.facts.inode);
  if (applied != hr::kOk) return applied;
  if (resizes || !ranges.empty()) core_.Invalidate(located.item);
  Guard guard(core_);
  usn = located.item->record.usn;
  return hr::kOk;
}

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
      item->SetPresent(std::move(present), size);
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

}  // namespace cloud_filter
