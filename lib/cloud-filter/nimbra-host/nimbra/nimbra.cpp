// Which sync root a path lies in.

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>

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

constexpr std::size_t kIdentityOffset = offsetof(CF_SYNC_ROOT_STANDARD_INFO, SyncRootIdentity);

// Identities up to this length are taken as the platform states them, however much it says that it
// has written: clearing room for the longest takes longer than all the rest.
constexpr std::size_t kUsualIdentity = 4096;

// Copies the identity out of an answer of which the platform says that it wrote that much; what a
// longer identity claims beyond is zero.
void CopyIdentity(const std::byte* answer, std::size_t written, std::byte* identity) {
  CF_SYNC_ROOT_STANDARD_INFO info;
  std::memcpy(&info, answer, sizeof info);
  // Both lengths come from outside; a wrong one must not lead past the buffer.
  const std::size_t length =
      std::min<std::size_t>(info.SyncRootIdentityLength, kIdentityBufferSize - kIdentityOffset);
  const std::size_t present = std::max(written, kIdentityOffset + kUsualIdentity) - kIdentityOffset;
  const std::size_t given = std::min(length, present);
  std::memcpy(identity, answer + kIdentityOffset, given);
  std::memset(identity + given, 0, length - given);
}

bool CopySyncRootIdentity(const char* path, void* identity) {
  const auto buffer = std::make_unique_for_overwrite<std::byte[]>(kIdentityBufferSize);
  std::memset(buffer.get(), 0, kIdentityOffset + kUsualIdentity);
  // Stays so when the platform does not say how much it has written.
  DWORD returnedLength = kIdentityBufferSize;
  const HRESULT result =
      Cloud().CfGetSyncRootInfoByPath(WideText(path).Get(), CF_SYNC_ROOT_INFO_STANDARD,
                                      buffer.get(), kIdentityBufferSize, &returnedLength);
  if (FAILED(result)) {
    Log(kSource, __LINE__, "Failed to get syncroot info on path ", path, ", ec: ", result);
    return false;
  }
  if (identity != nullptr) {
    CopyIdentity(buffer.get(), returnedLength, static_cast<std::byte*>(identity));
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
