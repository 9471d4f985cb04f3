#include "execute-service.h"

#include <fcntl.h>

#include <algorithm>
#include <limits>

namespace cloud_filter {
namespace {

constexpr std::int64_t kToEnd = -1;
constexpr std::int64_t kMaxRetrieve = 64 << 20;

std::int64_t EndOf(std::int64_t offset, std::int64_t length) {
  constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
  return length == kToEnd || length > kMax - offset ? kMax : offset + length;
}

// Documented: page-aligned, but for a length that reaches or passes the end of the file.
bool Aligned(std::int64_t offset, std::int64_t length, std::int64_t size) {
  return offset % kPage == 0 && (length % kPage == 0 || EndOf(offset, length) >= size);
}

}  // namespace

Hresult RangesOf(const Item& item, std::uint32_t rangeClass, std::int64_t offset,
                 std::int64_t length, std::vector<Range>& ranges) {
  if (offset < 0 || length < kToEnd) return hr::kInvalidParameter;
  const auto size = item.Size();
  if (offset >= size) return hr::kHandleEof;
  const Range window{offset, std::min(EndOf(offset, length), size)};
  auto covered = item.PresentRanges();
  if (rangeClass == range_class::kModified) {
    covered = item.record.modified;
  } else if (rangeClass == range_class::kValidated) {
    covered = item.UsableRanges();
    for (const auto& run : item.record.modified.Runs()) covered.Remove(run);
  } else if (rangeClass != range_class::kOnDisk) {
    return hr::kInvalidParameter;
  }
  ranges = covered.Within(window);
  return hr::kOk;
}

Hresult ExecuteService::GetTransferKey(const wire::ItemRef& ref, std::int64_t& key) {
  Guard guard(core_);
  Located located;
  if (const auto result = core_.LocateItem(guard, ref, located)) return result;
  key = core_.items.TransferKeyOf(located.item);
  core_.items.HoldKey(located.item);
  located.item->canceled = false;
  return hr::kOk;
}

Hresult ExecuteService::ReleaseTransferKey(std::int64_t key) {
  Guard guard(core_);
  // The key itself stays with the file: a fetch may be using it.
  return core_.items.ReleaseKey(key) ? hr::kOk : hr::kInvalidParameter;
}

Hresult ExecuteService::Address(const wire::Target& target, Addressed& addressed) {
  addressed.connection = core_.ConnectionOf(target.connectionKey);
  addressed.item = core_.items.ByTransferKey(target.transferKey);
  if (addressed.connection == nullptr || addressed.item == nullptr ||
      addressed.item->root->connection != addressed.connection) {
    return hr::kInvalidParameter;
  }
  return hr::kOk;
}

Hresult ExecuteService::TransferData(const wire::Target& target, std::uint32_t status,
                                     std::int64_t offset, std::int64_t length,
                                     std::string_view data) {
  Addressed addressed;
  Range range;
  {
    Guard guard(core_);
    if (const auto result = Address(target, addressed)) return result;
    const auto& item = *addressed.item;
    if (item.record.directory || offset < 0 || length < 0) return hr::kInvalidParameter;
    if (item.root->Hydration() == policy::kHydrationAlwaysFull) return hr::kInvalidRequest;
    const auto size = item.Size();
    if (!Aligned(offset, length, size)) return hr::kInvalidRequest;
    if (status == 0 && static_cast<std::int64_t>(data.size()) < length) {
      return hr::kInvalidParameter;
    }
    // Observed: what was given up is not wanted any more.
    if (item.canceled) return hr::kRequestCanceled;
    // Documented: what lies past the end is dropped.
    range = {offset, std::min(EndOf(offset, length), size)};
    if (status != 0) return FailTransfer(guard, addressed, target, range, status);
  }
  const auto result = Store(addressed, range, data);
  Guard guard(core_);
  if (result != hr::kOk) {
    core_.hydration.RangeFailed(guard, addressed.item, range, result);
    return result;
  }
  core_.ProviderAnswered(*addressed.connection);
  core_.hydration.Advance(guard, addressed.item);
  return hr::kOk;
}

// Documented: a failure fails the I/O that overlaps its range. Guessed: one without a length fails
// what its request asked for.
Hresult ExecuteService::FailTransfer(Guard& guard, const Addressed& addressed,
                                     const wire::Target& target, Range range,
                                     std::uint32_t status) {
  const auto& item = addressed.item;
  if (range.Empty()) range = {0, std::numeric_limits<std::int64_t>::max()};
  if (item->job != nullptr && target.requestKey != 0) {
    const auto& fetches = item->job->fetches;
    const auto fetch = std::find_if(fetches.begin(), fetches.end(), [&](const Fetch& f) {
      return f.requestKey == target.requestKey;
    });
    if (fetch != fetches.end() && !fetch->range.Overlaps(range)) range = fetch->range;
  }
  core_.ProviderAnswered(*addressed.connection);
  core_.hydration.RangeFailed(guard, item, range, HresultOfStatus(status));
  return hr::kOk;
}

// The bytes go to the file first and count afterwards: whatever happens in between, none is taken
// for present that is not.
Hresult ExecuteService::Store(const Addressed& addressed, Range range, std::string_view data) {
  auto& item = *addressed.item;
  const std::unique_lock hold(item.data);
  std::vector<Range> gaps;
  {
    Guard guard(core_);
    // Documented: neither what is there nor what was changed here is overwritten.
    auto kept = item.PresentRanges();
    for (const auto& run : item.record.modified.Runs()) kept.Add(run);
    range.end = std::min(range.end, item.Size());
    gaps = kept.Missing(range);
  }
  if (gaps.empty()) return hr::kOk;
  UniqueFd file;
  if (const auto error = OpenData(item.reference.Get(), O_RDWR, file)) return HresultOfErrno(error);
  {
    const TimeKeeper keeper(file.Get());
    for (const auto& gap : gaps) {
      const auto bytes = data.substr(static_cast<std::size_t>(gap.begin - range.begin),
                                     static_cast<std::size_t>(gap.Length()));
      if (const auto error = WriteAll(file.Get(), bytes, gap.begin)) return HresultOfErrno(error);
    }
  }
  Guard guard(core_);
  item.record.present.Add(range);
  item.Settle(item.Size());
  core_.items.SaveQuietly(item);
  return hr::kOk;
}

Hresult ExecuteService::RetrieveData(const wire::Target& target, std::int64_t offset,
                                     std::int64_t length, std::string& data) {
  Addressed addressed;
  Range range;
  {
    Guard guard(core_);
    if (const auto result = Address(target, addressed)) return result;
    const auto& item = *addressed.item;
    if (item.root->Hydration() == policy::kHydrationAlwaysFull ||
        !item.root->ValidationRequired()) {
      return hr::kNotSupported;
    }
    const auto size = item.Size();
    if (offset < 0 || length < 0 || length > kMaxRetrieve) return hr::kInvalidParameter;
    if (!Aligned(offset, length, size)) return hr::kInvalidRequest;
    range = {offset, std::min(EndOf(offset, length), size)};
    if (!item.PresentRanges().Contains(range)) return hr::kInvalidRequest;
  }
  const std::shared_lock hold(addressed.item->data);
  UniqueFd file;
  if (const auto error = OpenData(addressed.item->reference.Get(), O_RDONLY, file)) {
    return HresultOfErrno(error);
  }
  data.resize(static_cast<std::size_t>(range.Length()));
  if (const auto error = ReadAll(file.Get(), data, range.begin)) return HresultOfErrno(error);
  Guard guard(core_);
  core_.ProviderAnswered(*addressed.connection);
  return hr::kOk;
}

Hresult ExecuteService::AckData(const wire::Target& target, std::uint32_t status,
                                std::int64_t offset, std::int64_t length) {
  Guard guard(core_);
  Addressed addressed;
  if (const auto result = Address(target, addressed)) return result;
  auto& item = *addressed.item;
  if (item.root->Hydration() == policy::kHydrationAlwaysFull || !item.root->ValidationRequired()) {
    return hr::kNotSupported;
  }
  const auto size = item.Size();
  if (offset < 0 || length < kToEnd) return hr::kInvalidParameter;
  if (length != kToEnd && !Aligned(offset, length, size)) return hr::kInvalidRequest;
  const Range range{offset, std::min(EndOf(offset, length), size)};
  core_.ProviderAnswered(*addressed.connection);
  if (status != 0) {
    // Data that the provider disowns is fetched again the next time.
    item.record.present.Remove(range);
    core_.items.SaveQuietly(item);
    core_.hydration.RangeFailed(guard, addressed.item, range, HresultOfStatus(status));
    return hr::kOk;
  }
  for (const auto& run : item.PresentRanges().Within(range)) item.record.validated.Add(run);
  item.Settle(size);
  core_.items.SaveQuietly(item);
  core_.hydration.Advance(guard, addressed.item);
  return hr::kOk;
}

Hresult ExecuteService::RestartHydration(const wire::Target& target, std::uint32_t flags,
                                         const std::optional<wire::Metadata>& metadata,
                                         const std::optional<std::string>& identity) {
  Addressed addressed;
  auto wasFull = false;
  {
    Guard guard(core_);
    if (const auto result = Address(target, addressed)) return result;
    wasFull = addressed.item->record.full;
    if (addressed.item->root->Hydration() != policy::kHydrationFull) return hr::kNotSupported;
    if ((flags & ~flag::kRestartInSync) != 0 || addressed.item->record.directory ||
        (identity && identity->size() > kMaxFileIdentity) || (metadata && metadata->fileSize < 0)) {
      return hr::kInvalidParameter;
    }
  }
  // Only of a file that was whole can there be data that the kernel keeps.
  const auto result = Restart(addressed, flags, metadata, identity);
  if (wasFull) core_.Invalidate(addressed.item);
  Guard guard(core_);
  core_.ProviderAnswered(*addressed.connection);
  if (result == hr::kOk) {
    core_.hydration.Restart(guard, addressed.item);
  } else {
    core_.hydration.EndJob(guard, addressed.item, result, 0);
  }
  return result;
}

Hresult ExecuteService::Restart(const Addressed& addressed, std::uint32_t flags,
                                const std::optional<wire::Metadata>& metadata,
                                const std::optional<std::string>& identity) {
  auto& item = *addressed.item;
  const std::unique_lock hold(item.data);
  const auto size = metadata ? metadata->fileSize : item.Size();
  {
    Guard guard(core_);
    auto& record = item.record;
    record.full = false;
    record.present.Clear();
    record.validated.Clear();
    record.modified.Clear();
    if (identity) record.identity = *identity;
    if ((flags & flag::kRestartInSync) != 0) record.inSync = true;
    if (metadata && metadata->creationTime != 0) record.creationTime = metadata->creationTime;
    if (metadata && metadata->changeTime != 0) record.changeTime = metadata->changeTime;
    core_.items.Save(item);
  }
  UniqueFd file;
  if (const auto error = OpenData(item.reference.Get(), O_RDWR, file)) return HresultOfErrno(error);
  {
    const TimeKeeper keeper(file.Get());
    if (ftruncate(file.Get(), size) != 0) return HresultOfErrno(errno);
    if (const auto error = PunchHole(file.Get(), {0, size})) return HresultOfErrno(error);
  }
  if (metadata) SetTimes(item.reference.Get(), metadata->lastAccessTime, metadata->lastWriteTime);
  Guard guard(core_);
  item.Settle(size);
  core_.items.SaveQuietly(item);
  return hr::kOk;
}

Hresult ExecuteService::Acknowledge(std::uint32_t callbackType, const wire::Target& target,
                                    std::uint32_t status, std::optional<std::string> identity) {
  Guard guard(core_);
  Addressed addressed;
  if (const auto result = Address(target, addressed)) return result;
  if (identity && identity->size() > kMaxFileIdentity) return hr::kInvalidParameter;
  const auto result = core_.notifications.Answer(
      guard, callbackType, target, {HresultOfStatus(status), true, std::move(identity)});
  if (result == hr::kOk) core_.ProviderAnswered(*addressed.connection);
  return result;
}

Hresult ExecuteService::ReportProgress(const wire::Target& target, std::int64_t total,
                                       std::int64_t completed) {
  Guard guard(core_);
  Addressed addressed;
  if (const auto result = Address(target, addressed)) return result;
  if (total < 0 || completed < 0) return hr::kInvalidParameter;
  // Documented: resets the timer of the request it is about.
  core_.hydration.ResetTimer(guard, addressed.item, target.requestKey);
  return hr::kOk;
}

Hresult ExecuteService::GetRangesByKey(std::int64_t connectionKey, std::int64_t transferKey,
                                       std::int64_t fileId, std::uint32_t rangeClass,
                                       std::int64_t offset, std::int64_t length,
                                       std::vector<Range>& ranges) {
  Guard guard(core_);
  Addressed addressed;
  if (const auto result = Address({connectionKey, transferKey, 0}, addressed)) return result;
  if (fileId != 0 && static_cast<ino_t>(fileId) != addressed.item->record.inode) {
    return hr::kInvalidParameter;
  }
  return RangesOf(*addressed.item, rangeClass, offset, length, ranges);
}

}  // namespace cloud_filter
