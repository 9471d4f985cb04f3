// Which sync root a path lies in.

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "common/cldapi-table.h"
#include "common/debug-log.h"
#include "common/installation.h"
#include "common/text.h"
#include "nimbra-host/nimbra/export-support.h"

// NOLINTNEXTLINE(google-build-using-namespace): the exports are C functions, in no namespace.
using namespace corvdrive::cloud_filter;

namespace {

constexpr char kSource[] = R"(lib\cloud-filter\nimbra-host\nimbra\nimbra)";

constexpr DWORD kIdentityBufferSize = 65536;

bool CopySyncRootIdentity(const char* path, void* identity) {
  const auto buffer = std::make_unique<std::byte[]>(kIdentityBufferSize);
  DWORD returnedLength = 0;
  const HRESULT result =
      Cloud().CfGetSyncRootInfoByPath(WideText(path).Get(), CF_SYNC_ROOT_INFO_STANDARD,
                                      buffer.get(), kIdentityBufferSize, &returnedLength);
  if (FAILED(result)) {
    Log(kSource, __LINE__, "Failed to get syncroot info on path ", path, ", ec: ", result);
    return false;
  }
  if (identity != nullptr) {
    constexpr std::size_t kOffset = offsetof(CF_SYNC_ROOT_STANDARD_INFO, SyncRootIdentity);
    CF_SYNC_ROOT_STANDARD_INFO info;
    std::memcpy(&info, buffer.get(), sizeof info);
    // The length comes from outside; a wrong one must not lead past the buffer.
    std::memcpy(identity, buffer.get() + kOffset,
                std::min<std::size_t>(info.SyncRootIdentityLength, kIdentityBufferSize - kOffset));
  }
  return true;
}

// Whether the path does not lie in a readable sync root of another provider.
bool MayBeOurs(const char* path) {
  CF_SYNC_ROOT_PROVIDER_INFO info{};
  const HRESULT result = Cloud().CfGetSyncRootInfoByPath(
      WideText(path).Get(), CF_SYNC_ROOT_INFO_PROVIDER, &info, sizeof info, nullptr);
  if (FAILED(result)) {
    Log(kSource, __LINE__, "Failed to get syncroot info, path is: ", path);
    return true;
  }
  const std::string provider = WideToUtf8(info.ProviderName);
  Log(kSource, __LINE__, "ProviderName of ", path, " is: ", provider);
  return provider == kProviderName;
}

}  // namespace

CORVWinCFStatus CORVWinCFGetSyncRootIdentityByPath(const char* path, void* identity) {
  if (IsGateClosed() || path == nullptr) {
    return kFailed;
  }
  return Guarded(kFailed, [&] { return ToStatus(CopySyncRootIdentity(path, identity)); });
}

CORVWinCFStatus CORVWinCFIsPathUnderCorvDriveSyncRoot(const char* path) {
  if (IsGateClosed() || path == nullptr) {
    return kSucceeded;
  }
  return Guarded(kSucceeded, [&] { return ToStatus(MayBeOurs(path)); });
}
