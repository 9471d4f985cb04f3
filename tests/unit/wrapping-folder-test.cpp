#include <windows.h>
// windows.h first.
#include <shlobj.h>

#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>

#include "tests/unit/explorer-entry-fixture.h"

namespace nimbra_test {
namespace {

using corvdrive::cloud_filter::WrappingFolderComposer;
using testing::ElementsAre;
using testing::IsEmpty;

using CreateFolderDouble = ImportDouble<"SHCreateDirectory", decltype(&::SHCreateDirectory)>;
using SetAttributesDouble = ImportDouble<"SetFileAttributesW", decltype(&::SetFileAttributesW)>;

constexpr DWORD kVisibleInHere = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;

class WrappingFolderTest : public WrappingFolderFixture {};

TEST_F(WrappingFolderTest, TheClassIsPlainAndHoldsItsFourSettings) {
  static_assert(!std::is_polymorphic_v<WrappingFolderComposer>);
  EXPECT_EQ(sizeof(WrappingFolderComposer), sizeof(std::uint64_t) + 3 * sizeof(std::string));
}

TEST_F(WrappingFolderTest, LiesInTheClientsDataUnderItsNumber) {
  EXPECT_EQ(Composer().GetWrappingFolderPath(),
            appData_.Utf8() + R"(\CorvaneDrive\SystemFolders\3)");
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(WrappingFolderTest, EveryNumberIsDecimalWithoutLeadingZeros) {
  const std::pair<std::uint64_t, const char*> rows[] = {
      {0, "0"},
      {7, "7"},
      {10, "10"},
      {4294967296, "4294967296"},
      {9223372036854775808u, "9223372036854775808"},
      {std::numeric_limits<std::uint64_t>::max(), "18446744073709551615"},
  };
  for (const auto& [number, digits] : rows) {
    EXPECT_EQ(Composer("home", "/", number).GetWrappingFolderPath(),
              appData_.Utf8() + R"(\CorvaneDrive\SystemFolders\)" + digits);
  }
}

TEST_F(WrappingFolderTest, GivesItsDisplayNameAsItIs) {
  EXPECT_EQ(WrappingFolderComposer(1, "", "a", "b").GetDisplayName(), "");
  EXPECT_EQ(WrappingFolderComposer(1, "N\xC3\xA4s 1", "a", "b").GetDisplayName(), "N\xC3\xA4s 1");
}

TEST_F(WrappingFolderTest, WithoutADataFolderThereIsNoPath) {
  folders_.Remove(CSIDL_LOCAL_APPDATA);
  EXPECT_EQ(Composer().GetWrappingFolderPath(), "");
  EXPECT_THAT(log_.Lines(), ElementsAre(IsLogLine(kWrappingFolderSource,
                                                  "Failed to get corvane drive appdata path")));
}

TEST_F(WrappingFolderTest, WithoutADataFolderNothingIsCreated) {
  folders_.Remove(CSIDL_LOCAL_APPDATA);
  const CreateFolderDouble create;
  const SetAttributesDouble attributes;

  EXPECT_FALSE(Composer().CreateFolder());

  EXPECT_EQ(create.Count(), 0);
  EXPECT_EQ(attributes.Count(), 0);
  EXPECT_THAT(log_.Lines(), ElementsAre(IsLogLine(kWrappingFolderSource,
                                                  "Failed to get corvane drive appdata path")));
}

TEST_F(WrappingFolderTest, IsCreatedHiddenWithItsMissingParents) {
  const CreateFolderDouble create(
      [](CreateFolderDouble::Function original, HWND owner, LPCWSTR path) {
        EXPECT_EQ(owner, nullptr);
        return original(owner, path);
      });
  std::wstring changed;
  DWORD given = 0;
  const SetAttributesDouble attributes(
      [&](SetAttributesDouble::Function original, LPCWSTR path, DWORD value) {
        changed = path;
        given = value;
        return original(path, value);
      });

  EXPECT_TRUE(Composer().CreateFolder());

  EXPECT_EQ(create.Count(), 1);
  EXPECT_EQ(attributes.Count(), 1);
  EXPECT_EQ(changed, Wide(FolderPath()));
  EXPECT_EQ(given, 0x2006u);
  EXPECT_TRUE(IsFolder(FolderPath()));
  EXPECT_EQ(GetFileAttributesW(Wide(FolderPath()).c_str()) & kVisibleInHere, kVisibleInHere);
  EXPECT_THAT(log_.Lines(), IsEmpty());
  // The folders above are the client's usual ones.
  EXPECT_EQ(GetFileAttributesW(Wide(appData_.Item("CorvaneDrive")).c_str()) & kVisibleInHere, 0u);
}

TEST_F(WrappingFolderTest, OneThatIsThereKeepsItsContentAndIsHiddenAgain) {
  ASSERT_TRUE(Composer().CreateFolder());
  appData_.WriteFile(R"(CorvaneDrive\SystemFolders\3\kept.txt)", "content");
  SetFileAttributesW(Wide(FolderPath()).c_str(), FILE_ATTRIBUTE_NORMAL);

  EXPECT_TRUE(Composer().CreateFolder());

  EXPECT_EQ(GetFileAttributesW(Wide(FolderPath()).c_str()) & kVisibleInHere, kVisibleInHere);
  EXPECT_THAT(FolderContent(), ElementsAre("kept.txt"));
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(WrappingFolderTest, IsCreatedUnderANonAsciiDataFolder) {
  const std::string name = "Zo\xC3\xAB \xE6\x97\xA5 \xF0\x9F\x98\x80";
  appData_.MakeFolder(name);
  folders_.Set(CSIDL_LOCAL_APPDATA, Wide(appData_.Item(name)));

  EXPECT_TRUE(Composer().CreateFolder());

  EXPECT_TRUE(IsFolder(appData_.Item(name + R"(\CorvaneDrive\SystemFolders\3)")));
}

TEST_F(WrappingFolderTest, OnlySuccessAndAlreadyThereAreGoodResults) {
  struct {
    int code;
    bool created;
  } const rows[] = {{ERROR_SUCCESS, true},
                    {ERROR_ALREADY_EXISTS, true},
                    {ERROR_FILE_EXISTS, false},
                    {ERROR_BAD_PATHNAME, false},
                    {ERROR_FILENAME_EXCED_RANGE, false},
                    {ERROR_PATH_NOT_FOUND, false},
                    {ERROR_CANCELLED, false},
                    {-1, false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.code);
    log_.Clear();
    CreateFolderDouble create;
    create.FailCall(1, row.code, 77);
    SetAttributesDouble attributes;
    attributes.FailCall(1, TRUE, 0);

    EXPECT_EQ(Composer().CreateFolder(), row.created);

    EXPECT_EQ(attributes.Count(), row.created ? 1 : 0);
    if (row.created) {
      EXPECT_THAT(log_.Lines(), IsEmpty());
    } else {
      // The last error, not the result, and nothing in between.
      EXPECT_THAT(log_.Lines(),
                  ElementsAre(IsLogLine(kWrappingFolderSource,
                                        "Failed to create folder: " + FolderPath() + "77")));
    }
  }
}

TEST_F(WrappingFolderTest, AFolderCodeIsPrintedInSignedDecimal) {
  CreateFolderDouble create;
  create.FailCall(1, ERROR_ACCESS_DENIED, 0x80070005);
  EXPECT_FALSE(Composer().CreateFolder());
  EXPECT_THAT(log_.Lines(),
              ElementsAre(IsLogLine(kWrappingFolderSource,
                                    "Failed to create folder: " + FolderPath() + "-2147024891")));
}

TEST_F(WrappingFolderTest, AFolderThatCannotBeHiddenIsReportedAndNoFailure) {
  SetAttributesDouble attributes;
  attributes.FailCall(1, FALSE, ERROR_ACCESS_DENIED);

  EXPECT_TRUE(Composer().CreateFolder());

  EXPECT_TRUE(IsFolder(FolderPath()));
  EXPECT_THAT(log_.Lines(),
              ElementsAre(IsLogLine(kWrappingFolderSource, "Failed to set file attr, ec: 5")));
}

TEST_F(WrappingFolderTest, AFileInItsPlaceStaysWhatItIs) {
  appData_.MakeFolder("CorvaneDrive");
  appData_.MakeFolder(R"(CorvaneDrive\SystemFolders)");
  const std::string file = appData_.WriteFile(R"(CorvaneDrive\SystemFolders\3)", "content");

  // The system says that the name is there, which counts; no shortcut can be put into it.
  static_cast<void>(Composer().CreateFolder());
  EXPECT_FALSE(Composer().CreateShortcut("C:\\Sync"));

  EXPECT_TRUE(IsFile(file));
  EXPECT_EQ(FileContent(Wide(file)), "content");
}

TEST_F(WrappingFolderTest, AFileInTheParentsPlaceIsAFailureWithTheSystemsCode) {
  const std::string file = appData_.WriteFile("CorvaneDrive", "content");
  DWORD lastError = 0;
  const CreateFolderDouble create(
      [&](CreateFolderDouble::Function original, HWND owner, LPCWSTR path) {
        const int code = original(owner, path);
        lastError = GetLastError();
        return code;
      });

  EXPECT_FALSE(Composer().CreateFolder());

  EXPECT_THAT(log_.Lines(), ElementsAre(IsLogLine(kWrappingFolderSource,
                                                  "Failed to create folder: " + FolderPath() +
                                                      std::to_string(lastError))));
  EXPECT_EQ(FileContent(Wide(file)), "content");
}

}  // namespace
}  // namespace nimbra_test
