#include <gmock/gmock.h>
#include <windows.h>

#include <string>

#include "tests/dll/loaded-library.h"
#include "tests/dll/options.h"
#include "tests/dll/platform-failures.h"
#include "tests/support/registry-tree.h"
#include "tests/support/temp-folder.h"

namespace {

using nimbra_test::ClientObjects;
using nimbra_test::ImageLog;
using nimbra_test::LoadedLibrary;
using nimbra_test::Wide;
using testing::IsEmpty;

constexpr HRESULT kModuleNotFound = static_cast<HRESULT>(0x8007007E);

// The system lets no program find a cldapi.dll here, as on one whose cloud filter was removed.
class MissingPlatformTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(LoadLibraryExW(L"cldapi.dll", nullptr, LOAD_LIBRARY_SEARCH_DEFAULT_DIRS), nullptr)
        << "this system has a cldapi.dll of its own";
    ASSERT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));
  }

  LoadedLibrary library_;
  ImageLog log_{library_.Module()};
};

TEST_F(MissingPlatformTest, EveryExportThatAsksItFailsAsDocumented) {
  const ClientObjects objects(library_);
  nimbra_test::ExpectPlatformFailures(objects, nimbra_test::PlatformCalls(objects, kModuleNotFound),
                                      log_);
  nimbra_test::ExpectPlatformFailures(objects, nimbra_test::ConnectionCalls(kModuleNotFound), log_);
}

TEST_F(MissingPlatformTest, ThePlatformNumbersAreZero) {
  CORVWinCFPlatformInfo info{1, 2, 3};
  EXPECT_EQ(NIMBRA_FUNCTION(library_, CORVWinCFGetPlatformInfo)(&info), 0);
  EXPECT_EQ(info.buildNumber, 0u);
  EXPECT_EQ(info.revisionNumber, 0u);
  EXPECT_EQ(info.integrationNumber, 0u);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(MissingPlatformTest, RegisteringARootFailsAfterItsRegistryEntry) {
  const std::string session = std::to_string(std::uint64_t{GetCurrentProcessId()} * 1000 + 999);
  CORVWinCFSyncRootHandle root = nullptr;
  ASSERT_EQ(
      NIMBRA_FUNCTION(library_, CORVWinCFSyncRootNew)(&root, "C:\\Sync", std::stoull(session)), 0);
  for (const auto registration : {NIMBRA_FUNCTION(library_, CORVWinCFSyncRootRegister),
                                  NIMBRA_FUNCTION(library_, CORVWinCFSyncRootReregister)}) {
    log_.Clear();
    EXPECT_EQ(registration(root, "text"), kModuleNotFound);
    ASSERT_FALSE(log_.Messages().empty());
    EXPECT_EQ(log_.Messages().back(), "Failed to register sync root -2147024770");
  }
  NIMBRA_FUNCTION(library_, CORVWinCFSyncRootRelease)(&root);

  // Which of the manager's keys is the one just made is told by its session.
  const std::wstring manager =
      L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Explorer\\SyncRootManager";
  HKEY key = nullptr;
  ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, manager.c_str(), 0, KEY_READ, &key), ERROR_SUCCESS);
  int removed = 0;
  wchar_t name[512];
  for (DWORD i = 0, length = 512;
       RegEnumKeyExW(key, i, name, &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
       ++i, length = 512) {
    if (std::wstring(name).ends_with(L"session." + Wide(session))) {
      RegDeleteTreeW(HKEY_LOCAL_MACHINE, (manager + L"\\" + name).c_str());
      ++removed;
      break;
    }
  }
  RegCloseKey(key);
  EXPECT_EQ(removed, 1);
}

// A cldapi.dll in the current directory is not the system's: anybody may have put it there.
TEST_F(MissingPlatformTest, OneInTheCurrentDirectoryIsNotLoaded) {
  const std::wstring& planted = nimbra_test::TestOptions().planted;
  ASSERT_FALSE(planted.empty()) << "give --planted=<folder>";
  ASSERT_NE(GetFileAttributesW((planted + L"\\cldapi.dll").c_str()), INVALID_FILE_ATTRIBUTES);
  wchar_t previous[MAX_PATH];
  ASSERT_NE(GetCurrentDirectoryW(MAX_PATH, previous), 0u);
  ASSERT_TRUE(SetCurrentDirectoryW(planted.c_str()));

  CORVWinCFPlatformInfo info{1, 2, 3};
  EXPECT_EQ(NIMBRA_FUNCTION(library_, CORVWinCFGetPlatformInfo)(&info), 0);
  EXPECT_EQ(info.buildNumber, 0u);
  EXPECT_EQ(GetModuleHandleW(L"cldapi.dll"), nullptr);

  SetCurrentDirectoryW(previous);
}

}  // namespace
