// Sync roots: registering, querying, unregistering. The first word of a name says whether a rule is
// documented, was observed by users, or is this simulator's guess.

#include <cstddef>
#include <vector>

#include "sync-root-fixture.h"

namespace conformance {
namespace {

class Registration : public FolderTest {};

TEST_F(Registration, DocumentedNamesTheVersionOfThePlatform) {
  CF_PLATFORM_INFO platform{};
  ASSERT_EQ(CfGetPlatformInfo(&platform), S_OK);
  EXPECT_GE(platform.BuildNumber, 16299u);
  EXPECT_GE(platform.IntegrationNumber, 0x310u);
}

TEST_F(Registration, DocumentedNeedsAProviderNameAndVersion) {
  registration_.ProviderName = nullptr;
  EXPECT_EQ(Register(), kInvalidParameter);
  registration_.ProviderName = L"Conformance";
  registration_.ProviderVersion = nullptr;
  EXPECT_EQ(Register(), kInvalidParameter);
}

TEST_F(Registration, DocumentedTakesNamesOfAtMost255Characters) {
  const std::wstring tooLong(256, L'n');
  registration_.ProviderName = tooLong.c_str();
  EXPECT_EQ(Register(), kInvalidParameter);
  const std::wstring longest(255, L'\u6f22');
  registration_.ProviderName = longest.c_str();
  EXPECT_EQ(Register(), S_OK);
}

TEST_F(Registration, DocumentedRefusesIdentitiesBeyondTheirLimits) {
  const std::string tooLong((64 << 10) + 1, 'i');
  registration_.SyncRootIdentity = tooLong.data();
  registration_.SyncRootIdentityLength = static_cast<DWORD>(tooLong.size());
  EXPECT_EQ(Register(), kInvalidParameter);
  registration_.SyncRootIdentityLength -= 1;
  registration_.FileIdentity = tooLong.data();
  registration_.FileIdentityLength = 4097;
  EXPECT_EQ(Register(), kInvalidParameter);
  registration_.FileIdentityLength = 4096;
  EXPECT_EQ(Register(), S_OK);
}

TEST_F(Registration, DocumentedAnAbsentIdentityHasNoLength) {
  registration_.SyncRootIdentity = nullptr;
  EXPECT_EQ(Register(), kInvalidParameter);
  registration_.SyncRootIdentityLength = 0;
  EXPECT_EQ(Register(), S_OK);
}

TEST_F(Registration, DocumentedNeedsAccurateSizes) {
  registration_.StructSize = 8;
  EXPECT_EQ(Register(), kInvalidParameter);
  registration_.StructSize = sizeof registration_;
  policies_.StructSize = 8;
  EXPECT_EQ(Register(), kInvalidParameter);
}

TEST_F(Registration, DocumentedValidationExcludesStreaming) {
  policies_.Hydration.Modifier.us =
      static_cast<USHORT>(CF_HYDRATION_POLICY_MODIFIER_VALIDATION_REQUIRED |
                          CF_HYDRATION_POLICY_MODIFIER_STREAMING_ALLOWED);
  EXPECT_EQ(Register(), kInvalidParameter);
}

TEST_F(Registration, GuessedAgainNeedsTheUpdateFlag) {
  ASSERT_EQ(Register(), S_OK);
  EXPECT_TRUE(FAILED(Register()));
  EXPECT_EQ(Register(CF_REGISTER_FLAG_UPDATE), S_OK);
}

TEST_F(Registration, DocumentedRootsDoNotNest) {
  ASSERT_EQ(Register(), S_OK);
  const std::wstring inner = At(L"inner");
  ASSERT_TRUE(CreateDirectoryW(inner.c_str(), nullptr));
  EXPECT_TRUE(
      FAILED(CfRegisterSyncRoot(inner.c_str(), &registration_, &policies_, CF_REGISTER_FLAG_NONE)));
}

TEST_F(Registration, DocumentedAFolderThatDoesNotExistIsRefused) {
  EXPECT_TRUE(FAILED(
      CfRegisterSyncRoot(At(L"none").c_str(), &registration_, &policies_, CF_REGISTER_FLAG_NONE)));
  EXPECT_TRUE(FAILED(CfRegisterSyncRoot(At(L"no\\folder").c_str(), &registration_, &policies_,
                                        CF_REGISTER_FLAG_NONE)));
  EXPECT_EQ(CfRegisterSyncRoot(nullptr, &registration_, &policies_, CF_REGISTER_FLAG_NONE),
            kInvalidParameter);
}

TEST_F(Registration, DocumentedUnregisteringAnUnknownFolderSaysItIsUnderNoRoot) {
  EXPECT_EQ(CfUnregisterSyncRoot(Root().c_str()), Win32(ERROR_CLOUD_FILE_NOT_UNDER_SYNC_ROOT));
}

TEST_F(Registration, DocumentedTellsWhatWasRegisteredForAnyFileBelowTheRoot) {
  policies_.InSync = CF_INSYNC_POLICY_PRESERVE_INSYNC_FOR_SYNC_ENGINE;
  policies_.HardLink = CF_HARDLINK_POLICY_ALLOWED;
  policies_.Hydration.Modifier.us = CF_HYDRATION_POLICY_MODIFIER_AUTO_DEHYDRATION_ALLOWED;
  ASSERT_EQ(Register(), S_OK);
  ASSERT_EQ(Create({}), S_OK);
  std::vector<char> buffer(4096);
  DWORD length = 0;
  ASSERT_EQ(CfGetSyncRootInfoByPath(At(L"file.bin").c_str(), CF_SYNC_ROOT_INFO_STANDARD,
                                    buffer.data(), 4096, &length),
            S_OK);
  const auto* info = reinterpret_cast<const CF_SYNC_ROOT_STANDARD_INFO*>(buffer.data());
  EXPECT_EQ(info->HydrationPolicy.Primary.us, CF_HYDRATION_POLICY_FULL);
  EXPECT_EQ(info->HydrationPolicy.Modifier.us,
            CF_HYDRATION_POLICY_MODIFIER_AUTO_DEHYDRATION_ALLOWED);
  EXPECT_EQ(info->PopulationPolicy.Primary.us, CF_POPULATION_POLICY_ALWAYS_FULL);
  EXPECT_EQ(info->InSyncPolicy, CF_INSYNC_POLICY_PRESERVE_INSYNC_FOR_SYNC_ENGINE);
  EXPECT_EQ(info->HardLinkPolicy, CF_HARDLINK_POLICY_ALLOWED);
  EXPECT_EQ(info->ProviderStatus, CF_PROVIDER_STATUS_DISCONNECTED);
  EXPECT_STREQ(info->ProviderName, L"Conformance");
  EXPECT_STREQ(info->ProviderVersion, L"1.0");
  ASSERT_EQ(info->SyncRootIdentityLength, 13u);
  EXPECT_EQ(std::string(buffer.data() + offsetof(CF_SYNC_ROOT_STANDARD_INFO, SyncRootIdentity), 13),
            std::string("root\0identity", 13));

  CF_SYNC_ROOT_BASIC_INFO basic{};
  const File file(At(L"file.bin"));
  ASSERT_EQ(
      CfGetSyncRootInfoByHandle(file.Get(), CF_SYNC_ROOT_INFO_BASIC, &basic, sizeof basic, &length),
      S_OK);
  EXPECT_EQ(basic.SyncRootFileId.QuadPart, info->SyncRootFileId.QuadPart);
  EXPECT_EQ(length, sizeof basic);
  CF_SYNC_ROOT_PROVIDER_INFO provider{};
  ASSERT_EQ(CfGetSyncRootInfoByHandle(file.Get(), CF_SYNC_ROOT_INFO_PROVIDER, &provider,
                                      sizeof provider, nullptr),
            S_OK);
  EXPECT_STREQ(provider.ProviderName, L"Conformance");
}

TEST_F(Registration, DocumentedUpdatingChangesWhatIsTold) {
  ASSERT_EQ(Register(), S_OK);
  registration_.ProviderVersion = L"2.0";
  ASSERT_EQ(Register(CF_REGISTER_FLAG_UPDATE), S_OK);
  CF_SYNC_ROOT_PROVIDER_INFO provider{};
  ASSERT_EQ(CfGetSyncRootInfoByPath(Root().c_str(), CF_SYNC_ROOT_INFO_PROVIDER, &provider,
                                    sizeof provider, nullptr),
            S_OK);
  EXPECT_STREQ(provider.ProviderVersion, L"2.0");
}

TEST_F(Registration, DocumentedASmallBufferGetsWhatFits) {
  ASSERT_EQ(Register(), S_OK);
  CF_SYNC_ROOT_STANDARD_INFO info{};
  info.SyncRootIdentity[0] = 0x55;
  DWORD length = 0;
  const DWORD fixed = offsetof(CF_SYNC_ROOT_STANDARD_INFO, SyncRootIdentity);
  EXPECT_EQ(
      CfGetSyncRootInfoByPath(Root().c_str(), CF_SYNC_ROOT_INFO_STANDARD, &info, fixed, &length),
      Win32(ERROR_MORE_DATA));
  EXPECT_EQ(info.SyncRootIdentityLength, 13u);
  EXPECT_EQ(info.SyncRootIdentity[0], 0x55);
  EXPECT_EQ(length, fixed + 13);  // guessed
}

TEST_F(Registration, ObservedAFileOutsideOfAllRootsIsUnderNoRoot) {
  CF_SYNC_ROOT_BASIC_INFO basic{};
  EXPECT_EQ(CfGetSyncRootInfoByPath(Root().c_str(), CF_SYNC_ROOT_INFO_BASIC, &basic, sizeof basic,
                                    nullptr),
            Win32(ERROR_CLOUD_FILE_NOT_UNDER_SYNC_ROOT));
}

TEST_F(Registration, DocumentedUnregisteringKeepsWhatIsLocalAndDropsWhatIsNot) {
  ASSERT_EQ(Register(), S_OK);
  {
    Provider provider;
    ASSERT_EQ(provider.Connect(Root()), S_OK);
    ASSERT_EQ(Create({L"local.bin"}), S_OK);
    ASSERT_EQ(Create({L"remote.bin"}), S_OK);
    ASSERT_EQ(HydrateAll(At(L"local.bin")), S_OK);
    ASSERT_EQ(provider.Disconnect(), S_OK);
  }
  ASSERT_EQ(CfUnregisterSyncRoot(Root().c_str()), S_OK);
  EXPECT_EQ(ReadAll(At(L"local.bin")).bytes, ServerBytes("identity-1", 0, 10000));
  EXPECT_EQ(GetFileAttributesW(At(L"remote.bin").c_str()), INVALID_FILE_ATTRIBUTES);
}

TEST_F(Registration, DocumentedTakesPathsInAllTheirForms) {
  const std::wstring longForm = L"\\\\?\\" + Root();
  EXPECT_EQ(CfRegisterSyncRoot(longForm.c_str(), &registration_, &policies_, CF_REGISTER_FLAG_NONE),
            S_OK);
  std::wstring slashes = Root();
  for (auto& c : slashes) c = c == L'\\' ? L'/' : c;
  EXPECT_EQ(CfUnregisterSyncRoot(slashes.c_str()), S_OK);
  EXPECT_EQ(CfUnregisterSyncRoot((Root() + L"\\").c_str()),
            Win32(ERROR_CLOUD_FILE_NOT_UNDER_SYNC_ROOT));
}

class RegisteredRoot : public RegisteredTest {};

TEST_F(RegisteredRoot, DocumentedReportsSyncStatusAndClearsIt) {
  struct {
    CF_SYNC_STATUS status;
    WCHAR description[8];
  } report{{sizeof report, 7, sizeof(CF_SYNC_STATUS), sizeof report.description, 0, 0}, L"paused"};
  EXPECT_EQ(CfReportSyncStatus(Root().c_str(), &report.status), S_OK);
  EXPECT_EQ(CfReportSyncStatus(Root().c_str(), nullptr), S_OK);
  report.status.DescriptionOffset = 1000;
  EXPECT_EQ(CfReportSyncStatus(Root().c_str(), &report.status), kInvalidParameter);
}

}  // namespace
}  // namespace conformance
