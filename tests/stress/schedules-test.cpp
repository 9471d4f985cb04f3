// Random schedules of everything that happens to a connected client at once.
//
//   --seed=N    only that schedule
//   --seeds=N   that many in each mode (also NIMBRA_SEED, NIMBRA_SEEDS)

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>

#include "tests/stress/memory-count.h"
#include "tests/stress/schedule.h"
#include "tests/support/handle-census.h"
#include "tests/support/nimbra-test.h"
#include "tests/support/sync-root-handles.h"
#include "tests/support/temp-folder.h"

namespace nimbra_stress {
namespace {

constexpr std::uint64_t kSeeds = 700;
constexpr std::uint64_t kWarmUp = 20;
constexpr std::uint64_t kLeakSeeds = 100;
constexpr std::size_t kNoise = 30;
constexpr std::uint64_t kDeaths = 25;
constexpr DWORD kDeathLimitMs = 20'000;
constexpr char kDieOption[] = "--die=";
constexpr char kFileOption[] = "--file=";

SeedRange chosen{1, kSeeds};

// What a schedule is played on.
class Stage {
 public:
  // `file` is the placeholder's.
  explicit Stage(std::string file) : file_(std::move(file)) {}

  // Plays one; gives what was wrong.
  std::string FailureOf(std::uint64_t seed, Mode mode, int stepsToLive = -1) {
    log_.Clear();
    const std::string hint = "--seed=" + std::to_string(seed) + " plays this again";
    SetReplayHint(hint);
    Schedule schedule(seed, mode, file_);
    schedule.DieAfter(stepsToLive);
    schedule.Run();
    const auto failure = schedule.Failure();
    return failure.empty() ? failure : failure + hint;
  }

 private:
  // The build on which deletes are told too.
  nimbra_test::WindowsBuild windows_{nimbra_test::kBuildThatHidesOption};
  nimbra_test::LogCapture log_;
  std::string file_;
};

class Schedules : public testing::Test {
 protected:
  std::string FailureOf(std::uint64_t seed, Mode mode) { return stage_.FailureOf(seed, mode); }

  void RunAll(Mode mode, std::uint64_t count) {
    for (auto seed = chosen.first; seed < chosen.first + count; ++seed) {
      const auto failure = FailureOf(seed, mode);
      ASSERT_TRUE(failure.empty()) << failure;
    }
  }

  nimbra_test::TempFolder folder_;
  std::string written_ = folder_.WriteFile("file.txt", "0123456789");
  std::string file_ = folder_.ItemWithSlashes("file.txt");
  Stage stage_{file_};
};

void PrintCounts() {
  const auto& counts = Schedule::counts;
  std::printf(
      "%d callbacks (%d dropped), %d transfers, %d failed ones, %d own answers, "
      "%d acknowledgements, %d reports, %d hydrations, %d disconnects, %d threads died\n",
      counts.callbacks, counts.dropped, counts.transfers, counts.failedTransfers, counts.ownAnswers,
      counts.acknowledgements, counts.reports, counts.hydrations, counts.disconnects,
      counts.deaths);
}

TEST_F(Schedules, InterleavedAsTheSeedSaysEveryAnswerArrivesOnceAndUnchanged) {
  RunAll(Mode::kInterleaved, chosen.count);
  PrintCounts();
}

TEST_F(Schedules, OnThreadsThatRunAsTheyLikeEveryAnswerArrivesOnceAndUnchanged) {
  RunAll(Mode::kConcurrent, (chosen.count + 1) / 2);
  PrintCounts();
}

TEST_F(Schedules, TheSameSeedPlaysTheSameSchedule) {
  const auto play = [this] {
    const auto before = Schedule::counts;
    EXPECT_EQ(FailureOf(4711, Mode::kInterleaved), "");
    const auto& after = Schedule::counts;
    return std::vector{after.callbacks - before.callbacks, after.transfers - before.transfers,
                       after.ownAnswers - before.ownAnswers, after.dropped - before.dropped,
                       after.hydrations - before.hydrations};
  };
  EXPECT_EQ(play(), play());
}

// Roots and delegators live on by design; so many blocks are kept of each pair.
std::size_t BlocksOfOneRoot() {
  const auto before = BlocksInUse();
  {
    nimbra_test::SyncRoot root;
    nimbra_test::Delegator delegator;
    SetCallbacks(delegator.Get());
  }
  return BlocksInUse() - before;
}

TEST_F(Schedules, AllMemoryAndEveryHandleIsAccountedFor) {
  const auto run = [this](std::uint64_t seed) {
    EXPECT_EQ(FailureOf(seed, seed % 2 == 0 ? Mode::kInterleaved : Mode::kConcurrent), "");
  };
  for (std::uint64_t seed = 1; seed <= kWarmUp; ++seed) {
    run(seed);
  }
  const auto perRoot = BlocksOfOneRoot();
  const auto blocks = BlocksInUse();
  const auto handles = nimbra_test::OpenHandleCount();
  const auto roots = Schedule::rootsMade;
  const auto count = std::max(kLeakSeeds, chosen.count / 4);
  for (std::uint64_t seed = 1; seed <= count; ++seed) {
    run(seed);
  }
  const auto made = static_cast<std::size_t>(Schedule::rootsMade - roots);
  // MinGW's threads library never frees a schedule's own mutex, nor all that a thread had. A block
  // lost with each callback or call would be several times as many.
  EXPECT_LE(BlocksInUse(), blocks + made * perRoot + 2 * count + kNoise) << made << " roots";
  EXPECT_LE(nimbra_test::OpenHandleCount(), handles + kNoise);
}

// Starts this program anew; gives its exit code.
DWORD ExitCodeOf(const std::string& arguments) {
  char self[MAX_PATH] = {};
  GetModuleFileNameA(nullptr, self, MAX_PATH);
  std::string command = std::string("\"") + self + "\" " + arguments;
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  if (!CreateProcessA(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                      &startup, &process)) {
    return STILL_ACTIVE;
  }
  DWORD code = STILL_ACTIVE;
  if (WaitForSingleObject(process.hProcess, kDeathLimitMs) != WAIT_OBJECT_0) {
    TerminateProcess(process.hProcess, 1);
  } else {
    GetExitCodeProcess(process.hProcess, &code);
  }
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return code;
}

TEST_F(Schedules, AClientThatEndsInTheMiddleEndsCleanly) {
  int died = 0;
  for (std::uint64_t death = 0; death < kDeaths; ++death) {
    const auto seed = std::to_string(chosen.first + death);
    // The child ends without clean-up, so it makes nothing of its own.
    const auto code = ExitCodeOf(kDieOption + seed + " " + kFileOption + file_);
    // Some schedules are over before.
    EXPECT_TRUE(code == 0 || code == Schedule::kDied)
        << kDieOption << seed << " ends with " << code;
    died += code == Schedule::kDied ? 1 : 0;
  }
  EXPECT_GE(died, static_cast<int>(kDeaths / 2));
}

// What the child of the test above does.
int DieInTheMiddle(std::uint64_t seed, const std::string& file) {
  Stage stage(file);
  return stage.FailureOf(seed, Mode::kConcurrent, Random(seed).Between(0, 12)).empty() ? 0 : 1;
}

// What follows an option, or the fallback.
std::string Option(int count, char** arguments, const std::string& name,
                   const std::string& fallback) {
  for (int at = 1; at < count; ++at) {
    const std::string argument = arguments[at];
    if (argument.starts_with(name)) {
      return argument.substr(name.size());
    }
  }
  return fallback;
}

std::uint64_t Number(int count, char** arguments, const std::string& name, std::uint64_t fallback) {
  return std::stoull(Option(count, arguments, name, std::to_string(fallback)));
}

int Main(int argc, char** argv) {
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX);
  testing::InitGoogleMock(&argc, argv);
  chosen = SeedRange::Usual(kSeeds);
  chosen.count = Number(argc, argv, "--seeds=", chosen.count);
  if (const auto seed = Number(argc, argv, "--seed=", 0); seed != 0) {
    chosen = {seed, 1};
  }
  if (const auto seed = Number(argc, argv, kDieOption, 0); seed != 0) {
    return DieInTheMiddle(seed, Option(argc, argv, kFileOption, ""));
  }
  return RUN_ALL_TESTS();
}

}  // namespace
}  // namespace nimbra_stress

int main(int argc, char** argv) { return nimbra_stress::Main(argc, argv); }
