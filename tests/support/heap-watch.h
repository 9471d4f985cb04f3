#ifndef NIMBRA_TESTS_SUPPORT_HEAP_WATCH_H_
#define NIMBRA_TESTS_SUPPORT_HEAP_WATCH_H_

#include <cstddef>
#include <cstdint>
#include <stdexcept>

namespace nimbra_test {

// Watches the C++ heap (operator new and delete, replaced in every test program) on the thread that
// made the watch: counts allocations, fails chosen ones and knows which blocks are still alive.
// Blocks freed while a watch exists are filled with 0xDD and kept aside, so that a use after free
// reads garbage and a lookup by address stays meaningful. One watch at a time.
class HeapWatch {
 public:
  HeapWatch();
  ~HeapWatch();
  HeapWatch(const HeapWatch&) = delete;
  HeapWatch& operator=(const HeapWatch&) = delete;

  // Lets the n-th allocation from now on (1 = the next one) fail: new throws, nothrow new gives
  // null.
  void FailAllocation(int n);
  // Lets every allocation from the n-th on fail.
  void FailAllocationsFrom(int n);
  void StopFailing();
  // Whether an allocation was refused since the last FailAllocation….
  bool Failed() const;

  // Allocations of the watching thread since the watch was made, test scopes excepted.
  int Allocations() const;
  // Those of them, by any thread's delete, that have not been freed.
  int LiveBlocks() const;
  std::size_t LiveBytes() const;
  // The largest single allocation since the watch was made.
  std::size_t LargestAllocation() const;

  // Whether `address` points into a block of the C++ heap that is allocated now, or was freed since
  // the watch was made. Both are false for memory from elsewhere.
  static bool IsAllocated(const void* address);
  static bool WasFreed(const void* address);
  // The size of the live block that starts at `address`, 0 when there is none.
  static std::size_t BlockSize(const void* address);
};

// Ends a watch's failures, and says whether there was one.
class FailureReport {
 public:
  FailureReport(HeapWatch& watch, bool& failed) : watch_(watch), failed_(failed) {}
  FailureReport(const FailureReport&) = delete;
  FailureReport& operator=(const FailureReport&) = delete;
  ~FailureReport() {
    failed_ = watch_.Failed();
    watch_.StopFailing();
  }

 private:
  HeapWatch& watch_;
  bool& failed_;
};

// Runs `body(n)` with the n-th allocation failing, n = 1, 2, …, until a run meets no failure;
// `body` returns after its assertions. Gives the number of allocations that were failed. `body`
// must place the watched code in `watched` so that its own allocations do not count:
//   ForEachFailingAllocation([&](auto&& watched) { watched([&] { r = Call(); }); EXPECT_EQ(…); });
// `failed` tells the assertions whether this run had its failure.
template <typename Body>
int ForEachFailingAllocation(Body body, bool persistent = false) {
  constexpr int kLimit = 500;
  for (int n = 1; n <= kLimit; ++n) {
    bool failed = false;
    auto watched = [&](auto&& code) {
      HeapWatch watch;
      if (persistent) {
        watch.FailAllocationsFrom(n);
      } else {
        watch.FailAllocation(n);
      }
      const FailureReport report(watch, failed);
      code();
    };
    body(watched, failed);
    if (!failed) {
      return n - 1;
    }
  }
  throw std::runtime_error("more allocations than are failed in turn");
}

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_HEAP_WATCH_H_
