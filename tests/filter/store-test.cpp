#include "store.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

namespace cloud_filter::test {
namespace {

class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/cloud-filter-store-XXXXXX";
    folder_ = mkdtemp(name);
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }
  [[nodiscard]] std::filesystem::path File() const { return folder_ / "filter.db"; }

 private:
  std::filesystem::path folder_;
};

RootRecord SomeRoot() {
  RootRecord root;
  root.path = "/somewhere/root";
  root.providerName = "Provider \xC3\xA9";
  root.providerVersion = "2";
  root.identity = std::string("with\0zero", 9);
  root.providerId = std::string(16, '\x7F');
  root.policies = {2, 4, 3, 0, 0x80000101U, 1, 7};
  root.flags = 6;
  return root;
}

ItemRecord SomeItem(std::int64_t rootId, ino_t inode) {
  ItemRecord item;
  item.rootId = rootId;
  item.inode = inode;
  item.birthTime = 1234567890123456789;
  item.identity = std::string("i\0d", 3);
  item.creationTime = 131'000'000'000'000'000;
  item.changeTime = 132'000'000'000'000'000;
  item.attributes = 0x27;
  item.pin = PinState::kUnpinned;
  item.inSync = true;
  item.alwaysFull = true;
  item.populated = false;
  item.present.Add({0, 4096});
  item.validated.Add({0, 8});
  item.modified.Add({100, 200});
  item.usn = 77;
  return item;
}

TEST_F(StoreTest, KeepsRootsAndItemsOverReopening) {
  auto root = SomeRoot();
  {
    Store store(File());
    store.SaveRoot(root);
    store.SaveItem(SomeItem(root.id, 42));
  }
  Store store(File());
  const auto roots = store.Roots();
  ASSERT_EQ(roots.size(), 1U);
  EXPECT_EQ(roots[0].path, root.path);
  EXPECT_EQ(roots[0].providerName, root.providerName);
  EXPECT_EQ(roots[0].identity, root.identity);
  EXPECT_EQ(roots[0].providerId, root.providerId);
  EXPECT_EQ(roots[0].policies.inSync, root.policies.inSync);
  EXPECT_EQ(roots[0].policies.hydrationModifier, root.policies.hydrationModifier);
  EXPECT_EQ(roots[0].flags, root.flags);
  const auto item = store.FindItem(root.id, 42);
  ASSERT_TRUE(item.has_value());
  const auto expected = SomeItem(root.id, 42);
  EXPECT_EQ(item->identity, expected.identity);
  EXPECT_EQ(item->birthTime, expected.birthTime);
  EXPECT_EQ(item->present, expected.present);
  EXPECT_EQ(item->validated, expected.validated);
  EXPECT_EQ(item->modified, expected.modified);
  EXPECT_EQ(item->pin, expected.pin);
  EXPECT_TRUE(item->inSync);
  EXPECT_TRUE(item->alwaysFull);
  EXPECT_FALSE(item->populated);
  EXPECT_FALSE(item->full);
  EXPECT_EQ(store.HighestUsn(), 77);
}

TEST_F(StoreTest, SavingARootAgainKeepsItsId) {
  Store store(File());
  auto root = SomeRoot();
  store.SaveRoot(root);
  auto again = SomeRoot();
  again.providerName = "Other";
  store.SaveRoot(again);
  EXPECT_EQ(again.id, root.id);
  ASSERT_EQ(store.Roots().size(), 1U);
  EXPECT_EQ(store.Roots()[0].providerName, "Other");
}

TEST_F(StoreTest, RemovingARootRemovesItsItemsOnly) {
  Store store(File());
  auto root = SomeRoot();
  auto other = SomeRoot();
  other.path = "/other";
  store.SaveRoot(root);
  store.SaveRoot(other);
  store.SaveItem(SomeItem(root.id, 1));
  store.SaveItem(SomeItem(other.id, 1));
  store.RemoveRoot(root.id);
  EXPECT_FALSE(store.FindItem(root.id, 1).has_value());
  EXPECT_TRUE(store.FindItem(other.id, 1).has_value());
  EXPECT_EQ(store.CountItems(other.id), 1);
}

TEST_F(StoreTest, ATransactionThatIsNotCommittedLeavesNothing) {
  Store store(File());
  {
    Store::Transaction transaction(store);
    store.SaveItem(SomeItem(1, 5));
  }
  EXPECT_FALSE(store.FindItem(1, 5).has_value());
  {
    Store::Transaction transaction(store);
    store.SaveItem(SomeItem(1, 5));
    transaction.Commit();
  }
  EXPECT_TRUE(store.FindItem(1, 5).has_value());
}

TEST_F(StoreTest, WhatWasSavedSurvivesAProcessThatIsKilled) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const auto writer = fork();
  if (writer == 0) {
    Store store(File());
    for (ino_t inode = 1;; ++inode) {
      store.SaveItem(SomeItem(1, inode));
      const auto number = static_cast<std::int64_t>(inode);
      if (write(ready[1], &number, sizeof number) != sizeof number) _exit(1);
    }
  }
  std::int64_t last = 0;
  while (last < 200) ASSERT_EQ(read(ready[0], &last, sizeof last), ssize_t{sizeof last});
  kill(writer, SIGKILL);
  waitpid(writer, nullptr, 0);
  close(ready[0]);
  close(ready[1]);
  Store store(File());
  for (std::int64_t inode = 1; inode <= last; ++inode) {
    ASSERT_TRUE(store.FindItem(1, static_cast<ino_t>(inode)).has_value()) << inode;
  }
}

TEST_F(StoreTest, RefusesAFileThatIsNoDatabase) {
  FILE* file = fopen(File().c_str(), "w");
  for (int i = 0; i < 1000; ++i) fputs("this is not a database\n", file);
  fclose(file);
  EXPECT_THROW(Store store(File()), StoreError);
}

}  // namespace
}  // namespace cloud_filter::test
