#include <fcntl.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "filter-fixture.h"

namespace cloud_filter::test {
namespace {

// Clients that name a sync root by way of links, as Wine's drives are.
class Links : public MountedTest {
 protected:
  void SetUp() override {
    MountedTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    MakeRoot();
    ASSERT_RESULT(api->Create(root, {FolderEntry("d")}), hr::kOk);
    ASSERT_RESULT(api->Create(root / "d", {FileEntry("a", 1)}), hr::kOk);
    std::filesystem::create_directory(folder / "links");
  }
  std::filesystem::path Link(const std::string& name, const std::filesystem::path& target) {
    auto link = folder / "links" / name;
    std::filesystem::create_symlink(target, link);
    return link;
  }
  Hresult Ask(const std::filesystem::path& path) {
    wire::PlaceholderInfo info;
    return api->GetInfo(path, info);
  }
};

TEST_F(Links, OnTheWayToARootAreFollowed) {
  const auto name = root.filename();
  EXPECT_RESULT(Ask(Link("absolute", folder) / name / "d/a"), hr::kOk);
  EXPECT_RESULT(Ask(Link("relative", "..") / name / "d/a"), hr::kOk);
  EXPECT_RESULT(Ask(Link("of-link", "relative") / name / "d/a"), hr::kOk);
  EXPECT_RESULT(Ask(Link("root", root) / "d/a"), hr::kOk);
  EXPECT_RESULT(Ask(folder / "links/.." / name / "d/a"), hr::kOk);
  EXPECT_RESULT(Ask(folder / "links/relative/./links/absolute" / name / "d/../d/a"), hr::kOk);
}

TEST_F(Links, ThatLeadNowhereLeadToNoRoot) {
  Link("one", "two");
  const auto round = Link("two", "one");
  EXPECT_RESULT(Ask(round / "d/a"), hr::kNotUnderSyncRoot);
  EXPECT_RESULT(Ask(Link("dangling", folder / "missing") / "a"), hr::kNotUnderSyncRoot);
  std::ofstream(folder / "file") << "content";
  EXPECT_RESULT(Ask(Link("file", folder / "file") / "a"), hr::kNotUnderSyncRoot);
  EXPECT_RESULT(Ask(Link("elsewhere", "/tmp") / "a"), hr::kNotUnderSyncRoot);
  EXPECT_RESULT(Ask(Link("out", root) / "d/../../a"), hr::kNotUnderSyncRoot);
}

// The filter must not ask the kernel for what lies in the mount while programs wait for the filter.
TEST_F(Links, AreFollowedWhileProgramsUseTheFolder) {
  constexpr int kPrograms = 8;
  constexpr int kQuestions = 10'000;
  const auto linked = Link("top", folder) / root.filename() / "d";
  std::atomic<bool> isOver = false;
  std::vector<std::thread> programs;
  for (int i = 0; i < kPrograms; ++i) {
    programs.emplace_back([this, &isOver] {
      while (!isOver) {
        std::vector<UniqueFd> files;
        for (int k = 0; k < 8; ++k)
          files.emplace_back(open(Path("d/a").c_str(), O_RDONLY | O_CLOEXEC));
      }
    });
  }
  std::thread creator([this, &isOver] {
    ApiClient client(daemon->Endpoint());
    for (int i = 0; !isOver; ++i) {
      EXPECT_RESULT(client.Create(root / "d", {FileEntry("new" + std::to_string(i), 1)}), hr::kOk);
    }
  });
  for (int i = 0; i < kQuestions; ++i) EXPECT_RESULT(Ask(linked / "a"), hr::kOk);
  isOver = true;
  for (auto& program : programs) program.join();
  creator.join();
}

}  // namespace
}  // namespace cloud_filter::test
