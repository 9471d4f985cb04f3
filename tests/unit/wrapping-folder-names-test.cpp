#include <windows.h>

#include <string>
#include <vector>

#include "tests/support/shortcut-file.h"
#include "tests/unit/explorer-entry-fixture.h"

namespace nimbra_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kRoot[] = R"(C:\Users\me\My Files)";

class ShortcutNameTest : public WrappingFolderFixture {
 protected:
  ShortcutNameTest() { EXPECT_TRUE(Composer().CreateFolder()); }

  // Creates one more shortcut and gives the name that it got.
  std::string Create(const std::string& share, const std::string& path) {
    const Snapshot before = FolderSnapshot(Wide(FolderPath()));
    log_.Clear();
    EXPECT_TRUE(Composer(share, path).CreateShortcut(kRoot));
    const auto changes = Changes(before, FolderSnapshot(Wide(FolderPath())));
    if (changes.size() != 1 || !changes[0].starts_with("+ ")) {
      ADD_FAILURE() << testing::PrintToString(changes);
      return {};
    }
    std::string name = changes[0].substr(2);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(IsLogLine(kWrappingFolderSource,
                                      "Success to create shortcut: " + ShortcutPath(name))));
    return name;
  }
};

struct NameRow {
  const char* share;
  const char* path;
  const char* name;
};

const NameRow kNameRows[] = {
    {"home", "/", "My Drive.lnk"},
    {"Home", "/", "Home.lnk"},
    {"HOME", "/", "HOME.lnk"},
    {"home ", "/", "home .lnk"},
    {"homes", "/", "homes.lnk"},
    {"team", "/", "team.lnk"},
    {"", "/", ".lnk"},
    {"home", "/Photos/2020", "2020.lnk"},
    {"team", "/Photos/2020", "2020.lnk"},
    {"home", "/Photos", "Photos.lnk"},
    {"home", "Photos/2020", "2020.lnk"},
    {"home", "/Photos/", ".lnk"},
    {"home", "//", ".lnk"},
    {"home", "Photos", "Photos.lnk"},
    {"home", "", ".lnk"},
    {"team", "", ".lnk"},
    {"home", "/home", "home.lnk"},
    {"home", "/a b (1)", "a b (1).lnk"},
    {"home", "/x.lnk", "x.lnk.lnk"},
    {"home", "/.hidden", ".hidden.lnk"},
    {"Gr\xC3\xBC\xC3\x9F", "/\xE6\x97\xA5/\xC3\xA9\xF0\x9F\x98\x80",
     "\xC3\xA9\xF0\x9F\x98\x80.lnk"},
    {"Gr\xC3\xBC\xC3\x9F", "/", "Gr\xC3\xBC\xC3\x9F.lnk"},
};

TEST_F(ShortcutNameTest, FollowsTheShareAndThePath) {
  for (const NameRow& row : kNameRows) {
    SCOPED_TRACE(std::string(row.share) + " : " + row.path);
    const std::string name = Create(row.share, row.path);
    EXPECT_EQ(name, row.name);
    EXPECT_TRUE(DeleteFileW(Wide(ShortcutPath(name)).c_str()));
  }
}

TEST_F(ShortcutNameTest, FiftyOfOneNameAreNumberedWithoutABlank) {
  EXPECT_EQ(Create("home", "/"), "My Drive.lnk");
  for (int n = 1; n < 50; ++n) {
    ASSERT_EQ(Create("home", "/"), "My Drive(" + std::to_string(n) + ").lnk");
  }
}

TEST_F(ShortcutNameTest, TheNextFreeNumberAfterTwoIsTwo) {
  appData_.WriteFile(R"(CorvaneDrive\SystemFolders\3\My Drive.lnk)", "");
  appData_.WriteFile(R"(CorvaneDrive\SystemFolders\3\My Drive(1).lnk)", "");
  EXPECT_EQ(Create("home", "/"), "My Drive(2).lnk");
}

TEST_F(ShortcutNameTest, TheFirstGapIsUsedAgain) {
  for (int n = 0; n < 5; ++n) {
    Create("home", "/");
  }
  ASSERT_TRUE(DeleteFileW(Wide(ShortcutPath("My Drive(2).lnk")).c_str()));
  EXPECT_EQ(Create("home", "/"), "My Drive(2).lnk");
  EXPECT_EQ(Create("home", "/"), "My Drive(5).lnk");
  ASSERT_TRUE(DeleteFileW(Wide(ShortcutPath("My Drive.lnk")).c_str()));
  EXPECT_EQ(Create("home", "/"), "My Drive.lnk");
}

TEST_F(ShortcutNameTest, ATakenNameIsTakenWhateverTookIt) {
  appData_.MakeFolder(R"(CorvaneDrive\SystemFolders\3\My Drive.lnk)");
  appData_.WriteFile(R"(CorvaneDrive\SystemFolders\3\MY DRIVE(1).LNK)", "other letters");
  EXPECT_EQ(Create("home", "/"), "My Drive(2).lnk");
}

TEST_F(ShortcutNameTest, EmptyAndNonAsciiNamesAreNumberedToo) {
  EXPECT_EQ(Create("home", "/Photos/"), ".lnk");
  EXPECT_EQ(Create("home", "/Photos/"), "(1).lnk");
  EXPECT_EQ(Create("home", "/\xE6\x97\xA5"), "\xE6\x97\xA5.lnk");
  EXPECT_EQ(Create("home", "/\xE6\x97\xA5"), "\xE6\x97\xA5(1).lnk");
}

TEST_F(ShortcutNameTest, EveryCandidateIsLookedUpOnceAndEverySearchThatBeganIsEnded) {
  using FindDouble = ImportDouble<"FindFirstFileW", decltype(&::FindFirstFileW)>;
  using CloseDouble = ImportDouble<"FindClose", decltype(&::FindClose)>;
  Create("home", "/");
  Create("home", "/");
  std::vector<std::string> asked;
  std::vector<HANDLE> opened;
  std::vector<HANDLE> closed;
  const FindDouble find([&](FindDouble::Function original, LPCWSTR path, LPWIN32_FIND_DATAW data) {
    asked.push_back(Narrow(path));
    const HANDLE search = original(path, data);
    if (search != INVALID_HANDLE_VALUE) {
      opened.push_back(search);
    }
    return search;
  });
  const CloseDouble close([&](CloseDouble::Function original, HANDLE search) {
    closed.push_back(search);
    return original(search);
  });

  EXPECT_TRUE(Composer().CreateShortcut(kRoot));

  EXPECT_THAT(asked, ElementsAre(ShortcutPath("My Drive.lnk"), ShortcutPath("My Drive(1).lnk"),
                                 ShortcutPath("My Drive(2).lnk")));
  EXPECT_EQ(opened.size(), 2u);
  EXPECT_EQ(closed, opened);
}

TEST_F(ShortcutNameTest, ALongNameFillsThePathToItsLimit) {
  // 240 characters with the extension: what Explorer itself still handles.
  const std::string name(240 - FolderPath().size() - 1 - 4, 'n');
  EXPECT_EQ(Create("home", "/a/" + name), name + ".lnk");
  EXPECT_EQ(ReadShortcut(ShortcutPath(name + ".lnk")).target, kRoot);
}

TEST_F(ShortcutNameTest, ANameThatIsNoFileNameIsAFailureAndMakesNothing) {
  using std::string_literals::operator""s;
  const Snapshot before = FolderSnapshot(appData_.Path());
  for (const std::string& name : {"a?b"s, "a*b"s, "a<b"s, std::string(300, 'n')}) {
    SCOPED_TRACE(name);
    log_.Clear();
    EXPECT_FALSE(Composer("home", "/" + name).CreateShortcut(kRoot));
    EXPECT_THAT(log_.Lines(),
                ElementsAre(IsLogLine(kWrappingFolderSource, "Failed to create shortcut: " +
                                                                 ShortcutPath(name + ".lnk"))));
  }
  EXPECT_THAT(Changes(before, FolderSnapshot(appData_.Path())), IsEmpty());
}

}  // namespace
}  // namespace nimbra_test
