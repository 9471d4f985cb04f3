#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <future>
#include <thread>

#include "filter-fixture.h"

namespace cloud_filter::test {
namespace {

// A daemon that ends, in whatever way, and comes back.
class Durability : public MountedTest {
 protected:
  void SetUp() override {
    MountedTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    MakeRoot();
    ConnectProvider();
  }
  void KillDaemon() {
    daemon->Kill();
    provider.reset();
    api.reset();
  }
};

TEST_F(Durability, AnOrderlyRestartKeepsEverything) {
  CreateFile("a", 10'000);
  std::int64_t key = 0;
  ASSERT_RESULT(api->GetTransferKey(Path("a"), key), hr::kOk);
  ASSERT_RESULT(api->Transfer({provider->Key(), key, 0}, 0, std::string(4096, 'x')), hr::kOk);
  ASSERT_RESULT(api->SetPin(Path("a"), PinState::kUnpinned), hr::kOk);
  const auto before = InfoOf("a");
  RestartDaemon();
  const auto after = InfoOf("a");
  EXPECT_EQ(after.onDiskDataSize, 4096);
  EXPECT_EQ(after.identity, before.identity);
  EXPECT_EQ(after.pinState, before.pinState);
  EXPECT_EQ(after.inSyncState, before.inSyncState);
  EXPECT_EQ(after.fileId, before.fileId);
  EXPECT_EQ(MountsBelow(), std::vector<std::string>{root});
}

TEST_F(Durability, AfterAKillTheStaleMountIsReplaced) {
  CreateFile("a", 10'000);
  KillDaemon();
  EXPECT_NE(ErrorOfReading(root / "a"), 0);
  EXPECT_EQ(errno, ENOTCONN);
  StartDaemon();
  EXPECT_EQ(MountsBelow(), std::vector<std::string>{root});
  ConnectProvider();
  provider->Serve([](const std::string& name) { return ContentOf(name, 10'000); });
  EXPECT_EQ(ReadWhole(root / "a"), ContentOf("a", 10'000));
}

TEST_F(Durability, AProgramThatWaitsForDataOutlivesTheKillOfTheDaemon) {
  CreateFile("a", 10'000);
  Program cat({"cat", Path("a")});
  ASSERT_TRUE(provider->WaitFor(callback::kFetchData).has_value());
  KillDaemon();
  const auto ended = cat.Wait(std::chrono::seconds(5));
  ASSERT_TRUE(ended.has_value());
  EXPECT_NE(ended->exitCode, 0);
  StartDaemon();
}

TEST_F(Durability, AFileThatWasNamedIsNeverZerosThatPassForData) {
  // Killed in the middle of creating: whatever has its name is known.
  std::vector<wire::CreateEntry> entries;
  for (int i = 0; i < 3000; ++i) entries.push_back(FileEntry("f" + std::to_string(i), 100));
  auto creating = std::async(std::launch::async, [&] {
    try {
      ApiClient(daemon->Endpoint()).Create(root, entries);
    } catch (const std::exception&) {
      return true;  // the daemon was killed under it
    }
    return false;
  });
  ASSERT_TRUE(Eventually([this] { return std::filesystem::exists(Path("f300")); }));
  KillDaemon();
  creating.get();
  StartDaemon();
  int found = 0;
  for (const auto& entry : std::filesystem::directory_iterator(root)) {
    const auto info = InfoOf(entry.path().filename());
    EXPECT_EQ(info.identity, "identity of " + entry.path().filename().string());
    EXPECT_EQ(info.onDiskDataSize, 0);
    ++found;
  }
  EXPECT_GE(found, 300);
}

TEST_F(Durability, WhatCountsAsPresentAfterAKillHasItsBytes) {
  constexpr std::int64_t kSize = 64 << 20;
  constexpr std::int64_t kChunk = 64 << 10;
  const auto content = ContentOf("a", kSize);
  CreateFile("a", kSize);
  std::int64_t key = 0;
  ASSERT_RESULT(api->GetTransferKey(Path("a"), key), hr::kOk);
  const wire::Target target{provider->Key(), key, 0};
  std::atomic<std::int64_t> confirmed{0};
  auto transferring = std::async(std::launch::async, [&] {
    try {
      ApiClient client(daemon->Endpoint());
      for (std::int64_t at = 0; at < kSize; at += kChunk) {
        client.Transfer(target, at, content.substr(static_cast<std::size_t>(at), kChunk));
        confirmed = at + kChunk;
      }
    } catch (const std::exception&) {
      return;
    }
  });
  ASSERT_TRUE(Eventually([&] { return confirmed > (4 << 20); }));
  KillDaemon();
  transferring.get();
  StartDaemon();
  Ranges ranges;
  ASSERT_RESULT(api->GetRanges(Path("a"), range_class::kOnDisk, 0, -1, ranges), hr::kOk);
  ASSERT_EQ(ranges.size(), 1U);
  EXPECT_EQ(ranges[0].first, 0);
  EXPECT_GE(ranges[0].second, confirmed);
  ASSERT_RESULT(api->Unregister(root), hr::kOk);  // to see past the mount
  EXPECT_FALSE(std::filesystem::exists(Path("a"))) << "it was not whole";
}

TEST_F(Durability, BytesThatCountAfterAKillAreTheRightOnes) {
  constexpr std::int64_t kSize = 16 << 20;
  constexpr std::int64_t kChunk = 64 << 10;
  const auto content = ContentOf("a", kSize);
  CreateFile("a", kSize);
  std::int64_t key = 0;
  ASSERT_RESULT(api->GetTransferKey(Path("a"), key), hr::kOk);
  for (std::int64_t at = 0; at < kSize / 2; at += kChunk) {
    ASSERT_RESULT(api->Transfer({provider->Key(), key, 0}, at,
                                content.substr(static_cast<std::size_t>(at), kChunk)),
                  hr::kOk);
  }
  KillDaemon();
  StartDaemon();
  ConnectProvider();
  // Only the rest is asked for; what was there is not.
  auto reader = std::async(std::launch::async, [this] { return ReadWhole(root / "a"); });
  const auto fetch = provider->WaitFor(callback::kFetchData);
  ASSERT_TRUE(fetch.has_value());
  EXPECT_EQ(fetch->range[0], kSize / 2);
  EXPECT_RESULT(api->Transfer(provider->TargetOf(*fetch), kSize / 2, content.substr(kSize / 2)),
                hr::kOk);
  EXPECT_EQ(reader.get(), content);
}

TEST_F(Durability, ALocalChangeIsNotForgottenByAKill) {
  CreateFile("a", 10'000);
  provider->Serve([](const std::string& name) { return ContentOf(name, 10'000); });
  ASSERT_EQ(ReadWhole(root / "a"), ContentOf("a", 10'000));
  {
    const UniqueFd file(open(Path("a").c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(pwrite(file.Get(), "mine", 4, 0), 4);
    KillDaemon();
  }
  StartDaemon();
  EXPECT_EQ(InfoOf("a").inSyncState, 0U);
  EXPECT_EQ(InfoOf("a").modifiedDataSize, 4);
  EXPECT_EQ(ReadWhole(root / "a")->substr(0, 4), "mine");
}

TEST_F(Durability, KillsAtRandomMomentsLeaveEveryFileReadable) {
  constexpr std::size_t kFileSize = 200'000;
  std::vector<wire::CreateEntry> entries;
  for (int i = 0; i < 20; ++i) entries.push_back(FileEntry("f" + std::to_string(i), kFileSize));
  ASSERT_RESULT(api->Create(root, entries), hr::kOk);
  const auto serve = [](const std::string& name) { return ContentOf(name, kFileSize); };
  for (int round = 0; round < 6; ++round) {
    provider->Serve(serve);
    auto reading = std::async(std::launch::async, [this] {
      for (int i = 0; i < 20; ++i) ReadWhole(root / ("f" + std::to_string(i)));
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(3 + round * 7));
    KillDaemon();
    reading.get();
    StartDaemon();
    ConnectProvider();
  }
  provider->Serve(serve);
  for (int i = 0; i < 20; ++i) {
    const auto name = "f" + std::to_string(i);
    EXPECT_EQ(ReadWhole(root / name), ContentOf(name, kFileSize)) << name;
  }
}

TEST_F(Durability, AFolderThatVanishedStaysOutOfServiceAndHarmsNobody) {
  std::filesystem::create_directory(folder / "second");
  ASSERT_RESULT(api->Register(folder / "second"), hr::kOk);
  provider.reset();
  api.reset();
  ASSERT_EQ(daemon->Stop(), 0);
  std::filesystem::remove_all(folder / "second");
  StartDaemon();
  EXPECT_NE(daemon->Log().find("stays out of service"), std::string::npos);
  wire::RootInfo info;
  EXPECT_RESULT(api->GetRootInfo(root, info), hr::kOk);
  EXPECT_RESULT(api->Unregister(folder / "second"), hr::kOk);
  EXPECT_RESULT(api->Unregister(folder / "second"), hr::kNotUnderSyncRoot);
}

}  // namespace
}  // namespace cloud_filter::test
