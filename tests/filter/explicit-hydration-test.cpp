#include <future>
#include <map>
#include <thread>

#include "filter-fixture.h"

namespace cloud_filter::test {
namespace {

// Data that is asked for through the API; nothing is mounted.
class ExplicitHydration : public FilterTest {
 protected:
  void SetUp() override {
    FilterTest::SetUp();
    MakeRoot();
    ConnectProvider();
  }
  std::future<Hresult> HydrateMeanwhile(const std::string& name, std::int64_t offset = 0,
                                        std::int64_t length = -1) {
    return std::async(std::launch::async, [=, this] {
      ApiClient other(daemon->Endpoint());
      return other.Hydrate(Path(name), offset, length);
    });
  }
  wire::CallbackEvent NextFetch() {
    const auto fetch = provider->WaitFor(callback::kFetchData);
    EXPECT_TRUE(fetch.has_value());
    return fetch.value_or(wire::CallbackEvent());
  }
};

class QuickTimeout : public ExplicitHydration {
  std::vector<std::string> DaemonOptions() override {
    return {"--no-mount", "--request-timeout", "0.4"};
  }
};

class SmallFetches : public ExplicitHydration {
  std::vector<std::string> DaemonOptions() override {
    return {"--no-mount", "--fetch-cap", "8192"};
  }
};

TEST_F(ExplicitHydration, TheCallbackDescribesTheFileAndTheRange) {
  ASSERT_RESULT(api->Create(root, {FolderEntry("d")}), hr::kOk);
  ASSERT_RESULT(api->Create(root / "d", {FileEntry("a", 10'000)}), hr::kOk);
  auto hydrated = HydrateMeanwhile("d/a");
  const auto fetch = NextFetch();
  EXPECT_EQ(fetch.relativePath, "d/a");
  EXPECT_EQ(fetch.fileIdentity, "identity of a");
  EXPECT_EQ(fetch.fileSize, 10'000);
  EXPECT_EQ(fetch.fileId, InfoOf("d/a").fileId);
  EXPECT_EQ(fetch.flags, callback::kFetchExplicitHydration);
  EXPECT_EQ(fetch.range[0], 0);
  EXPECT_EQ(fetch.range[1], 10'000);
  EXPECT_EQ(fetch.range[2], 0);
  EXPECT_EQ(fetch.range[3], 10'000);
  EXPECT_RESULT(api->Transfer(provider->TargetOf(fetch), 0, ContentOf("a", 10'000)), hr::kOk);
  EXPECT_RESULT(hydrated.get(), hr::kOk);
}

TEST_F(ExplicitHydration, DocumentedOnlyWhatIsMissingIsAskedFor) {
  CreateFile("a", 40'000);
  std::int64_t key = 0;
  ASSERT_RESULT(api->GetTransferKey(Path("a"), key), hr::kOk);
  const wire::Target target{provider->Key(), key, 0};
  ASSERT_RESULT(api->Transfer(target, 8192, std::string(4096, 'x')), hr::kOk);
  auto hydrated = HydrateMeanwhile("a");
  const auto first = NextFetch();
  const auto second = NextFetch();
  EXPECT_EQ(first.range[0], 0);
  EXPECT_EQ(first.range[1], 8192);
  EXPECT_EQ(second.range[0], 12'288);
  EXPECT_EQ(second.range[1], 40'000 - 12'288);
  EXPECT_NE(first.requestKey, second.requestKey);
  EXPECT_RESULT(api->Transfer(provider->TargetOf(second), 12'288, std::string(27'712, 'y')),
                hr::kOk);
  EXPECT_RESULT(api->Transfer(provider->TargetOf(first), 0, std::string(8192, 'z')), hr::kOk);
  EXPECT_RESULT(hydrated.get(), hr::kOk);
}

TEST_F(ExplicitHydration, ARangeIsAskedForInWholePages) {
  CreateFile("a", 40'000);
  auto hydrated = HydrateMeanwhile("a", 5000, 100);
  const auto fetch = NextFetch();
  EXPECT_EQ(fetch.range[0], 4096);
  EXPECT_EQ(fetch.range[1], 4096);
  EXPECT_RESULT(api->Transfer(provider->TargetOf(fetch), 4096, std::string(4096, 'x')), hr::kOk);
  EXPECT_RESULT(hydrated.get(), hr::kOk);
  EXPECT_EQ(InfoOf("a").onDiskDataSize, 4096);
}

TEST_F(ExplicitHydration, ChecksItsArguments) {
  CreateFile("a", 100);
  ASSERT_RESULT(api->Create(root, {FolderEntry("d")}), hr::kOk);
  EXPECT_RESULT(api->Hydrate(Path("a"), -1), hr::kInvalidParameter);
  EXPECT_RESULT(api->Hydrate(Path("a"), 0, -2), hr::kInvalidParameter);
  EXPECT_RESULT(api->Hydrate(Path("a"), 0, -1, 1), hr::kInvalidParameter);
  EXPECT_RESULT(api->Hydrate(Path("d")), hr::kNotSupported);
  EXPECT_RESULT(api->Hydrate(Path("absent")), hr::kFileNotFound);
}

TEST_F(ExplicitHydration, NothingMissingNeedsNoProvider) {
  CreateFile("empty", 0);
  ASSERT_RESULT(provider->Disconnect(), hr::kOk);
  EXPECT_RESULT(api->Hydrate(Path("empty")), hr::kOk);
  CreateFile("a", 1);
  EXPECT_RESULT(api->Hydrate(Path("a")), hr::kProviderNotRunning);
}

TEST_F(ExplicitHydration, EverySizeAroundAPageArrivesWhole) {
  std::map<std::string, std::string> contents;
  for (const std::int64_t size :
       {1, 4095, 4096, 4097, 8191, 8192, 65'535, 65'536, 4'194'303, 4'194'304, 4'194'305}) {
    const auto name = "size-" + std::to_string(size);
    contents[name] = ContentOf(name, static_cast<std::size_t>(size));
    CreateFile(name, size);
  }
  provider->Serve([&](const std::string& name) { return contents.at(name); });
  for (const auto& [name, content] : contents) {
    EXPECT_RESULT(api->Hydrate(Path(name)), hr::kOk) << name;
    EXPECT_EQ(ReadWhole(Path(name)), content) << name;
  }
}

TEST_F(ExplicitHydration, ADyingProviderFailsWhatWaits) {
  CreateFile("a", 100);
  auto hydrated = HydrateMeanwhile("a");
  NextFetch();
  provider->Die();
  EXPECT_RESULT(hydrated.get(), hr::kProviderTerminated);
}

TEST_F(ExplicitHydration, DocumentedAFetchAfterADeathIsMarkedAsRecovery) {
  CreateFile("a", 100);
  auto hydrated = HydrateMeanwhile("a");
  EXPECT_EQ(NextFetch().flags & callback::kFetchRecovery, 0U);
  provider->Die();
  hydrated.get();
  ConnectProvider();
  auto again = HydrateMeanwhile("a");
  const auto fetch = NextFetch();
  EXPECT_EQ(fetch.flags & callback::kFetchRecovery, callback::kFetchRecovery);
  EXPECT_RESULT(api->Transfer(provider->TargetOf(fetch), 0, std::string(100, 'x')), hr::kOk);
  EXPECT_RESULT(again.get(), hr::kOk);
}

TEST_F(ExplicitHydration, ACallerThatGoesAwayEndsItsRequest) {
  CreateFile("a", 10'000);
  {
    ApiClient other(daemon->Endpoint());
    wire::Writer payload;
    wire::Put(payload, wire::ItemRef{Path("a"), 0});
    payload.Put(std::int64_t{0}).Put(std::int64_t{-1}).Put(std::uint32_t{0});
    ASSERT_TRUE(other.Raw().Send(wire::Op::kHydrate, payload.Bytes()));
    NextFetch();
  }
  const auto cancel = provider->WaitFor(callback::kCancelFetchData);
  ASSERT_TRUE(cancel.has_value());
  EXPECT_EQ(cancel->flags, callback::kCancelIoAborted);
}

TEST_F(ExplicitHydration, DocumentedRestartingAsksForEverythingAgain) {
  CreateFile("a", 10'000);
  auto hydrated = HydrateMeanwhile("a");
  const auto fetch = NextFetch();
  EXPECT_RESULT(api->Transfer(provider->TargetOf(fetch), 0, std::string(4096, 'o')), hr::kOk);
  wire::Metadata metadata;
  metadata.fileSize = 5000;
  EXPECT_RESULT(api->Restart(provider->TargetOf(fetch), metadata, "second version"), hr::kOk);
  const auto again = NextFetch();
  EXPECT_EQ(again.range[0], 0);
  EXPECT_EQ(again.range[1], 5000);
  EXPECT_EQ(again.fileIdentity, "second version");
  EXPECT_EQ(again.transferKey, fetch.transferKey);
  const auto content = ContentOf("second", 5000);
  EXPECT_RESULT(api->Transfer(provider->TargetOf(again), 0, content), hr::kOk);
  EXPECT_RESULT(hydrated.get(), hr::kOk);
  EXPECT_EQ(ReadWhole(Path("a")), content);
}

TEST_F(ExplicitHydration, DocumentedRestartingNeedsTheFullPolicy) {
  CreateFile("a", 10'000);
  std::int64_t key = 0;
  ASSERT_RESULT(api->GetTransferKey(Path("a"), key), hr::kOk);
  RootOptions options;
  options.flags = flag::kRegisterUpdate;
  options.policies.hydrationPrimary = policy::kHydrationPartial;
  MakeRoot(options);
  EXPECT_RESULT(api->Restart({provider->Key(), key, 0}, std::nullopt, std::nullopt),
                hr::kNotSupported);
}

TEST_F(QuickTimeout, DocumentedAnUnansweredFetchExpires) {
  CreateFile("a", 10'000);
  auto hydrated = HydrateMeanwhile("a");
  const auto fetch = NextFetch();
  EXPECT_RESULT(hydrated.get(), hr::kRequestTimeout);
  const auto cancel = provider->WaitFor(callback::kCancelFetchData);
  ASSERT_TRUE(cancel.has_value());
  EXPECT_EQ(cancel->flags, callback::kCancelIoTimeout);
  EXPECT_EQ(cancel->requestKey, fetch.requestKey);
  EXPECT_EQ(cancel->range[0], 0);
  EXPECT_EQ(cancel->range[1], 10'000);
}

TEST_F(QuickTimeout, ObservedATransferAfterTheCancelIsRefusedUntilTheFileIsWantedAgain) {
  CreateFile("a", 10'000);
  auto hydrated = HydrateMeanwhile("a");
  const auto fetch = NextFetch();
  EXPECT_RESULT(hydrated.get(), hr::kRequestTimeout);
  const auto target = provider->TargetOf(fetch);
  EXPECT_RESULT(api->Transfer(target, 0, std::string(4096, 'x')), hr::kRequestCanceled);
  std::int64_t key = 0;
  EXPECT_RESULT(api->GetTransferKey(Path("a"), key), hr::kOk);
  EXPECT_RESULT(api->Transfer(target, 0, std::string(4096, 'x')), hr::kOk);
}

TEST_F(QuickTimeout, TheCancelNamesWhatIsStillMissing) {
  CreateFile("a", 10'000);
  auto hydrated = HydrateMeanwhile("a");
  const auto fetch = NextFetch();
  EXPECT_RESULT(api->Transfer(provider->TargetOf(fetch), 0, std::string(4096, 'x')), hr::kOk);
  EXPECT_RESULT(hydrated.get(), hr::kRequestTimeout);
  const auto cancel = provider->WaitFor(callback::kCancelFetchData);
  ASSERT_TRUE(cancel.has_value());
  EXPECT_EQ(cancel->range[0], 4096);
  EXPECT_EQ(cancel->range[1], 10'000 - 4096);
}

TEST_F(QuickTimeout, DocumentedAnyValidAnswerResetsTheTimersOfAll) {
  CreateFile("slow", 10'000);
  CreateFile("busy", 100 * std::int64_t{4096});
  auto slow = HydrateMeanwhile("slow");
  const auto slowFetch = NextFetch();
  std::int64_t key = 0;
  ASSERT_RESULT(api->GetTransferKey(Path("busy"), key), hr::kOk);
  for (std::int64_t i = 0; i < 10; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(120));
    ASSERT_RESULT(api->Transfer({provider->Key(), key, 0}, i * 4096, std::string(4096, 'x')),
                  hr::kOk);
  }
  EXPECT_EQ(slow.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  EXPECT_RESULT(api->Transfer(provider->TargetOf(slowFetch), 0, std::string(10'000, 'x')), hr::kOk);
  EXPECT_RESULT(slow.get(), hr::kOk);
}

TEST_F(QuickTimeout, DocumentedProgressResetsTheTimerOfItsRequest) {
  CreateFile("a", 10'000);
  auto hydrated = HydrateMeanwhile("a");
  const auto fetch = NextFetch();
  for (int i = 0; i < 8; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(120));
    ASSERT_RESULT(api->ReportProgress(provider->TargetOf(fetch), 100, i), hr::kOk);
  }
  EXPECT_EQ(hydrated.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  EXPECT_RESULT(hydrated.get(), hr::kRequestTimeout);
}

TEST_F(QuickTimeout, AnInvalidAnswerResetsNothing) {
  CreateFile("a", 10'000);
  const auto start = std::chrono::steady_clock::now();
  auto hydrated = HydrateMeanwhile("a");
  const auto fetch = NextFetch();
  while (hydrated.wait_for(std::chrono::milliseconds(60)) == std::future_status::timeout) {
    api->Transfer(provider->TargetOf(fetch), 1, std::string(4096, 'x'));
    ASSERT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  }
  EXPECT_RESULT(hydrated.get(), hr::kRequestTimeout);
}

TEST_F(SmallFetches, ObservedBigFilesAreAskedForInCappedPieces) {
  CreateFile("a", 20'000);
  auto hydrated = HydrateMeanwhile("a");
  const auto content = ContentOf("a", 20'000);
  for (const std::int64_t offset : {0, 8192, 16'384}) {
    const auto fetch = NextFetch();
    EXPECT_EQ(fetch.range[0], offset);
    EXPECT_EQ(fetch.range[1], std::min<std::int64_t>(8192, 20'000 - offset));
    EXPECT_EQ(provider->CountOf(callback::kFetchData), 0U);
    EXPECT_RESULT(api->Transfer(provider->TargetOf(fetch), offset,
                                content.substr(static_cast<std::size_t>(offset), 8192)),
                  hr::kOk);
  }
  EXPECT_RESULT(hydrated.get(), hr::kOk);
  EXPECT_EQ(ReadWhole(Path("a")), content);
}

TEST_F(SmallFetches, AProviderThatAnswersMoreThanItWasAskedIsNotAskedAgain) {
  CreateFile("a", 20'000);
  auto hydrated = HydrateMeanwhile("a");
  const auto fetch = NextFetch();
  EXPECT_RESULT(api->Transfer(provider->TargetOf(fetch), 0, ContentOf("a", 20'000)), hr::kOk);
  EXPECT_RESULT(hydrated.get(), hr::kOk);
  EXPECT_TRUE(provider->NoneOf(callback::kFetchData));
}

}  // namespace
}  // namespace cloud_filter::test
