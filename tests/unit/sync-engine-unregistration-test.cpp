#include <windows.h>
// windows.h first.
#include <shlwapi.h>

#include <string>
#include <vector>

#include "tests/support/registry-watch.h"
#include "tests/unit/explorer-entry-fixture.h"

namespace nimbra_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kExplorer[] = R"(Software\Microsoft\Windows\CurrentVersion\Explorer\)";
const std::string kNameSpaceKey = std::string(kExplorer) + R"(Desktop\NameSpace)";
const std::string kHiddenKey = std::string(kExplorer) + R"(HideDesktopIcons\NewStartPanel)";

// The calls that open a key or delete something, as text.
std::vector<std::string> Deletions(const RegistryWatch& registry) {
  std::vector<std::string> calls;
  for (const RegistryCall& call : registry.Calls()) {
    const std::string name = call.name ? Narrow(*call.name) : "NULL";
    if (call.function == RegistryFunction::CreateKey) {
      calls.push_back((call.key == HKEY_CURRENT_USER ? "open HKCU " : "open elsewhere ") + name);
    } else if (call.function == RegistryFunction::DeleteTree) {
      calls.push_back("delete tree " + name);
    } else if (call.function == RegistryFunction::DeleteValue) {
      calls.push_back("delete value " + name);
    } else if (call.function == RegistryFunction::SetValue) {
      calls.push_back("set " + name);
    }
  }
  return calls;
}

class EntryRemovalTest : public ExplorerEntryFixture {
 protected:
  EntryRemovalTest() {
    first_ = Entry(appData_.MakeFolder("First"), "/first");
    second_ = Entry(appData_.MakeFolder("Second"), "/second");
  }

  std::string ClassPath() const { return R"(Software\Classes\CLSID\)" + clsid_; }
  std::vector<std::string> AllDeletions() const {
    return {"open HKCU " + ClassPath(), "delete tree NULL",        "open HKCU " + kNameSpaceKey,
            "delete tree " + clsid_,    "open HKCU " + kHiddenKey, "delete value " + clsid_};
  }
  void Add(const EntryArguments& entry) {
    ASSERT_EQ(Register(entry), 0);
    log_.Clear();
  }
  void ExpectEmptyClassKey() const {
    EXPECT_TRUE(keys_.classKey.Exists());
    EXPECT_THAT(keys_.classKey.ValueNames(), IsEmpty());
    EXPECT_THAT(keys_.classKey.SubkeyNames(), IsEmpty());
  }
  void ExpectWholeEntry() const {
    EXPECT_EQ(keys_.classKey.ValueNames().size(), 3u);
    EXPECT_EQ(keys_.classKey.SubkeyNames().size(), 4u);
    EXPECT_TRUE(keys_.nameSpaceKey.Exists());
    EXPECT_TRUE(keys_.IsHidden());
  }

  EntryArguments first_;
  EntryArguments second_;
};

TEST_F(EntryRemovalTest, TheLastRootTakesTheEntryWithItAndLeavesAnEmptyClassKey) {
  const Snapshot before = RegistrySnapshot();
  Add(first_);

  EXPECT_EQ(Unregister(first_), 0);

  ExpectEmptyClassKey();
  EXPECT_THAT(Changes(before, RegistrySnapshot()), ElementsAre("+ " + ClassPath()));
  EXPECT_THAT(FolderContent(), IsEmpty());
  EXPECT_TRUE(IsFolder(FolderPath()));
}

TEST_F(EntryRemovalTest, TakesTheStepsInTheirOrder) {
  Add(first_);
  std::string tested;
  const RegistryWatch registry;
  const ImportDouble<"PathIsDirectoryEmptyW", decltype(&::PathIsDirectoryEmptyW)> empty(
      [&](auto original, LPCWSTR path) {
        tested = Narrow(path);
        EXPECT_FALSE(IsFile(ShortcutPath("first.lnk"))) << "the shortcut goes first";
        EXPECT_THAT(registry.Calls(), IsEmpty()) << "the registry's part comes last";
        return original(path);
      });

  EXPECT_EQ(Unregister(first_), 0);

  EXPECT_EQ(empty.Count(), 1);
  EXPECT_EQ(tested, FolderPath());
  EXPECT_EQ(Deletions(registry), AllDeletions());
  EXPECT_EQ(registry.StillOpen(), 0);
  EXPECT_THAT(log_.Lines(),
              ElementsAre(IsLogLine(kWrappingFolderSource,
                                    "Resolving shortcut: " + ShortcutPath("first.lnk")),
                          IsLogLine(kWrappingFolderSource, "Result: " + first_.root)));
}

TEST_F(EntryRemovalTest, OneOfTwoRootsTakesOnlyItsShortcut) {
  Add(first_);
  Add(second_);
  const Snapshot before = RegistrySnapshot();
  {
    const RegistryWatch registry;
    EXPECT_EQ(Unregister(first_), 0);
    EXPECT_THAT(registry.Calls(), IsEmpty());
  }
  EXPECT_THAT(Changes(before, RegistrySnapshot()), IsEmpty());
  ExpectWholeEntry();
  EXPECT_THAT(FolderContent(), ElementsAre("second.lnk"));

  EXPECT_EQ(Unregister(second_), 0);

  ExpectEmptyClassKey();
  EXPECT_FALSE(keys_.nameSpaceKey.Exists());
  EXPECT_FALSE(keys_.IsHidden());
  EXPECT_THAT(FolderContent(), IsEmpty());
}

TEST_F(EntryRemovalTest, AForeignFileInTheFolderKeepsTheEntry) {
  Add(first_);
  appData_.WriteFile(R"(CorvaneDrive\SystemFolders\3\theirs.txt)", "content");

  EXPECT_EQ(Unregister(first_), 0);

  ExpectWholeEntry();
  EXPECT_THAT(FolderContent(), ElementsAre("theirs.txt"));
}

TEST_F(EntryRemovalTest, AShortcutThatCannotBeDeletedKeepsTheEntryAndIsNoFailure) {
  Add(first_);
  ImportDouble<"DeleteFileW", decltype(&::DeleteFileW)> deleted;
  deleted.FailCall(1, FALSE, ERROR_SHARING_VIOLATION);

  EXPECT_EQ(Unregister(first_), 0);

  ExpectWholeEntry();
  EXPECT_THAT(log_.Lines(), testing::Contains(IsLogLine(
                                kWrappingFolderSource, "Failed to remove shortcut by deletefile: " +
                                                           ShortcutPath("first.lnk"))));
}

TEST_F(EntryRemovalTest, ARootWithoutAShortcutIsNoFailureWhileOthersStay) {
  Add(first_);
  EXPECT_EQ(Unregister(second_), 0);
  ExpectWholeEntry();
  EXPECT_THAT(log_.Lines().back(),
              IsLogLine(kWrappingFolderSource,
                        "Failed to find shortcut point to sync root under system folder, "
                        "sync root: " +
                            second_.root));
}

TEST_F(EntryRemovalTest, ARootWhoseShortcutIsGoneTakesTheEntryWithIt) {
  Add(first_);
  ASSERT_TRUE(DeleteFileW(Wide(ShortcutPath("first.lnk")).c_str()));
  EXPECT_EQ(Unregister(first_), 0);
  ExpectEmptyClassKey();
  EXPECT_FALSE(keys_.nameSpaceKey.Exists());
}

// A folder that is not there is not an empty one.
TEST_F(EntryRemovalTest, WithoutTheFolderTheEntryStaysAndThatIsNoFailure) {
  Add(first_);
  ASSERT_TRUE(DeleteFileW(Wide(ShortcutPath("first.lnk")).c_str()));
  ASSERT_TRUE(RemoveDirectoryW(Wide(FolderPath()).c_str()));
  const RegistryWatch registry;

  EXPECT_EQ(Unregister(first_), 0);

  EXPECT_THAT(registry.Calls(), IsEmpty());
  ExpectWholeEntry();
  EXPECT_FALSE(IsFolder(FolderPath())) << "and it is not made again";
}

TEST_F(EntryRemovalTest, WithoutADataFolderTheEntryStays) {
  Add(first_);
  folders_.Remove(CSIDL_LOCAL_APPDATA);
  const RegistryWatch registry;
  const ImportDouble<"PathIsDirectoryEmptyW", decltype(&::PathIsDirectoryEmptyW)> empty(
      [](auto original, LPCWSTR path) {
        EXPECT_STREQ(path, L"");
        return original(path);
      });

  EXPECT_EQ(Unregister(first_), 0);

  EXPECT_EQ(empty.Count(), 1);
  EXPECT_THAT(registry.Calls(), IsEmpty());
  ExpectWholeEntry();
}

TEST_F(EntryRemovalTest, AnEntryThatWasNeverThereFailsAtItsNameAndLeavesAnEmptyClassKey) {
  EntryArguments entry = first_;
  ASSERT_TRUE(Composer().CreateFolder());
  const Snapshot before = RegistrySnapshot();
  const RegistryWatch registry;

  EXPECT_EQ(Unregister(entry), -1);

  EXPECT_THAT(Deletions(registry),
              ElementsAre("open HKCU " + ClassPath(), "delete tree NULL",
                          "open HKCU " + kNameSpaceKey, "delete tree " + clsid_));
  EXPECT_THAT(Changes(before, RegistrySnapshot()), ElementsAre("+ " + ClassPath()));
  EXPECT_THAT(log_.Lines().back(),
              IsLogLine(kRegistryKeySource,
                        "Failed to RegDeleteTree, key=" + kNameSpaceKey + " hr=-2147024894"));
}

// The three steps of an entry's removal, each of which can fail in two ways.
struct FailureRow {
  const char* name;
  RegistryFunction function;
  int call;
  // How many of AllDeletions are made, the failing one included.
  std::size_t made;
  std::string line;
};

class EntryRemovalFailureTest : public EntryRemovalTest {
 protected:
  std::vector<FailureRow> Rows() const {
    const std::string denied = " hr=-2147024891";
    const std::string tree = "Failed to RegDeleteTree, key=";
    return {
        {"class key not opened", RegistryFunction::CreateKey, 1, 1, "reg is not good "},
        {"class key not emptied", RegistryFunction::DeleteTree, 1, 2, tree + ClassPath() + denied},
        {"names not opened", RegistryFunction::CreateKey, 2, 3, "reg is not good "},
        {"name not deleted", RegistryFunction::DeleteTree, 2, 4, tree + kNameSpaceKey + denied},
        // A value of a key that is not open is not logged.
        {"icons not opened", RegistryFunction::CreateKey, 3, 5, ""},
        {"icon not deleted", RegistryFunction::DeleteValue, 1, 6,
         "Failed to RegDeleteValue, key=" + kHiddenKey + " value=" + clsid_ + denied},
    };
  }

  // Has each step fail in turn while `remove` runs on a registered entry.
  template <typename Remove>
  void ExpectFailures(Remove remove) {
    for (const FailureRow& row : Rows()) {
      SCOPED_TRACE(row.name);
      const EntryKeys cleared(clsid_);
      Add(first_);
      RegistryWatch registry;
      registry.FailCall(row.function, row.call, ERROR_ACCESS_DENIED);

      EXPECT_EQ(remove(), -1);

      auto made = AllDeletions();
      made.resize(row.made);
      EXPECT_EQ(Deletions(registry), made);
      EXPECT_EQ(registry.StillOpen(), 0);
      EXPECT_EQ(keys_.classKey.ValueNames().empty(), row.made > 2);
      EXPECT_EQ(keys_.nameSpaceKey.Exists(), row.made <= 4);
      EXPECT_TRUE(keys_.IsHidden()) << "the last step never succeeds here";
      ExpectLines(row.line);
    }
  }

 private:
  void ExpectLines(const std::string& message) const {
    std::vector<std::string> lines;
    for (const std::string& line : log_.Lines()) {
      if (!line.starts_with(kWrappingFolderSource)) {
        lines.push_back(line);
      }
    }
    if (message.empty()) {
      EXPECT_THAT(lines, IsEmpty());
    } else {
      EXPECT_THAT(lines, ElementsAre(IsLogLine(kRegistryKeySource, message)));
    }
  }
};

TEST_F(EntryRemovalFailureTest, UnregisteringStopsAtTheStepThatFails) {
  ExpectFailures([this] { return Unregister(first_); });
}

TEST_F(EntryRemovalFailureTest, RemovingTheEntryAloneStopsAtTheStepThatFails) {
  ExpectFailures([this] { return CORVWinCFSyncEngineUnregisterSystemFolder(clsid_.c_str()); });
}

TEST_F(EntryRemovalTest, RemovingTheEntryAloneLeavesTheFolderAndItsShortcuts) {
  const Snapshot before = RegistrySnapshot();
  Add(first_);
  Add(second_);
  const Snapshot files = FolderSnapshot(appData_.Path());
  const RegistryWatch registry;
  const ImportDouble<"CoCreateInstance", decltype(&::CoCreateInstance)> link;

  EXPECT_EQ(CORVWinCFSyncEngineUnregisterSystemFolder(clsid_.c_str()), 0);

  EXPECT_EQ(Deletions(registry), AllDeletions());
  EXPECT_THAT(Changes(before, RegistrySnapshot()), ElementsAre("+ " + ClassPath()));
  ExpectEmptyClassKey();
  EXPECT_THAT(Changes(files, FolderSnapshot(appData_.Path())), IsEmpty());
  EXPECT_EQ(link.Count(), 0);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(EntryRemovalTest, RemovingTheEntryAloneASecondTimeFails) {
  Add(first_);
  EXPECT_EQ(CORVWinCFSyncEngineUnregisterSystemFolder(clsid_.c_str()), 0);
  EXPECT_EQ(CORVWinCFSyncEngineUnregisterSystemFolder(clsid_.c_str()), -1);
  EXPECT_THAT(log_.Lines(),
              ElementsAre(IsLogLine(kRegistryKeySource, "Failed to RegDeleteTree, key=" +
                                                            kNameSpaceKey + " hr=-2147024894")));
  ExpectEmptyClassKey();
}

TEST_F(EntryRemovalTest, OtherEntriesStayWhole) {
  EntryArguments other = second_;
  other.clsid = NextClsid();
  other.systemFolder = 4;
  const EntryKeys otherKeys(other.clsid);
  Add(first_);
  const Snapshot before = RegistrySnapshot();
  Add(other);
  const Snapshot withOther = RegistrySnapshot();

  EXPECT_EQ(Unregister(first_), 0);

  EXPECT_EQ(otherKeys.classKey.SubkeyNames().size(), 4u);
  EXPECT_TRUE(otherKeys.nameSpaceKey.Exists());
  EXPECT_TRUE(otherKeys.IsHidden());
  for (const std::string& change : Changes(withOther, RegistrySnapshot())) {
    EXPECT_THAT(change, testing::HasSubstr(clsid_));
  }
  EXPECT_FALSE(Changes(before, withOther).empty());
}

}  // namespace
}  // namespace nimbra_test
