#include "common/cldapi-table.h"

#include <gmock/gmock.h>
#include <windows.h>

#include <string>

#include "tests/support/import-double.h"
#include "tests/support/threads.h"

namespace nimbra_test {
namespace {

using corvdrive::cloud_filter::CldApi;
using corvdrive::cloud_filter::Cloud;
using corvdrive::cloud_filter::ExchangeCldApi;

using LoadDouble = ImportDouble<"LoadLibraryExW", decltype(&::LoadLibraryExW)>;

LoadDouble::Handler Refuse(DWORD error) {
  return [error](auto, LPCWSTR, HANDLE, DWORD) -> HMODULE {
    SetLastError(error);
    return nullptr;
  };
}

// A system on which cldapi.dll cannot be loaded.
class MissingPlatformTest : public testing::Test {
 protected:
  LoadDouble load_{Refuse(ERROR_MOD_NOT_FOUND)};
};

TEST_F(MissingPlatformTest, TheDllIsSoughtInTheDefaultDirectoriesOnFirstUse) {
  EXPECT_EQ(load_.Count(), 0);
  static_cast<void>(Cloud());

  ASSERT_EQ(load_.Count(), 1);
  EXPECT_STREQ(std::get<0>(load_.Calls().front()), L"cldapi.dll");
  EXPECT_EQ(std::get<1>(load_.Calls().front()), nullptr);
  EXPECT_EQ(std::get<2>(load_.Calls().front()), 0x1000u);
}

TEST_F(MissingPlatformTest, EachUseTriesAgain) {
  static_cast<void>(Cloud());
  static_cast<void>(Cloud());
  EXPECT_EQ(load_.Count(), 2);
}

TEST_F(MissingPlatformTest, EveryFunctionThatHasAResultGivesTheErrorOfTheLoad) {
  const auto missing = static_cast<HRESULT>(0x8007007E);
  const CldApi& cloud = Cloud();
  const LARGE_INTEGER zero{};
  CF_CONNECTION_KEY key{};
  CF_TRANSFER_KEY transferKey{};
  CF_PLATFORM_INFO platform{};
  EXPECT_EQ(cloud.CfGetPlatformInfo(&platform), missing);
  EXPECT_EQ(cloud.CfRegisterSyncRoot(L"", nullptr, nullptr, CF_REGISTER_FLAG_NONE), missing);
  EXPECT_EQ(cloud.CfUnregisterSyncRoot(L""), missing);
  EXPECT_EQ(cloud.CfConnectSyncRoot(L"", nullptr, nullptr, CF_CONNECT_FLAG_NONE, &key), missing);
  EXPECT_EQ(cloud.CfDisconnectSyncRoot(key), missing);
  EXPECT_EQ(cloud.CfGetSyncRootInfoByPath(L"", CF_SYNC_ROOT_INFO_BASIC, nullptr, 0, nullptr),
            missing);
  EXPECT_EQ(cloud.CfGetTransferKey(nullptr, &transferKey), missing);
  EXPECT_EQ(cloud.CfExecute(nullptr, nullptr), missing);
  EXPECT_EQ(cloud.CfReportProviderProgress(key, transferKey, zero, zero), missing);
  EXPECT_EQ(cloud.CfCreatePlaceholders(L"", nullptr, 0, CF_CREATE_FLAG_NONE, nullptr), missing);
  EXPECT_EQ(
      cloud.CfConvertToPlaceholder(nullptr, nullptr, 0, CF_CONVERT_FLAG_NONE, nullptr, nullptr),
      missing);
  EXPECT_EQ(cloud.CfUpdatePlaceholder(nullptr, nullptr, nullptr, 0, nullptr, 0, CF_UPDATE_FLAG_NONE,
                                      nullptr, nullptr),
            missing);
  EXPECT_EQ(cloud.CfRevertPlaceholder(nullptr, CF_REVERT_FLAG_NONE, nullptr), missing);
  EXPECT_EQ(cloud.CfHydratePlaceholder(nullptr, zero, zero, CF_HYDRATE_FLAG_NONE, nullptr),
            missing);
  EXPECT_EQ(cloud.CfDehydratePlaceholder(nullptr, zero, zero, CF_DEHYDRATE_FLAG_NONE, nullptr),
            missing);
  EXPECT_EQ(cloud.CfSetPinState(nullptr, CF_PIN_STATE_PINNED, CF_SET_PIN_FLAG_NONE, nullptr),
            missing);
  EXPECT_EQ(
      cloud.CfSetInSyncState(nullptr, CF_IN_SYNC_STATE_IN_SYNC, CF_SET_IN_SYNC_FLAG_NONE, nullptr),
      missing);
  EXPECT_EQ(cloud.CfGetPlaceholderInfo(nullptr, CF_PLACEHOLDER_INFO_BASIC, nullptr, 0, nullptr),
            missing);
}

TEST_F(MissingPlatformTest, TheOtherFunctionsGiveTheirQuietAnswer) {
  const CldApi& cloud = Cloud();
  const WIN32_FIND_DATAW findData{};
  CF_TRANSFER_KEY transferKey{};
  EXPECT_EQ(cloud.CfGetPlaceholderStateFromFindData(&findData), CF_PLACEHOLDER_STATE_NO_STATES);
  EXPECT_EQ(cloud.CfReferenceProtectedHandle(nullptr), FALSE);
  EXPECT_EQ(cloud.CfGetWin32HandleFromProtectedHandle(nullptr), INVALID_HANDLE_VALUE);
  cloud.CfReleaseProtectedHandle(nullptr);
  cloud.CfReleaseTransferKey(nullptr, &transferKey);
}

TEST_F(MissingPlatformTest, ManyThreadsMayBeFirst) {
  const auto results = OnThreads(8, [](int) { return Cloud().CfUnregisterSyncRoot(L""); });
  EXPECT_THAT(results, testing::Each(static_cast<HRESULT>(0x8007007E)));
}

TEST_F(MissingPlatformTest, AnInstalledTableIsUsedWithoutLoadingAnything) {
  const CldApi other{};
  EXPECT_EQ(ExchangeCldApi(&other), nullptr);
  EXPECT_EQ(&Cloud(), &other);
  EXPECT_EQ(ExchangeCldApi(nullptr), &other);
  EXPECT_EQ(load_.Count(), 0);
}

}  // namespace
}  // namespace nimbra_test
