#include "hydration.h"

#include <algorithm>
#include <utility>

#include "core.h"

namespace cloud_filter {
namespace {

// Fetches of one file that are out at the same time; a fragmented file's others follow.
constexpr std::size_t kMaxFetches = 32;

// Documented: what a provider hands over starts at a page and ends at a page or the end of the
// file, so it is asked in such ranges.
Range AlignOut(Range range, std::int64_t size) {
  return {range.begin / kPage * kPage, std::min(size, (range.end + kPage - 1) / kPage * kPage)};
}

}  // namespace

Hresult Hydration::Require(Guard& guard, const ItemPtr& item, Demand demand) {
  const Range whole{0, item->Size()};
  const auto policy = item->root->Hydration();
  Range need{std::max<std::int64_t>(demand.need.begin, 0), std::min(demand.need.end, whole.end)};
  // Documented: with FULL, a read of any byte gets the whole file.
  if (policy >= policy::kHydrationFull && !demand.explicitRequest) need = whole;
  if (item->Usable(need)) return hr::kOk;
  const auto connection = item->root->connection;
  if (connection == nullptr) return hr::kProviderNotRunning;
  if (!connection->Wants(callback::kFetchData)) return hr::kInvalidRequest;
  if (item->job == nullptr) {
    item->job = std::make_unique<Job>();
    item->job->explicitRequest = demand.explicitRequest;
    item->job->cause = std::move(demand.cause);
    active_.insert(item);
  }
  auto& job = *item->job;
  job.wanted.Add(AlignOut(need, whole.end));
  job.background = job.background || demand.background;
  if (demand.done) {
    job.waiters.push_back({demand.waiterId, need, std::move(demand.done)});
    waiters_[demand.waiterId] = item;
  }
  item->canceled = false;
  RaiseMissing(guard, item);
  return hr::kPending;
}

void Hydration::RaiseMissing(Guard& guard, const ItemPtr& item) {
  auto& job = *item->job;
  const auto size = item->Size();
  const auto cap = guard.core.options.fetchCap;
  const auto usable = item->UsableRanges();
  for (const auto& run : std::vector<Range>(job.wanted.Runs())) {
    for (const auto& gap : usable.Missing({run.begin, std::min(run.end, size)})) {
      RangeSet open(AlignOut(gap, size));
      for (const auto& fetch : job.fetches) open.Remove(fetch.range);
      for (const auto& part : open.Runs()) {
        // Observed: a big file is asked for in capped pieces, one after the other.
        const auto follows =
            std::any_of(job.fetches.begin(), job.fetches.end(), [&](const Fetch& fetch) {
              return fetch.range.end == part.begin && fetch.range.Length() >= cap;
            });
        if (follows || job.fetches.size() >= kMaxFetches) continue;
        Raise(guard, item, {part.begin, std::min(part.end, part.begin + cap)});
      }
    }
  }
}

void Hydration::Raise(Guard& guard, const ItemPtr& item, Range range) {
  auto& core = guard.core;
  auto& job = *item->job;
  const auto connection = item->root->connection;
  if (connection == nullptr) return;
  job.fetches.push_back({core.NextRequestKey(), range, Clock::now() + core.options.requestTimeout});
  auto& fetch = job.fetches.back();
  if (item->root->ValidationRequired() && item->PresentRanges().Contains(range)) {
    StartValidation(guard, item, fetch);
    return;
  }
  auto event = core.MakeEvent(*item, callback::kFetchData, job.cause);
  event.requestKey = fetch.requestKey;
  if (job.explicitRequest) event.flags |= callback::kFetchExplicitHydration;
  if (std::exchange(item->lostProvider, false)) event.flags |= callback::kFetchRecovery;
  event.range[0] = event.range[2] = range.begin;
  event.range[1] = event.range[3] = range.Length();
  connection->sink->Send(event);
}

void Hydration::StartValidation(Guard& guard, const ItemPtr& item, Fetch& fetch) {
  auto& core = guard.core;
  fetch.validating = true;
  fetch.requestKey = core.NextRequestKey();
  fetch.deadline = Clock::now() + core.options.requestTimeout;
  auto event = core.MakeEvent(*item, callback::kValidateData, item->job->cause);
  event.requestKey = fetch.requestKey;
  if (item->job->explicitRequest) event.flags = callback::kValidateExplicitHydration;
  event.range[0] = fetch.range.begin;
  event.range[1] = fetch.range.Length();
  if (item->root->connection != nullptr) item->root->connection->sink->Send(event);
}

void Hydration::Advance(Guard& guard, const ItemPtr& item) {
  if (item->job == nullptr) return;
  auto& job = *item->job;
  const auto present = item->PresentRanges();
  const auto size = item->Size();
  for (auto fetch = job.fetches.begin(); fetch != job.fetches.end();) {
    const Range range{fetch->range.begin, std::min(fetch->range.end, size)};
    if (item->Usable(range)) {
      fetch = job.fetches.erase(fetch);
      continue;
    }
    if (!fetch->validating && item->root->ValidationRequired() && present.Contains(range)) {
      StartValidation(guard, item, *fetch);
    }
    ++fetch;
  }
  AnswerSatisfied(guard, *item);
  // Documented: PROGRESSIVE goes on in the background until the last handle closes.
  const auto goesOn = item->root->Hydration() == policy::kHydrationProgressive &&
                      !job.explicitRequest && job.waiters.empty() && item->Opens() > 0;
  if (goesOn) job.wanted.Add({0, size});
  RaiseMissing(guard, item);
  CloseIfIdle(guard, item);
}

void Hydration::AnswerSatisfied(Guard& guard, Item& item) {
  auto& waiters = item.job->waiters;
  const auto size = item.Size();
  for (auto waiter = waiters.begin(); waiter != waiters.end();) {
    if (!item.Usable({waiter->need.begin, std::min(waiter->need.end, size)})) {
      ++waiter;
      continue;
    }
    waiters_.erase(waiter->id);
    guard.Later([done = std::move(waiter->done)] { done(hr::kOk); });
    waiter = waiters.erase(waiter);
  }
}

void Hydration::FailWaiters(Guard& guard, Item& item, Range range, Hresult why) {
  auto& waiters = item.job->waiters;
  for (auto waiter = waiters.begin(); waiter != waiters.end();) {
    if (!waiter->need.Overlaps(range)) {
      ++waiter;
      continue;
    }
    waiters_.erase(waiter->id);
    guard.Later([done = std::move(waiter->done), why] { done(why); });
    waiter = waiters.erase(waiter);
  }
}

void Hydration::CloseIfIdle(Guard&, const ItemPtr& item) {
  if (!item->job->waiters.empty() || !item->job->fetches.empty()) return;
  item->job.reset();
  active_.erase(item);
}

void Hydration::RangeFailed(Guard& guard, const ItemPtr& item, Range range, Hresult why) {
  if (item->job == nullptr) return;
  auto& job = *item->job;
  FailWaiters(guard, *item, range, why);
  job.wanted.Remove(range);
  std::erase_if(job.fetches, [&](const Fetch& fetch) { return fetch.range.Overlaps(range); });
  if (job.waiters.empty()) {
    EndJob(guard, item, why, callback::kCancelIoAborted);
    return;
  }
  RaiseMissing(guard, item);
  CloseIfIdle(guard, item);
}

void Hydration::Restart(Guard& guard, const ItemPtr& item) {
  if (item->job == nullptr) return;
  item->job->fetches.clear();
  const auto size = item->Size();
  item->job->wanted = RangeSet({0, size});
  for (auto& waiter : item->job->waiters) waiter.need = {0, size};
  AnswerSatisfied(guard, *item);
  RaiseMissing(guard, item);
  CloseIfIdle(guard, item);
}

void Hydration::SendCancel(Guard& guard, Item& item, const Fetch& fetch, std::uint32_t flag) {
  item.canceled = true;
  const auto connection = item.root->connection;
  if (connection == nullptr || !connection->Wants(callback::kCancelFetchData)) return;
  const auto missing = item.UsableRanges().Missing(fetch.range);
  if (missing.empty()) return;
  auto event = guard.core.MakeEvent(item, callback::kCancelFetchData, item.job->cause);
  event.requestKey = fetch.requestKey;
  event.flags = flag;
  event.range[0] = missing.front().begin;
  event.range[1] = missing.back().end - missing.front().begin;
  connection->sink->Send(event);
}

void Hydration::EndJob(Guard& guard, const ItemPtr& item, Hresult why, std::uint32_t cancelFlag) {
  if (item->job == nullptr) return;
  auto& job = *item->job;
  for (auto& waiter : job.waiters) {
    waiters_.erase(waiter.id);
    guard.Later([done = std::move(waiter.done), why] { done(why); });
  }
  if (cancelFlag != 0) {
    for (const auto& fetch : job.fetches) SendCancel(guard, *item, fetch, cancelFlag);
  }
  item->job.reset();
  active_.erase(item);
}

void Hydration::Abandon(Guard& guard, std::uint64_t waiterId, Hresult why) {
  const auto found = waiters_.find(waiterId);
  if (found == waiters_.end()) return;
  const auto item = found->second.lock();
  waiters_.erase(found);
  if (item == nullptr || item->job == nullptr) return;
  auto& waiters = item->job->waiters;
  const auto waiter = std::find_if(waiters.begin(), waiters.end(),
                                   [=](const Waiter& w) { return w.id == waiterId; });
  if (waiter == waiters.end()) return;
  guard.Later([done = std::move(waiter->done), why] { done(why); });
  waiters.erase(waiter);
  const auto goesOn =
      item->job->background ||
      (item->root->Hydration() == policy::kHydrationProgressive && item->Opens() > 0);
  if (waiters.empty() && !goesOn) EndJob(guard, item, why, callback::kCancelIoAborted);
}

void Hydration::LastClosed(Guard& guard, const ItemPtr& item) {
  if (item->job == nullptr || !item->job->waiters.empty() || item->job->background) return;
  EndJob(guard, item, hr::kRequestCanceled, callback::kCancelIoAborted);
}

void Hydration::RootGone(Guard& guard, const Root& root, Hresult why) {
  const std::vector<ItemPtr> items(active_.begin(), active_.end());
  for (const auto& item : items) {
    if (item->root.get() != &root) continue;
    item->lostProvider = true;
    EndJob(guard, item, why, 0);
  }
}

void Hydration::ResetTimer(Guard& guard, const ItemPtr& item, std::int64_t requestKey) {
  if (item->job == nullptr) return;
  for (auto& fetch : item->job->fetches) {
    if (requestKey != 0 && fetch.requestKey != requestKey) continue;
    fetch.deadline = Clock::now() + guard.core.options.requestTimeout;
  }
}

void Hydration::ResetTimers(const Connection& provider, Clock::time_point deadline) {
  for (const auto& item : active_) {
    const auto connection = item->root->connection;
    if (connection == nullptr || !connection->SameProcess(provider)) continue;
    for (auto& fetch : item->job->fetches) fetch.deadline = deadline;
  }
}

void Hydration::Expire(Guard& guard, Clock::time_point now) {
  const std::vector<ItemPtr> items(active_.begin(), active_.end());
  for (const auto& item : items) {
    const auto fetches = item->job->fetches;
    for (const auto& fetch : fetches) {
      if (fetch.deadline > now || item->job == nullptr) continue;
      SendCancel(guard, *item, fetch, callback::kCancelIoTimeout);
      RangeFailed(guard, item, fetch.range, hr::kRequestTimeout);
    }
  }
}

std::size_t Hydration::PendingFetches(const Root& root) const {
  std::size_t count = 0;
  for (const auto& item : active_) {
    if (item->root.get() == &root) count += item->job->fetches.size();
  }
  return count;
}

}  // namespace cloud_filter
