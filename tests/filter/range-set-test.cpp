#include "range-set.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace cloud_filter::test {
namespace {

using Runs = std::vector<Range>;

TEST(RangeSet, JoinsRunsThatTouchOrOverlap) {
  RangeSet set;
  set.Add({10, 20});
  set.Add({30, 40});
  set.Add({20, 30});
  EXPECT_EQ(set.Runs(), (Runs{{10, 40}}));
  set.Add({5, 100});
  EXPECT_EQ(set.Runs(), (Runs{{5, 100}}));
}

TEST(RangeSet, KeepsRunsApartThatAByteSeparates) {
  RangeSet set;
  set.Add({10, 20});
  set.Add({21, 30});
  EXPECT_EQ(set.Runs(), (Runs{{10, 20}, {21, 30}}));
}

TEST(RangeSet, RemovingFromTheMiddleLeavesTwoRuns) {
  RangeSet set({0, 100});
  set.Remove({40, 60});
  EXPECT_EQ(set.Runs(), (Runs{{0, 40}, {60, 100}}));
}

TEST(RangeSet, TellsWhatIsMissingWithinARange) {
  RangeSet set;
  set.Add({10, 20});
  set.Add({30, 40});
  EXPECT_EQ(set.Missing({0, 50}), (Runs{{0, 10}, {20, 30}, {40, 50}}));
  EXPECT_EQ(set.Missing({12, 18}), Runs());
  EXPECT_EQ(set.Missing({15, 35}), (Runs{{20, 30}}));
}

TEST(RangeSet, ContainsEveryEmptyRange) {
  const RangeSet set;
  EXPECT_TRUE(set.Contains({7, 7}));
  EXPECT_FALSE(set.Contains({7, 8}));
}

TEST(RangeSet, IgnoresEmptyAndReversedRanges) {
  RangeSet set;
  set.Add({5, 5});
  set.Add({9, 3});
  EXPECT_TRUE(set.Empty());
  set.Add({0, 10});
  set.Remove({9, 3});
  EXPECT_EQ(set.TotalWithin({0, 100}), 10);
}

TEST(RangeSet, SurvivesBeingWrittenAndRead) {
  RangeSet set;
  set.Add({0, 4096});
  set.Add({8192, std::int64_t{1} << 40});
  EXPECT_EQ(RangeSet::Parse(set.Serialize()), set);
}

TEST(RangeSet, ReadingSkipsWhatIsNoRun) {
  const std::int64_t numbers[] = {-5, 5, 20, 10, 30, 40};
  const std::string_view bytes(reinterpret_cast<const char*>(numbers), sizeof numbers);
  EXPECT_EQ(RangeSet::Parse(bytes).Runs(), (Runs{{30, 40}}));
  EXPECT_TRUE(RangeSet::Parse("short").Empty());
}

TEST(RangeSet, BehavesLikeASetOfBytesUnderRandomChanges) {
  constexpr std::int64_t kSize = 200;
  std::mt19937 random(20260101);
  std::uniform_int_distribution<std::int64_t> position(0, kSize);
  RangeSet set;
  std::vector<bool> model(kSize, false);
  for (int step = 0; step < 20'000; ++step) {
    Range range{position(random), position(random)};
    if (range.begin > range.end) std::swap(range.begin, range.end);
    const bool adds = step % 2 == 0;
    if (adds) {
      set.Add(range);
    } else {
      set.Remove(range);
    }
    for (auto at = range.begin; at < range.end; ++at) model[static_cast<std::size_t>(at)] = adds;

    Runs expected;
    for (std::int64_t at = 0; at < kSize; ++at) {
      if (!model[static_cast<std::size_t>(at)]) continue;
      if (!expected.empty() && expected.back().end == at) {
        ++expected.back().end;
      } else {
        expected.push_back({at, at + 1});
      }
    }
    ASSERT_EQ(set.Runs(), expected) << "after step " << step;
  }
}

}  // namespace
}  // namespace cloud_filter::test
