#ifndef NIMBRA_SIMULATOR_FILTER_RANGE_SET_H_
#define NIMBRA_SIMULATOR_FILTER_RANGE_SET_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace cloud_filter {

// Bytes [begin, end) of a file.
struct Range {
  std::int64_t begin = 0;
  std::int64_t end = 0;

  [[nodiscard]] bool Empty() const { return end <= begin; }
  [[nodiscard]] std::int64_t Length() const { return Empty() ? 0 : end - begin; }
  [[nodiscard]] bool Overlaps(const Range& other) const {
    return begin < other.end && other.begin < end;
  }
  friend bool operator==(const Range&, const Range&) = default;
};

// A set of bytes of a file: sorted runs that neither touch nor overlap.
class RangeSet {
 public:
  RangeSet() = default;
  explicit RangeSet(Range range) { Add(range); }

  void Add(Range range);
  void Remove(Range range);
  void Clear() { runs_.clear(); }

  // True for an empty range.
  [[nodiscard]] bool Contains(Range range) const;
  [[nodiscard]] bool Empty() const { return runs_.empty(); }
  // The parts of `range` that are, or are not, in the set, in order.
  [[nodiscard]] std::vector<Range> Within(Range range) const;
  [[nodiscard]] std::vector<Range> Missing(Range range) const;
  [[nodiscard]] std::int64_t TotalWithin(Range range) const;
  [[nodiscard]] const std::vector<Range>& Runs() const { return runs_; }

  // For the store: pairs of little-endian 64-bit numbers. Parsing skips what is not a run.
  [[nodiscard]] std::string Serialize() const;
  [[nodiscard]] static RangeSet Parse(std::string_view bytes);

  friend bool operator==(const RangeSet&, const RangeSet&) = default;

 private:
  std::vector<Range> runs_;
};

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_RANGE_SET_H_
