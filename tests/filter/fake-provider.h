#ifndef NIMBRA_TESTS_FILTER_FAKE_PROVIDER_H_
#define NIMBRA_TESTS_FILTER_FAKE_PROVIDER_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "api-client.h"

namespace cloud_filter::test {

constexpr std::uint32_t Bit(std::uint32_t callbackType) { return 1U << callbackType; }

// Fetches and their cancelling: what any provider listens for.
constexpr std::uint32_t kFetchMask = Bit(callback::kFetchData) | Bit(callback::kCancelFetchData);

struct ProviderOptions {
  std::uint32_t mask = kFetchMask;
  std::uint32_t flags = 0;
  wire::ProviderProcess process;
};

// A provider that a test plays itself: it collects callbacks and answers them as it is told.
class FakeProvider {
 public:
  using Handler = std::function<void(FakeProvider&, const wire::CallbackEvent&)>;

  explicit FakeProvider(std::filesystem::path endpoint)
      : endpoint_(std::move(endpoint)), api_(endpoint_) {}
  ~FakeProvider();
  FakeProvider(const FakeProvider&) = delete;
  FakeProvider& operator=(const FakeProvider&) = delete;

  Hresult Connect(const std::string& root, const ProviderOptions& options = {});
  Hresult Disconnect();
  // As a process that is killed: its connections just end.
  void Die();
  // As a process that is stopped: it says nothing any more.
  void Freeze() { frozen_ = true; }

  // Called for each callback of the type, on the provider's own thread, instead of collecting it.
  void On(std::uint32_t callbackType, Handler handler);
  // Answers every fetch with the content of the file named in the callback.
  void Serve(std::function<std::string(const std::string& name)> contentOf);

  // The next callback of a type, taken out of what was collected.
  std::optional<wire::CallbackEvent> WaitFor(
      std::uint32_t callbackType,
      std::chrono::milliseconds limit = std::chrono::milliseconds(5000));
  // Whether none of the type comes for a while.
  bool NoneOf(std::uint32_t callbackType,
              std::chrono::milliseconds limit = std::chrono::milliseconds(150)) {
    return !WaitFor(callbackType, limit).has_value();
  }
  std::size_t CountOf(std::uint32_t callbackType);

  [[nodiscard]] wire::Target TargetOf(const wire::CallbackEvent& event) const {
    return {key_, event.transferKey, event.requestKey};
  }
  [[nodiscard]] std::int64_t Key() const { return key_; }
  [[nodiscard]] const std::string& RootPath() const { return rootPath_; }
  [[nodiscard]] const std::string& RootIdentity() const { return rootIdentity_; }
  // For the provider's answers. Of the thread that calls, so not to be shared.
  ApiClient& Api() { return api_; }

 private:
  void Listen();
  void SayAlive();
  void Take(const wire::CallbackEvent& event);

  std::filesystem::path endpoint_;
  ApiClient api_;
  Client channel_;
  std::int64_t key_ = 0;
  std::string rootPath_;
  std::string rootIdentity_;
  std::atomic<bool> frozen_{false};
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<wire::CallbackEvent> events_;
  std::map<std::uint32_t, Handler> handlers_;
  bool ended_ = false;
  std::thread listener_;
  std::thread heart_;
};

}  // namespace cloud_filter::test

#endif  // NIMBRA_TESTS_FILTER_FAKE_PROVIDER_H_
