#include "fake-provider.h"

#include <sys/socket.h>

#include <algorithm>
#include <stdexcept>

namespace cloud_filter::test {
namespace {

constexpr std::chrono::milliseconds kHeartbeat{300};
constexpr std::int64_t kChunk = 1 << 20;

}  // namespace

FakeProvider::~FakeProvider() { Die(); }

Hresult FakeProvider::Connect(const std::string& root, const ProviderOptions& options) {
  if (!channel_.Open(endpoint_)) return hr::kGeneralFailure;
  wire::Writer payload;
  payload.PutBytes(root).Put(options.mask).Put(options.flags);
  wire::Put(payload, options.process);
  auto result = hr::kOk;
  std::string answer;
  if (!channel_.Request(wire::Op::kConnect, payload.Bytes(), result, answer)) {
    return hr::kGeneralFailure;
  }
  if (result != hr::kOk) return result;
  wire::Reader in(answer);
  key_ = in.Get<std::int64_t>();
  rootPath_ = in.GetString();
  rootIdentity_ = in.GetString();
  listener_ = std::thread([this] { Listen(); });
  heart_ = std::thread([this] { SayAlive(); });
  return result;
}

Hresult FakeProvider::Disconnect() { return api_.Disconnect(key_); }

void FakeProvider::Die() {
  if (!listener_.joinable()) return;
  shutdown(channel_.Socket(), SHUT_RDWR);
  {
    const std::lock_guard lock(mutex_);
    ended_ = true;
    changed_.notify_all();
  }
  listener_.join();
  heart_.join();
  channel_.Close();
}

void FakeProvider::Listen() {
  wire::FrameHeader header{};
  std::string payload;
  while (channel_.Receive(header, payload)) {
    wire::CallbackEvent event;
    wire::Reader in(payload);
    wire::Get(in, event);
    Take(event);
  }
}

void FakeProvider::SayAlive() {
  std::unique_lock lock(mutex_);
  while (!changed_.wait_for(lock, kHeartbeat, [this] { return ended_; })) {
    if (!frozen_) channel_.Send(wire::Op::kAlive, {});
  }
}

void FakeProvider::Take(const wire::CallbackEvent& event) {
  Handler handler;
  {
    const std::lock_guard lock(mutex_);
    const auto found = handlers_.find(event.type);
    if (found == handlers_.end()) {
      events_.push_back(event);
      changed_.notify_all();
      return;
    }
    handler = found->second;
  }
  try {
    handler(*this, event);
  } catch (const std::runtime_error&) {
    // The daemon was killed, as some tests do; then nobody wants the answer.
  }
}

void FakeProvider::On(std::uint32_t callbackType, Handler handler) {
  const std::lock_guard lock(mutex_);
  handlers_[callbackType] = std::move(handler);
}

void FakeProvider::Serve(std::function<std::string(const std::string&)> contentOf) {
  auto api = std::make_shared<ApiClient>(endpoint_);
  On(callback::kFetchData, [api, contentOf = std::move(contentOf)](
                               FakeProvider& provider, const wire::CallbackEvent& event) {
    const auto content = contentOf(event.relativePath);
    const auto end = event.range[0] + event.range[1];
    for (auto at = event.range[0]; at < end; at += kChunk) {
      const auto length = std::min(kChunk, end - at);
      api->Transfer(provider.TargetOf(event), at,
                    content.substr(static_cast<std::size_t>(at), static_cast<std::size_t>(length)));
    }
  });
}

std::optional<wire::CallbackEvent> FakeProvider::WaitFor(std::uint32_t callbackType,
                                                         std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  auto found = events_.end();
  const auto there = [&] {
    found = std::find_if(events_.begin(), events_.end(),
                         [=](const auto& event) { return event.type == callbackType; });
    return found != events_.end();
  };
  if (!changed_.wait_for(lock, limit, there)) return std::nullopt;
  auto event = *found;
  events_.erase(found);
  return event;
}

std::size_t FakeProvider::CountOf(std::uint32_t callbackType) {
  const std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(
      std::count_if(events_.begin(), events_.end(),
                    [=](const auto& event) { return event.type == callbackType; }));
}

}  // namespace cloud_filter::test
