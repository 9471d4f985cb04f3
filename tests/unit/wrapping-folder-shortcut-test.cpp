#include <windows.h>

#include <string>
#include <vector>

#include "tests/support/event-sequence.h"
#include "tests/support/fake-shell-link.h"
#include "tests/support/shortcut-file.h"
#include "tests/unit/explorer-entry-fixture.h"

namespace nimbra_test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;

constexpr char kRoot[] = R"(C:\Users\me\My Files)";

// What a shortcut of the library's must say.
Shortcut ShortcutTo(const std::string& target, const std::string& uiProgram) {
  return {target, "Corvane Drive Client: " + target, uiProgram, 3, "", ""};
}

class ShortcutContentTest : public WrappingFolderFixture {
 protected:
  ShortcutContentTest() { EXPECT_TRUE(Composer().CreateFolder()); }

  void ExpectContent(const std::string& target) {
    SCOPED_TRACE(target);
    ASSERT_TRUE(Composer().CreateShortcut(target));
    const std::string path = ShortcutPath("My Drive.lnk");
    const Shortcut expected = ShortcutTo(target, UiProgram());
    EXPECT_EQ(ReadShortcut(path), expected);
    EXPECT_EQ(ParseShortcut(FileContent(Wide(path))), expected);
    EXPECT_TRUE(DeleteFileW(Wide(path).c_str()));
  }
};

TEST_F(ShortcutContentTest, LeadsToTheRootAndCarriesTheClientsIcon) {
  ExpectContent(kRoot);
  ExpectContent(R"(D:\Sync)");
}

TEST_F(ShortcutContentTest, LeadsToARootThatIsThereToo) {
  ExpectContent(appData_.MakeFolder("root"));
}

TEST_F(ShortcutContentTest, NonAsciiRootsStayWhole) {
  ExpectContent(
      "C:\\Gr\xC3\xBC\xC3\x9F"
      "e");
  ExpectContent("C:\\\xE6\x97\xA5\xE6\x9C\xAC \xF0\x9F\x98\x80");
  ExpectContent(appData_.MakeFolder("\xE6\x97\xA5 \xF0\x9F\x98\x80"));
}

TEST_F(ShortcutContentTest, RootsAsLongAsAShortcutHoldsStayWhole) {
  ExpectContent("C:\\" + std::string(237, 'r'));
  ExpectContent("C:\\" + std::string(120, 'r') + "\\" + std::string(118, 's'));
}

class ShortcutCreationTest : public WrappingFolderFixture {
 protected:
  std::vector<std::string> StepsToQuery() const {
    return {"CoCreateInstance", std::string("SetPath ") + kRoot,
            std::string("SetDescription Corvane Drive Client: ") + kRoot,
            "SetIconLocation " + UiProgram() + " 3", "QueryInterface IPersistFile"};
  }
  std::vector<std::string> StepsToSave() const {
    auto steps = StepsToQuery();
    steps.push_back("Save " + ShortcutPath("My Drive.lnk") + " TRUE");
    return steps;
  }
  std::string Success() const {
    return "log: Success to create shortcut: " + ShortcutPath("My Drive.lnk");
  }
  std::string Failure() const {
    return "log: Failed to create shortcut: " + ShortcutPath("My Drive.lnk");
  }
  // The order of the last releases and the line is nobody's business.
  void ExpectEvents(const std::vector<std::string>& before,
                    const std::vector<std::string>& lastInAnyOrder) {
    const auto& events = events_.Events();
    ASSERT_EQ(events.size(), before.size() + lastInAnyOrder.size())
        << testing::PrintToString(events);
    const auto middle = events.begin() + static_cast<std::ptrdiff_t>(before.size());
    EXPECT_THAT(std::vector<std::string>(events.begin(), middle), ElementsAreArray(before));
    EXPECT_THAT(std::vector<std::string>(middle, events.end()),
                testing::UnorderedElementsAreArray(lastInAnyOrder));
    EXPECT_EQ(link_.References(), 0);
  }

  EventSequence events_{log_};
  FakeShellLink link_{events_};
};

TEST_F(ShortcutCreationTest, TakesTheStepsInTheirOrder) {
  EXPECT_TRUE(Composer().CreateShortcut(kRoot));

  ExpectEvents(StepsToSave(), {"Release file", "Release link", Success()});
  EXPECT_THAT(log_.Lines(),
              ElementsAre(IsLogLine(kWrappingFolderSource, "Success to create shortcut: " +
                                                               ShortcutPath("My Drive.lnk"))));
}

TEST_F(ShortcutCreationTest, WhatTheSettersGiveIsIgnored) {
  link_.results.setPath = E_INVALIDARG;
  link_.results.setDescription = E_OUTOFMEMORY;
  link_.results.setIconLocation = E_FAIL;

  EXPECT_TRUE(Composer().CreateShortcut(kRoot));

  ExpectEvents(StepsToSave(), {"Release file", "Release link", Success()});
}

TEST_F(ShortcutCreationTest, WithoutAShellLinkThereIsNoShortcut) {
  for (const HRESULT code : {REGDB_E_CLASSNOTREG, CO_E_NOTINITIALIZED, E_OUTOFMEMORY}) {
    events_.Clear();
    link_.results.create = code;
    EXPECT_FALSE(Composer().CreateShortcut(kRoot));
    ExpectEvents({"CoCreateInstance"}, {Failure()});
  }
}

TEST_F(ShortcutCreationTest, ALinkThatCannotBeSavedToFilesIsNoShortcut) {
  link_.results.query = E_NOINTERFACE;

  EXPECT_FALSE(Composer().CreateShortcut(kRoot));

  ExpectEvents(StepsToQuery(), {"Release link", Failure()});
}

TEST_F(ShortcutCreationTest, ARefusedSaveIsNoShortcut) {
  link_.results.save = STG_E_ACCESSDENIED;

  EXPECT_FALSE(Composer().CreateShortcut(kRoot));

  ExpectEvents(StepsToSave(), {"Release file", "Release link", Failure()});
}

// The icon's program is looked for where the data folder is: with the folder gone after the name
// was chosen there is no program, and the shortcut has no icon, which is no failure.
TEST_F(ShortcutCreationTest, AMissingUiProgramGivesAnEmptyIcon) {
  const ImportDouble<"FindFirstFileW", decltype(&::FindFirstFileW)> find(
      [this](auto original, LPCWSTR path, LPWIN32_FIND_DATAW data) {
        folders_.Remove(CSIDL_LOCAL_APPDATA);
        return original(path, data);
      });

  EXPECT_TRUE(Composer().CreateShortcut(kRoot));

  EXPECT_THAT(events_.Events(), testing::Contains("SetIconLocation  3"));
}

class ShortcutRefusalTest : public WrappingFolderFixture {};

TEST_F(ShortcutRefusalTest, WithoutTheFolderThereIsNoShortcut) {
  EXPECT_FALSE(Composer().CreateShortcut(kRoot));
  EXPECT_THAT(log_.Lines(),
              ElementsAre(IsLogLine(kWrappingFolderSource,
                                    "Failed to create shortcut: " + ShortcutPath("My Drive.lnk"))));
  EXPECT_FALSE(IsFolder(FolderPath()));
}

TEST_F(ShortcutRefusalTest, WithoutADataFolderNothingIsWrittenToTheCurrentDrive) {
  ASSERT_TRUE(Composer().CreateFolder());
  folders_.Remove(CSIDL_LOCAL_APPDATA);
  const ImportDouble<"FindFirstFileW", decltype(&::FindFirstFileW)> find;

  EXPECT_FALSE(Composer().CreateShortcut(kRoot));

  EXPECT_EQ(find.Count(), 0);
  const auto lines = log_.Lines();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_THAT(lines.front(),
              IsLogLine(kWrappingFolderSource, "Failed to get corvane drive appdata path"));
  EXPECT_NE(GetFileAttributesW(L"\\"), INVALID_FILE_ATTRIBUTES);
  EXPECT_EQ(GetFileAttributesW(L"\\My Drive.lnk"), INVALID_FILE_ATTRIBUTES);
}

}  // namespace
}  // namespace nimbra_test
