#ifndef NIMBRA_BENCH_HARNESS_MEASURE_H_
#define NIMBRA_BENCH_HARNESS_MEASURE_H_

#include <chrono>
#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

namespace nimbra_bench {

// Does something that many times and gives the nanoseconds that all of them took.
using Batch = std::function<double(std::size_t times)>;

using Clock = std::chrono::steady_clock;

inline double NanosecondsSince(Clock::time_point begun) {
  return std::chrono::duration<double, std::nano>(Clock::now() - begun).count();
}

// A batch that times the operation alone: the loop around it is compiled together with it.
template <typename Operation>
Batch Repeat(Operation operation) {
  return [operation = std::move(operation)](std::size_t times) mutable {
    const auto begun = Clock::now();
    for (std::size_t i = 0; i < times; ++i) {
      operation();
    }
    return NanosecondsSince(begun);
  };
}

// How hard to look.
struct Effort {
  std::size_t rounds = 15;
  // How long one batch shall take; the warm-up finds out how many operations that are.
  double batchNanoseconds = 400'000;
  // Never more operations than this in a batch: for those that leave something behind.
  std::size_t mostTimes = 1'000'000;
  // Never fewer than this.
  std::size_t leastTimes = 1;
};

// One subject beside the baseline, measured in the same rounds. Times are for one operation.
struct Comparison {
  double subject = 0;
  double baseline = 0;
  // The median over the rounds of the subject's time by the baseline's in the same round.
  double ratio = 0;
  // The median distance of the rounds' ratios from that median, as a part of it.
  double spread = 0;
  // The same distance from 1 for the baseline beside itself: what the machine alone does.
  double noise = 0;
  std::size_t rounds = 0;
};

// Measures the subjects and the baseline, in turn and round by round, after a warm-up of each. The
// baseline runs twice in each round; the order changes from round to round.
std::vector<Comparison> Compare(const Effort& effort, const Batch& baseline,
                                const std::vector<Batch>& subjects);
Comparison Compare(const Effort& effort, const Batch& baseline, const Batch& subject);

// From the times of an operation in each round; the baseline has two columns of them.
Comparison Compared(const std::vector<double>& subject, const std::vector<double>& baseline,
                    const std::vector<double>& again);

double Median(std::vector<double> values);

}  // namespace nimbra_bench

#endif  // NIMBRA_BENCH_HARNESS_MEASURE_H_
