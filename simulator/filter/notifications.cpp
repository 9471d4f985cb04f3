#include "notifications.h"

#include <algorithm>
#include <utility>

#include "core.h"

namespace cloud_filter {

void Notifications::Ask(Guard& guard, const ItemPtr& item, wire::CallbackEvent event, bool waits,
                        std::uint64_t waiterId, Continuation then) {
  auto& core = guard.core;
  event.requestKey = core.NextRequestKey();
  Continuation afterAnswer;
  if (waits) {
    afterAnswer = std::move(then);
  } else if (then) {
    guard.Later([then = std::move(then)] { then({}); });
  }
  questions_.push_back({event.type, event.transferKey, event.requestKey, waiterId, item, waits,
                        Clock::now() + core.options.requestTimeout, std::move(afterAnswer)});
  item->root->connection->sink->Send(event);
}

void Notifications::Finish(Guard& guard, std::size_t at, Verdict verdict) {
  auto then = std::move(questions_[at].then);
  questions_.erase(questions_.begin() + static_cast<std::ptrdiff_t>(at));
  if (!then) return;
  guard.Later([then = std::move(then), verdict = std::move(verdict)] { then(verdict); });
}

Hresult Notifications::Answer(Guard& guard, std::uint32_t callbackType, const wire::Target& target,
                              Verdict verdict) {
  const auto question =
      std::find_if(questions_.begin(), questions_.end(), [&](const Question& candidate) {
        return candidate.type == callbackType && candidate.transferKey == target.transferKey &&
               (target.requestKey == 0 || candidate.requestKey == target.requestKey);
      });
  // Guessed: an answer to nothing is an invalid request.
  if (question == questions_.end()) return hr::kInvalidRequest;
  Finish(guard, static_cast<std::size_t>(question - questions_.begin()), std::move(verdict));
  return hr::kOk;
}

void Notifications::Abandon(Guard& guard, std::uint64_t waiterId, Hresult why) {
  for (std::size_t at = 0; at < questions_.size(); ++at) {
    if (questions_[at].waiterId != waiterId) continue;
    Finish(guard, at, {why, false, std::nullopt});
    return;
  }
}

void Notifications::RootGone(Guard& guard, const Root& root, Hresult why) {
  for (auto at = questions_.size(); at-- > 0;) {
    if (questions_[at].item->root.get() == &root) Finish(guard, at, {why, false, std::nullopt});
  }
}

void Notifications::ResetTimers(const Connection& provider, Clock::time_point deadline) {
  for (auto& question : questions_) {
    const auto connection = question.item->root->connection;
    if (connection != nullptr && connection->SameProcess(provider)) question.deadline = deadline;
  }
}

void Notifications::Expire(Guard& guard, Clock::time_point now) {
  for (auto at = questions_.size(); at-- > 0;) {
    const auto& question = questions_[at];
    const auto connection = question.item->root->connection;
    // A provider whose channel is silent cannot answer. Under Wine it may be this very operation
    // that holds its prefix still, so the operation must not go on waiting.
    const auto silent = question.waits && connection != nullptr &&
                        now - connection->lastHeard > guard.core.options.silenceLimit;
    if (question.deadline <= now || silent) {
      Finish(guard, at, {hr::kRequestTimeout, false, std::nullopt});
    }
  }
}

std::size_t Notifications::Pending(const Root& root) const {
  return static_cast<std::size_t>(
      std::count_if(questions_.begin(), questions_.end(), [&](const Question& question) {
        return question.waits && question.item->root.get() == &root;
      }));
}

}  // namespace cloud_filter
