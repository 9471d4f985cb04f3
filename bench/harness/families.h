#ifndef NIMBRA_BENCH_HARNESS_FAMILIES_H_
#define NIMBRA_BENCH_HARNESS_FAMILIES_H_

#include <string>

#include "bench/harness/measure.h"

namespace nimbra_bench {

struct Settings {
  // Only whether everything runs; the figures mean little.
  bool isQuick = false;
  // The sizes that take long, too.
  bool isLarge = false;
  // A folder in a connected sync root, with slashes.
  std::string folder = {};

  // For operations of at most some microseconds.
  [[nodiscard]] Effort Short() const {
    return isQuick ? Effort{3, 50'000, 10'000, 1} : Effort{15, 400'000, 1'000'000, 1};
  }
  // For longer ones: as many rounds, and operations in each, as are named here.
  [[nodiscard]] Effort Long(std::size_t rounds, std::size_t times = 1) const {
    return isQuick ? Effort{2, 0, 1, 1} : Effort{rounds, 0, times, times};
  }
};

// Each writes its rows.
void MeasureExports(const Settings& settings);
void MeasureCallbacks(const Settings& settings);
void MeasureStreaming(const Settings& settings);
void MeasureShell(const Settings& settings);
// On the real platform, in a sync root that a client serves.
void MeasurePlaceholders(const Settings& settings);
// Serves the sync roots "library" and "bare" in the folder until the standard input ends.
void ServeRoots(const Settings& settings);

}  // namespace nimbra_bench

#endif  // NIMBRA_BENCH_HARNESS_FAMILIES_H_
