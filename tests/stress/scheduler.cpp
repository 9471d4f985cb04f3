#include "tests/stress/scheduler.h"

#include <windows.h>

#include <chrono>
#include <cstdio>
#include <mutex>
#include <thread>
#include <utility>

namespace nimbra_stress {
namespace {

// No schedule makes a step that takes nearly this long.
constexpr DWORD kHangsMs = 20'000;
constexpr std::chrono::milliseconds kLook{1};
constexpr UINT kDeadlock = 4;

std::string& ReplayHint() {
  static auto& hint = *new std::string;
  return hint;
}

}  // namespace

thread_local Scheduler::Thread* Scheduler::self_ = nullptr;

void SetReplayHint(const std::string& hint) { ReplayHint() = hint; }

void Scheduler::Add(std::string name, std::function<void()> body) {
  auto thread = std::make_unique<Thread>();
  thread->name = std::move(name);
  thread->body = std::move(body);
  threads_.push_back(std::move(thread));
}

std::string Scheduler::Places() const {
  std::string text;
  for (const auto& thread : threads_) {
    text += "  " + thread->name + ": " + thread->place.load() + "\n";
  }
  return text;
}

void Scheduler::ReportDeadlock(const char* what) const {
  std::printf("%s (%s)\n%s", what, ReplayHint().c_str(), Places().c_str());
  std::fflush(stdout);
  TerminateProcess(GetCurrentProcess(), kDeadlock);
  std::abort();
}

void Scheduler::Run() {
  std::vector<std::jthread> running;  // joined when the lock is free again
  const std::lock_guard lock(mutex_);
  for (auto& thread : threads_) {
    running.emplace_back([this, &thread = *thread] {
      Enter(thread);
      thread.body();
      Leave(thread);
    });
  }
  PassOn();
  auto seen = switches_.load();
  while (ended_ < threads_.size()) {
    if (allEnded_.Wait(mutex_, kHangsMs)) {
      continue;
    }
    const auto count = switches_.load();
    if (count == seen) {
      ReportDeadlock("A thread hangs");
    }
    seen = count;
  }
}

void Scheduler::Enter(Thread& thread) {
  self_ = &thread;
  const std::lock_guard lock(mutex_);
  const bool alone = mode_ == Mode::kInterleaved;
  while (alone ? current_ != &thread : current_ == nullptr) {
    thread.turn.Wait(mutex_);
  }
  thread.place = "running";
}

void Scheduler::Leave(Thread& thread) {
  const std::lock_guard lock(mutex_);
  thread.place = "ended";
  thread.ended = true;
  ++switches_;
  if (++ended_ == threads_.size()) {
    allEnded_.Give();
  }
  self_ = nullptr;
  if (mode_ == Mode::kInterleaved) {
    PassOn();
  }
}

void Scheduler::PassOn() {
  if (mode_ == Mode::kConcurrent) {
    current_ = threads_.front().get();
    for (auto& thread : threads_) {
      thread->turn.Give();
    }
    return;
  }
  std::vector<Thread*> ready;
  bool all = true;
  for (auto& thread : threads_) {
    all = all && thread->ended;
    if (!thread->ended && (!thread->condition || thread->condition())) {
      ready.push_back(thread.get());
    }
  }
  if (all) {
    return;
  }
  if (ready.empty()) {
    ReportDeadlock("Nobody can go on");
  }
  current_ = random_.Pick(ready);
  current_->turn.Give();
}

void Scheduler::Switch(const char* place) { WaitUntil(place, nullptr); }

void Scheduler::WaitUntil(const char* place, std::function<bool()> condition) {
  Thread* const self = self_;
  if (self == nullptr) {
    return;
  }
  ++switches_;
  self->place = place;
  if (mode_ == Mode::kConcurrent) {
    while (condition && !condition()) {
      std::this_thread::sleep_for(kLook);
    }
    std::this_thread::yield();
    return;
  }
  const std::lock_guard lock(mutex_);
  self->condition = std::move(condition);
  PassOn();
  while (current_ != self) {
    self->turn.Wait(mutex_);
  }
  self->condition = nullptr;
}

}  // namespace nimbra_stress
