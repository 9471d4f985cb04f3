#ifndef NIMBRA_BENCH_HARNESS_REPORT_H_
#define NIMBRA_BENCH_HARNESS_REPORT_H_

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bench/harness/measure.h"

namespace nimbra_bench {

// A bound that the figures of a row are held against.
struct Limit {
  // Which of the row's numbers: "ratio", "speed" (the inverse of the ratio), "own" (nanoseconds
  // beyond the baseline) or "allocations".
  std::string of;
  double number;
  bool isMost = true;
};

// One line of the table.
struct Row {
  std::string family;
  // Rows of one group belong side by side.
  std::string group;
  std::string name;
  Comparison times;
  std::optional<double> allocations = std::nullopt;
  std::optional<double> baselineAllocations = std::nullopt;
  std::vector<Limit> limits = {};
  // The library's functions that the row is about.
  std::vector<std::string> functions = {};
  // Further numbers.
  std::vector<std::pair<std::string, double>> more = {};
};

// Writes the row to the standard output as one line of JSON.
void Write(const Row& row);

}  // namespace nimbra_bench

#endif  // NIMBRA_BENCH_HARNESS_REPORT_H_
