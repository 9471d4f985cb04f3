#ifndef NIMBRA_BENCH_HARNESS_ALLOCATIONS_H_
#define NIMBRA_BENCH_HARNESS_ALLOCATIONS_H_

#include <cstddef>

namespace nimbra_bench {

// Counts this program's own allocations, the library's among them, while it lives: of the C runtime
// (which operator new takes its memory from), of the process's heap and of pages. What the system's
// own DLLs allocate does not count. One at a time, and nothing is timed meanwhile.
class AllocationCount {
 public:
  AllocationCount();
  ~AllocationCount();
  AllocationCount(const AllocationCount&) = delete;
  AllocationCount& operator=(const AllocationCount&) = delete;

  [[nodiscard]] std::size_t SoFar() const;

 private:
  struct Hooks;
  Hooks* hooks_;
};

// The allocations of one call, after others that set up what is made once.
template <typename Operation>
double AllocationsOf(Operation&& operation) {
  constexpr std::size_t kTimes = 16;
  operation();
  operation();
  const AllocationCount count;
  for (std::size_t i = 0; i < kTimes; ++i) {
    operation();
  }
  return static_cast<double>(count.SoFar()) / static_cast<double>(kTimes);
}

}  // namespace nimbra_bench

#endif  // NIMBRA_BENCH_HARNESS_ALLOCATIONS_H_
