#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "tests/faults/matrix.h"
#include "tests/faults/options.h"

namespace nimbra_test {
namespace {

// The first fault of the scenario that makes it fail, or the lack of memory, or none.
Fault AFault(const Scenario& scenario, const Observation& usual) {
  for (const Row& row : scenario.rows) {
    const FunctionRow* const function = FindFunction(row.function);
    if (row.outcome.result != scenario.success.result && row.n <= 1 && !row.code &&
        function != nullptr && usual.calls.contains(row.function)) {
      return {row.function, 1, true, function->failures.front()};
    }
  }
  if (usual.calls.contains("allocation") && !scenario.mayThrow) {
    return {"allocation", 1, true, {0, ERROR_NOT_ENOUGH_MEMORY, 0}};
  }
  return {};
}

Holdings Times(Holdings one, std::int64_t rounds) {
  for (auto& [name, count] : one) {
    count *= rounds;
  }
  std::erase_if(one, [](const auto& entry) { return entry.second == 0; });
  return one;
}

// Each call again and again: what is held grows by what is kept on purpose, to the byte.
class BalanceTest : public testing::TestWithParam<const Scenario*> {
 protected:
  static void Repeat(Stage& stage, const Scenario& scenario, const Fault& fault) {
    const auto rounds =
        std::max<std::int64_t>(1, static_cast<std::int64_t>(BalanceRounds()) / scenario.share);
    // What is made on first use.
    Play(stage, scenario, fault);
    const Holdings measured = Play(stage, scenario, fault).growth;
    const Holdings& one = fault.function.empty() ? scenario.kept : measured;
    EXPECT_EQ(Settled(scenario, Times(one, rounds),
                      [&] {
                        const Holdings before = HeldNow(stage);
                        for (std::int64_t round = 0; round < rounds; ++round) {
                          PlayOnly(stage, scenario, fault);
                        }
                        return Growth(before, HeldNow(stage));
                      }),
              Times(one, rounds))
        << Describe(fault);
  }

  // What `measure` gives. Where threads run, a lock of the test's own keeps an event of the
  // system's from the first time on that two meet at it: then it is measured again.
  template <typename Measure>
  static Holdings Settled(const Scenario& scenario, const Holdings& expected, Measure measure) {
    Holdings growth = measure();
    for (int more = scenario.startsThread ? 5 : 0; more > 0 && growth != expected; --more) {
      growth = measure();
    }
    return growth;
  }
};

TEST_P(BalanceTest, KeepsWhatItIsToKeepAndNoMore) {
  const Scenario& scenario = *GetParam();
  EXPECT_EQ(scenario.kept.empty(), scenario.whyKept.empty());
  EXPECT_EQ(scenario.share == 1, scenario.whyFewer.empty());
  Stage stage;
  MeetException(stage);
  Play(stage, scenario);
  Play(stage, scenario);
  Played usual;
  const Holdings grown = Settled(scenario, Times(scenario.kept, 1), [&] {
    usual = Play(stage, scenario);
    return usual.growth;
  });
  EXPECT_EQ(grown, Times(scenario.kept, 1));
  Repeat(stage, scenario, {});
  const Fault fault = AFault(scenario, usual.observation);
  if (!fault.function.empty()) {
    Repeat(stage, scenario, fault);
  }
}

std::vector<const Scenario*> All() {
  std::vector<const Scenario*> all;
  for (const Scenario& scenario : Scenarios()) {
    all.push_back(&scenario);
  }
  return all;
}

INSTANTIATE_TEST_SUITE_P(AllScenarios, BalanceTest, testing::ValuesIn(All()), [](const auto& test) {
  return test.param->exportName + test.param->variant;
});

}  // namespace
}  // namespace nimbra_test
