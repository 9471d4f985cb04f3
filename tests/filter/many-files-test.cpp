#include <fcntl.h>
#include <unistd.h>

#include "filter-fixture.h"

namespace cloud_filter::test {
namespace {

constexpr int kFiles = 1000;
constexpr std::size_t kSize = 5000;

std::string NameOf(int number) { return "file-" + std::to_string(number); }

// Many more files than the daemon may have open.
class ManyFiles : public MountedTest {
 protected:
  void SetUp() override {
    MountedTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    api.reset();
    ASSERT_EQ(daemon->Stop(), 0);
    daemon->LimitOpenFiles(200);
    StartDaemon();
    MakeRoot();
    ConnectProvider();
    provider->Serve([](const std::string& path) {
      return ContentOf(std::filesystem::path(path).filename(), kSize);
    });
    ASSERT_RESULT(api->Create(root, {FolderEntry("d"), FolderEntry("e")}), hr::kOk);
    ASSERT_RESULT(api->Create(root / "d", {FolderEntry("sub")}), hr::kOk);
    std::vector<wire::CreateEntry> entries;
    for (int i = 0; i < kFiles; ++i) entries.push_back(FileEntry(NameOf(i), kSize));
    ASSERT_RESULT(api->Create(root / "d/sub", entries), hr::kOk);
  }
};

TEST_F(ManyFiles, AreListedAndRead) {
  const auto listed = RunProgram({"ls", "-l", Path("d/sub")});
  EXPECT_EQ(listed.exitCode, 0) << listed.errors;
  for (int i = 0; i < kFiles; ++i) {
    ASSERT_EQ(ReadWhole(root / "d/sub" / NameOf(i)), ContentOf(NameOf(i), kSize)) << i;
  }
  for (int i = 0; i < kFiles; i += 37) {
    EXPECT_EQ(InfoOf("d/sub/" + NameOf(i)).onDiskDataSize, static_cast<std::int64_t>(kSize));
  }
}

TEST_F(ManyFiles, AreFoundAgainAfterTheirFolderMoved) {
  ASSERT_EQ(RunProgram({"ls", "-l", Path("d/sub")}).exitCode, 0);
  const UniqueFd open0(open(Path("d/sub/" + NameOf(0)).c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(rename(Path("d/sub").c_str(), Path("e/moved").c_str()), 0);
  for (int i = 0; i < kFiles; ++i) {
    ASSERT_EQ(ReadWhole(root / "e/moved" / NameOf(i)), ContentOf(NameOf(i), kSize)) << i;
  }
  std::string page(4096, '\0');
  EXPECT_EQ(pread(open0.Get(), page.data(), page.size(), 0), 4096);
  EXPECT_EQ(page, ContentOf(NameOf(0), kSize).substr(0, 4096));
}

TEST_F(ManyFiles, AreHydratedAndRemoved) {
  for (int i = 0; i < kFiles; ++i) {
    ASSERT_RESULT(api->Hydrate(Path("d/sub/" + NameOf(i))), hr::kOk) << i;
  }
  const auto removed = RunProgram({"rm", "-r", Path("d")});
  EXPECT_EQ(removed.exitCode, 0) << removed.errors;
  EXPECT_FALSE(std::filesystem::exists(Path("d")));
}

}  // namespace
}  // namespace cloud_filter::test
