#ifndef NIMBRA_SIMULATOR_CLDAPI_CONNECTION_H_
#define NIMBRA_SIMULATOR_CLDAPI_CONNECTION_H_

#include <array>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "callback-record.h"
#include "channel.h"
#include "common/cloud-files.h"
#include "thread-pool.h"

namespace cldapi {

// The functions that a provider registered, by type.
using CallbackTable = std::array<CF_CALLBACK, CF_CALLBACK_TYPE_NOTIFY_RENAME_COMPLETION + 1>;

// A connected sync root: the callback channel and the threads that serve it.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(ConnectedRoot root, const CallbackTable& callbacks, Channel channel);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // From here on callbacks arrive. When it throws, Stop must be called.
  void Start();
  // Called once. None of the callbacks runs after it has returned, unless it is called from one.
  void Stop();

 private:
  // Several callbacks run at a time, as they do on the platform's own threads.
  static constexpr ThreadPool::Limits kCallbackThreads{4, 16};

  void Receive();
  void Dispatch(const Frame& frame);
  void Run(const cloud_filter::wire::CallbackEvent& event) const;
  void KeepAlive();
  void End();

  const ConnectedRoot root_;
  const CallbackTable callbacks_;
  Channel channel_;
  ThreadPool pool_{kCallbackThreads};
  std::thread receiver_;
  std::thread pulse_;

  std::mutex mutex_;
  std::condition_variable changed_;
  bool ended_ = false;
};

// The connections of this process by key.
void AddConnection(CF_CONNECTION_KEY key, std::shared_ptr<Connection> connection);
[[nodiscard]] bool IsConnected(CF_CONNECTION_KEY key);
// Null when there is none, or not any more.
[[nodiscard]] std::shared_ptr<Connection> RemoveConnection(CF_CONNECTION_KEY key);

}  // namespace cldapi

#endif  // NIMBRA_SIMULATOR_CLDAPI_CONNECTION_H_
