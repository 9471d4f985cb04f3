// Sets of byte ranges against a set of single bytes, and their stored form from any bytes.

#include <array>
#include <bitset>

#include "feed.h"
#include "range-set.h"

namespace {

using cloud_filter::Range;
using cloud_filter::RangeSet;
using nimbra_native::Require;

constexpr std::size_t kBytes = 128;
using Model = std::bitset<kBytes>;

void RequireOrder(const std::vector<Range>& runs) {
  for (std::size_t i = 0; i < runs.size(); ++i) {
    Require(!runs[i].Empty(), "no run is empty");
    Require(i == 0 || runs[i - 1].end < runs[i].begin, "runs are sorted and do not touch");
  }
}

Model BytesOf(const std::vector<Range>& runs) {
  Model bytes;
  for (const Range& run : runs) {
    for (auto i = run.begin; i < run.end; ++i) bytes.set(static_cast<std::size_t>(i));
  }
  return bytes;
}

void CheckQueries(const RangeSet& set, const Model& model, Range range) {
  const Model asked = BytesOf({range});
  RequireOrder(set.Runs());
  Require(BytesOf(set.Runs()) == model, "the set holds the model's bytes");
  Require(set.Contains(range) == ((asked & ~model).none()), "Contains is right");
  Require(BytesOf(set.Within(range)) == (asked & model), "Within is right");
  Require(BytesOf(set.Missing(range)) == (asked & ~model), "Missing is right");
  Require(set.TotalWithin(range) == static_cast<std::int64_t>((asked & model).count()),
          "TotalWithin is right");
  Require(RangeSet::Parse(set.Serialize()) == set, "what is stored comes back");
}

void CheckOperations(nimbra_native::Feed& feed) {
  RangeSet set;
  Model model;
  for (int i = 0; i < 64; ++i) {
    const auto operation = feed.Take<std::uint8_t>();
    const Range range{feed.Take<std::uint8_t>() % static_cast<std::int64_t>(kBytes),
                      feed.Take<std::uint8_t>() % static_cast<std::int64_t>(kBytes)};
    if ((operation & 1U) != 0) {
      set.Add(range);
      model |= BytesOf({range});
    } else {
      set.Remove(range);
      model &= ~BytesOf({range});
    }
    CheckQueries(set, model, {range.end - 40 < 0 ? 0 : range.end - 40, range.end});
  }
}

void CheckStored(const std::string& bytes) {
  const RangeSet set = RangeSet::Parse(bytes);
  RequireOrder(set.Runs());
  const std::string stored = set.Serialize();
  Require(RangeSet::Parse(stored) == set, "what is stored comes back");
  static_cast<void>(set.TotalWithin({0, INT64_MAX}));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  nimbra_native::Feed feed(data, size);
  if (feed.TakeBool()) {
    CheckOperations(feed);
  } else {
    CheckStored(feed.TakeRest());
  }
  return 0;
}
