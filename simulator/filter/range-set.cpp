#include "range-set.h"

#include <algorithm>
#include <cstring>

namespace cloud_filter {

void RangeSet::Add(Range range) {
  if (range.Empty()) return;
  const auto first = std::lower_bound(runs_.begin(), runs_.end(), range.begin,
                                      [](const Range& run, auto at) { return run.end < at; });
  auto last = first;
  for (; last != runs_.end() && last->begin <= range.end; ++last) {
    range.begin = std::min(range.begin, last->begin);
    range.end = std::max(range.end, last->end);
  }
  if (first == last) {
    runs_.insert(first, range);
    return;
  }
  *first = range;
  runs_.erase(first + 1, last);
}

void RangeSet::Remove(Range range) {
  if (range.Empty()) return;
  std::vector<Range> kept;
  kept.reserve(runs_.size() + 1);
  for (const auto& run : runs_) {
    const Range before{run.begin, std::min(run.end, range.begin)};
    const Range after{std::max(run.begin, range.end), run.end};
    if (!before.Empty()) kept.push_back(before);
    if (!after.Empty()) kept.push_back(after);
  }
  runs_ = std::move(kept);
}

bool RangeSet::Contains(Range range) const { return Missing(range).empty(); }

std::vector<Range> RangeSet::Within(Range range) const {
  std::vector<Range> parts;
  auto run = std::upper_bound(runs_.begin(), runs_.end(), range.begin,
                              [](auto at, const Range& r) { return at < r.end; });
  for (; run != runs_.end() && run->begin < range.end; ++run) {
    const Range part{std::max(run->begin, range.begin), std::min(run->end, range.end)};
    if (!part.Empty()) parts.push_back(part);
  }
  return parts;
}

std::vector<Range> RangeSet::Missing(Range range) const {
  std::vector<Range> gaps;
  auto at = range.begin;
  for (const auto& part : Within(range)) {
    if (at < part.begin) gaps.push_back({at, part.begin});
    at = part.end;
  }
  if (at < range.end) gaps.push_back({at, range.end});
  return gaps;
}

std::int64_t RangeSet::TotalWithin(Range range) const {
  std::int64_t total = 0;
  for (const auto& part : Within(range)) total += part.Length();
  return total;
}

std::string RangeSet::Serialize() const {
  std::string bytes(runs_.size() * sizeof(Range), '\0');
  if (!runs_.empty()) std::memcpy(bytes.data(), runs_.data(), bytes.size());
  return bytes;
}

RangeSet RangeSet::Parse(std::string_view bytes) {
  RangeSet set;
  for (; bytes.size() >= sizeof(Range); bytes.remove_prefix(sizeof(Range))) {
    Range run;
    std::memcpy(&run, bytes.data(), sizeof run);
    if (run.begin >= 0) set.Add(run);
  }
  return set;
}

}  // namespace cloud_filter
