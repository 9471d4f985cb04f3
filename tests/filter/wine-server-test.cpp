#include <sys/stat.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <future>

#include "filter-fixture.h"
#include "process-info.h"

namespace cloud_filter::test {
namespace {

// A Wine prefix as far as the filter looks at it, and programs that pass for its server: named like
// it and working in the folder that it works in.
class WineServer : public MountedTest {
 protected:
  void SetUp() override {
    MountedTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    own_ = MakePrefix("own");
    other_ = MakePrefix("other");
    MakeRoot();
    options_.mask = kFetchMask | Bit(callback::kDelete) | Bit(callback::kRename);
    options_.process.systemDriveUnixPath = (folder / "own/dosdevices/c:").string();
    ConnectProvider(options_);
    CreateFile("a", 1000);
  }
  // Where the server of a new prefix works.
  std::filesystem::path MakePrefix(const std::string& name) {
    std::filesystem::create_directories(folder / name / "dosdevices");
    struct stat facts {};
    EXPECT_EQ(stat((folder / name).c_str(), &facts), 0);
    char server[64];
    std::snprintf(server, sizeof server, "server-%" PRIx64 "-%" PRIx64,
                  static_cast<std::uint64_t>(facts.st_dev),
                  static_cast<std::uint64_t>(facts.st_ino));
    std::filesystem::create_directories(folder / server);
    return folder / server;
  }
  // The path of a copy of a program under the server's name.
  std::string Disguise(const std::string& program) {
    const auto copy = folder / ("as-" + program) / "wineserver64";
    std::filesystem::create_directories(copy.parent_path());
    std::filesystem::copy_file("/bin/" + program, copy,
                               std::filesystem::copy_options::overwrite_existing);
    return copy;
  }
  std::filesystem::path own_;
  std::filesystem::path other_;
  ProviderOptions options_;
};

TEST_F(WineServer, OfTheProvidersPrefixIsNeverKeptWaiting) {
  const auto moved = RunProgram({Disguise("mv"), Path("a"), Path("b")}, own_);
  EXPECT_EQ(moved.exitCode, 0) << moved.errors;
  const auto question = provider->WaitFor(callback::kRename);
  ASSERT_TRUE(question.has_value());
  EXPECT_EQ(question->otherPath, Path("b"));
  // The answer comes too late to matter, and is no mistake.
  EXPECT_RESULT(api->Acknowledge(wire::Op::kAckRename, provider->TargetOf(*question)), hr::kOk);
  EXPECT_EQ(RunProgram({Disguise("rm"), Path("b")}, own_).exitCode, 0);
  EXPECT_TRUE(provider->WaitFor(callback::kDelete).has_value());
}

TEST_F(WineServer, OfAnotherPrefixWaits) {
  Program move({Disguise("mv"), Path("a"), Path("b")}, other_);
  const auto question = provider->WaitFor(callback::kRename);
  ASSERT_TRUE(question.has_value());
  EXPECT_FALSE(move.Wait(std::chrono::milliseconds(150)).has_value());
  EXPECT_RESULT(api->Acknowledge(wire::Op::kAckRename, provider->TargetOf(*question), 0xC000CF18),
                hr::kOk);
  EXPECT_NE(move.Wait()->exitCode, 0);
  EXPECT_TRUE(std::filesystem::exists(Path("a")));
}

TEST_F(WineServer, OfAnUnknownPrefixIsNotKeptWaiting) {
  EXPECT_EQ(RunProgram({Disguise("mv"), Path("a"), Path("b")}, folder).exitCode, 0);
  EXPECT_TRUE(provider->WaitFor(callback::kRename).has_value());
  ASSERT_RESULT(provider->Disconnect(), hr::kOk);
  options_.process.systemDriveUnixPath.clear();
  ConnectProvider(options_);
  EXPECT_EQ(RunProgram({Disguise("mv"), Path("b"), Path("c")}, other_).exitCode, 0);
}

TEST_F(WineServer, ReadingMissingDataFailsAtOnceButStartsTheFetch) {
  const auto read = RunProgram({Disguise("cat"), Path("a")}, own_);
  EXPECT_NE(read.exitCode, 0);
  const auto fetch = provider->WaitFor(callback::kFetchData);
  ASSERT_TRUE(fetch.has_value());
  EXPECT_TRUE(provider->NoneOf(callback::kCancelFetchData));
  EXPECT_RESULT(api->Transfer(provider->TargetOf(*fetch), 0, ContentOf("a", 1000)), hr::kOk);
  EXPECT_EQ(RunProgram({Disguise("cat"), Path("a")}, own_).output, ContentOf("a", 1000));
}

}  // namespace
}  // namespace cloud_filter::test
