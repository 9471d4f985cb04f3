#ifndef NIMBRA_TESTS_STRESS_SCHEDULER_H_
#define NIMBRA_TESTS_STRESS_SCHEDULER_H_

#include <windows.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/stress/random.h"

namespace nimbra_stress {

enum class Mode {
  kInterleaved,  // one thread runs at a time; the seed decides which goes on next
  kConcurrent    // all run as they like
};

// A lock and a condition of the system's own: quick enough for many thousands of switches.
class Lock {
 public:
  void lock() { AcquireSRWLockExclusive(&lock_); }
  void unlock() { ReleaseSRWLockExclusive(&lock_); }

 private:
  friend class Signal;
  SRWLOCK lock_ = SRWLOCK_INIT;
};

// One that its thread may take again. Unlike MinGW's std::recursive_mutex it gives all back.
class RecursiveLock {
 public:
  RecursiveLock() { InitializeCriticalSection(&section_); }
  ~RecursiveLock() { DeleteCriticalSection(&section_); }
  RecursiveLock(const RecursiveLock&) = delete;
  RecursiveLock& operator=(const RecursiveLock&) = delete;
  void lock() { EnterCriticalSection(&section_); }
  void unlock() { LeaveCriticalSection(&section_); }

 private:
  CRITICAL_SECTION section_;
};

class Signal {
 public:
  void Give() { WakeAllConditionVariable(&condition_); }
  // With the lock held. False when the time was over.
  bool Wait(Lock& lock, DWORD milliseconds = INFINITE) {
    return SleepConditionVariableSRW(&condition_, &lock.lock_, milliseconds, 0) != FALSE;
  }

 private:
  CONDITION_VARIABLE condition_ = CONDITION_VARIABLE_INIT;
};

// Runs the threads of one schedule. The threads tell where they may be interrupted and what they
// wait for; locks of the code under test are real ones.
class Scheduler {
 public:
  Scheduler(Mode mode, std::uint64_t seed) : mode_(mode), random_(seed) {}
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;

  void Add(std::string name, std::function<void()> body);
  // Returns when all threads have ended. A deadlock, or a thread that hangs, ends the process with
  // a report of where everyone is.
  void Run();

  // Of a thread of the schedule: it is at `place` (a literal), and another may go on.
  void Switch(const char* place);
  // The same, going on only when the condition holds. It must not take locks that are held across
  // a switch.
  void WaitUntil(const char* place, std::function<bool()> condition);

  [[nodiscard]] std::string Places() const;

 private:
  struct Thread {
    std::string name;
    std::function<void()> body;
    std::atomic<const char*> place{"not begun"};
    std::function<bool()> condition;
    bool ended = false;
    Signal turn;
  };

  void Enter(Thread& thread);
  void Leave(Thread& thread);
  // Gives the turn to a thread that can run.
  void PassOn();
  [[noreturn]] void ReportDeadlock(const char* what) const;

  const Mode mode_;
  Random random_;
  Lock mutex_;
  std::vector<std::unique_ptr<Thread>> threads_;
  std::size_t ended_ = 0;
  Signal allEnded_;
  Thread* current_ = nullptr;
  std::atomic<std::uint64_t> switches_{0};
  static thread_local Thread* self_;
};

// Shown when a schedule hangs.
void SetReplayHint(const std::string& hint);

}  // namespace nimbra_stress

#endif  // NIMBRA_TESTS_STRESS_SCHEDULER_H_
