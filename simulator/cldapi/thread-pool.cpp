#include "thread-pool.h"

#include <algorithm>
#include <utility>

namespace cldapi {

ThreadPool::ThreadPool(Limits limits) : limits_(limits), shared_(std::make_shared<Shared>()) {
  const std::scoped_lock lock(shared_->mutex);
  while (threads_.size() < limits_.atStart) AddThread();
}

void ThreadPool::Post(std::function<void()> task) {
  {
    const std::scoped_lock lock(shared_->mutex);
    if (shared_->stopping) return;
    shared_->tasks.push_back(std::move(task));
    if (shared_->tasks.size() > shared_->waiting && threads_.size() < limits_.most) AddThread();
  }
  shared_->changed.notify_one();
}

void ThreadPool::Stop() {
  std::vector<std::thread> threads;
  {
    const std::scoped_lock lock(shared_->mutex);
    shared_->stopping = true;
    shared_->tasks.clear();
    threads.swap(threads_);
  }
  shared_->changed.notify_all();
  const bool fromTask = std::any_of(threads.begin(), threads.end(), [](const std::thread& thread) {
    return thread.get_id() == std::this_thread::get_id();
  });
  for (auto& thread : threads) {
    if (fromTask) {
      thread.detach();
    } else {
      thread.join();
    }
  }
}

void ThreadPool::AddThread() {
  threads_.emplace_back([shared = shared_] { Work(*shared); });
}

void ThreadPool::Work(Shared& shared) {
  std::unique_lock lock(shared.mutex);
  for (;;) {
    ++shared.waiting;
    shared.changed.wait(lock, [&] { return shared.stopping || !shared.tasks.empty(); });
    --shared.waiting;
    if (shared.stopping) return;
    auto task = std::move(shared.tasks.front());
    shared.tasks.pop_front();
    lock.unlock();
    task();
    task = nullptr;
    lock.lock();
  }
}

}  // namespace cldapi
