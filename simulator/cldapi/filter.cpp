#include "filter.h"

#include <utility>

namespace cldapi {

namespace wire = cloud_filter::wire;

Filter& TheFilter() {
  static auto& filter = *new Filter;  // outlives everything: see module.h
  return filter;
}

HRESULT Filter::Request(wire::Op op, const wire::Writer& fields, std::string* answer,
                        std::string_view tail) {
  auto channel = Take();
  if (!channel) return result::kFilterNotRunning;
  auto frame = channel->Call(op, fields.Bytes(), tail);
  if (!frame) return result::kFilterNotRunning;
  if (answer != nullptr) *answer = std::move(frame->payload);
  const HRESULT result = frame->header.result;
  GiveBack(std::move(*channel));
  return result;
}

HRESULT Filter::GetPlatform(Platform& platform) {
  auto channel = Take();
  if (!channel) return result::kFilterNotRunning;
  platform = channel->ServedPlatform();
  GiveBack(std::move(*channel));
  return S_OK;
}

std::optional<Channel> Filter::Take() {
  for (;;) {
    std::optional<Channel> channel;
    {
      const std::scoped_lock lock(mutex_);
      if (idle_.empty()) break;
      channel = std::move(idle_.back());
      idle_.pop_back();
    }
    if (channel->IsQuiet()) return channel;
  }
  return Channel::Open();
}

void Filter::GiveBack(Channel channel) {
  const std::scoped_lock lock(mutex_);
  if (idle_.size() < kMostIdle) idle_.push_back(std::move(channel));
}

}  // namespace cldapi
