#include <fcntl.h>
#include <sys/stat.h>

#include <fstream>
#include <future>

#include "filter-fixture.h"

namespace cloud_filter::test {
namespace {

constexpr std::int64_t kSize = 40'000;

// Makes a file that is fully there and in sync.
template <class Base>
class WithFullFile : public Base {
 protected:
  void SetUp() override {
    Base::SetUp();
    if (this->IsSkipped() || this->HasFatalFailure()) return;
    this->MakeRoot();
    ProviderOptions options;
    options.mask = mask_;
    this->ConnectProvider(options);
    this->CreateFile("a", kSize);
    std::int64_t key = 0;
    ASSERT_RESULT(this->api->GetTransferKey(this->Path("a"), key), hr::kOk);
    ASSERT_RESULT(this->api->Transfer({this->provider->Key(), key, 0}, 0, ContentOf("a", kSize)),
                  hr::kOk);
  }
  std::uint32_t mask_ = kFetchMask;
};

class Dehydrating : public WithFullFile<FilterTest> {
 protected:
  [[nodiscard]] std::int64_t BlocksOf(const std::string& name) const {
    struct stat facts {};
    return stat(Path(name).c_str(), &facts) == 0 ? facts.st_blocks : -1;
  }
};

TEST_F(Dehydrating, GivesTheSpaceBackAndKeepsSizeAndTime) {
  struct stat before {};
  ASSERT_EQ(stat(Path("a").c_str(), &before), 0);
  EXPECT_GT(before.st_blocks, 0);
  EXPECT_RESULT(api->Dehydrate(Path("a")), hr::kOk);
  struct stat after {};
  ASSERT_EQ(stat(Path("a").c_str(), &after), 0);
  EXPECT_EQ(after.st_blocks, 0);
  EXPECT_EQ(after.st_size, kSize);
  EXPECT_EQ(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
  EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
  EXPECT_EQ(InfoOf("a").onDiskDataSize, 0);
  ItemStateAnswer state;
  EXPECT_RESULT(api->GetState(Path("a"), state), hr::kOk);
  EXPECT_EQ(state.attributes, 0x401620U);
}

TEST_F(Dehydrating, DropsARangeOfPages) {
  EXPECT_RESULT(api->Dehydrate(Path("a"), 4096, 8192), hr::kOk);
  Ranges ranges;
  EXPECT_RESULT(api->GetRanges(Path("a"), range_class::kOnDisk, 0, -1, ranges), hr::kOk);
  EXPECT_EQ(ranges, (Ranges{{0, 4096}, {12'288, kSize - 12'288}}));
  EXPECT_LT(BlocksOf("a"), 80);
}

TEST_F(Dehydrating, GuessedRangesAreWholePagesOrReachTheEnd) {
  EXPECT_RESULT(api->Dehydrate(Path("a"), 1, 4096), hr::kInvalidParameter);
  EXPECT_RESULT(api->Dehydrate(Path("a"), 0, 100), hr::kInvalidParameter);
  EXPECT_RESULT(api->Dehydrate(Path("a"), -4096, 4096), hr::kInvalidParameter);
  EXPECT_RESULT(api->Dehydrate(Path("a"), 0, -1, 2), hr::kInvalidParameter);
  EXPECT_RESULT(api->Dehydrate(Path("a"), 36'864, kSize - 36'864), hr::kOk);
}

TEST_F(Dehydrating, DocumentedAPinnedFileStays) {
  ASSERT_RESULT(api->SetPin(Path("a"), PinState::kPinned), hr::kOk);
  EXPECT_RESULT(api->Dehydrate(Path("a")), hr::kPinned);
  UpdateOptions options;
  options.flags = flag::kUpdateDehydrate;
  EXPECT_RESULT(api->Update(Path("a"), options), hr::kPinned);
  ASSERT_RESULT(api->SetPin(Path("a"), PinState::kUnpinned), hr::kOk);
  EXPECT_RESULT(api->Dehydrate(Path("a")), hr::kOk);
}

TEST_F(Dehydrating, DocumentedAFileThatIsNotInSyncStays) {
  ASSERT_RESULT(api->SetInSync(Path("a"), false), hr::kOk);
  EXPECT_RESULT(api->Dehydrate(Path("a")), hr::kNotInSync);
}

TEST_F(Dehydrating, DocumentedAFileThatIsAlwaysFullStays) {
  UpdateOptions options;
  options.flags = flag::kUpdateAlwaysFull;
  ASSERT_RESULT(api->Update(Path("a"), options), hr::kOk);
  EXPECT_RESULT(api->Dehydrate(Path("a")), hr::kDehydrationDisallowed);
}

TEST_F(Dehydrating, DocumentedFilesOnly) {
  ASSERT_RESULT(api->Create(root, {FolderEntry("d")}), hr::kOk);
  EXPECT_RESULT(api->Dehydrate(Path("d")), hr::kNotSupported);
}

TEST_F(Dehydrating, DocumentedAnUpdateMayDehydrateRanges) {
  UpdateOptions options;
  options.ranges = {{0, 4096}, {8192, 4096}};
  EXPECT_RESULT(api->Update(Path("a"), options), hr::kOk);
  EXPECT_EQ(InfoOf("a").onDiskDataSize, kSize - 8192);
  // Documented: the range from 0 to the end is as good as the flag.
  options.ranges = {{0, -1}};
  EXPECT_RESULT(api->Update(Path("a"), options), hr::kOk);
  EXPECT_EQ(InfoOf("a").onDiskDataSize, 0);
}

TEST_F(Dehydrating, WhatWasDroppedCanBeFetchedAgain) {
  provider->Serve([](const std::string& name) { return ContentOf(name, kSize); });
  EXPECT_RESULT(api->Dehydrate(Path("a")), hr::kOk);
  EXPECT_RESULT(api->Hydrate(Path("a")), hr::kOk);
  EXPECT_EQ(ReadWhole(Path("a")), ContentOf("a", kSize));
}

class DehydrationQuestions : public Dehydrating {
 protected:
  DehydrationQuestions() {
    mask_ |= Bit(callback::kDehydrate) | Bit(callback::kDehydrateCompletion);
  }
  std::future<Hresult> DehydrateMeanwhile() {
    return std::async(std::launch::async, [this] {
      ApiClient other(daemon->Endpoint());
      return other.Dehydrate(Path("a"));
    });
  }
};

TEST_F(DehydrationQuestions, DocumentedTheProviderIsAskedAndThenTold) {
  auto dehydrated = DehydrateMeanwhile();
  const auto question = provider->WaitFor(callback::kDehydrate);
  ASSERT_TRUE(question.has_value());
  EXPECT_EQ(question->range[0], callback::kReasonUserManual);
  EXPECT_EQ(dehydrated.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  EXPECT_EQ(InfoOf("a").onDiskDataSize, kSize);
  EXPECT_RESULT(api->Acknowledge(wire::Op::kAckDehydrate, provider->TargetOf(*question)), hr::kOk);
  EXPECT_RESULT(dehydrated.get(), hr::kOk);
  const auto told = provider->WaitFor(callback::kDehydrateCompletion);
  ASSERT_TRUE(told.has_value());
  EXPECT_EQ(told->flags, callback::kDehydrated);
}

TEST_F(DehydrationQuestions, DocumentedAVetoKeepsTheData) {
  auto dehydrated = DehydrateMeanwhile();
  const auto question = provider->WaitFor(callback::kDehydrate);
  ASSERT_TRUE(question.has_value());
  EXPECT_RESULT(
      api->Acknowledge(wire::Op::kAckDehydrate, provider->TargetOf(*question), 0xC000CF18),
      hr::kOk);
  EXPECT_RESULT(dehydrated.get(), hr::kAccessDenied);
  EXPECT_EQ(InfoOf("a").onDiskDataSize, kSize);
}

TEST_F(DehydrationQuestions, AnAnswerMayReplaceTheIdentity) {
  auto dehydrated = DehydrateMeanwhile();
  const auto question = provider->WaitFor(callback::kDehydrate);
  ASSERT_TRUE(question.has_value());
  wire::Writer payload;
  wire::Put(payload, provider->TargetOf(*question));
  payload.Put(std::uint32_t{0}).Put(std::uint8_t{1}).PutBytes("next identity");
  EXPECT_RESULT(api->Request(wire::Op::kAckDehydrate, payload), hr::kOk);
  EXPECT_RESULT(dehydrated.get(), hr::kOk);
  EXPECT_EQ(InfoOf("a").identity, "next identity");
}

class DehydratingMounted : public WithFullFile<MountedTest> {};

TEST_F(DehydratingMounted, ObservedAFileThatOthersUseStays) {
  const UniqueFd own(open(Path("a").c_str(), O_RDONLY | O_CLOEXEC));
  const UniqueFd other(open(Path("a").c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_RESULT(api->Dehydrate(Path("a")), hr::kInUse);
}

TEST_F(DehydratingMounted, TheCallersOwnHandleIsNoHindrance) {
  const UniqueFd own(open(Path("a").c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_RESULT(api->Dehydrate(Path("a")), hr::kOk);
}

TEST_F(DehydratingMounted, NoStaleDataIsReadAfterwards) {
  const UniqueFd own(open(Path("a").c_str(), O_RDONLY | O_CLOEXEC));
  std::string before(kSize, '\0');
  ASSERT_EQ(pread(own.Get(), before.data(), before.size(), 0), kSize);
  UpdateOptions options;
  options.identity = "second version";
  options.flags = flag::kUpdateDehydrate;
  options.metadata = wire::Metadata{};
  options.metadata->fileSize = kSize;
  ASSERT_RESULT(api->Update(Path("a"), options), hr::kOk);
  provider->Serve([](const std::string&) { return ContentOf("second", kSize); });
  std::string after(kSize, '\0');
  ASSERT_EQ(pread(own.Get(), after.data(), after.size(), 0), kSize);
  EXPECT_EQ(after, ContentOf("second", kSize));
  EXPECT_NE(after, before);
}

TEST_F(DehydratingMounted, AMomentIsGivenForOthersToClose) {
  UniqueFd own(open(Path("a").c_str(), O_RDONLY | O_CLOEXEC));
  UniqueFd other(open(Path("a").c_str(), O_RDONLY | O_CLOEXEC));
  auto dehydrated = std::async(std::launch::async, [this] {
    ApiClient client(daemon->Endpoint());
    return client.Dehydrate(Path("a"));
  });
  EXPECT_EQ(dehydrated.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  other.Reset();
  EXPECT_RESULT(dehydrated.get(), hr::kOk);
}

}  // namespace
}  // namespace cloud_filter::test
