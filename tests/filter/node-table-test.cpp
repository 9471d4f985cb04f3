#include "node-table.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

namespace cloud_filter::test {
namespace {

constexpr std::size_t kLimit = 2;

class NodeTableTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/cloud-filter-nodes-XXXXXX";
    folder_ = mkdtemp(name);
    struct stat facts {};
    ASSERT_EQ(stat(folder_.c_str(), &facts), 0);
    table_ = std::make_unique<NodeTable>(
        UniqueFd(open(folder_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)), facts.st_ino, kLimit);
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  void MakeFile(const std::string& name) { std::ofstream(folder_ / name) << name; }
  struct stat FactsOf(const std::string& name) {
    struct stat facts {};
    EXPECT_EQ(lstat((folder_ / name).c_str(), &facts), 0);
    return facts;
  }
  // As a look-up of the kernel.
  Node& LookUp(Node& folder, const std::string& path) {
    const auto facts = FactsOf(path);
    UniqueFd reference(open((folder_ / path).c_str(), O_PATH | O_CLOEXEC));
    const auto name = std::filesystem::path(path).filename();
    return *table_->Intern(folder, name.c_str(), std::move(reference), facts);
  }
  // Makes the table give up what it holds.
  void Crowd() {
    for (const auto* name : {"crowd1", "crowd2", "crowd3"}) {
      MakeFile(name);
      LookUp(table_->Root(), name);
    }
  }
  ino_t InodeOf(const Reference& reference) {
    struct stat facts {};
    return reference != nullptr && fstat(reference->Get(), &facts) == 0 ? facts.st_ino : 0;
  }

  std::filesystem::path folder_;
  std::unique_ptr<NodeTable> table_;
};

TEST_F(NodeTableTest, TheSameFileIsTheSameNode) {
  MakeFile("a");
  auto& first = LookUp(table_->Root(), "a");
  EXPECT_EQ(&LookUp(table_->Root(), "a"), &first);
  EXPECT_EQ(table_->Find(first.inode), &first);
  table_->Forget(first, 1);
  EXPECT_NE(table_->Find(FactsOf("a").st_ino), nullptr);
  table_->Forget(first, 1);
  EXPECT_EQ(table_->Find(FactsOf("a").st_ino), nullptr);
}

TEST_F(NodeTableTest, AGivenUpFileIsOpenedAgainByName) {
  std::filesystem::create_directory(folder_ / "d");
  MakeFile("d/a");
  auto& folder = LookUp(table_->Root(), "d");
  auto& file = LookUp(folder, "d/a");
  Crowd();
  EXPECT_EQ(InodeOf(table_->Open(file)), file.inode);
}

TEST_F(NodeTableTest, AMovedFolderLeadsToItsFiles) {
  std::filesystem::create_directory(folder_ / "d");
  MakeFile("d/a");
  auto& folder = LookUp(table_->Root(), "d");
  auto& file = LookUp(folder, "d/a");
  Crowd();
  std::filesystem::rename(folder_ / "d", folder_ / "e");
  EXPECT_EQ(table_->Open(file), nullptr);
  EXPECT_EQ(errno, ENOENT);
  table_->Moved(FactsOf("e"), table_->Root(), "e");
  EXPECT_EQ(InodeOf(table_->Open(file)), file.inode);
}

TEST_F(NodeTableTest, AnotherFileOfTheNameIsNotMistakenForIt) {
  MakeFile("a");
  MakeFile("b");
  auto& file = LookUp(table_->Root(), "a");
  Crowd();
  std::filesystem::rename(folder_ / "b", folder_ / "a");
  EXPECT_EQ(table_->Open(file), nullptr);
  EXPECT_EQ(errno, ESTALE);
}

TEST_F(NodeTableTest, AnUnlinkedFileIsKept) {
  MakeFile("a");
  auto& file = LookUp(table_->Root(), "a");
  const auto facts = FactsOf("a");
  const auto reference = table_->Open(file);
  std::filesystem::remove(folder_ / "a");
  table_->Unlinked(facts, reference);
  Crowd();
  EXPECT_EQ(InodeOf(table_->Open(file)), facts.st_ino);
}

TEST_F(NodeTableTest, AForgottenFolderStaysWhileItsFilesAreKnown) {
  std::filesystem::create_directory(folder_ / "d");
  MakeFile("d/a");
  auto& folder = LookUp(table_->Root(), "d");
  auto& file = LookUp(folder, "d/a");
  table_->Forget(folder, 1);
  Crowd();
  EXPECT_EQ(InodeOf(table_->Open(file)), file.inode);
  table_->Forget(file, 1);
  EXPECT_EQ(table_->Find(FactsOf("d").st_ino), nullptr);
}

}  // namespace
}  // namespace cloud_filter::test
