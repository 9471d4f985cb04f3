#ifndef NIMBRA_TESTS_SUPPORT_THREADS_H_
#define NIMBRA_TESTS_SUPPORT_THREADS_H_

#include <atomic>
#include <cstddef>
#include <thread>
#include <type_traits>
#include <vector>

namespace nimbra_test {

// Runs `body` on that many threads that start together, each with its number (from 0), and gives
// what each of them returned.
template <typename Body>
auto OnThreads(int count, Body body) {
  using Result = decltype(body(0));
  static_assert(!std::is_same_v<Result, bool>, "elements of vector<bool> share memory");
  std::vector<Result> results(static_cast<std::size_t>(count));
  // Not a std::latch: under Wine its waiters are now and then not woken.
  std::atomic<int> missing = count;
  std::vector<std::jthread> threads;
  threads.reserve(results.size());
  for (int thread = 0; thread < count; ++thread) {
    threads.emplace_back([&, thread] {
      --missing;
      while (missing > 0) {
        std::this_thread::yield();
      }
      results[static_cast<std::size_t>(thread)] = body(thread);
    });
  }
  threads.clear();
  return results;
}

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_THREADS_H_
