#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <future>

#include "filter-fixture.h"

namespace cloud_filter::test {
namespace {

constexpr std::uint32_t kVeto = 0xC000CF18;

// Programs that rename and delete placeholders, and the provider that is asked about it.
class Notifications : public MountedTest {
 protected:
  void SetUp() override {
    MountedTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    MakeRoot();
    options_.mask = kFetchMask | Bit(callback::kDelete) | Bit(callback::kDeleteCompletion) |
                    Bit(callback::kRename) | Bit(callback::kRenameCompletion);
    ConnectProvider(options_);
    CreateFile("a", 1000);
    ASSERT_RESULT(api->Create(root, {FolderEntry("d")}), hr::kOk);
  }
  std::future<int> Meanwhile(std::function<int()> operation) {
    return std::async(std::launch::async, [operation] { return operation() == 0 ? 0 : errno; });
  }
  std::future<int> RenameMeanwhile(const std::string& from, const std::string& to) {
    return Meanwhile([=, this] { return rename(Path(from).c_str(), Path(to).c_str()); });
  }
  std::future<int> UnlinkMeanwhile(const std::string& name) {
    return Meanwhile([=, this] { return unlink(Path(name).c_str()); });
  }
  wire::CallbackEvent Question(std::uint32_t type) {
    const auto question = provider->WaitFor(type);
    EXPECT_TRUE(question.has_value());
    return question.value_or(wire::CallbackEvent());
  }
  ProviderOptions options_;
};

class QuickNotifications : public Notifications {
  std::vector<std::string> DaemonOptions() override { return {"--request-timeout", "0.4"}; }
};

TEST_F(Notifications, DocumentedARenameWaitsForItsAnswer) {
  auto renamed = RenameMeanwhile("a", "d/b");
  const auto question = Question(callback::kRename);
  EXPECT_EQ(question.relativePath, "a");
  EXPECT_EQ(question.otherPath, Path("d/b"));
  EXPECT_EQ(question.flags, callback::kSourceInScope | callback::kTargetInScope);
  EXPECT_EQ(question.fileIdentity, "identity of a");
  EXPECT_EQ(question.processId, static_cast<std::uint32_t>(getpid()));
  EXPECT_EQ(renamed.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  EXPECT_TRUE(std::filesystem::exists(Path("a")));
  EXPECT_RESULT(api->Acknowledge(wire::Op::kAckRename, provider->TargetOf(question)), hr::kOk);
  EXPECT_EQ(renamed.get(), 0);
  EXPECT_TRUE(std::filesystem::exists(Path("d/b")));
  const auto told = Question(callback::kRenameCompletion);
  EXPECT_EQ(told.relativePath, "d/b");
  EXPECT_EQ(told.otherPath, Path("a"));
  EXPECT_EQ(InfoOf("d/b").identity, "identity of a");
}

TEST_F(Notifications, ANewNameKeepsAPinStateThatAMoveWouldNot) {
  provider.reset();  // nobody is to be asked
  ASSERT_RESULT(api->SetPin(Path("a"), PinState::kExcluded), hr::kOk);
  ASSERT_EQ(rename(Path("a").c_str(), Path("b").c_str()), 0);
  EXPECT_EQ(InfoOf("b").pinState, static_cast<std::uint32_t>(PinState::kExcluded));
  ASSERT_EQ(rename(Path("b").c_str(), Path("d/b").c_str()), 0);
  EXPECT_EQ(InfoOf("d/b").pinState, static_cast<std::uint32_t>(PinState::kUnspecified));
}

TEST_F(Notifications, DocumentedAVetoedRenameDoesNothing) {
  auto renamed = RenameMeanwhile("a", "b");
  const auto question = Question(callback::kRename);
  EXPECT_RESULT(api->Acknowledge(wire::Op::kAckRename, provider->TargetOf(question), kVeto),
                hr::kOk);
  EXPECT_EQ(renamed.get(), EACCES);
  EXPECT_TRUE(std::filesystem::exists(Path("a")));
  EXPECT_TRUE(provider->NoneOf(callback::kRenameCompletion));
}

TEST_F(Notifications, DocumentedADeleteWaitsForItsAnswer) {
  auto deleted = UnlinkMeanwhile("a");
  const auto question = Question(callback::kDelete);
  EXPECT_EQ(question.relativePath, "a");
  EXPECT_EQ(question.flags, 0U);
  EXPECT_TRUE(std::filesystem::exists(Path("a")));
  EXPECT_RESULT(api->Acknowledge(wire::Op::kAckDelete, provider->TargetOf(question)), hr::kOk);
  EXPECT_EQ(deleted.get(), 0);
  EXPECT_FALSE(std::filesystem::exists(Path("a")));
  EXPECT_EQ(Question(callback::kDeleteCompletion).relativePath, "a");
}

TEST_F(Notifications, DocumentedAVetoedDeleteDoesNothing) {
  auto deleted = UnlinkMeanwhile("a");
  const auto question = Question(callback::kDelete);
  EXPECT_RESULT(api->Acknowledge(wire::Op::kAckDelete, provider->TargetOf(question), kVeto),
                hr::kOk);
  EXPECT_EQ(deleted.get(), EACCES);
  EXPECT_TRUE(std::filesystem::exists(Path("a")));
}

TEST_F(Notifications, FoldersAreAskedAboutAsFolders) {
  auto renamed = RenameMeanwhile("d", "e");
  const auto rename = Question(callback::kRename);
  EXPECT_EQ(rename.flags & callback::kIsDirectory, callback::kIsDirectory);
  EXPECT_RESULT(api->Acknowledge(wire::Op::kAckRename, provider->TargetOf(rename)), hr::kOk);
  EXPECT_EQ(renamed.get(), 0);
  auto removed = Meanwhile([this] { return rmdir(Path("e").c_str()); });
  const auto remove = Question(callback::kDelete);
  EXPECT_EQ(remove.flags, callback::kIsDirectory);
  EXPECT_RESULT(api->Acknowledge(wire::Op::kAckDelete, provider->TargetOf(remove)), hr::kOk);
  EXPECT_EQ(removed.get(), 0);
}

TEST_F(Notifications, ARequestKeyOfZeroMeansWhateverIsPending) {
  auto deleted = UnlinkMeanwhile("a");
  auto target = provider->TargetOf(Question(callback::kDelete));
  target.requestKey = 0;
  EXPECT_RESULT(api->Acknowledge(wire::Op::kAckRename, target), hr::kInvalidRequest);
  EXPECT_RESULT(api->Acknowledge(wire::Op::kAckDelete, target), hr::kOk);
  EXPECT_EQ(deleted.get(), 0);
}

TEST_F(Notifications, PlainFilesAreNobodysBusiness) {
  close(open(Path("plain").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
  EXPECT_EQ(RenameMeanwhile("plain", "other").get(), 0);
  EXPECT_EQ(UnlinkMeanwhile("other").get(), 0);
  EXPECT_TRUE(provider->NoneOf(callback::kRename));
  EXPECT_TRUE(provider->NoneOf(callback::kDelete));
}

TEST_F(Notifications, InferredWhatIsNotRegisteredForIsNotAsked) {
  ASSERT_RESULT(provider->Disconnect(), hr::kOk);
  ConnectProvider();
  EXPECT_EQ(RenameMeanwhile("a", "b").get(), 0);
  EXPECT_EQ(UnlinkMeanwhile("b").get(), 0);
}

TEST_F(Notifications, WithoutProviderNobodyIsAsked) {
  ASSERT_RESULT(provider->Disconnect(), hr::kOk);
  EXPECT_EQ(RenameMeanwhile("a", "b").get(), 0);
  EXPECT_EQ(UnlinkMeanwhile("b").get(), 0);
}

TEST_F(Notifications, GuessedTheProviderIsNotAskedAboutItself) {
  ASSERT_RESULT(provider->Disconnect(), hr::kOk);
  options_.process.unixProcessId = getpid();
  ConnectProvider(options_);
  EXPECT_EQ(RenameMeanwhile("a", "b").get(), 0);
  EXPECT_EQ(UnlinkMeanwhile("b").get(), 0);
  EXPECT_TRUE(provider->NoneOf(callback::kDelete));
}

TEST_F(Notifications, ADyingProviderStopsTheOperation) {
  auto deleted = UnlinkMeanwhile("a");
  Question(callback::kDelete);
  provider->Die();
  EXPECT_EQ(deleted.get(), EIO);
  EXPECT_TRUE(std::filesystem::exists(Path("a")));
}

TEST_F(QuickNotifications, DocumentedAnUnansweredQuestionExpires) {
  auto renamed = RenameMeanwhile("a", "b");
  const auto question = Question(callback::kRename);
  EXPECT_EQ(renamed.get(), ETIMEDOUT);
  EXPECT_TRUE(std::filesystem::exists(Path("a")));
  EXPECT_RESULT(api->Acknowledge(wire::Op::kAckRename, provider->TargetOf(question)),
                hr::kInvalidRequest);
}

TEST_F(Notifications, AProviderThatFallsSilentIsNotWaitedForLong) {
  provider->Freeze();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(UnlinkMeanwhile("a").get(), ETIMEDOUT);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  EXPECT_TRUE(std::filesystem::exists(Path("a")));
}

TEST_F(Notifications, AKilledProgramsOperationIsNotDone) {
  Program remove({"rm", Path("a")});
  const auto question = Question(callback::kDelete);
  remove.Signal(SIGKILL);
  EXPECT_EQ(remove.Wait()->exitCode, 128 + SIGKILL);
  EXPECT_RESULT(api->Acknowledge(wire::Op::kAckDelete, provider->TargetOf(question)),
                hr::kInvalidRequest);
  EXPECT_TRUE(std::filesystem::exists(Path("a")));
}

TEST_F(Notifications, AMoveOutOfTheRootIsACopyAndADelete) {
  provider->Serve([](const std::string& name) { return ContentOf(name, 1000); });
  Program move({"mv", Path("a"), folder / "outside"});
  const auto question = Question(callback::kDelete);
  EXPECT_RESULT(api->Acknowledge(wire::Op::kAckDelete, provider->TargetOf(question)), hr::kOk);
  EXPECT_EQ(move.Wait()->exitCode, 0);
  EXPECT_EQ(ReadWhole(folder / "outside"), ContentOf("a", 1000));
  EXPECT_FALSE(std::filesystem::exists(Path("a")));
}

TEST_F(Notifications, InferredAMoveInheritsThePinState) {
  ASSERT_RESULT(api->SetPin(Path("d"), PinState::kPinned), hr::kOk);
  provider->On(callback::kRename, [this](FakeProvider& self, const wire::CallbackEvent& event) {
    ApiClient(daemon->Endpoint()).Acknowledge(wire::Op::kAckRename, self.TargetOf(event));
  });
  EXPECT_EQ(RenameMeanwhile("a", "d/a").get(), 0);
  EXPECT_EQ(InfoOf("d/a").pinState, static_cast<std::uint32_t>(PinState::kPinned));
}

TEST_F(Notifications, OpeningAndClosingIsToldToThoseWhoAsked) {
  ASSERT_RESULT(provider->Disconnect(), hr::kOk);
  options_.mask =
      kFetchMask | Bit(callback::kFileOpenCompletion) | Bit(callback::kFileCloseCompletion);
  ConnectProvider(options_);
  {
    const UniqueFd file(open(Path("a").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(Question(callback::kFileOpenCompletion).relativePath, "a");
    EXPECT_EQ(provider->CountOf(callback::kFileCloseCompletion), 0U);
  }
  EXPECT_EQ(Question(callback::kFileCloseCompletion).relativePath, "a");
  // Documented: files only.
  const UniqueFd opened(open(Path("d").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  EXPECT_TRUE(provider->NoneOf(callback::kFileOpenCompletion));
}

}  // namespace
}  // namespace cloud_filter::test
