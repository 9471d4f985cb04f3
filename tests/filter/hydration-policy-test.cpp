#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <future>

#include "filter-fixture.h"

namespace cloud_filter::test {
namespace {

constexpr std::int64_t kMegabyte = 1 << 20;
constexpr std::int64_t kSize = 4 * kMegabyte;

class Policy : public MountedTest {
 protected:
  explicit Policy(std::uint16_t hydration) : hydration_(hydration) {}
  void SetUp() override {
    MountedTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    RootOptions options;
    options.policies.hydrationPrimary = hydration_;
    MakeRoot(options);
    ConnectProvider();
    CreateFile("a", kSize);
    file_.Reset(open(Path("a").c_str(), O_RDONLY | O_CLOEXEC));
    // The kernel would otherwise ask for more than the program does.
    ASSERT_EQ(posix_fadvise(file_.Get(), 0, 0, POSIX_FADV_RANDOM), 0);
  }
  std::future<std::string> ReadPage(std::int64_t offset) {
    return std::async(std::launch::async, [this, offset] {
      std::string page(4096, '\0');
      const auto got = pread(file_.Get(), page.data(), page.size(), offset);
      page.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
      return page;
    });
  }
  wire::CallbackEvent NextFetch() {
    const auto fetch = provider->WaitFor(callback::kFetchData);
    EXPECT_TRUE(fetch.has_value());
    return fetch.value_or(wire::CallbackEvent());
  }
  Hresult Answer(const wire::CallbackEvent& fetch) {
    return api->Transfer(provider->TargetOf(fetch), fetch.range[0],
                         content_.substr(static_cast<std::size_t>(fetch.range[0]),
                                         static_cast<std::size_t>(fetch.range[1])));
  }

  const std::uint16_t hydration_;
  const std::string content_ = ContentOf("a", kSize);
  UniqueFd file_;
};

class PartialPolicy : public Policy {
 protected:
  PartialPolicy() : Policy(policy::kHydrationPartial) {}
};

class ProgressivePolicy : public Policy {
 protected:
  ProgressivePolicy() : Policy(policy::kHydrationProgressive) {}
};

TEST_F(PartialPolicy, DocumentedOnlyWhatIsReadIsFetched) {
  auto page = ReadPage(2 * kMegabyte);
  const auto fetch = NextFetch();
  EXPECT_LE(fetch.range[0], 2 * kMegabyte);
  EXPECT_GE(fetch.range[0] + fetch.range[1], 2 * kMegabyte + 4096);
  EXPECT_LE(fetch.range[1], 256 << 10);
  EXPECT_EQ(fetch.range[0] % 4096, 0);
  EXPECT_EQ(fetch.range[1] % 4096, 0);
  EXPECT_RESULT(Answer(fetch), hr::kOk);
  EXPECT_EQ(page.get(), content_.substr(2 * kMegabyte, 4096));
  EXPECT_TRUE(provider->NoneOf(callback::kFetchData));
  EXPECT_EQ(InfoOf("a").onDiskDataSize, fetch.range[1]);
}

TEST_F(PartialPolicy, DocumentedReadsCompleteAsTheirBytesArrive) {
  auto first = ReadPage(0);
  const auto firstFetch = NextFetch();
  auto second = ReadPage(3 * kMegabyte);
  const auto secondFetch = NextFetch();
  EXPECT_RESULT(Answer(secondFetch), hr::kOk);
  EXPECT_EQ(second.get(), content_.substr(3 * kMegabyte, 4096));
  EXPECT_EQ(first.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  EXPECT_RESULT(Answer(firstFetch), hr::kOk);
  EXPECT_EQ(first.get(), content_.substr(0, 4096));
}

TEST_F(PartialPolicy, DocumentedAFailureFailsOnlyTheReadsThatItOverlaps) {
  auto first = ReadPage(0);
  const auto firstFetch = NextFetch();
  auto second = ReadPage(3 * kMegabyte);
  const auto secondFetch = NextFetch();
  EXPECT_RESULT(api->FailTransfer(provider->TargetOf(firstFetch), firstFetch.range[0],
                                  firstFetch.range[1], 0xC000CF12),
                hr::kOk);
  EXPECT_EQ(first.get(), "");
  EXPECT_EQ(second.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  EXPECT_RESULT(Answer(secondFetch), hr::kOk);
  EXPECT_EQ(second.get(), content_.substr(3 * kMegabyte, 4096));
}

TEST_F(ProgressivePolicy, DocumentedGoesOnInTheBackground) {
  auto page = ReadPage(kMegabyte);
  const auto fetch = NextFetch();
  EXPECT_LT(fetch.range[1], kSize);
  EXPECT_RESULT(Answer(fetch), hr::kOk);
  EXPECT_EQ(page.get(), content_.substr(kMegabyte, 4096));
  while (InfoOf("a").onDiskDataSize < kSize) {
    const auto next = NextFetch();
    ASSERT_GT(next.range[1], 0);
    ASSERT_RESULT(Answer(next), hr::kOk);
  }
  EXPECT_EQ(ReadWhole(root / "a"), content_);
}

TEST_F(ProgressivePolicy, DocumentedEndsWhenTheLastHandleCloses) {
  auto page = ReadPage(0);
  EXPECT_RESULT(Answer(NextFetch()), hr::kOk);
  EXPECT_EQ(page.get(), content_.substr(0, 4096));
  NextFetch();  // the background's
  file_.Reset();
  const auto cancel = provider->WaitFor(callback::kCancelFetchData);
  ASSERT_TRUE(cancel.has_value());
  EXPECT_EQ(cancel->flags, callback::kCancelIoAborted);
}

}  // namespace
}  // namespace cloud_filter::test
