#include <windows.h>

#include <string>
#include <vector>

#include "tests/support/shortcut-file.h"
#include "tests/unit/explorer-entry-fixture.h"

namespace nimbra_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string kNotFound =
    "Failed to find shortcut point to sync root under system folder, sync root: ";
const std::string kNoListing = "Failed to enum shortcuts under wrapping folder";

using DeleteDouble = ImportDouble<"DeleteFileW", decltype(&::DeleteFileW)>;
using FindDouble = ImportDouble<"FindFirstFileW", decltype(&::FindFirstFileW)>;
using FindNextDouble = ImportDouble<"FindNextFileW", decltype(&::FindNextFileW)>;
using CloseDouble = ImportDouble<"FindClose", decltype(&::FindClose)>;

class ShortcutRemovalTest : public WrappingFolderFixture {
 protected:
  ShortcutRemovalTest() { EXPECT_TRUE(Composer().CreateFolder()); }

  void Create(const std::string& root, const std::string& remotePath = "/") {
    ASSERT_TRUE(Composer("home", remotePath).CreateShortcut(root));
    log_.Clear();
  }
  bool Remove(const std::string& root) { return Composer().RemoveShortcut(root); }
  void ExpectNotFound(const std::string& root) {
    ASSERT_FALSE(log_.Lines().empty());
    EXPECT_THAT(log_.Lines().back(), IsLogLine(kWrappingFolderSource, kNotFound + root));
  }
  // The lines of one shortcut's resolution.
  std::vector<testing::Matcher<const std::string&>> Resolution(const std::string& name,
                                                               const std::string& target) const {
    return {IsLogLine(kWrappingFolderSource, "Resolving shortcut: " + ShortcutPath(name)),
            IsLogLine(kWrappingFolderSource, "Result: " + target)};
  }

  const std::string root_ = appData_.MakeFolder("Root");
  const std::string otherRoot_ = appData_.MakeFolder("Other");
};

TEST_F(ShortcutRemovalTest, DeletesTheShortcutThatLeadsToTheRoot) {
  Create(root_);
  const DeleteDouble deleted([&](DeleteDouble::Function original, LPCWSTR path) {
    EXPECT_EQ(Narrow(path), ShortcutPath("My Drive.lnk"));
    return original(path);
  });

  EXPECT_TRUE(Remove(root_));

  EXPECT_EQ(deleted.Count(), 1);
  EXPECT_THAT(FolderContent(), IsEmpty());
  EXPECT_THAT(log_.Lines(), testing::ElementsAreArray(Resolution("My Drive.lnk", root_)));
  EXPECT_TRUE(IsFolder(FolderPath())) << "the folder stays";
  EXPECT_TRUE(IsFolder(root_)) << "and so does the root";
}

TEST_F(ShortcutRemovalTest, LeavesTheShortcutsOfOtherRoots) {
  Create(otherRoot_, "/a");
  Create(root_, "/b");

  EXPECT_TRUE(Remove(root_));

  EXPECT_THAT(FolderContent(), ElementsAre("a.lnk"));
}

TEST_F(ShortcutRemovalTest, TheNameAndTheOtherSettingsDoNotMatter) {
  Create(root_, "/some name");
  EXPECT_TRUE(corvdrive::cloud_filter::WrappingFolderComposer(3, "", "other", "/another")
                  .RemoveShortcut(root_));
  EXPECT_THAT(FolderContent(), IsEmpty());
}

TEST_F(ShortcutRemovalTest, OnlyTheNumbersOwnFolderIsSearched) {
  Create(root_);
  ASSERT_TRUE(Composer("home", "/", 4).CreateFolder());

  EXPECT_TRUE(Composer("home", "/", 4).RemoveShortcut(root_));

  ExpectNotFound(root_);
  EXPECT_THAT(FolderContent(), ElementsAre("My Drive.lnk"));
}

TEST_F(ShortcutRemovalTest, ARootWithoutAShortcutIsReportedAndNoFailure) {
  const DeleteDouble deleted;

  EXPECT_TRUE(Remove(root_));

  EXPECT_THAT(log_.Lines(), ElementsAre(IsLogLine(kWrappingFolderSource, kNotFound + root_)));
  EXPECT_EQ(deleted.Count(), 0);
}

TEST_F(ShortcutRemovalTest, PathsAreComparedExactly) {
  Create(root_);
  const std::string others[] = {appData_.Item("ROOT"),
                                appData_.Item("root"),
                                root_ + "\\",
                                root_ + "x",
                                appData_.Item("Roo"),
                                appData_.Utf8(),
                                root_.substr(1),
                                "",
                                appData_.ItemWithSlashes("Root")};
  for (const std::string& other : others) {
    SCOPED_TRACE(other);
    EXPECT_TRUE(Remove(other));
    ExpectNotFound(other);
  }
  EXPECT_THAT(FolderContent(), ElementsAre("My Drive.lnk"));
}

TEST_F(ShortcutRemovalTest, ARootGivenInItsShortFormMatchesNothing) {
  const std::string longRoot = appData_.MakeFolder("A rather long name of a root");
  Create(longRoot);
  wchar_t shortForm[MAX_PATH];
  ASSERT_GT(GetShortPathNameW(Wide(longRoot).c_str(), shortForm, MAX_PATH), 0u);
  ASSERT_NE(Narrow(shortForm), longRoot);

  EXPECT_TRUE(Remove(Narrow(shortForm)));

  ExpectNotFound(Narrow(shortForm));
  EXPECT_THAT(FolderContent(), ElementsAre("My Drive.lnk"));
}

TEST_F(ShortcutRemovalTest, AShortcutMadeWithTheShortFormIsFoundByTheLongOne) {
  const std::string longRoot = appData_.MakeFolder("A rather long name of a root");
  wchar_t shortForm[MAX_PATH];
  ASSERT_GT(GetShortPathNameW(Wide(longRoot).c_str(), shortForm, MAX_PATH), 0u);
  WriteShortcut(ShortcutPath("short.lnk"), Narrow(shortForm));

  EXPECT_TRUE(Remove(longRoot));

  EXPECT_THAT(FolderContent(), IsEmpty());
}

TEST_F(ShortcutRemovalTest, NonAsciiAndLongRootsAreFound) {
  const std::string name = "\xE6\x97\xA5 \xF0\x9F\x98\x80 \xC3\xA9";
  const std::string longName(200 - appData_.Utf8().size(), 'r');
  for (const std::string& root : {appData_.MakeFolder(name), appData_.MakeFolder(longName)}) {
    SCOPED_TRACE(root);
    Create(root);
    EXPECT_TRUE(Remove(root));
    EXPECT_THAT(FolderContent(), IsEmpty());
  }
}

TEST_F(ShortcutRemovalTest, OnlyTheFirstOfSeveralShortcutsIsDeleted) {
  Create(root_, "/same");
  Create(root_, "/same");
  Create(root_, "/same");
  WIN32_FIND_DATAW found;
  const HANDLE search = FindFirstFileW(Wide(FolderPath() + "\\s*").c_str(), &found);
  FindClose(search);
  const std::string first = Narrow(found.cFileName);

  EXPECT_TRUE(Remove(root_));

  EXPECT_THAT(FolderContent(), testing::SizeIs(2));
  EXPECT_FALSE(IsFile(ShortcutPath(first)));
  EXPECT_TRUE(Remove(root_));
  EXPECT_TRUE(Remove(root_));
  EXPECT_THAT(FolderContent(), IsEmpty());
  EXPECT_TRUE(Remove(root_));
  ExpectNotFound(root_);
}

TEST_F(ShortcutRemovalTest, ShortcutsAreKnownByContentAndNotByExtension) {
  WriteShortcut(ShortcutPath("without extension"), root_);
  EXPECT_TRUE(Remove(root_));
  EXPECT_THAT(FolderContent(), IsEmpty());
}

TEST_F(ShortcutRemovalTest, WhatIsNoShortcutIsLeftAloneAndNotInTheWay) {
  appData_.WriteFile(R"(CorvaneDrive\SystemFolders\3\a empty.lnk)", "");
  appData_.WriteFile(R"(CorvaneDrive\SystemFolders\3\a junk.lnk)", std::string(5000, 'j'));
  appData_.WriteFile(R"(CorvaneDrive\SystemFolders\3\a text.txt)", root_);
  appData_.MakeFolder(R"(CorvaneDrive\SystemFolders\3\a folder.lnk)");
  Create(root_, "/z");
  std::string cut = FileContent(Wide(ShortcutPath("z.lnk")));
  cut.resize(0x50);
  appData_.WriteFile(R"(CorvaneDrive\SystemFolders\3\a cut.lnk)", cut);
  const auto before = FolderContent();

  EXPECT_TRUE(Remove(root_));

  EXPECT_EQ(before.size(), 6u);
  EXPECT_THAT(FolderContent(),
              ElementsAre("a cut.lnk", "a empty.lnk", "a folder.lnk", "a junk.lnk", "a text.txt"));
}

TEST_F(ShortcutRemovalTest, AFileThatNobodyMayReadIsPassedOver) {
  Create(otherRoot_, "/a");
  Create(root_, "/z");
  const HANDLE held = CreateFileW(Wide(ShortcutPath("a.lnk")).c_str(), GENERIC_READ, 0, nullptr,
                                  OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(held, INVALID_HANDLE_VALUE);

  EXPECT_TRUE(Remove(root_));

  CloseHandle(held);
  EXPECT_THAT(FolderContent(), ElementsAre("a.lnk"));
}

TEST_F(ShortcutRemovalTest, AShortcutThatVanishesBehindTheListingIsPassedOver) {
  Create(otherRoot_, "/a");
  Create(root_, "/z");
  int vanished = 0;
  const FindNextDouble next([&](auto original, HANDLE search, LPWIN32_FIND_DATAW data) {
    const BOOL more = original(search, data);
    if (more && Narrow(data->cFileName) == "z.lnk") {
      vanished += DeleteFileW(Wide(ShortcutPath("z.lnk")).c_str()) ? 1 : 0;
    }
    return more;
  });

  EXPECT_TRUE(Remove(root_));

  EXPECT_EQ(vanished, 1);

  ExpectNotFound(root_);
  EXPECT_THAT(FolderContent(), ElementsAre("a.lnk"));
}

TEST_F(ShortcutRemovalTest, LettersThatOnlyLookTheSameAreOthers) {
  Create(appData_.MakeFolder("caf\xC3\xA9"));
  const std::string decomposed = appData_.Item("cafe\xCC\x81");
  EXPECT_TRUE(Remove(decomposed));
  ExpectNotFound(decomposed);
  EXPECT_THAT(FolderContent(), ElementsAre("My Drive.lnk"));
}

TEST_F(ShortcutRemovalTest, ADeletionThatFailsIsReportedAndNoFailure) {
  Create(root_);
  DeleteDouble deleted;
  deleted.FailCall(1, FALSE, ERROR_ACCESS_DENIED);

  EXPECT_TRUE(Remove(root_));

  auto expected = Resolution("My Drive.lnk", root_);
  expected.push_back(IsLogLine(kWrappingFolderSource, "Failed to remove shortcut by deletefile: " +
                                                          ShortcutPath("My Drive.lnk")));
  EXPECT_THAT(log_.Lines(), testing::ElementsAreArray(expected));
  EXPECT_THAT(FolderContent(), ElementsAre("My Drive.lnk"));
}

TEST_F(ShortcutRemovalTest, TheWholeFolderIsListedByOneSearchThatIsEnded) {
  Create(otherRoot_, "/a");
  for (const std::string& root : {otherRoot_, root_}) {
    SCOPED_TRACE(root);
    std::vector<std::string> patterns;
    std::vector<HANDLE> opened;
    std::vector<HANDLE> closed;
    {
      const FindDouble find(
          [&](FindDouble::Function original, LPCWSTR path, LPWIN32_FIND_DATAW data) {
            patterns.push_back(Narrow(path));
            opened.push_back(original(path, data));
            return opened.back();
          });
      const CloseDouble close([&](CloseDouble::Function original, HANDLE search) {
        closed.push_back(search);
        return original(search);
      });
      EXPECT_TRUE(Remove(root));
    }
    EXPECT_THAT(patterns, ElementsAre(FolderPath() + "\\*"));
    EXPECT_EQ(closed, opened);
  }
}

TEST_F(ShortcutRemovalTest, AFolderThatCannotBeListedIsReportedAndNoFailure) {
  Create(root_);
  FindDouble find;
  find.FailCall(1, INVALID_HANDLE_VALUE, ERROR_ACCESS_DENIED);
  const CloseDouble close;

  EXPECT_TRUE(Remove(root_));

  EXPECT_THAT(log_.Lines(), ElementsAre(IsLogLine(kWrappingFolderSource, kNoListing),
                                        IsLogLine(kWrappingFolderSource, kNotFound + root_)));
  EXPECT_EQ(close.Count(), 0);
  EXPECT_THAT(FolderContent(), ElementsAre("My Drive.lnk"));
}

TEST_F(ShortcutRemovalTest, AFolderThatIsNotThereIsReportedAndNoFailure) {
  EXPECT_TRUE(Composer("home", "/", 99).RemoveShortcut(root_));
  EXPECT_THAT(log_.Lines(), ElementsAre(IsLogLine(kWrappingFolderSource, kNoListing),
                                        IsLogLine(kWrappingFolderSource, kNotFound + root_)));
  EXPECT_FALSE(IsFolder(FolderPath(99)));
}

// The pattern would be that of the current drive's root.
TEST_F(ShortcutRemovalTest, WithoutADataFolderNothingIsListed) {
  Create(root_);
  folders_.Remove(CSIDL_LOCAL_APPDATA);
  const FindDouble find;
  const DeleteDouble deleted;

  EXPECT_TRUE(Remove(root_));

  EXPECT_THAT(log_.Lines(), ElementsAre(IsLogLine(kWrappingFolderSource,
                                                  "Failed to get corvane drive appdata path"),
                                        IsLogLine(kWrappingFolderSource, kNoListing),
                                        IsLogLine(kWrappingFolderSource, kNotFound + root_)));
  EXPECT_EQ(find.Count(), 0);
  EXPECT_EQ(deleted.Count(), 0);
}

// A path that is not there has no long form.
TEST_F(ShortcutRemovalTest, ARootThatIsGoneHasNoShortcutThatLeadsToIt) {
  Create(root_);
  ASSERT_TRUE(RemoveDirectoryW(Wide(root_).c_str()));

  EXPECT_TRUE(Remove(root_));

  ExpectNotFound(root_);
  EXPECT_THAT(FolderContent(), ElementsAre("My Drive.lnk"));
}

}  // namespace
}  // namespace nimbra_test
