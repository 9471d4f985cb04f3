// e2e-other-provider PATH: has a sync root there of another provider than this library's, with the
// placeholder "cloud.txt", until a line or the end comes on the standard input.

#include <windows.h>

#include <cstdio>
#include <string>

#include "common/cloud-files.h"
#include "wide-text.h"

namespace {

constexpr char kIdentity[] = "Other Cloud's root";
constexpr GUID kProviderId{
    0x5F7E8A10, 0x93D2, 0x4C0B, {0x8E, 0x41, 0x27, 0xB6, 0x0D, 0xAA, 0x19, 0x53}};

HRESULT Register(const std::wstring& path) {
  CF_SYNC_REGISTRATION registration{};
  registration.StructSize = sizeof registration;
  registration.ProviderName = L"Other Cloud";
  registration.ProviderVersion = L"3.1";
  registration.SyncRootIdentity = kIdentity;
  registration.SyncRootIdentityLength = sizeof kIdentity - 1;
  registration.ProviderId = kProviderId;
  CF_SYNC_POLICIES policies{};
  policies.StructSize = sizeof policies;
  policies.Hydration.Primary.us = CF_HYDRATION_POLICY_FULL;
  policies.Population.Primary.us = CF_POPULATION_POLICY_ALWAYS_FULL;
  return CfRegisterSyncRoot(path.c_str(), &registration, &policies, CF_REGISTER_FLAG_NONE);
}

HRESULT CreatePlaceholder(const std::wstring& folder) {
  constexpr char kFile[] = "cloud.txt";
  CF_PLACEHOLDER_CREATE_INFO entry{};
  entry.RelativeFileName = L"cloud.txt";
  entry.FsMetadata.FileSize.QuadPart = 5000;
  entry.FsMetadata.BasicInfo.FileAttributes = FILE_ATTRIBUTE_NORMAL;
  entry.FileIdentity = kFile;
  entry.FileIdentityLength = sizeof kFile - 1;
  entry.Flags = CF_PLACEHOLDER_CREATE_FLAG_MARK_IN_SYNC;
  return CfCreatePlaceholders(folder.c_str(), &entry, 1, CF_CREATE_FLAG_NONE, nullptr);
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 2) return 2;
  const auto path = e2e::ToWide(arguments[1]);
  if (FAILED(Register(path))) return 1;
  // The platform asks for this one; nobody reads here.
  const CF_CALLBACK_REGISTRATION callbacks[]{
      {CF_CALLBACK_TYPE_FETCH_DATA, [](const CF_CALLBACK_INFO*, const CF_CALLBACK_PARAMETERS*) {}},
      {CF_CALLBACK_TYPE_NONE, nullptr}};
  CF_CONNECTION_KEY key{};
  HRESULT result = CfConnectSyncRoot(path.c_str(), callbacks, nullptr, CF_CONNECT_FLAG_NONE, &key);
  if (SUCCEEDED(result)) result = CreatePlaceholder(path);
  std::printf("%ld\n", static_cast<long>(result));
  std::fflush(stdout);
  std::getchar();
  CfDisconnectSyncRoot(key);
  return SUCCEEDED(CfUnregisterSyncRoot(path.c_str())) ? 0 : 1;
}
