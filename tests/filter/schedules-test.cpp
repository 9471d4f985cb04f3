#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "schedule-world.h"

namespace cloud_filter::test {
namespace {

constexpr std::uint64_t kSeeds = 1000;
constexpr int kSteps = 60;

std::string FailureOf(std::uint64_t seed) {
  ScheduleWorld world(seed);
  for (int step = 0; step < kSteps && world.Failure().empty(); ++step) world.Step();
  if (world.Failure().empty()) world.Finish();
  return world.Failure();
}

// NIMBRA_SEEDS=N runs N of them, NIMBRA_SEED=N that one alone.
TEST(Schedules, WhateverHappensEveryoneIsLetGoOnceAndSeesTheRightBytes) {
  const auto seeds = nimbra_stress::SeedRange::Usual(kSeeds);
  for (auto seed = seeds.first; seed < seeds.first + seeds.count; ++seed) {
    const auto failure = FailureOf(seed);
    ASSERT_TRUE(failure.empty()) << failure << "NIMBRA_SEED=" << seed << " plays this again";
  }
  const auto& counts = ScheduleWorld::counts;
  std::printf(
      "%d reads (%d good), %d transfers (%d refused), %d cancels, %d timeouts, %d renames, "
      "%d deletes, %d writes, %d dehydrations, %d restarts\n",
      counts.reads, counts.goodReads, counts.transfers, counts.refusals, counts.cancels,
      counts.timeouts, counts.renames, counts.deletes, counts.writes, counts.dehydrations,
      counts.restarts);
  if (seeds.count < 100) return;
  // Schedules in which nothing happens would prove nothing.
  for (const auto count :
       {counts.goodReads, counts.transfers, counts.cancels, counts.timeouts, counts.renames,
        counts.deletes, counts.writes, counts.dehydrations, counts.restarts, counts.refusals}) {
    EXPECT_GE(count, static_cast<int>(seeds.count / 20));
  }
}

}  // namespace
}  // namespace cloud_filter::test
