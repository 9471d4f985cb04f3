#ifndef NIMBRA_TESTS_SUPPORT_THREAD_WATCH_H_
#define NIMBRA_TESTS_SUPPORT_THREAD_WATCH_H_

#include <windows.h>

#include <set>

namespace nimbra_test {

// Knows which threads of this process were started since it was made.
class ThreadWatch {
 public:
  ThreadWatch() : before_(Threads()) {}

  // Those that run now.
  std::set<DWORD> Running() const;
  // Waits until all of them have ended; false when that takes too long.
  bool WaitUntilEnded() const;

 private:
  static std::set<DWORD> Threads();

  std::set<DWORD> before_;
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_THREAD_WATCH_H_
