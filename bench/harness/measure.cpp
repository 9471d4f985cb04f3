#include "bench/harness/measure.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace nimbra_bench {
namespace {

constexpr double kClockStep = 100;

// The shorter of two runs: one that the machine interrupted says nothing.
double ShorterOfTwo(const Batch& batch, std::size_t times) {
  const double first = batch(times);
  return std::min(first, batch(times));
}

// How many operations make a batch; the runs that find it out are the warm-up.
std::size_t BatchSize(const Effort& effort, const Batch& batch) {
  std::size_t times = effort.leastTimes;
  if (times >= effort.mostTimes) {
    batch(times);
    return times;
  }
  double took = ShorterOfTwo(batch, times);
  while (took < effort.batchNanoseconds / 2 && times < effort.mostTimes) {
    const double wanted =
        effort.batchNanoseconds / std::max(took, 1.0) * static_cast<double>(times);
    times = std::min(
        {effort.mostTimes, times * 16, std::max(times * 2, static_cast<std::size_t>(wanted))});
    took = ShorterOfTwo(batch, times);
  }
  return times;
}

// One thing to measure and what came of it in each round.
struct Track {
  const Batch* batch;
  std::size_t times;
  std::vector<double> perOperation;

  void Run() {
    // What takes no time that the clock shows takes at most one step of it.
    const double took = std::max((*batch)(times), kClockStep);
    perOperation.push_back(took / static_cast<double>(times));
  }
};

std::vector<double> Ratios(const std::vector<double>& subject,
                           const std::vector<double>& baseline) {
  std::vector<double> ratios;
  for (std::size_t round = 0; round < subject.size(); ++round) {
    ratios.push_back(subject[round] / baseline[round]);
  }
  return ratios;
}

double DistanceFrom(double centre, std::vector<double> values) {
  for (double& value : values) {
    value = std::abs(value / centre - 1);
  }
  return Median(std::move(values));
}

std::vector<Track> Play(const Effort& effort, const Batch& baseline,
                        const std::vector<Batch>& subjects) {
  std::vector<Track> tracks;
  const std::size_t baselineTimes = BatchSize(effort, baseline);
  tracks.push_back({&baseline, baselineTimes, {}});
  tracks.push_back({&baseline, baselineTimes, {}});
  for (const Batch& subject : subjects) {
    tracks.push_back({&subject, BatchSize(effort, subject), {}});
  }
  for (std::size_t round = 0; round < effort.rounds; ++round) {
    for (std::size_t i = 0; i < tracks.size(); ++i) {
      tracks[round % 2 == 0 ? i : tracks.size() - 1 - i].Run();
    }
  }
  return tracks;
}

}  // namespace

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

Comparison Compared(const std::vector<double>& subject, const std::vector<double>& baseline,
                    const std::vector<double>& again) {
  const std::vector<double> ratios = Ratios(subject, baseline);
  const double ratio = Median(ratios);
  return {Median(subject),
          Median(baseline),
          ratio,
          DistanceFrom(ratio, ratios),
          DistanceFrom(1, Ratios(again, baseline)),
          ratios.size()};
}

std::vector<Comparison> Compare(const Effort& effort, const Batch& baseline,
                                const std::vector<Batch>& subjects) {
  const std::vector<Track> tracks = Play(effort, baseline, subjects);
  std::vector<Comparison> comparisons;
  for (std::size_t i = 2; i < tracks.size(); ++i) {
    comparisons.push_back(
        Compared(tracks[i].perOperation, tracks[0].perOperation, tracks[1].perOperation));
  }
  return comparisons;
}

Comparison Compare(const Effort& effort, const Batch& baseline, const Batch& subject) {
  return Compare(effort, baseline, std::vector{subject}).front();
}

}  // namespace nimbra_bench
