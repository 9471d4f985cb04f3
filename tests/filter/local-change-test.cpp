#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <future>

#include "filter-fixture.h"

namespace cloud_filter::test {
namespace {

constexpr std::int64_t kSize = 300'000;

// Programs that change files through the mount.
class LocalChanges : public MountedTest {
 protected:
  void SetUp() override {
    MountedTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    MakeRoot(rootOptions_);
    ConnectProvider();
    CreateFile("a", kSize);
  }
  void ServeAll() {
    provider->Serve([](const std::string& name) { return ContentOf(name, kSize); });
  }
  void MakeFull() {
    ServeAll();
    ASSERT_RESULT(api->Hydrate(Path("a")), hr::kOk);
  }
  RootOptions rootOptions_;
};

int WriteAt(const std::string& path, const std::string& bytes, off_t offset) {
  const UniqueFd file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  if (!file) return errno;
  const auto written = pwrite(file.Get(), bytes.data(), bytes.size(), offset);
  return written == static_cast<ssize_t>(bytes.size()) ? 0 : errno;
}

TEST_F(LocalChanges, AWriteToAPlaceholderFetchesItFirst) {
  ServeAll();
  EXPECT_EQ(WriteAt(Path("a"), "changed", 100'000), 0);
  auto expected = ContentOf("a", kSize);
  expected.replace(100'000, 7, "changed");
  EXPECT_EQ(ReadWhole(root / "a"), expected);
  const auto info = InfoOf("a");
  EXPECT_EQ(info.modifiedDataSize, 7);
  EXPECT_EQ(info.onDiskDataSize, kSize);
  EXPECT_EQ(info.validatedDataSize, kSize - 7);
}

TEST_F(LocalChanges, DocumentedAWriteLeavesTheSyncedState) {
  MakeFull();
  EXPECT_EQ(InfoOf("a").inSyncState, 1U);
  EXPECT_EQ(WriteAt(Path("a"), "x", 0), 0);
  EXPECT_EQ(InfoOf("a").inSyncState, 0U);
  EXPECT_RESULT(api->Dehydrate(Path("a")), hr::kNotInSync);
  EXPECT_RESULT(api->SetInSync(Path("a"), true), hr::kOk);
  EXPECT_EQ(InfoOf("a").modifiedDataSize, 0);
  EXPECT_RESULT(api->Dehydrate(Path("a")), hr::kOk);
}

TEST_F(LocalChanges, AWriteWithoutProviderFails) {
  ASSERT_RESULT(provider->Disconnect(), hr::kOk);
  EXPECT_EQ(WriteAt(Path("a"), "x", 0), EIO);
  EXPECT_EQ(InfoOf("a").inSyncState, 1U);
}

TEST_F(LocalChanges, AppendingGrowsAFullFile) {
  MakeFull();
  std::ofstream(Path("a"), std::ios::app) << "more";
  EXPECT_EQ(ReadWhole(root / "a"), ContentOf("a", kSize) + "more");
  EXPECT_EQ(InfoOf("a").onDiskDataSize, kSize + 4);
}

TEST_F(LocalChanges, AWriteThroughAMappingCounts) {
  MakeFull();
  const UniqueFd file(open(Path("a").c_str(), O_RDWR | O_CLOEXEC));
  auto* mapped = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, file.Get(), 0);
  ASSERT_NE(mapped, MAP_FAILED);
  static_cast<char*>(mapped)[5] = '!';
  ASSERT_EQ(msync(mapped, kSize, MS_SYNC), 0);
  munmap(mapped, kSize);
  EXPECT_EQ(InfoOf("a").inSyncState, 0U);
  EXPECT_EQ((*ReadWhole(root / "a"))[5], '!');
}

TEST_F(LocalChanges, TruncatingToNothingNeedsNoFetch) {
  std::ofstream(Path("a"), std::ios::trunc) << "short";
  EXPECT_EQ(ReadWhole(root / "a"), "short");
  EXPECT_TRUE(provider->NoneOf(callback::kFetchData));
  EXPECT_EQ(InfoOf("a").inSyncState, 0U);
}

TEST_F(LocalChanges, ShrinkingNeedsNoFetchAndTheRestIsStillFetched) {
  ASSERT_EQ(truncate(Path("a").c_str(), 10'001), 0);
  EXPECT_TRUE(provider->NoneOf(callback::kFetchData));
  EXPECT_EQ(InfoOf("a").inSyncState, 0U);
  auto reader = std::async(std::launch::async, [this] { return ReadWhole(root / "a"); });
  const auto fetch = provider->WaitFor(callback::kFetchData);
  ASSERT_TRUE(fetch.has_value());
  EXPECT_EQ(fetch->fileSize, 10'001);
  EXPECT_EQ(fetch->range[1], 10'001);
  EXPECT_RESULT(api->Transfer(provider->TargetOf(*fetch), 0, ContentOf("a", kSize)), hr::kOk);
  EXPECT_EQ(reader.get(), ContentOf("a", kSize).substr(0, 10'001));
}

TEST_F(LocalChanges, GrowingFetchesTheOldContentFirst) {
  ServeAll();
  ASSERT_EQ(truncate(Path("a").c_str(), kSize + 10), 0);
  EXPECT_EQ(ReadWhole(root / "a"), ContentOf("a", kSize) + std::string(10, '\0'));
}

TEST_F(LocalChanges, AllocatingSpaceFetchesTheOldContentFirst) {
  ServeAll();
  const UniqueFd file(open(Path("a").c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(fallocate(file.Get(), 0, 0, kSize + 4096), 0);
  EXPECT_EQ(InfoOf("a").inSyncState, 0U);
  EXPECT_EQ(ReadWhole(root / "a"), ContentOf("a", kSize) + std::string(4096, '\0'));
}

TEST_F(LocalChanges, DocumentedATransferNeverOverwritesThem) {
  MakeFull();
  ASSERT_EQ(WriteAt(Path("a"), "mine", 0), 0);
  std::int64_t key = 0;
  ASSERT_RESULT(api->GetTransferKey(Path("a"), key), hr::kOk);
  EXPECT_RESULT(api->Transfer({provider->Key(), key, 0}, 0, ContentOf("other", kSize)), hr::kOk);
  EXPECT_EQ(ReadWhole(root / "a")->substr(0, 4), "mine");
}

TEST_F(LocalChanges, PlainFilesAreLeftAlone) {
  std::ofstream(Path("plain")) << "text";
  std::filesystem::rename(Path("plain"), Path("renamed"));
  EXPECT_EQ(ReadWhole(root / "renamed"), "text");
  ASSERT_EQ(symlink("renamed", Path("link").c_str()), 0);
  EXPECT_EQ(std::filesystem::read_symlink(Path("link")), "renamed");
  EXPECT_EQ(ReadWhole(root / "link"), "text");
  ASSERT_EQ(link(Path("renamed").c_str(), Path("hard").c_str()), 0);
  EXPECT_EQ(std::filesystem::hard_link_count(Path("hard")), 2U);
  ASSERT_TRUE(std::filesystem::create_directory(Path("folder")));
  ASSERT_TRUE(std::filesystem::remove(Path("folder")));
  EXPECT_EQ(chmod(Path("renamed").c_str(), 0600), 0);
  struct stat facts {};
  ASSERT_EQ(stat(Path("renamed").c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 0777U, 0600U);
}

TEST_F(LocalChanges, DocumentedHardLinksToPlaceholdersNeedThePolicy) {
  EXPECT_NE(link(Path("a").c_str(), Path("hard").c_str()), 0);
  EXPECT_EQ(errno, EPERM);
  RootOptions options;
  options.flags = flag::kRegisterUpdate;
  options.policies.hardLink = policy::kHardLinkAllowed;
  MakeRoot(options);
  EXPECT_EQ(link(Path("a").c_str(), Path("hard").c_str()), 0);
  EXPECT_EQ(InfoOf("hard").identity, "identity of a");
}

TEST_F(LocalChanges, AConvertedFileIsWatchedEvenWhenItWasOpenBefore) {
  std::ofstream plain(Path("plain"));
  plain << "one" << std::flush;
  ASSERT_RESULT(api->Convert(Path("plain"), "id", flag::kConvertInSync), hr::kOk);
  plain << "two" << std::flush;
  EXPECT_EQ(InfoOf("plain").inSyncState, 0U);
}

TEST_F(LocalChanges, AnInodeThatIsUsedAgainIsNoPlaceholder) {
  ASSERT_EQ(unlink(Path("a").c_str()), 0);
  wire::PlaceholderInfo info;
  for (int i = 0; i < 50; ++i) {
    const auto name = "new" + std::to_string(i);
    std::ofstream(Path(name)) << "fresh";
    EXPECT_RESULT(api->GetInfo(Path(name), info), hr::kNotACloudFile);
    EXPECT_EQ(ReadWhole(root / name), "fresh");
  }
}

class TrackedTimes : public LocalChanges {
 protected:
  TrackedTimes() {
    rootOptions_.policies.inSync =
        policy::kTrackFileLastWriteTime | policy::kTrackFileReadonly | policy::kTrackFileHidden;
  }
};

TEST_F(LocalChanges, DocumentedAChangeOfTimesCountsOnlyWhenThePolicyTracksIt) {
  std::filesystem::last_write_time(Path("a"), std::filesystem::file_time_type::clock::now());
  EXPECT_EQ(InfoOf("a").inSyncState, 1U);
}

TEST_F(TrackedTimes, DocumentedATrackedTimeLeavesTheSyncedState) {
  std::filesystem::last_write_time(Path("a"), std::filesystem::file_time_type::clock::now());
  EXPECT_EQ(InfoOf("a").inSyncState, 0U);
}

TEST_F(TrackedTimes, DocumentedATrackedAttributeLeavesTheSyncedState) {
  ASSERT_EQ(chmod(Path("a").c_str(), 0444), 0);
  EXPECT_EQ(InfoOf("a").inSyncState, 0U);
}

TEST_F(LocalChanges, AReadOnlyFileIsStillFilled) {
  ASSERT_EQ(chmod(Path("a").c_str(), 0444), 0);
  ServeAll();
  EXPECT_EQ(ReadWhole(root / "a"), ContentOf("a", kSize));
}

}  // namespace
}  // namespace cloud_filter::test
