#ifndef NIMBRA_SIMULATOR_CLDAPI_THREAD_POOL_H_
#define NIMBRA_SIMULATOR_CLDAPI_THREAD_POOL_H_

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace cldapi {

// Runs tasks on threads of its own: as many as are needed at once, within limits. No order is
// promised. An exception in a task ends the process.
class ThreadPool {
 public:
  struct Limits {
    std::size_t atStart;
    std::size_t most;
  };

  explicit ThreadPool(Limits limits);
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;
  ~ThreadPool() { Stop(); }

  void Post(std::function<void()> task);

  // Forgets the tasks that have not begun and waits for those that run; called from a task, it
  // waits for none.
  void Stop();

 private:
  struct Shared {
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::function<void()>> tasks;
    std::size_t waiting = 0;
    bool stopping = false;
  };

  static void Work(Shared& shared);
  void AddThread();

  Limits limits_;
  // The threads hold it too, so that a pool which is stopped by its own task may go before them.
  std::shared_ptr<Shared> shared_;
  std::vector<std::thread> threads_;
};

}  // namespace cldapi

#endif  // NIMBRA_SIMULATOR_CLDAPI_THREAD_POOL_H_
