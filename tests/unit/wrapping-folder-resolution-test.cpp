#include <windows.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/event-sequence.h"
#include "tests/support/fake-shell-link.h"
#include "tests/unit/explorer-entry-fixture.h"

namespace nimbra_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using LongPathDouble = ImportDouble<"GetLongPathNameW", decltype(&::GetLongPathNameW)>;

constexpr char kRoot[] = R"(C:\Users\me\My Files)";
constexpr wchar_t kShortRoot[] = LR"(C:\Users\me\MYFILE~1)";

class ShortcutResolutionTest : public WrappingFolderFixture {
 protected:
  ShortcutResolutionTest() {
    EXPECT_TRUE(Composer().CreateFolder());
    Add("a.lnk", kShortRoot);
  }

  // Puts a file into the folder that the shell takes for a shortcut to `target`.
  void Add(const std::string& name, const std::wstring& target) {
    appData_.WriteFile(R"(CorvaneDrive\SystemFolders\3\)" + name, "");
    link_.targets[Wide(ShortcutPath(name))] = target;
  }

  // What happened for one of the folder's entries, the releases of its objects left out.
  std::vector<std::string> StepsFor(const std::string& name) {
    std::vector<std::string> steps;
    bool found = false;
    for (const std::string& event : events_.Events()) {
      if (event == "CoCreateInstance") {
        if (found) {
          break;
        }
        steps.clear();
      }
      found = found || event.starts_with("Load " + ShortcutPath(name) + " ");
      if (!event.starts_with("Release ") && !event.starts_with("log: Failed to find")) {
        steps.push_back(event);
      }
    }
    return found ? steps : std::vector<std::string>();
  }
  std::string LoadOf(const std::string& name) const {
    return "Load " + ShortcutPath(name) + " mode 0";
  }
  void ExpectNothingFound() {
    EXPECT_TRUE(Composer().RemoveShortcut(kRoot));
    EXPECT_EQ(events_.Events().back(),
              std::string("log: Failed to find shortcut point to sync root under system folder, "
                          "sync root: ") +
                  kRoot);
    EXPECT_THAT(FolderContent(), ElementsAre("a.lnk"));
    EXPECT_EQ(link_.References(), 0);
  }

  EventSequence events_{log_};
  FakeShellLink link_{events_};
  std::string longForm_ = kRoot;
  // What asking for a long form gives instead of the root's, when set.
  std::optional<DWORD> longResult_;
  LongPathDouble longPath_{[this](auto, LPCWSTR path, LPWSTR longForm, DWORD size) -> DWORD {
    events_.Note("GetLongPathNameW " + Narrow(path) + " size " + std::to_string(size));
    if (longResult_ || path != std::wstring(kShortRoot)) {
      SetLastError(ERROR_FILE_NOT_FOUND);
      return longResult_.value_or(0);
    }
    const std::wstring text = Wide(longForm_);
    lstrcpynW(longForm, text.c_str(), static_cast<int>(size));
    return static_cast<DWORD>(text.size());
  }};
};

TEST_F(ShortcutResolutionTest, TakesTheStepsInTheirOrder) {
  EXPECT_TRUE(Composer().RemoveShortcut(kRoot));

  EXPECT_THAT(StepsFor("a.lnk"),
              ElementsAre("CoCreateInstance", "QueryInterface IPersistFile", LoadOf("a.lnk"),
                          "log: Resolving shortcut: " + ShortcutPath("a.lnk"), "Resolve NULL 1",
                          "GetPath size 260 flags 1",
                          "GetLongPathNameW " + Narrow(kShortRoot) + " size 260",
                          std::string("log: Result: ") + kRoot));
  EXPECT_EQ(link_.References(), 0);
  EXPECT_THAT(FolderContent(), IsEmpty()) << "and it is the one that is deleted";
}

TEST_F(ShortcutResolutionTest, NamesOfAnyAlphabetStandWholeInTheLines) {
  longForm_ = "C:\\Users\\J\u00F6rg\\\u96F2 \U0001F4C1";
  Add("\u96F2.lnk", kShortRoot);
  EXPECT_TRUE(Composer().RemoveShortcut(longForm_));
  // The first that leads there is deleted, and the loop ends with it.
  EXPECT_EQ(StepsFor("a.lnk").back(), "log: Result: " + longForm_);
  EXPECT_TRUE(Composer().RemoveShortcut(longForm_));
  const auto steps = StepsFor("\u96F2.lnk");
  EXPECT_THAT(steps, testing::Contains("log: Resolving shortcut: " + ShortcutPath("\u96F2.lnk")));
  EXPECT_EQ(steps.back(), "log: Result: " + longForm_);
  EXPECT_THAT(FolderContent(), IsEmpty());
}

TEST_F(ShortcutResolutionTest, TheFoldersOwnEntriesAreTriedAndLeadNowhere) {
  EXPECT_TRUE(Composer().RemoveShortcut("D:\\Other"));
  for (const char* name : {".", ".."}) {
    EXPECT_THAT(StepsFor(name),
                ElementsAre("CoCreateInstance", "QueryInterface IPersistFile", LoadOf(name)));
  }
}

TEST_F(ShortcutResolutionTest, EveryEntryIsTriedWhateverItsName) {
  Add("b.txt", L"C:\\B");
  Add("c", L"C:\\C");
  EXPECT_TRUE(Composer().RemoveShortcut("D:\\Other"));
  for (const char* name : {"a.lnk", "b.txt", "c"}) {
    EXPECT_THAT(StepsFor(name), testing::Contains(LoadOf(name)));
  }
}

TEST_F(ShortcutResolutionTest, WhatComesAfterTheMatchIsNotTried) {
  Add("b.lnk", kShortRoot);
  EXPECT_TRUE(Composer().RemoveShortcut(kRoot));
  const auto& events = events_.Events();
  const auto count = std::count_if(events.begin(), events.end(), [](const std::string& event) {
    return event.starts_with("log: Resolving");
  });
  EXPECT_EQ(count, 1);
  EXPECT_THAT(FolderContent(), testing::SizeIs(1));
}

TEST_F(ShortcutResolutionTest, AShortcutWhoseTargetMovedIsFoundWhereItWentTo) {
  Add("a.lnk", L"C:\\Old");
  link_.moved[L"C:\\Old"] = kShortRoot;
  EXPECT_TRUE(Composer().RemoveShortcut(kRoot));
  EXPECT_THAT(FolderContent(), IsEmpty());
}

TEST_F(ShortcutResolutionTest, WithoutAShellLinkNothingIsFound) {
  link_.results.create = REGDB_E_CLASSNOTREG;
  ExpectNothingFound();
  EXPECT_THAT(events_.Events(), testing::Not(testing::Contains("QueryInterface IPersistFile")));
}

TEST_F(ShortcutResolutionTest, ALinkThatCannotBeLoadedFromFilesLeadsNowhere) {
  link_.results.query = E_NOINTERFACE;
  ExpectNothingFound();
  EXPECT_THAT(events_.Events(), testing::Not(testing::Contains(testing::StartsWith("Load"))));
}

TEST_F(ShortcutResolutionTest, AFileThatCannotBeLoadedLeadsNowhere) {
  link_.results.load = STG_E_ACCESSDENIED;
  ExpectNothingFound();
  EXPECT_THAT(StepsFor("a.lnk"),
              ElementsAre("CoCreateInstance", "QueryInterface IPersistFile", LoadOf("a.lnk")));
}

TEST_F(ShortcutResolutionTest, ALinkThatCannotBeResolvedLeadsNowhere) {
  link_.results.resolve = HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
  ExpectNothingFound();
  EXPECT_THAT(StepsFor("a.lnk"),
              ElementsAre("CoCreateInstance", "QueryInterface IPersistFile", LoadOf("a.lnk"),
                          "log: Resolving shortcut: " + ShortcutPath("a.lnk"), "Resolve NULL 1"));
}

TEST_F(ShortcutResolutionTest, ALinkWithoutAPathLeadsNowhere) {
  link_.results.getPath = E_FAIL;
  ExpectNothingFound();
}

TEST_F(ShortcutResolutionTest, APathWithoutALongFormLeadsNowhere) {
  longResult_ = 0;
  ExpectNothingFound();
  EXPECT_THAT(events_.Events(), testing::Contains("log: Result: "));
}

// The length that would be needed comes back, and the buffer as it was.
TEST_F(ShortcutResolutionTest, ALongFormThatDoesNotFitLeadsNowhere) {
  for (const DWORD needed : {260u, 261u, 32768u}) {
    SCOPED_TRACE(needed);
    longResult_ = needed;
    ExpectNothingFound();
  }
}

// "." and ".." lead nowhere as well, and an empty path is none.
TEST_F(ShortcutResolutionTest, NothingLeadsToAnEmptyRoot) {
  link_.targets[Wide(ShortcutPath("a.lnk"))] = L"";
  const ImportDouble<"DeleteFileW", decltype(&::DeleteFileW)> deleted;

  EXPECT_TRUE(Composer().RemoveShortcut(""));

  EXPECT_EQ(deleted.Count(), 0);
  EXPECT_EQ(events_.Events().back(),
            "log: Failed to find shortcut point to sync root under system folder, sync root: ");
}

}  // namespace
}  // namespace nimbra_test
