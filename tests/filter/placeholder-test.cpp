#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "backing-file.h"
#include "filter-fixture.h"

namespace cloud_filter::test {
namespace {

constexpr std::int64_t kSomeTime = 132'000'000'000'000'000;

class Creating : public FilterTest {
 protected:
  void SetUp() override {
    FilterTest::SetUp();
    MakeRoot();
  }
  Hresult CreateOne(const wire::CreateEntry& entry) { return api->Create(root, {entry}); }
};

TEST_F(Creating, AFileHasItsSizeAndTimesButNoData) {
  auto entry = FileEntry("a.bin", 1'000'000);
  entry.metadata.lastWriteTime = kSomeTime + 1234567;
  entry.metadata.lastAccessTime = kSomeTime;
  EXPECT_RESULT(CreateOne(entry), hr::kOk);
  struct stat facts {};
  ASSERT_EQ(stat(Path("a.bin").c_str(), &facts), 0);
  EXPECT_EQ(facts.st_size, 1'000'000);
  EXPECT_EQ(facts.st_blocks, 0);
  EXPECT_EQ(FileTimeOf(facts.st_mtim), kSomeTime + 1234567);
  EXPECT_EQ(FileTimeOf(facts.st_atim), kSomeTime);
  const auto info = InfoOf("a.bin");
  EXPECT_EQ(info.onDiskDataSize, 0);
  EXPECT_EQ(info.modifiedDataSize, 0);
  EXPECT_EQ(info.inSyncState, 1U);
  EXPECT_EQ(info.identity, "identity of a.bin");
  EXPECT_EQ(static_cast<ino_t>(info.fileId), facts.st_ino);
}

TEST_F(Creating, DocumentedAFileNeedsAnIdentityAndAFolderDoesNot) {
  auto file = FileEntry("file", 1);
  file.identity.clear();
  EXPECT_RESULT(CreateOne(file), hr::kInvalidParameter);
  auto subfolder = FolderEntry("folder");
  subfolder.identity.clear();
  EXPECT_RESULT(CreateOne(subfolder), hr::kOk);
}

TEST_F(Creating, DocumentedAnIdentityHasAtMost4096Bytes) {
  auto entry = FileEntry("file", 1);
  entry.identity = std::string(4097, 'x');
  EXPECT_RESULT(CreateOne(entry), hr::kInvalidParameter);
  entry.identity.pop_back();
  EXPECT_RESULT(CreateOne(entry), hr::kOk);
  EXPECT_EQ(InfoOf("file").identity, entry.identity);
}

TEST_F(Creating, DocumentedOnlyLeafNames) {
  for (const auto* name : {"", ".", "..", "a/b", "a\\b", "/a", "../a"}) {
    EXPECT_RESULT(CreateOne(FileEntry(name, 1)), hr::kInvalidName) << name;
  }
  EXPECT_RESULT(CreateOne(FileEntry(std::string("a\0b", 3), 1)), hr::kInvalidName);
  EXPECT_RESULT(CreateOne(FileEntry(std::string(300, 'n'), 1)), hr::kInvalidName);
  EXPECT_RESULT(CreateOne(FileEntry(wire::kWhoAmIName, 1)), hr::kInvalidName);
  EXPECT_FALSE(std::filesystem::exists(folder / "a"));
}

TEST_F(Creating, GuessedNamesAreOneWhenTheyDifferInCaseOnly) {
  EXPECT_RESULT(CreateOne(FileEntry("Name.TXT", 1)), hr::kOk);
  EXPECT_RESULT(CreateOne(FileEntry("Name.TXT", 1)), hr::kAlreadyExists);
  EXPECT_RESULT(CreateOne(FileEntry("name.txt", 1)), hr::kAlreadyExists);
  std::ofstream(Path("Plain")) << "here";
  EXPECT_RESULT(CreateOne(FileEntry("plain", 1)), hr::kAlreadyExists);
  EXPECT_RESULT(api->Create(root, {FileEntry("twice", 1), FileEntry("TWICE", 1)}),
                hr::kAlreadyExists);
  EXPECT_RESULT(api->rows[0].result, hr::kOk);
  EXPECT_RESULT(api->rows[1].result, hr::kAlreadyExists);
}

TEST_F(Creating, GuessedSupersedingReplacesTheFile) {
  std::ofstream(Path("old")) << "content";
  EXPECT_RESULT(CreateOne(FileEntry("old", 10, flag::kCreateSupersede)), hr::kOk);
  EXPECT_EQ(std::filesystem::file_size(Path("old")), 10U);
  EXPECT_EQ(InfoOf("old").identity, "identity of old");
}

TEST_F(Creating, DocumentedOneFailureDoesNotStopTheOthers) {
  auto bad = FileEntry("bad", 1);
  bad.identity.clear();
  const std::vector entries = {FileEntry("one", 1), bad, FileEntry("a/b", 1), FileEntry("two", 1)};
  EXPECT_RESULT(api->Create(root, entries), hr::kInvalidParameter);
  EXPECT_EQ(api->processed, 4U);
  EXPECT_RESULT(api->rows[0].result, hr::kOk);
  EXPECT_RESULT(api->rows[1].result, hr::kInvalidParameter);
  EXPECT_RESULT(api->rows[2].result, hr::kInvalidName);
  EXPECT_RESULT(api->rows[3].result, hr::kOk);
  EXPECT_GT(api->rows[3].usn, api->rows[0].usn);
  EXPECT_TRUE(std::filesystem::exists(Path("two")));
}

TEST_F(Creating, DocumentedTheFlagStopsAtTheFirstFailure) {
  const std::vector entries = {FileEntry("one", 1), FileEntry("a/b", 1), FileEntry("two", 1)};
  EXPECT_RESULT(api->Create(root, entries, flag::kStopOnError), hr::kInvalidName);
  EXPECT_EQ(api->processed, 2U);
  EXPECT_TRUE(std::filesystem::exists(Path("one")));
  EXPECT_FALSE(std::filesystem::exists(Path("two")));
}

TEST_F(Creating, DocumentedTheFolderMustLieUnderARoot) {
  EXPECT_RESULT(api->Create(folder, {FileEntry("x", 1)}), hr::kNotUnderSyncRoot);
  EXPECT_RESULT(api->Create(root / "absent", {FileEntry("x", 1)}), hr::kPathNotFound);
  CreateFile("file", 1);
  EXPECT_RESULT(api->Create(root / "file", {FileEntry("x", 1)}), hr::kNotADirectory);
}

TEST_F(Creating, DocumentedNothingInARootThatIsAlwaysFull) {
  RootOptions options;
  options.flags = flag::kRegisterUpdate;
  options.policies.hydrationPrimary = policy::kHydrationAlwaysFull;
  MakeRoot(options);
  EXPECT_RESULT(CreateOne(FileEntry("x", 1)), hr::kNotSupported);
}

TEST_F(Creating, RefusesMetadataThatMakesNoSense) {
  EXPECT_RESULT(CreateOne(FileEntry("negative", -1)), hr::kInvalidParameter);
  auto entry = FileEntry("time", 1);
  entry.metadata.lastWriteTime = -5;
  EXPECT_RESULT(CreateOne(entry), hr::kInvalidParameter);
  auto subfolder = FolderEntry("sized");
  subfolder.metadata.fileSize = 10;
  EXPECT_RESULT(CreateOne(subfolder), hr::kInvalidParameter);
  EXPECT_RESULT(CreateOne(FileEntry("flags", 1, 0x100)), hr::kInvalidParameter);
}

TEST_F(Creating, AnEmptyFileIsWholeFromTheStart) {
  CreateFile("empty", 0);
  ItemStateAnswer state;
  EXPECT_RESULT(api->GetState(Path("empty"), state), hr::kOk);
  EXPECT_EQ(state.state & state::kPartial, 0U);
}

TEST_F(Creating, AThousandAtOnceAllArrive) {
  std::vector<wire::CreateEntry> entries;
  for (int i = 0; i < 1000; ++i) entries.push_back(FileEntry("file-" + std::to_string(i), i));
  EXPECT_RESULT(api->Create(root, entries), hr::kOk);
  EXPECT_EQ(api->processed, 1000U);
  for (int i = 0; i < 1000; ++i) {
    const auto name = "file-" + std::to_string(i);
    ASSERT_EQ(std::filesystem::file_size(Path(name)), static_cast<std::uintmax_t>(i));
  }
  EXPECT_EQ(InfoOf("file-999").identity, "identity of file-999");
}

TEST_F(Creating, ObservedAttributesTellWhatIsMissing) {
  CreateFile("online", 100);
  ItemStateAnswer state;
  EXPECT_RESULT(api->GetState(Path("online"), state), hr::kOk);
  EXPECT_EQ(state.attributes, 0x401620U);
  EXPECT_EQ(state.state,
            state::kPlaceholder | state::kInSync | state::kPartial | state::kPartiallyOnDisk);
  EXPECT_EQ(state.reparseTag & ~0xF000U, 0x9000001AU);
  ASSERT_RESULT(api->Create(root, {FolderEntry("folder", flag::kCreatePopulated)}), hr::kOk);
  EXPECT_RESULT(api->GetState(Path("folder"), state), hr::kOk);
  EXPECT_EQ(state.attributes, 0x410U);
  EXPECT_EQ(state.state, state::kPlaceholder);
}

TEST_F(Creating, HiddenAndReadOnlyReachTheFile) {
  auto entry = FileEntry("hidden", 1);
  entry.metadata.attributes = attribute::kHidden | attribute::kSystem | attribute::kReadonly;
  EXPECT_RESULT(CreateOne(entry), hr::kOk);
  ItemStateAnswer state;
  EXPECT_RESULT(api->GetState(Path("hidden"), state), hr::kOk);
  EXPECT_EQ(state.attributes & 7U, 7U);
  struct stat facts {};
  ASSERT_EQ(stat(Path("hidden").c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 0222U, 0U);
}

class Placeholders : public Creating {};

TEST_F(Placeholders, ItemsAreNamedByPathAndFileId) {
  CreateFile("a", 10);
  wire::PlaceholderInfo info;
  const auto id = InfoOf("a").fileId;
  EXPECT_RESULT(api->GetInfo(Path("a"), info, id), hr::kOk);
  EXPECT_RESULT(api->GetInfo(Path("a"), info, id + 1), hr::kFileNotFound);
  EXPECT_RESULT(api->GetInfo(Path("b"), info), hr::kFileNotFound);
  EXPECT_RESULT(api->GetInfo(folder, info), hr::kNotUnderSyncRoot);
}

TEST_F(Placeholders, NoPathLeadsOutOfTheRoot) {
  std::ofstream(folder / "outside") << "secret";
  ASSERT_EQ(symlink((folder / "outside").c_str(), Path("link").c_str()), 0);
  wire::PlaceholderInfo info;
  EXPECT_RESULT(api->GetInfo(root.string() + "/../outside", info), hr::kFileNotFound);
  EXPECT_RESULT(api->Convert(Path("link"), "id", 0), hr::kNotSupported);
}

TEST_F(Placeholders, APlainFileIsNoPlaceholder) {
  std::ofstream(Path("plain")) << "data";
  wire::PlaceholderInfo info;
  EXPECT_RESULT(api->GetInfo(Path("plain"), info), hr::kNotACloudFile);
  EXPECT_RESULT(api->Hydrate(Path("plain")), hr::kNotACloudFile);
  EXPECT_RESULT(api->SetInSync(Path("plain"), true), hr::kNotACloudFile);
  EXPECT_RESULT(api->SetPin(Path("plain"), PinState::kPinned), hr::kNotACloudFile);
  EXPECT_RESULT(api->Update(Path("plain"), {}), hr::kNotACloudFile);
  ItemStateAnswer state;
  EXPECT_RESULT(api->GetState(Path("plain"), state), hr::kOk);
  EXPECT_EQ(state.state, 0U);
  EXPECT_EQ(state.attributes, attribute::kArchive);
}

TEST_F(Placeholders, ConvertingKeepsTheData) {
  std::ofstream(Path("plain")) << "data";
  EXPECT_RESULT(api->Convert(Path("plain"), "converted", flag::kConvertInSync), hr::kOk);
  EXPECT_GT(api->usn, 0);
  const auto info = InfoOf("plain");
  EXPECT_EQ(info.identity, "converted");
  EXPECT_EQ(info.onDiskDataSize, 4);
  EXPECT_EQ(info.inSyncState, 1U);
  EXPECT_EQ(ReadWhole(Path("plain")), "data");
}

TEST_F(Placeholders, ConvertingChecksItsArguments) {
  std::ofstream(Path("plain")) << "data";
  EXPECT_RESULT(api->Convert(Path("plain"), std::string(4097, 'x'), 0), hr::kInvalidParameter);
  EXPECT_RESULT(api->Convert(Path("plain"), "id", 0x20), hr::kInvalidParameter);
  // Documented: what is dehydrated must be in sync and have an identity.
  EXPECT_RESULT(api->Convert(Path("plain"), "id", flag::kConvertDehydrate), hr::kNotInSync);
  EXPECT_RESULT(api->Convert(Path("plain"), "", flag::kConvertDehydrate | flag::kConvertInSync),
                hr::kInvalidParameter);
  EXPECT_RESULT(api->Convert(folder / "x", "id", 0), hr::kNotUnderSyncRoot);
  EXPECT_RESULT(api->Convert(Path("plain"), "id", 0), hr::kOk);
  EXPECT_RESULT(api->Convert(Path("plain"), "id", 0), hr::kInvalidRequest);  // guessed
}

TEST_F(Placeholders, ConvertingMayDehydrateAtOnce) {
  std::ofstream(Path("plain")) << ContentOf("plain", 10'000);
  EXPECT_RESULT(api->Convert(Path("plain"), "id", flag::kConvertDehydrate | flag::kConvertInSync),
                hr::kOk);
  EXPECT_EQ(InfoOf("plain").onDiskDataSize, 0);
  EXPECT_EQ(std::filesystem::file_size(Path("plain")), 10'000U);
}

TEST_F(Placeholders, DocumentedTheRootItselfMayBeConverted) {
  EXPECT_RESULT(api->Convert(root, "root id", flag::kConvertInSync), hr::kOk);
  EXPECT_EQ(InfoOf("").identity, "root id");
  EXPECT_EQ(InfoOf("").inSyncState, 1U);
}

TEST_F(Placeholders, UpdatingChangesIdentityTimesAndState) {
  CreateFile("a", 100, 0);
  UpdateOptions options;
  options.identity = "new identity";
  options.flags = flag::kUpdateInSync;
  options.metadata = wire::Metadata{};
  options.metadata->fileSize = 100;
  options.metadata->lastWriteTime = kSomeTime;
  EXPECT_RESULT(api->Update(Path("a"), options), hr::kOk);
  EXPECT_EQ(InfoOf("a").identity, "new identity");
  EXPECT_EQ(InfoOf("a").inSyncState, 1U);
  struct stat facts {};
  ASSERT_EQ(stat(Path("a").c_str(), &facts), 0);
  EXPECT_EQ(FileTimeOf(facts.st_mtim), kSomeTime);
  options = {};
  options.flags = flag::kUpdateClearInSync | flag::kUpdateRemoveIdentity;
  options.identity = "ignored";
  EXPECT_RESULT(api->Update(Path("a"), options), hr::kOk);
  EXPECT_EQ(InfoOf("a").identity, "");
  EXPECT_EQ(InfoOf("a").inSyncState, 0U);
}

TEST_F(Placeholders, DocumentedTheSizeGivenInAnUpdateAlwaysCounts) {
  CreateFile("a", 100);
  UpdateOptions options;
  options.metadata = wire::Metadata{};
  EXPECT_RESULT(api->Update(Path("a"), options), hr::kOk);
  EXPECT_EQ(std::filesystem::file_size(Path("a")), 0U);
  options.metadata->fileSize = 50'000;
  EXPECT_RESULT(api->Update(Path("a"), options), hr::kOk);
  EXPECT_EQ(std::filesystem::file_size(Path("a")), 50'000U);
  EXPECT_EQ(InfoOf("a").onDiskDataSize, 0);
}

TEST_F(Placeholders, DocumentedUpdateChecks) {
  CreateFile("a", 100, 0);
  UpdateOptions options;
  options.flags = flag::kUpdateAlwaysFull | flag::kUpdateAllowPartial;
  EXPECT_RESULT(api->Update(Path("a"), options), hr::kInvalidRequest);
  options.flags = flag::kUpdateVerifyInSync;
  EXPECT_RESULT(api->Update(Path("a"), options), hr::kNotInSync);
  options.flags = 0x800;
  EXPECT_RESULT(api->Update(Path("a"), options), hr::kInvalidParameter);
  options.flags = 0;
  options.identity = std::string(4097, 'x');
  EXPECT_RESULT(api->Update(Path("a"), options), hr::kInvalidParameter);
  options.identity.clear();
  options.ranges = {{1, 4096}};
  EXPECT_RESULT(api->Update(Path("a"), options), hr::kInvalidParameter);
  options.ranges.clear();
  options.flags = flag::kUpdateDehydrate;
  EXPECT_RESULT(api->Update(Path("a"), options), hr::kNotInSync);
}

TEST_F(Placeholders, DocumentedAWrongSequenceNumberStopsAnUpdate) {
  CreateFile("a", 100);
  const auto created = api->rows[0].usn;
  UpdateOptions options;
  options.usn = created + 1;
  EXPECT_RESULT(api->Update(Path("a"), options), hr::kNotInSync);
  options.usn = created;
  EXPECT_RESULT(api->Update(Path("a"), options), hr::kOk);
  const auto updated = api->usn;
  EXPECT_GT(updated, created);
  EXPECT_RESULT(api->SetInSync(Path("a"), true, created), hr::kNotInSync);
  EXPECT_RESULT(api->SetInSync(Path("a"), true, updated), hr::kOk);
}

TEST_F(Placeholders, DocumentedRevertingMakesAPlainFile) {
  std::ofstream(Path("a")) << "data";
  ASSERT_RESULT(api->Convert(Path("a"), "id", 0), hr::kOk);
  EXPECT_RESULT(api->Revert(Path("a"), 1), hr::kInvalidParameter);
  EXPECT_RESULT(api->Revert(Path("a")), hr::kOk);
  wire::PlaceholderInfo info;
  EXPECT_RESULT(api->GetInfo(Path("a"), info), hr::kNotACloudFile);
  EXPECT_EQ(ReadWhole(Path("a")), "data");
}

TEST_F(Placeholders, DocumentedRevertingFetchesWhatIsMissing) {
  CreateFile("a", 10'000);
  EXPECT_RESULT(api->Revert(Path("a")), hr::kAccessDenied);  // no provider
  ConnectProvider();
  provider->Serve([](const std::string& name) { return ContentOf(name, 10'000); });
  EXPECT_RESULT(api->Revert(Path("a")), hr::kOk);
  EXPECT_EQ(ReadWhole(Path("a")), ContentOf("a", 10'000));
}

TEST_F(Placeholders, RangesFollowWhatIsThere) {
  CreateFile("a", 10'000);
  Ranges ranges;
  EXPECT_RESULT(api->GetRanges(Path("a"), range_class::kOnDisk, 0, -1, ranges), hr::kOk);
  EXPECT_EQ(ranges, Ranges());
  EXPECT_RESULT(api->GetRanges(Path("a"), range_class::kOnDisk, 10'000, -1, ranges),
                hr::kHandleEof);
  EXPECT_RESULT(api->GetRanges(Path("a"), 0, 0, -1, ranges), hr::kInvalidParameter);
  EXPECT_RESULT(api->GetRanges(Path("a"), 4, 0, -1, ranges), hr::kInvalidParameter);
  EXPECT_RESULT(api->GetRanges(Path("a"), 1, -1, -1, ranges), hr::kInvalidParameter);
  ConnectProvider();
  std::int64_t key = 0;
  ASSERT_RESULT(api->GetTransferKey(Path("a"), key), hr::kOk);
  const wire::Target target{provider->Key(), key, 0};
  ASSERT_RESULT(api->Transfer(target, 4096, std::string(4096, 'x')), hr::kOk);
  EXPECT_RESULT(api->GetRanges(Path("a"), range_class::kOnDisk, 0, -1, ranges), hr::kOk);
  EXPECT_EQ(ranges, (Ranges{{4096, 4096}}));
  EXPECT_RESULT(api->GetRanges(Path("a"), range_class::kOnDisk, 5000, 100, ranges), hr::kOk);
  EXPECT_EQ(ranges, (Ranges{{5000, 100}}));
  EXPECT_RESULT(api->GetRangesByKey(target, 0, range_class::kValidated, 0, -1, ranges), hr::kOk);
  EXPECT_EQ(ranges, (Ranges{{4096, 4096}}));
  EXPECT_RESULT(api->GetRangesByKey(target, 1, range_class::kOnDisk, 0, -1, ranges),
                hr::kInvalidParameter);
  EXPECT_EQ(InfoOf("a").onDiskDataSize, 4096);
}

}  // namespace
}  // namespace cloud_filter::test
