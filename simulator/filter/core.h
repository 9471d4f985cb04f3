#ifndef NIMBRA_SIMULATOR_FILTER_CORE_H_
#define NIMBRA_SIMULATOR_FILTER_CORE_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "hydration.h"
#include "item-table.h"
#include "notifications.h"
#include "process-info.h"
#include "protocol/wire.h"
#include "store.h"
#include "unique-fd.h"

namespace cloud_filter {

using Clock = std::chrono::steady_clock;

struct CoreOptions {
  std::chrono::milliseconds requestTimeout{60'000};
  // A frozen provider's channel goes silent; then nothing more is waited for.
  std::chrono::milliseconds silenceLimit{5'000};
  std::int64_t fetchCap = std::int64_t{1} << 30;
  bool mount = true;
  // Files that are kept open though nobody uses them, in each of the two places that do so.
  std::size_t idleFiles = 1024;
};

// Where the callbacks of a connection go. Send only queues.
class CallbackSink {
 public:
  virtual ~CallbackSink() = default;
  virtual void Send(const wire::CallbackEvent& event) = 0;
  // Nothing is sent after this returns.
  virtual void Close() = 0;
};

// A connected provider.
struct Connection {
  std::int64_t key = 0;
  std::uint32_t callbackMask = 0;
  std::uint32_t flags = 0;
  std::uint32_t status = 1;  // idle
  wire::ProviderProcess provider;
  std::shared_ptr<CallbackSink> sink;
  Clock::time_point lastHeard;

  [[nodiscard]] bool Wants(std::uint32_t callbackType) const {
    return (callbackMask & (1U << callbackType)) != 0;
  }
  [[nodiscard]] bool SameProcess(const Connection& other) const;
};

// The mount that shows a root to programs. Its destructor takes the mount away.
class FrontEnd {
 public:
  virtual ~FrontEnd() = default;
  // Drops what the kernel keeps of a file's data; all of it before this returns, unless a read of
  // the file is under way. Not to be called under a lock.
  virtual void Invalidate(ino_t inode) = 0;
  // The API has changed what is known of a folder, or what is in it.
  virtual void FolderChanged(ino_t inode) = 0;
};

struct Root {
  RootRecord record;
  UniqueFd folder;  // opened before the mount covers it
  ino_t inode = 0;
  std::shared_ptr<Connection> connection;  // null: no provider
  std::shared_ptr<FrontEnd> frontEnd;
  std::unordered_map<ino_t, int> opens;  // by programs, through the mount

  [[nodiscard]] std::uint16_t Hydration() const { return record.policies.hydrationPrimary; }
  [[nodiscard]] bool ValidationRequired() const;
};
using RootPtr = std::shared_ptr<Root>;

// Work that must wait until the lock is free: answers to programs, which can come back at once.
class Deferred {
 public:
  Deferred() = default;
  ~Deferred();
  Deferred(const Deferred&) = delete;
  Deferred& operator=(const Deferred&) = delete;
  void Add(std::function<void()> work) { work_.push_back(std::move(work)); }

 private:
  std::vector<std::function<void()>> work_;
};

class Core;

// Holds the core's lock; deferred work runs after it is let go.
class Guard {
 public:
  explicit Guard(Core& core);
  void Later(std::function<void()> work) { deferred_.Add(std::move(work)); }

  Core& core;
  // For waiting on the core's condition.
  std::unique_lock<std::mutex>& Lock() { return lock_; }

 private:
  Deferred deferred_;  // destroyed after the lock
  std::unique_lock<std::mutex> lock_;
};

// What a path of the API means.
struct Located {
  RootPtr root;
  UniqueFd reference;
  FileFacts facts;
  ItemPtr item;  // null: not a placeholder
};

// The filter's state and its clockwork. The services and the mounts work on it under its lock.
class Core {
 public:
  using FrontEndFactory = std::function<std::shared_ptr<FrontEnd>(Core&, const RootPtr&)>;

  Core(CoreOptions coreOptions, const std::filesystem::path& database, FrontEndFactory factory);
  ~Core();
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;

  // Opens and mounts the roots of the store.
  void Start();
  // Fails what waits, takes the mounts away.
  void Stop();

  // Finds the root that a path lies under; `relative` is the rest.
  RootPtr RootOf(Guard& guard, const std::string& path, std::string& relative);
  Hresult Locate(Guard& guard, const wire::ItemRef& ref, Located& located);
  // As Locate, but a file that is no placeholder is an error.
  Hresult LocateItem(Guard& guard, const wire::ItemRef& ref, Located& located);
  std::shared_ptr<Connection> ConnectionOf(std::int64_t key);
  RootPtr RootOfConnection(std::int64_t key);

  Hresult OpenRoot(const RootPtr& root);
  // Without the lock: mounting makes the kernel ask.
  void Mount(const RootPtr& root);
  void Unmount(const RootPtr& root);

  // Without the lock: drops what the kernel keeps of the item's data.
  void Invalidate(const ItemPtr& item);
  void FolderChanged(const RootPtr& root, ino_t inode);

  // Ends a connection: what waits for the provider fails with `why`.
  void EndConnection(Guard& guard, const RootPtr& root, Hresult why);
  // Documented: any valid answer resets the timers of all that the provider process owes.
  void ProviderAnswered(const Connection& connection);

  wire::CallbackEvent MakeEvent(Item& item, std::uint32_t type, const Cause& cause);
  std::int64_t NextRequestKey() { return ++lastRequestKey_; }
  std::uint64_t NextWaiterId() { return ++lastWaiterId_; }

  std::mutex mutex;
  std::condition_variable changed;
  const CoreOptions options;
  Store store;
  std::map<std::int64_t, RootPtr> roots;
  ItemTable items;
  Hydration hydration;
  Notifications notifications;
  std::int64_t lastConnectionKey = 0;
  // Set by CfReportSyncStatus, per path: code and text.
  std::map<std::string, std::pair<std::uint32_t, std::string>> syncStatus;

 private:
  void RunClock();

  FrontEndFactory factory_;
  std::int64_t lastRequestKey_;
  std::atomic<std::uint64_t> lastWaiterId_{0};
  bool stopping_ = false;
  std::thread clock_;
};

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_CORE_H_
