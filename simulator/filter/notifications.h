#ifndef NIMBRA_SIMULATOR_FILTER_NOTIFICATIONS_H_
#define NIMBRA_SIMULATOR_FILTER_NOTIFICATIONS_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "codes.h"
#include "item-table.h"
#include "protocol/wire.h"

namespace cloud_filter {

class Guard;
struct Connection;

// The provider's verdict on an operation that it was asked about.
struct Verdict {
  Hresult result = hr::kOk;
  bool vetoed = false;                  // the result is the provider's own word
  std::optional<std::string> identity;  // of an acknowledged dehydration
};

// Questions to providers that stop an operation until they are answered. All functions are called
// under the core's lock.
class Notifications {
 public:
  using Continuation = std::function<void(const Verdict&)>;

  // Sends the question; `then` is called once, without the lock. Without `waits` nobody waits for
  // the answer, which is accepted all the same. A waiter id of 0: nobody can abandon it.
  void Ask(Guard& guard, const ItemPtr& item, wire::CallbackEvent event, bool waits,
           std::uint64_t waiterId, Continuation then);
  // The answer to the question of this type. kInvalidRequest when there is none.
  Hresult Answer(Guard& guard, std::uint32_t callbackType, const wire::Target& target,
                 Verdict verdict);
  void Abandon(Guard& guard, std::uint64_t waiterId, Hresult why);
  void RootGone(Guard& guard, const Root& root, Hresult why);

  void ResetTimers(const Connection& provider, std::chrono::steady_clock::time_point deadline);
  void Expire(Guard& guard, std::chrono::steady_clock::time_point now);
  [[nodiscard]] std::size_t Pending(const Root& root) const;

 private:
  struct Question {
    std::uint32_t type = 0;
    std::int64_t transferKey = 0;
    std::int64_t requestKey = 0;
    std::uint64_t waiterId = 0;
    ItemPtr item;
    bool waits = true;
    std::chrono::steady_clock::time_point deadline;
    Continuation then;
  };
  void Finish(Guard& guard, std::size_t at, Verdict verdict);

  std::vector<Question> questions_;
};

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_NOTIFICATIONS_H_
