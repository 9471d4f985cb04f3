#include "common/installation.h"

#include <gmock/gmock.h>
#include <windows.h>

#include <shlobj.h>

#include <map>
#include <string>
#include <vector>

#include "tests/support/import-double.h"
#include "tests/support/log-capture.h"

namespace nimbra_test {
namespace {

namespace cf = corvdrive::cloud_filter;

TEST(FixedNameTest, HoldTheProductsTexts) {
  EXPECT_EQ(std::string(cf::kProviderName), "CorvaneDrive");
  EXPECT_EQ(std::string(cf::kProviderVersion), "1.1");
  EXPECT_EQ(std::string(cf::kProductDisplayName), "Corvane Drive");
  EXPECT_EQ(std::string(cf::kAppFolderName), "CorvaneDrive.app");
  EXPECT_EQ(std::string(cf::kNamespaceClsid), "{4A7C2E91-3B5D-4F08-9C61-7E2D0B5A93F4}");
  EXPECT_EQ(std::string(cf::kExplorerKeyRoot),
            "Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\");
  EXPECT_EQ(std::string(cf::kSyncRootManagerKey),
            "SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Explorer\\SyncRootManager\\");
}

constexpr int kLocalAppData = 28;
constexpr int kProgramFilesX86 = 42;
constexpr int kProgramFiles = 38;

// Known folders as the test says; the others are refused.
class InstallationTest : public testing::Test {
 protected:
  using FolderDouble = ImportDouble<"SHGetFolderPathW", decltype(&::SHGetFolderPathW)>;

  std::vector<int> AskedFolders() const {
    std::vector<int> folders;
    for (const auto& call : shell_.Calls()) {
      folders.push_back(std::get<1>(call));
    }
    return folders;
  }

  std::map<int, std::wstring> folders_;
  LogCapture log_;
  FolderDouble shell_{[this](auto, HWND, int folder, HANDLE, DWORD, LPWSTR path) -> HRESULT {
    const auto found = folders_.find(folder);
    // A refusal may leave a path behind.
    lstrcpynW(path, found != folders_.end() ? found->second.c_str() : L"C:\\Wrong", MAX_PATH);
    return found != folders_.end() ? S_OK : E_FAIL;
  }};
};

TEST_F(InstallationTest, LocalDataLiesInTheProductsFolder) {
  folders_[kLocalAppData] = L"C:\\Users\\Ann\\AppData\\Local";

  EXPECT_EQ(cf::GetLocalAppDataDir(), "C:\\Users\\Ann\\AppData\\Local\\CorvaneDrive");
  EXPECT_EQ(cf::GetCloudDriveUiPath(),
            "C:\\Users\\Ann\\AppData\\Local\\CorvaneDrive\\CorvaneDrive.app\\bin\\"
            "cloud-drive-ui.exe");
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(InstallationTest, TheLauncherLiesBelowThe32BitProgramFiles) {
  folders_[kProgramFilesX86] = L"C:\\Program Files (x86)";

  EXPECT_EQ(cf::GetProgramFilesX86Dir(), "C:\\Program Files (x86)");
  EXPECT_EQ(cf::GetLauncherPath(),
            "C:\\Program Files (x86)\\Corvane\\CorvaneDrive\\bin\\launcher.exe");
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(InstallationTest, FoldersAreAskedForTheCurrentUsersCurrentPaths) {
  folders_[kLocalAppData] = L"C:\\Local";

  static_cast<void>(cf::GetLocalAppDataDir());

  ASSERT_EQ(shell_.Count(), 1);
  const auto [owner, folder, token, flags, path] = shell_.Calls().front();
  EXPECT_EQ(owner, nullptr);
  EXPECT_EQ(folder, kLocalAppData);
  EXPECT_EQ(token, nullptr);
  EXPECT_EQ(flags, 0u);
  EXPECT_NE(path, nullptr);
}

TEST_F(InstallationTest, AFoundFolderNeedsNoFallback) {
  folders_[kProgramFilesX86] = L"C:\\x86";

  static_cast<void>(cf::GetProgramFilesX86Dir());

  EXPECT_THAT(AskedFolders(), testing::ElementsAre(kProgramFilesX86));
}

TEST_F(InstallationTest, The64BitProgramFilesAreAskedForAndDiscarded) {
  folders_[kProgramFiles] = L"C:\\Program Files";

  EXPECT_EQ(cf::GetProgramFilesX86Dir(), "");
  EXPECT_THAT(AskedFolders(), testing::ElementsAre(kProgramFilesX86, kProgramFiles));
  EXPECT_EQ(cf::GetLauncherPath(), "");
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(InstallationTest, FoldersThatCannotBeHadGiveEmptyPaths) {
  EXPECT_EQ(cf::GetLocalAppDataDir(), "");
  EXPECT_EQ(cf::GetCloudDriveUiPath(), "");
  EXPECT_EQ(cf::GetProgramFilesX86Dir(), "");
  EXPECT_EQ(cf::GetLauncherPath(), "");
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(InstallationTest, EmptyFolderNamesGiveEmptyPaths) {
  folders_[kLocalAppData] = L"";
  folders_[kProgramFilesX86] = L"";

  EXPECT_EQ(cf::GetLocalAppDataDir(), "");
  EXPECT_EQ(cf::GetCloudDriveUiPath(), "");
  EXPECT_EQ(cf::GetLauncherPath(), "");
}

TEST_F(InstallationTest, NonAsciiFoldersComeBackInUtf8) {
  folders_[kLocalAppData] = L"C:\\Users\\Zo\x00EB \x65E5\\Local";
  folders_[kProgramFilesX86] = L"C:\\\xD83D\xDE00";

  EXPECT_EQ(cf::GetLocalAppDataDir(), "C:\\Users\\Zo\xC3\xAB \xE6\x97\xA5\\Local\\CorvaneDrive");
  EXPECT_EQ(cf::GetLauncherPath(),
            "C:\\\xF0\x9F\x98\x80\\Corvane\\CorvaneDrive\\bin\\launcher.exe");
}

TEST_F(InstallationTest, TheLongestFolderFits) {
  const std::wstring longest = L"C:\\" + std::wstring(256, L'\x65E5');
  folders_[kLocalAppData] = longest;
  std::string expected = "C:\\";
  for (int i = 0; i < 256; ++i) {
    expected += "\xE6\x97\xA5";
  }

  EXPECT_EQ(cf::GetLocalAppDataDir(), expected + "\\CorvaneDrive");
}

TEST(InstallationOnThisSystemTest, TheFoldersAreThoseOfTheShell) {
  wchar_t local[MAX_PATH];
  ASSERT_EQ(SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, 0, local), S_OK);
  std::string expected;
  for (const wchar_t* unit = local; *unit != 0; ++unit) {
    ASSERT_LT(*unit, 0x80);
    expected += static_cast<char>(*unit);
  }
  EXPECT_EQ(cf::GetLocalAppDataDir(), expected + "\\CorvaneDrive");
}

}  // namespace
}  // namespace nimbra_test
