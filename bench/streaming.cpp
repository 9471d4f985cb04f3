// How fast a local file's data reaches the platform: through the library, in the barest loop, and
// in the shapes that other programs have, where each transfer costs the kernel this or that.

#include <windows.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bench/harness/allocations.h"
#include "bench/harness/families.h"
#include "bench/harness/null-cloud.h"
#include "bench/harness/report.h"
#include "bench/harness/stream-shapes.h"
#include "nimbra/nimbra.h"
#include "tests/support/sync-root-handles.h"
#include "tests/support/temp-folder.h"

namespace nimbra_bench {
namespace {

constexpr std::int64_t kKiB = 1024;
constexpr std::int64_t kMiB = 1024 * kKiB;
constexpr std::int64_t kLarge = 16 * kMiB;

constexpr double kLeastSpeed = 0.97;
constexpr double kMostOwnNanoseconds = 30'000;
constexpr double kUsualCost = 20;

std::string SizeText(std::int64_t size) {
  if (size >= kMiB) {
    return std::to_string(size / kMiB) + " MiB";
  }
  return size >= kKiB ? std::to_string(size / kKiB) + " KiB" : std::to_string(size) + " B";
}

// A file with the data, and what it is transferred to.
class Source {
 public:
  explicit Source(std::int64_t size) : size_(size) {
    const std::string path = size >= kMiB ? folder_.WriteLargeFile("source", size)
                                          : folder_.WriteFile("source", Content(size));
    file_ = {nimbra_test::Wide(path), path};
    CORVWinCFPlaceholderOpen(placeholder_.Get());
  }

  [[nodiscard]] StreamShape Library() const {
    return LibraryShape(root_.Get(), placeholder_.Get());
  }
  // Streams the file once and says how many transfers that took. Throws when bytes are missing.
  [[nodiscard]] std::int64_t CountTransfers(const StreamShape& shape) const {
    NullCloud::TakeTransfers();
    shape.stream(file_);
    const NullCloud::Transfers transfers = NullCloud::TakeTransfers();
    if (transfers.bytes != size_) {
      throw std::runtime_error(shape.name + ": not all data was transferred");
    }
    return transfers.count;
  }
  [[nodiscard]] Batch BatchOf(const StreamShape& shape) const {
    return Repeat([stream = shape.stream, file = file_] { stream(file); });
  }
  [[nodiscard]] std::int64_t Size() const { return size_; }

 private:
  static std::string Content(std::int64_t size) {
    std::string content;
    content.resize(static_cast<std::size_t>(size), 'x');
    return content;
  }

  std::int64_t size_;
  nimbra_test::TempFolder folder_;
  LocalFile file_;
  nimbra_test::SyncRoot root_;
  nimbra_test::Placeholder placeholder_{folder_.WriteFile("placeholder", "")};
};

Row RowOf(const Source& source, const StreamShape& shape, double kernelCost,
          const Comparison& times) {
  Row row;
  row.family = "streaming";
  row.group = SizeText(source.Size()) + ", " + std::to_string(static_cast<int>(kernelCost)) +
              " us a transfer";
  row.name = shape.name;
  row.times = times;
  row.more = {{"size", static_cast<double>(source.Size())},
              {"kernelCost", kernelCost},
              {"transfers", static_cast<double>(source.CountTransfers(shape))},
              {"copies", shape.copies}};
  return row;
}

// The library beside the bare loop.
void MeasureLibrary(const Source& source, double cost, const Effort& effort) {
  const StreamShape bare = BareShape();
  const StreamShape library = source.Library();
  NullCloud::SetTransferCost(cost);
  const Comparison times = Compare(effort, source.BatchOf(bare), source.BatchOf(library));
  Row row = RowOf(source, library, cost, times);
  row.functions = {"CORVWinCFSyncRootProactiveTransferToPlaceholder"};
  if (cost == 0) {
    row.allocations = AllocationsOf([&] { static_cast<void>(source.CountTransfers(library)); });
  }
  if (source.Size() >= kLarge) {
    row.limits = {{"speed", kLeastSpeed, false}};
  } else if (source.Size() == 4 * kKiB) {
    row.limits = {{"own", kMostOwnNanoseconds}};
  }
  Write(row);
}

// Who is as fast as the library, as far as the machine's noise tells, is not ahead of it.
double LeastOfRival(double noise) { return std::max(0.0, std::floor((1 - noise) * 100) / 100); }

// The shapes beside the library's, which is the baseline: the figures say how much longer the
// others take.
void CompareShapes(const Source& source, double cost, const Effort& effort,
                   const std::vector<StreamShape>& shapes) {
  NullCloud::SetTransferCost(cost);
  std::vector<Batch> batches;
  for (const StreamShape& shape : shapes) {
    batches.push_back(source.BatchOf(shape));
  }
  const auto comparisons = Compare(effort, source.BatchOf(source.Library()), batches);
  for (std::size_t i = 0; i < shapes.size(); ++i) {
    Row row = RowOf(source, shapes[i], cost, comparisons[i]);
    row.group += ", other shapes beside the library";
    if (cost == kUsualCost && !shapes[i].isExplanation) {
      row.more.emplace_back("isRival", 1);
      if (source.Size() >= kLarge) {
        row.limits = {{"ratio", LeastOfRival(comparisons[i].noise), false}};
      }
    }
    Write(row);
  }
}

// All shapes: those of many transfers take long, and the others come close, so these are looked at
// more often.
void MeasureShapes(const Source& source, double cost, const Settings& settings) {
  constexpr std::int64_t kManyPerMiB = 4;
  std::vector<StreamShape> few;
  std::vector<StreamShape> many;
  NullCloud::SetTransferCost(0);
  for (const StreamShape& shape : OtherShapes()) {
    const bool isMany = source.CountTransfers(shape) > source.Size() / kMiB * kManyPerMiB;
    (isMany ? many : few).push_back(shape);
  }
  const bool takesLong = source.Size() > kLarge;
  CompareShapes(source, cost, takesLong ? settings.Long(9) : settings.Long(9, 4), few);
  CompareShapes(source, cost, settings.Long(takesLong || cost > kUsualCost ? 2 : 5), many);
}

// The costs of a transfer to go through.
std::vector<double> KernelCosts(const Settings& settings) {
  return settings.isQuick ? std::vector<double>{kUsualCost} : std::vector<double>{0, 5, 20, 100};
}

void MeasureSize(const Settings& settings, std::int64_t size) {
  const Source source(size);
  const bool takesLong = size > kLarge;
  const Effort effort = takesLong      ? settings.Long(7)
                        : size >= kMiB ? settings.Long(11, 8)
                                       : settings.Short();
  for (const double cost : KernelCosts(settings)) {
    MeasureLibrary(source, cost, effort);
  }
  if (size == (settings.isQuick ? kMiB : kLarge)) {
    for (const double cost : KernelCosts(settings)) {
      MeasureShapes(source, cost, settings);
    }
  } else if (takesLong) {
    MeasureShapes(source, kUsualCost, settings);
  }
}

}  // namespace

void MeasureStreaming(const Settings& settings) {
  const NullCloud cloud;
  std::vector<std::int64_t> sizes = {0, 4 * kKiB, 64 * kKiB, kMiB};
  if (!settings.isQuick) {
    sizes.insert(sizes.end(), {kLarge, 256 * kMiB});
  }
  if (settings.isLarge) {
    sizes.push_back(1024 * kMiB);
  }
  for (const std::int64_t size : sizes) {
    MeasureSize(settings, size);
  }
}

}  // namespace nimbra_bench
