// Hydration and dehydration by name.

#include <fcntl.h>

#include <chrono>

#include "placeholder-ranges.h"
#include "placeholder-service.h"

namespace cloud_filter {
namespace {

constexpr std::chrono::milliseconds kCloseGrace{1000};
constexpr std::chrono::milliseconds kCallerCheck{100};

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
      item->SetPresent(std::move(present), item->Size());
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
  core_.Invalidate(item);
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
  return HydrateItem(located.item, RangeFrom(offset, length, located.facts.size), gone);
}

}  // namespace cloud_filter
