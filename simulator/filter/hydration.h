#ifndef NIMBRA_SIMULATOR_FILTER_HYDRATION_H_
#define NIMBRA_SIMULATOR_FILTER_HYDRATION_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "codes.h"
#include "item-table.h"
#include "process-info.h"
#include "range-set.h"

namespace cloud_filter {

class Guard;
struct Connection;

// One wish for data.
struct Demand {
  Range need;
  bool explicitRequest = false;
  // Nobody waits, and nobody's leaving ends it.
  bool background = false;
  Cause cause;
  std::uint64_t waiterId = 0;
  std::function<void(Hresult)> done;  // called once, without the lock
};

// One FETCH_DATA (or VALIDATE_DATA) that the provider has not answered fully.
struct Fetch {
  std::int64_t requestKey = 0;
  Range range;
  std::chrono::steady_clock::time_point deadline;
  bool validating = false;
};

struct Waiter {
  std::uint64_t id = 0;
  Range need;
  std::function<void(Hresult)> done;
};

// What is being fetched for one file, and for whom.
struct Job {
  RangeSet wanted;
  std::vector<Fetch> fetches;
  std::vector<Waiter> waiters;
  bool explicitRequest = false;
  bool background = false;
  Cause cause;
};

// Gets missing data from providers: raises the fetches, keeps their timers, and tells those who
// wait. All functions are called under the core's lock.
class Hydration {
 public:
  // Success: the data is there. kPending: `demand.done` will be called. Else the refusal.
  Hresult Require(Guard& guard, const ItemPtr& item, Demand demand);
  // The waiter gives up.
  void Abandon(Guard& guard, std::uint64_t waiterId, Hresult why);
  // The ranges present (or validated) of a file have changed.
  void Advance(Guard& guard, const ItemPtr& item);
  // The provider cannot deliver the range.
  void RangeFailed(Guard& guard, const ItemPtr& item, Range range, Hresult why);
  // Everything asked for is asked for again.
  void Restart(Guard& guard, const ItemPtr& item);
  // Ends the job: all who wait get `why`. With a cancel flag the provider is told.
  void EndJob(Guard& guard, const ItemPtr& item, Hresult why, std::uint32_t cancelFlag);
  // The last program has closed the file.
  void LastClosed(Guard& guard, const ItemPtr& item);
  // Fails all jobs of a root.
  void RootGone(Guard& guard, const Root& root, Hresult why);

  void ResetTimer(Guard& guard, const ItemPtr& item, std::int64_t requestKey);
  void ResetTimers(const Connection& provider, std::chrono::steady_clock::time_point deadline);
  void Expire(Guard& guard, std::chrono::steady_clock::time_point now);
  [[nodiscard]] std::size_t PendingFetches(const Root& root) const;

 private:
  void Raise(Guard& guard, const ItemPtr& item, Range range);
  void StartValidation(Guard& guard, const ItemPtr& item, Fetch& fetch);
  void SendCancel(Guard& guard, Item& item, const Fetch& fetch, std::uint32_t flag);
  void AnswerSatisfied(Guard& guard, Item& item);
  void RaiseMissing(Guard& guard, const ItemPtr& item);
  void CloseIfIdle(Guard& guard, const ItemPtr& item);
  void FailWaiters(Guard& guard, Item& item, Range range, Hresult why);

  std::unordered_set<ItemPtr> active_;
  std::unordered_map<std::uint64_t, std::weak_ptr<Item>> waiters_;
};

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_HYDRATION_H_
