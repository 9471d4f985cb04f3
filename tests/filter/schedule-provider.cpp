// What the provider does in a schedule: answers, in time or late, well or badly, and asks for
// changes of its own.

#include <algorithm>

#include "schedule-world.h"

namespace cloud_filter::test {
namespace {

constexpr std::uint32_t kUnsuccessful = 0xC000CF12;
constexpr int kMostAnswers = 2000;

}  // namespace

void ScheduleWorld::Answer() {
  if (pending_.empty()) return;
  const auto at = random_.Below(pending_.size());
  const auto pending = pending_[at];
  // Most answers end their request; the others come in pieces, or twice.
  if (random_.Percent(50)) pending_.erase(pending_.begin() + static_cast<std::ptrdiff_t>(at));
  if (pending.event.type == callback::kFetchData) return AnswerFetch(pending);
  if (pending.event.type == callback::kValidateData)
    return AnswerValidation(pending, random_.Percent(95));
  AnswerQuestion(pending, random_.Percent(75) ? 0 : kUnsuccessful);
}

void ScheduleWorld::AnswerFetch(const Pending& pending) {
  const auto& event = pending.event;
  auto& file = *FileOf(event);
  const wire::Target target{pending.connection, event.transferKey,
                            random_.Percent(50) ? event.requestKey : 0};
  const Range range{event.range[0], event.range[0] + event.range[1]};
  if (random_.Percent(15)) {
    Note("fails the fetch of " + file.identity);
    execute_->TransferData(target, kUnsuccessful, range.begin, range.Length(), {});
    return;
  }
  if (random_.Percent(10)) {
    Note("reports progress");
    execute_->ReportProgress(target, 100, 50);
    return;
  }
  if (random_.Percent(50)) return Transfer(file, target, range);
  const auto pages = (range.Length() + kPage - 1) / kPage;
  const auto first = range.begin + kPage * static_cast<std::int64_t>(
                                               random_.Below(static_cast<std::size_t>(pages)));
  const auto count = 1 + static_cast<std::int64_t>(random_.Below(4));
  Transfer(file, target, {first, std::min(range.end, first + count * kPage)});
}

void ScheduleWorld::Transfer(File& file, const wire::Target& target, Range range) {
  range.end = std::min(range.end, static_cast<std::int64_t>(file.source.size()));
  if (range.Empty()) return;
  const auto begin = static_cast<std::size_t>(range.begin);
  auto bytes = file.source.substr(begin, static_cast<std::size_t>(range.Length()));
  Note("transfers " + file.identity + " [" + std::to_string(range.begin) + ", " +
       std::to_string(range.end) + ")");
  if (random_.Percent(5)) {
    const auto result = execute_->TransferData(target, 0, range.begin + 1, range.Length(), bytes);
    Expect(result != hr::kOk || range.end + 1 >= static_cast<std::int64_t>(file.content.size()),
           "data at an odd place is refused");
    if (result == hr::kOk) Expect(false, "data from an odd offset is refused");
    return;
  }
  // Data whose check fails later must never be seen.
  if (validates_ && random_.Percent(20)) bytes.assign(bytes.size(), '?');
  const auto result = execute_->TransferData(target, 0, range.begin, range.Length(), bytes);
  ++counts.transfers;
  if (result == hr::kOk) return;
  ++counts.refusals;
  const auto known = result == hr::kRequestCanceled || result == hr::kInvalidParameter ||
                     result == hr::kInvalidRequest;
  Expect(known, "a transfer is refused for a reason, not " + std::to_string(result));
  Expect(
      result != hr::kInvalidParameter || target.connectionKey != connection_ || file.name.empty(),
      "a transfer to a file that is there is accepted while the connection lasts");
}

void ScheduleWorld::AnswerValidation(const Pending& pending, bool honest) {
  const auto& event = pending.event;
  auto& file = *FileOf(event);
  const wire::Target target{pending.connection, event.transferKey, event.requestKey};
  std::string bytes;
  if (execute_->RetrieveData(target, event.range[0], event.range[1], bytes) != hr::kOk) return;
  const auto begin = static_cast<std::size_t>(event.range[0]);
  const auto good =
      begin <= file.content.size() && bytes == file.content.substr(begin, bytes.size()) && honest;
  Note((good ? "confirms " : "disowns ") + file.identity + " from " + std::to_string(begin));
  execute_->AckData(target, good ? 0 : kUnsuccessful, event.range[0], event.range[1]);
}

void ScheduleWorld::AnswerQuestion(const Pending& pending, std::uint32_t status) {
  const wire::Target target{pending.connection, pending.event.transferKey,
                            pending.event.requestKey};
  Note("answers a question with " + std::to_string(status));
  execute_->Acknowledge(pending.event.type, target, status, std::nullopt);
}

void ScheduleWorld::PushUnasked() {
  auto& file = *RandomFile();
  if (file.name.empty() || connection_ == 0) return;
  std::int64_t key = 0;
  Expect(execute_->GetTransferKey({PathOf(file), 0}, key) == hr::kOk, "a file has a transfer key");
  Transfer(file, {connection_, key, 0}, {0, static_cast<std::int64_t>(file.source.size())});
  Expect(execute_->ReleaseTransferKey(key) == hr::kOk, "a key that was taken can be released");
}

void ScheduleWorld::RestartHydration() {
  auto& file = *RandomFile();
  if (file.name.empty() || connection_ == 0 || !file.inSync) return;
  std::int64_t key = 0;
  execute_->GetTransferKey({PathOf(file), 0}, key);
  Note("restarts " + file.name);
  const auto result = execute_->RestartHydration({connection_, key, 0}, 0, std::nullopt, {});
  const auto expected = policy_ == policy::kHydrationFull ? hr::kOk : hr::kNotSupported;
  Expect(result == expected, "hydration restarts with the full policy only");
  execute_->ReleaseTransferKey(key);
}

void ScheduleWorld::ServeEverything() {
  for (auto answers = 0; !pending_.empty() && answers < kMostAnswers; ++answers) {
    const auto pending = pending_.back();
    pending_.pop_back();
    auto& file = *FileOf(pending.event);
    const wire::Target target{pending.connection, pending.event.transferKey,
                              pending.event.requestKey};
    const auto& range = pending.event.range;
    if (pending.event.type == callback::kFetchData) {
      const auto begin = static_cast<std::size_t>(range[0]);
      if (begin >= file.source.size()) continue;
      const auto bytes = file.source.substr(begin, static_cast<std::size_t>(range[1]));
      execute_->TransferData(target, 0, range[0], static_cast<std::int64_t>(bytes.size()), bytes);
    } else if (pending.event.type == callback::kValidateData) {
      AnswerValidation(pending, true);
    } else {
      AnswerQuestion(pending, 0);
    }
    Listen();
  }
  Expect(pending_.empty(), "the filter comes to an end with its requests");
}

void ScheduleWorld::Dehydrate() {
  auto& file = *RandomFile();
  if (file.name.empty() || file.opens > 0) return;
  const auto item = ItemOf(file);
  {
    Guard guard(*core_);
    // It would wait for the fetch, and here nobody else would go on meanwhile.
    if (item->job != nullptr) return;
  }
  const auto result = placeholders_->Dehydrate({PathOf(file), 0}, 0, -1, 0, {});
  Note("dehydrates " + file.name + ": " + std::to_string(result));
  auto expected = hr::kOk;
  if (!file.inSync) expected = hr::kNotInSync;
  if (file.pin == PinState::kPinned) expected = hr::kPinned;
  Expect(result == expected, "data is dropped when it is in sync and not pinned, and else kept");
  if (result == hr::kOk) ++counts.dehydrations;
}

void ScheduleWorld::SetPin() {
  auto& file = *RandomFile();
  if (file.name.empty()) return;
  const PinState states[] = {PinState::kUnspecified, PinState::kPinned, PinState::kUnpinned,
                             PinState::kExcluded};
  file.pin = states[random_.Below(std::size(states))];
  Note("pins " + file.name + " " + std::to_string(static_cast<int>(file.pin)));
  Expect(placeholders_->SetPinState({PathOf(file), 0}, static_cast<std::uint32_t>(file.pin), 0) ==
             hr::kOk,
         "a file can be pinned");
}

// The provider has taken over what was changed here.
void ScheduleWorld::SetInSync() {
  auto& file = *RandomFile();
  if (file.name.empty() || file.inSync) return;
  const auto item = ItemOf(file);
  {
    Guard guard(*core_);
    if (!item->Usable({0, item->Size()})) return;
  }
  Note("takes over " + file.name);
  file.source = file.content;
  std::int64_t usn = 0;
  Expect(placeholders_->SetInSync({PathOf(file), 0}, 1, 0, usn) == hr::kOk, "it is in sync");
  file.inSync = true;
}

}  // namespace cloud_filter::test
