#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <future>
#include <thread>

#include "backing-file.h"
#include "filter-fixture.h"

namespace cloud_filter::test {
namespace {

constexpr std::int64_t kSize = 1'000'003;

// Opens for reading what was found before, whatever has become of its name.
UniqueFd OpenFound(const UniqueFd& found) {
  const auto path = "/proc/self/fd/" + std::to_string(found.Get());
  return UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

// Programs that read through the mount while a provider supplies the data.
class Reading : public MountedTest {
 protected:
  void SetUp() override {
    MountedTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    MakeRoot();
    ConnectProvider();
    CreateFile("a", kSize);
  }
  void ServeAll() {
    provider->Serve([](const std::string& name) { return ContentOf(name, kSize); });
  }
  wire::CallbackEvent NextFetch() {
    const auto fetch = provider->WaitFor(callback::kFetchData);
    EXPECT_TRUE(fetch.has_value());
    return fetch.value_or(wire::CallbackEvent());
  }
  Hresult Answer(const wire::CallbackEvent& fetch) {
    return api->Transfer(provider->TargetOf(fetch), 0, ContentOf("a", kSize));
  }
};

class ReadingWithQuickTimeout : public Reading {
  std::vector<std::string> DaemonOptions() override { return {"--request-timeout", "0.4"}; }
};

TEST_F(Reading, TheMountShowsThePlaceholders) {
  EXPECT_EQ(MountsBelow(), std::vector<std::string>{root});
  EXPECT_EQ(RunProgram({"ls"}, root).output, "a\n");
  EXPECT_EQ(std::filesystem::file_size(root / "a"), static_cast<std::uintmax_t>(kSize));
}

TEST_F(Reading, AFolderThatTheApiChangesIsSeenAsItIsAtOnce) {
  const auto timeOf = [](const std::string& path) {
    struct stat facts {};
    EXPECT_EQ(stat(path.c_str(), &facts), 0) << path;
    return FileTimeOf(facts.st_mtim);
  };
  constexpr std::int64_t kSomeTime = 132'000'000'000'000'000;
  UpdateOptions options;
  options.metadata = wire::Metadata{};
  options.metadata->lastWriteTime = kSomeTime;
  ASSERT_RESULT(api->Create(root, {FolderEntry("d")}), hr::kOk);
  ASSERT_RESULT(api->Convert(root, "root", 0), hr::kOk);
  for (const auto& changed : {Path("d"), root.string()}) {
    EXPECT_NE(timeOf(changed), kSomeTime);
    EXPECT_RESULT(api->Update(changed, options), hr::kOk);
    EXPECT_EQ(timeOf(changed), kSomeTime);
    EXPECT_RESULT(api->Create(changed, {FileEntry("new", 1)}), hr::kOk);
    EXPECT_NE(timeOf(changed), kSomeTime);
  }
}

TEST_F(Reading, AProgramGetsTheWholeContent) {
  ServeAll();
  const auto cat = RunProgram({"cat", Path("a")});
  EXPECT_EQ(cat.exitCode, 0);
  EXPECT_EQ(cat.output, ContentOf("a", kSize));
  EXPECT_EQ(InfoOf("a").onDiskDataSize, kSize);
  EXPECT_EQ(InfoOf("a").inSyncState, 1U);
}

TEST_F(Reading, DocumentedWithTheFullPolicyOneByteFetchesAll) {
  auto reader = std::async(std::launch::async, [this] { return ErrorOfReading(root / "a"); });
  const auto fetch = NextFetch();
  EXPECT_EQ(fetch.range[0], 0);
  EXPECT_EQ(fetch.range[1], kSize);
  EXPECT_EQ(fetch.flags, 0U);
  // The first bytes alone are not enough.
  EXPECT_RESULT(api->Transfer(provider->TargetOf(fetch), 0, std::string(262'144, 'x')), hr::kOk);
  EXPECT_EQ(reader.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  EXPECT_RESULT(Answer(fetch), hr::kOk);
  EXPECT_EQ(reader.get(), 0);
}

TEST_F(Reading, TheCallbackTellsWhoReads) {
  Program cat({"cat", Path("a")});
  const auto fetch = NextFetch();
  EXPECT_EQ(fetch.processId, static_cast<std::uint32_t>(cat.Id()));
  EXPECT_TRUE(fetch.processImage.ends_with("cat")) << fetch.processImage;
  EXPECT_EQ(fetch.commandLine, "cat " + Path("a"));
  EXPECT_RESULT(Answer(fetch), hr::kOk);
  EXPECT_EQ(cat.Wait()->exitCode, 0);
}

TEST_F(Reading, AMappedFileFetchesItsData) {
  ServeAll();
  const UniqueFd file(open(Path("a").c_str(), O_RDONLY | O_CLOEXEC));
  auto* mapped = mmap(nullptr, kSize, PROT_READ, MAP_PRIVATE, file.Get(), 0);
  ASSERT_NE(mapped, MAP_FAILED);
  EXPECT_EQ(std::string(static_cast<char*>(mapped), kSize), ContentOf("a", kSize));
  munmap(mapped, kSize);
}

TEST_F(Reading, ConcurrentReadersShareOneFetch) {
  std::vector<std::future<std::optional<std::string>>> readers;
  for (int i = 0; i < 8; ++i) {
    readers.push_back(std::async(std::launch::async, [this] { return ReadWhole(root / "a"); }));
  }
  const auto fetch = NextFetch();
  EXPECT_TRUE(provider->NoneOf(callback::kFetchData));
  EXPECT_RESULT(Answer(fetch), hr::kOk);
  const auto content = ContentOf("a", kSize);
  for (auto& reader : readers) EXPECT_EQ(reader.get(), content);
}

TEST_F(Reading, ThirtyTwoReadersOfAHundredFilesAllGetTheirs) {
  constexpr int kFiles = 100;
  constexpr std::size_t kFileSize = 50'001;
  std::vector<wire::CreateEntry> entries;
  for (int i = 0; i < kFiles; ++i) {
    entries.push_back(FileEntry("f" + std::to_string(i), kFileSize));
  }
  ASSERT_RESULT(api->Create(root, entries), hr::kOk);
  provider->Serve([](const std::string& name) { return ContentOf(name, kFileSize); });
  std::vector<std::future<int>> readers;
  for (int reader = 0; reader < 32; ++reader) {
    readers.push_back(std::async(std::launch::async, [this, reader] {
      int wrong = 0;
      for (int i = 0; i < kFiles; ++i) {
        const auto name = "f" + std::to_string((i + reader * 3) % kFiles);
        if (ReadWhole(root / name) != ContentOf(name, kFileSize)) ++wrong;
      }
      return wrong;
    }));
  }
  for (auto& reader : readers) EXPECT_EQ(reader.get(), 0);
}

TEST_F(Reading, AnEmptyFileNeedsNoFetch) {
  CreateFile("empty", 0);
  EXPECT_EQ(ReadWhole(root / "empty"), "");
  EXPECT_TRUE(provider->NoneOf(callback::kFetchData));
}

TEST_F(Reading, ObservedWithoutProviderAReadFailsAtOnce) {
  ASSERT_RESULT(provider->Disconnect(), hr::kOk);
  EXPECT_EQ(ErrorOfReading(root / "a"), EIO);
}

TEST_F(Reading, WhenTheProviderDiesItsReadersFail) {
  auto reader = std::async(std::launch::async, [this] { return ErrorOfReading(root / "a"); });
  NextFetch();
  provider->Die();
  EXPECT_EQ(reader.get(), EIO);
  ConnectProvider();
  ServeAll();
  EXPECT_EQ(ReadWhole(root / "a"), ContentOf("a", kSize));
}

TEST_F(Reading, DocumentedAFailedTransferFailsItsReaders) {
  auto reader = std::async(std::launch::async, [this] { return ErrorOfReading(root / "a"); });
  const auto fetch = NextFetch();
  EXPECT_RESULT(api->FailTransfer(provider->TargetOf(fetch), 0, kSize, 0xC000CF11), hr::kOk);
  EXPECT_EQ(reader.get(), EIO);
  // The next reader asks again.
  auto next = std::async(std::launch::async, [this] { return ReadWhole(root / "a"); });
  const auto again = NextFetch();
  EXPECT_EQ(again.transferKey, fetch.transferKey);
  EXPECT_RESULT(Answer(again), hr::kOk);
  EXPECT_EQ(next.get(), ContentOf("a", kSize));
}

TEST_F(ReadingWithQuickTimeout, DocumentedAnUnansweredReadTimesOut) {
  auto reader = std::async(std::launch::async, [this] { return ErrorOfReading(root / "a"); });
  NextFetch();
  EXPECT_EQ(reader.get(), ETIMEDOUT);
  const auto cancel = provider->WaitFor(callback::kCancelFetchData);
  ASSERT_TRUE(cancel.has_value());
  EXPECT_EQ(cancel->flags, callback::kCancelIoTimeout);
}

TEST_F(Reading, AKilledReaderCancelsItsFetch) {
  Program cat({"cat", Path("a")});
  const auto fetch = NextFetch();
  cat.Signal(SIGKILL);
  const auto cancel = provider->WaitFor(callback::kCancelFetchData);
  ASSERT_TRUE(cancel.has_value());
  EXPECT_EQ(cancel->flags, callback::kCancelIoAborted);
  EXPECT_EQ(cancel->requestKey, fetch.requestKey);
  EXPECT_EQ(cancel->range[1], kSize);
  EXPECT_EQ(cat.Wait()->exitCode, 128 + SIGKILL);
  EXPECT_RESULT(Answer(fetch), hr::kRequestCanceled);
}

TEST_F(Reading, AKilledReaderOfAMappedFileCancelsItsFetch) {
  // Python faults the page in.
  Program reader({"python3", "-c",
                  "import mmap,sys; f=open(sys.argv[1],'rb'); "
                  "m=mmap.mmap(f.fileno(),0,prot=mmap.PROT_READ); print(m[0])",
                  Path("a")});
  NextFetch();
  reader.Signal(SIGKILL);
  EXPECT_TRUE(provider->WaitFor(callback::kCancelFetchData).has_value());
  EXPECT_EQ(reader.Wait()->exitCode, 128 + SIGKILL);
}

TEST_F(Reading, WhenOneOfTwoReadersIsKilledTheOtherStillGetsItsData) {
  Program killed({"cat", Path("a")});
  const auto fetch = NextFetch();
  Program kept({"cat", Path("a")});
  EXPECT_TRUE(provider->NoneOf(callback::kCancelFetchData));
  killed.Signal(SIGKILL);
  EXPECT_TRUE(killed.Wait().has_value());
  EXPECT_RESULT(Answer(fetch), hr::kOk);
  const auto ended = kept.Wait();
  ASSERT_TRUE(ended.has_value());
  EXPECT_EQ(ended->output, ContentOf("a", kSize));
}

TEST_F(Reading, AnInterruptedReaderCanReadAgain) {
  Program interrupted({"cat", Path("a")});
  NextFetch();
  interrupted.Signal(SIGINT);
  EXPECT_EQ(interrupted.Wait()->exitCode, 128 + SIGINT);
  auto reader = std::async(std::launch::async, [this] { return ReadWhole(root / "a"); });
  EXPECT_RESULT(Answer(NextFetch()), hr::kOk);
  EXPECT_EQ(reader.get(), ContentOf("a", kSize));
}

TEST_F(Reading, DocumentedTheProvidersOwnReadIsRefusedWhenItAskedForThat) {
  ASSERT_RESULT(provider->Disconnect(), hr::kOk);
  ProviderOptions options;
  options.flags = flag::kConnectBlockSelf;
  options.process.unixProcessId = getpid();
  ConnectProvider(options);
  EXPECT_EQ(ErrorOfReading(root / "a"), EACCES);
  EXPECT_TRUE(provider->NoneOf(callback::kFetchData));
  ServeAll();
  EXPECT_EQ(RunProgram({"cat", Path("a")}).output, ContentOf("a", kSize));
  EXPECT_EQ(ErrorOfReading(root / "a"), 0);
}

TEST_F(Reading, WhileAReaderWaitsOthersOpenAndQueryTheFile) {
  auto reader = std::async(std::launch::async, [this] { return ReadWhole(root / "a"); });
  const auto fetch = NextFetch();
  auto others = std::async(std::launch::async, [this] {
    const UniqueFd file(open(Path("a").c_str(), O_RDWR | O_CLOEXEC));
    return file && std::filesystem::file_size(root / "a") == static_cast<std::uintmax_t>(kSize);
  });
  ASSERT_EQ(others.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_TRUE(others.get());
  UpdateOptions options;
  options.identity = "changed meanwhile";
  EXPECT_RESULT(api->Update(Path("a"), options), hr::kOk);
  options.metadata = wire::Metadata{};
  options.metadata->fileSize = 10;
  EXPECT_RESULT(api->Update(Path("a"), options), hr::kInUse);  // guessed
  EXPECT_RESULT(Answer(fetch), hr::kOk);
  EXPECT_EQ(reader.get(), ContentOf("a", kSize));
}

TEST_F(Reading, ARestartDropsWhatTheKernelKeeps) {
  ServeAll();
  const UniqueFd file(open(Path("a").c_str(), O_RDONLY | O_CLOEXEC));
  std::string page(4096, '\0');
  ASSERT_EQ(pread(file.Get(), page.data(), page.size(), 0), 4096);
  EXPECT_EQ(page, ContentOf("a", kSize).substr(0, 4096));
  std::int64_t key = 0;
  ASSERT_RESULT(api->GetTransferKey(Path("a"), key), hr::kOk);
  provider->Serve([](const std::string&) { return ContentOf("second", kSize); });
  ASSERT_RESULT(api->Restart({provider->Key(), key, 0}, std::nullopt, "second"), hr::kOk);
  ASSERT_EQ(pread(file.Get(), page.data(), page.size(), 0), 4096);
  EXPECT_EQ(page, ContentOf("second", kSize).substr(0, 4096));
}

TEST_F(Reading, ExplicitHydrationServesWaitingReadersToo) {
  auto reader = std::async(std::launch::async, [this] { return ReadWhole(root / "a"); });
  const auto fetch = NextFetch();
  auto hydrated = std::async(std::launch::async, [this] {
    ApiClient other(daemon->Endpoint());
    return other.Hydrate(Path("a"));
  });
  EXPECT_RESULT(Answer(fetch), hr::kOk);
  EXPECT_RESULT(hydrated.get(), hr::kOk);
  EXPECT_EQ(reader.get(), ContentOf("a", kSize));
}

TEST_F(Reading, AFileThatWasDeletedWhileOpenStillGetsItsData) {
  const UniqueFd file(open(Path("a").c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(unlink(Path("a").c_str()), 0);
  auto reader = std::async(std::launch::async, [&] {
    std::string content(kSize, '\0');
    std::size_t done = 0;
    for (ssize_t got = 0;
         (got = read(file.Get(), content.data() + done, content.size() - done)) > 0;) {
      done += static_cast<std::size_t>(got);
    }
    content.resize(done);
    return content;
  });
  const auto fetch = NextFetch();
  EXPECT_EQ(fetch.relativePath, "a");
  EXPECT_RESULT(Answer(fetch), hr::kOk);
  EXPECT_EQ(reader.get(), ContentOf("a", kSize));
}

// What an open is that looked the name up before it went, and came to the file after that.
TEST_F(Reading, AFileThatIsDeletedWhileItIsBeingOpenedIsNotThere) {
  const UniqueFd found(open(Path("a").c_str(), O_PATH | O_CLOEXEC));
  ASSERT_EQ(unlink(Path("a").c_str()), 0);
  const auto file = OpenFound(found);
  const auto error = errno;
  EXPECT_FALSE(file);
  EXPECT_EQ(error, ENOENT);
}

TEST_F(Reading, AFileWithAnotherNameIsStillThereWhenOneIsDeletedWhileItIsBeingOpened) {
  std::ofstream(root / "ordinary") << "kept";
  const UniqueFd found(open(Path("ordinary").c_str(), O_PATH | O_CLOEXEC));
  ASSERT_EQ(link(Path("ordinary").c_str(), Path("other").c_str()), 0);
  ASSERT_EQ(unlink(Path("ordinary").c_str()), 0);
  const auto file = OpenFound(found);
  ASSERT_TRUE(file);
  std::string content(4, '\0');
  EXPECT_EQ(read(file.Get(), content.data(), content.size()), 4);
  EXPECT_EQ(content, "kept");
}

TEST_F(Reading, AProgramLearnsItsProcessIdButSeesNoSuchFile) {
  const auto file = Path(wire::kWhoAmIName);
  Program cat({"cat", file});
  const auto ended = cat.Wait();
  ASSERT_TRUE(ended.has_value());
  EXPECT_EQ(ended->output, std::to_string(cat.Id()));
  // A thread learns the number of its process.
  auto fromThread = std::async(std::launch::async, [&] { return ReadWhole(file); });
  EXPECT_EQ(fromThread.get(), std::to_string(getpid()));
  EXPECT_EQ(RunProgram({"ls", "-A"}, root).output, "a\n");
  EXPECT_NE(unlink(file.c_str()), 0);
  EXPECT_NE(rename(file.c_str(), Path("other").c_str()), 0);
}

TEST_F(Reading, StoppingTheDaemonWhileProgramsWaitHangsNobody) {
  Program cat({"cat", Path("a")});
  NextFetch();
  EXPECT_EQ(daemon->Stop(), 0);
  EXPECT_EQ(MountsBelow(), std::vector<std::string>());
  const auto ended = cat.Wait(std::chrono::seconds(5));
  ASSERT_TRUE(ended.has_value());
  EXPECT_NE(ended->exitCode, 0);
}

TEST_F(Reading, UnregisteringWhileProgramsWaitHangsNobody) {
  ASSERT_RESULT(provider->Disconnect(), hr::kOk);
  const UniqueFd file(open(Path("a").c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_RESULT(api->Unregister(root), hr::kOk);
  char byte = 0;
  EXPECT_LT(read(file.Get(), &byte, 1), 0);
  EXPECT_FALSE(std::filesystem::exists(root / "a"));
}

}  // namespace
}  // namespace cloud_filter::test
