#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>

#include "filter-fixture.h"

namespace cloud_filter::test {
namespace {

constexpr std::uint32_t kUnsuccessful = 0xC000CF12;
constexpr std::uint32_t kNetworkUnavailable = 0xC000CF11;

class Transferring : public FilterTest {
 protected:
  void SetUp() override {
    FilterTest::SetUp();
    MakeRoot();
    ConnectProvider();
    CreateFile("a", kSize);
  }
  wire::Target Unsolicited(const std::string& name = "a") {
    std::int64_t key = 0;
    EXPECT_RESULT(api->GetTransferKey(Path(name), key), hr::kOk);
    return {provider->Key(), key, 0};
  }
  // Hydrates on another connection, as another caller.
  std::future<Hresult> HydrateMeanwhile(const std::string& name = "a") {
    return std::async(std::launch::async, [this, name] {
      ApiClient other(daemon->Endpoint());
      return other.Hydrate(Path(name));
    });
  }

  static constexpr std::int64_t kSize = 10'000;
};

TEST_F(Transferring, DocumentedUnsolicitedDataIsAccepted) {
  const auto content = ContentOf("a", kSize);
  EXPECT_RESULT(api->Transfer(Unsolicited(), 0, content), hr::kOk);
  EXPECT_EQ(ReadWhole(Path("a")), content);
  ItemStateAnswer state;
  EXPECT_RESULT(api->GetState(Path("a"), state), hr::kOk);
  EXPECT_EQ(state.attributes, 0x420U);
  EXPECT_RESULT(api->ReleaseTransferKey(Unsolicited().transferKey), hr::kOk);
}

TEST_F(Transferring, DocumentedOffsetAndLengthAreAlignedToPages) {
  const auto target = Unsolicited();
  EXPECT_RESULT(api->Transfer(target, 100, std::string(4096, 'x')), hr::kInvalidRequest);
  EXPECT_RESULT(api->Transfer(target, 0, std::string(100, 'x')), hr::kInvalidRequest);
  EXPECT_RESULT(api->Transfer(target, 4096, std::string(4095, 'x')), hr::kInvalidRequest);
  EXPECT_EQ(InfoOf("a").onDiskDataSize, 0);
  EXPECT_RESULT(api->Transfer(target, 8192, std::string(kSize - 8192, 'x')), hr::kOk);
}

TEST_F(Transferring, DocumentedALengthMayPassTheEndAndIsCut) {
  const auto target = Unsolicited();
  EXPECT_RESULT(api->Transfer(target, 8192, std::string(5000, 'x')), hr::kOk);
  EXPECT_EQ(std::filesystem::file_size(Path("a")), static_cast<std::uintmax_t>(kSize));
  EXPECT_EQ(InfoOf("a").onDiskDataSize, kSize - 8192);
  EXPECT_RESULT(api->Transfer(target, 1 << 20, std::string(4096, 'x')), hr::kOk);
  EXPECT_EQ(std::filesystem::file_size(Path("a")), static_cast<std::uintmax_t>(kSize));
}

TEST_F(Transferring, RefusesArgumentsThatMakeNoSense) {
  auto target = Unsolicited();
  EXPECT_RESULT(api->Transfer(target, -4096, std::string(4096, 'x')), hr::kInvalidParameter);
  wire::Writer payload;
  wire::Put(payload, target);
  // A length of two pages with the bytes of one.
  payload.Put(std::uint32_t{0}).Put(std::int64_t{0}).Put(std::int64_t{8192});
  payload.PutBytes(std::string(4096, 'x'));
  EXPECT_RESULT(api->Request(wire::Op::kTransferData, payload), hr::kInvalidParameter);
  target.connectionKey += 1;
  EXPECT_RESULT(api->Transfer(target, 0, std::string(4096, 'x')), hr::kInvalidParameter);
  target.connectionKey -= 1;
  target.transferKey += 1000;
  EXPECT_RESULT(api->Transfer(target, 0, std::string(4096, 'x')), hr::kInvalidParameter);
  EXPECT_RESULT(api->ReleaseTransferKey(target.transferKey), hr::kInvalidParameter);
}

TEST_F(Transferring, DocumentedAKeyIsOfItsRootsProviderOnly) {
  const auto target = Unsolicited();
  ASSERT_RESULT(provider->Disconnect(), hr::kOk);
  EXPECT_RESULT(api->Transfer(target, 0, std::string(4096, 'x')), hr::kInvalidParameter);
}

TEST_F(Transferring, DocumentedNeverOverwritesWhatIsThere) {
  const auto target = Unsolicited();
  EXPECT_RESULT(api->Transfer(target, 0, std::string(4096, 'a')), hr::kOk);
  EXPECT_RESULT(api->Transfer(target, 0, std::string(kSize, 'b')), hr::kOk);
  const auto content = ReadWhole(Path("a"));
  EXPECT_EQ(content, std::string(4096, 'a') + std::string(kSize - 4096, 'b'));
  EXPECT_RESULT(api->Transfer(target, 0, std::string(kSize, 'c')), hr::kOk);
  EXPECT_EQ(ReadWhole(Path("a")), content);
}

TEST_F(Transferring, KeepsTheTimeOfTheLastWrite) {
  struct stat before {};
  struct stat after {};
  ASSERT_EQ(stat(Path("a").c_str(), &before), 0);
  EXPECT_RESULT(api->Transfer(Unsolicited(), 0, ContentOf("a", kSize)), hr::kOk);
  ASSERT_EQ(stat(Path("a").c_str(), &after), 0);
  EXPECT_EQ(before.st_mtim.tv_sec, after.st_mtim.tv_sec);
  EXPECT_EQ(before.st_mtim.tv_nsec, after.st_mtim.tv_nsec);
  EXPECT_EQ(InfoOf("a").inSyncState, 1U);
}

TEST_F(Transferring, DocumentedNotInARootThatIsAlwaysFull) {
  const auto target = Unsolicited();
  RootOptions options;
  options.flags = flag::kRegisterUpdate;
  options.policies.hydrationPrimary = policy::kHydrationAlwaysFull;
  MakeRoot(options);
  EXPECT_RESULT(api->Transfer(target, 0, std::string(4096, 'x')), hr::kInvalidRequest);
}

TEST_F(Transferring, DocumentedAFileKeepsItsKeyForFetchesToo) {
  const auto target = Unsolicited();
  auto hydrated = HydrateMeanwhile();
  const auto fetch = provider->WaitFor(callback::kFetchData);
  ASSERT_TRUE(fetch.has_value());
  EXPECT_EQ(fetch->transferKey, target.transferKey);
  EXPECT_EQ(Unsolicited().transferKey, target.transferKey);
  EXPECT_RESULT(api->Transfer(provider->TargetOf(*fetch), 0, ContentOf("a", kSize)), hr::kOk);
  EXPECT_RESULT(hydrated.get(), hr::kOk);
}

TEST_F(Transferring, DocumentedAFailureFailsTheRequestItOverlaps) {
  auto hydrated = HydrateMeanwhile();
  const auto fetch = provider->WaitFor(callback::kFetchData);
  ASSERT_TRUE(fetch.has_value());
  EXPECT_RESULT(api->FailTransfer(provider->TargetOf(*fetch), 0, kSize, kNetworkUnavailable),
                hr::kOk);
  EXPECT_RESULT(hydrated.get(), FromWin32(388));
}

TEST_F(Transferring, DocumentedOtherStatusesCountAsUnsuccessful) {
  auto hydrated = HydrateMeanwhile();
  const auto fetch = provider->WaitFor(callback::kFetchData);
  ASSERT_TRUE(fetch.has_value());
  constexpr std::uint32_t kAccessDeniedStatus = 0xC0000022;
  EXPECT_RESULT(api->FailTransfer(provider->TargetOf(*fetch), 0, 4096, kAccessDeniedStatus),
                hr::kOk);
  EXPECT_RESULT(hydrated.get(), hr::kUnsuccessful);
}

TEST_F(Transferring, ObservedAFailedFetchIsAskedForAgainWithTheSameKey) {
  auto first = HydrateMeanwhile();
  const auto fetch = provider->WaitFor(callback::kFetchData);
  ASSERT_TRUE(fetch.has_value());
  EXPECT_RESULT(api->FailTransfer(provider->TargetOf(*fetch), 0, kSize, kUnsuccessful), hr::kOk);
  EXPECT_RESULT(first.get(), hr::kUnsuccessful);
  auto second = HydrateMeanwhile();
  const auto again = provider->WaitFor(callback::kFetchData);
  ASSERT_TRUE(again.has_value());
  EXPECT_EQ(again->transferKey, fetch->transferKey);
  EXPECT_NE(again->requestKey, fetch->requestKey);
  EXPECT_RESULT(api->Transfer(provider->TargetOf(*again), 0, ContentOf("a", kSize)), hr::kOk);
  EXPECT_RESULT(second.get(), hr::kOk);
}

TEST_F(Transferring, ADiskThatIsFullFailsTheTransferAndTheRequest) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can mount a small disk";
  const auto small = folder / "small";
  std::filesystem::create_directory(small);
  ASSERT_EQ(mount("small", small.c_str(), "tmpfs", 0, "size=64k"), 0);
  {
    FakeProvider other(daemon->Endpoint());
    ASSERT_RESULT(api->Register(small), hr::kOk);
    ASSERT_RESULT(other.Connect(small), hr::kOk);
    EXPECT_RESULT(api->Create(small, {FileEntry("big", 1 << 20)}), hr::kOk);
    auto hydrated = std::async(std::launch::async, [&] {
      ApiClient client(daemon->Endpoint());
      return client.Hydrate(small / "big");
    });
    const auto fetch = other.WaitFor(callback::kFetchData);
    EXPECT_TRUE(fetch.has_value());
    if (fetch) {
      EXPECT_RESULT(api->Transfer(other.TargetOf(*fetch), 0, std::string(1 << 20, 'x')),
                    hr::kDiskFull);
    }
    EXPECT_RESULT(hydrated.get(), hr::kDiskFull);
    EXPECT_RESULT(other.Disconnect(), hr::kOk);
  }
  EXPECT_RESULT(api->Unregister(small), hr::kOk);
  ASSERT_EQ(umount2(small.c_str(), MNT_DETACH), 0);
}

TEST_F(Transferring, DocumentedAnswersToNothingAreInvalid) {
  const auto target = Unsolicited();
  // Guessed: the code.
  EXPECT_RESULT(api->Acknowledge(wire::Op::kAckDelete, target), hr::kInvalidRequest);
  EXPECT_RESULT(api->Acknowledge(wire::Op::kAckRename, target), hr::kInvalidRequest);
  EXPECT_RESULT(api->Acknowledge(wire::Op::kAckDehydrate, target), hr::kInvalidRequest);
}

TEST_F(Transferring, DocumentedRetrievingAndAcknowledgingDataNeedsValidation) {
  std::string data;
  EXPECT_RESULT(api->Retrieve(Unsolicited(), 0, 4096, data), hr::kNotSupported);
  EXPECT_RESULT(api->AckData(Unsolicited(), 0, 4096), hr::kNotSupported);
}

class Validating : public FilterTest {
 protected:
  void SetUp() override {
    FilterTest::SetUp();
    RootOptions rootOptions;
    rootOptions.policies.hydrationModifier = policy::kValidationRequired;
    MakeRoot(rootOptions);
    ProviderOptions options;
    options.mask = kFetchMask | Bit(callback::kValidateData);
    ConnectProvider(options);
    CreateFile("a", kSize);
    hydrated_ = std::async(std::launch::async, [this] {
      ApiClient other(daemon->Endpoint());
      return other.Hydrate(Path("a"));
    });
    const auto fetch = provider->WaitFor(callback::kFetchData);
    ASSERT_TRUE(fetch.has_value());
    fetch_ = *fetch;
    ASSERT_RESULT(api->Transfer(provider->TargetOf(fetch_), 0, ContentOf("a", kSize)), hr::kOk);
  }

  static constexpr std::int64_t kSize = 10'000;
  std::future<Hresult> hydrated_;
  wire::CallbackEvent fetch_;
};

TEST_F(Validating, DocumentedNothingCompletesBeforeTheDataIsAcknowledged) {
  const auto validate = provider->WaitFor(callback::kValidateData);
  ASSERT_TRUE(validate.has_value());
  EXPECT_EQ(validate->range[0], 0);
  EXPECT_EQ(validate->range[1], kSize);
  EXPECT_EQ(hydrated_.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  std::string data;
  const auto target = provider->TargetOf(*validate);
  EXPECT_RESULT(api->Retrieve(target, 4096, 4096, data), hr::kOk);
  EXPECT_EQ(data, ContentOf("a", kSize).substr(4096, 4096));
  EXPECT_RESULT(api->Retrieve(target, 1, 4096, data), hr::kInvalidRequest);
  EXPECT_RESULT(api->AckData(target, 0, -1), hr::kOk);
  EXPECT_RESULT(hydrated_.get(), hr::kOk);
}

TEST_F(Validating, DocumentedDisownedDataFailsTheRequest) {
  const auto validate = provider->WaitFor(callback::kValidateData);
  ASSERT_TRUE(validate.has_value());
  constexpr std::uint32_t kValidationFailed = 0xC000CF0E;
  EXPECT_RESULT(api->AckData(provider->TargetOf(*validate), 0, -1, kValidationFailed), hr::kOk);
  EXPECT_RESULT(hydrated_.get(), FromWin32(383));
  EXPECT_EQ(InfoOf("a").onDiskDataSize, 0);
}

}  // namespace
}  // namespace cloud_filter::test
