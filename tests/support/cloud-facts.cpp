#include "tests/support/cloud-facts.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace nimbra_test {
namespace {

constexpr HRESULT kMoreData = static_cast<HRESULT>(0x800700EA);
constexpr HRESULT kInvalidParameter = static_cast<HRESULT>(0x80070057);

// Writes as much of a record with a trailing blob as fits.
HRESULT Fill(void* buffer, DWORD length, const void* record, std::size_t fixedSize,
             const Bytes& blob, DWORD* returned) {
  Bytes whole(static_cast<const char*>(record), fixedSize);
  whole += blob;
  const std::size_t fitting = std::min<std::size_t>(length, whole.size());
  std::memcpy(buffer, whole.data(), fitting);
  if (returned != nullptr) {
    *returned = static_cast<DWORD>(fitting);
  }
  return fitting < whole.size() ? kMoreData : S_OK;
}

void CopyName(const std::wstring& name, WCHAR (&field)[256]) {
  std::copy_n(name.begin(), std::min<std::size_t>(name.size(), 255), field);
}

}  // namespace

HRESULT FillPlaceholder(const PlaceholderFacts& facts, void* buffer, DWORD length,
                        DWORD* returned) {
  CF_PLACEHOLDER_STANDARD_INFO info{};
  info.OnDiskDataSize.QuadPart = facts.onDiskDataSize;
  info.ValidatedDataSize.QuadPart = facts.validatedDataSize;
  info.ModifiedDataSize.QuadPart = facts.modifiedDataSize;
  info.PropertiesSize.QuadPart = facts.propertiesSize;
  info.PinState = static_cast<CF_PIN_STATE>(facts.pinState);
  info.InSyncState = static_cast<CF_IN_SYNC_STATE>(facts.inSyncState);
  info.FileId.QuadPart = facts.fileId;
  info.SyncRootFileId.QuadPart = facts.syncRootFileId;
  info.FileIdentityLength =
      facts.statedIdentityLength.value_or(static_cast<ULONG>(facts.identity.size()));
  return Fill(buffer, length, &info, offsetof(CF_PLACEHOLDER_STANDARD_INFO, FileIdentity),
              facts.identity, returned);
}

HRESULT FillSyncRoot(const SyncRootFacts& facts, CF_SYNC_ROOT_INFO_CLASS infoClass, void* buffer,
                     DWORD length, DWORD* returned) {
  if (infoClass == CF_SYNC_ROOT_INFO_PROVIDER) {
    CF_SYNC_ROOT_PROVIDER_INFO info{};
    CopyName(facts.providerName, info.ProviderName);
    CopyName(facts.providerVersion, info.ProviderVersion);
    return Fill(buffer, length, &info, sizeof(info), {}, returned);
  }
  if (infoClass != CF_SYNC_ROOT_INFO_STANDARD) {
    return kInvalidParameter;
  }
  CF_SYNC_ROOT_STANDARD_INFO info{};
  CopyName(facts.providerName, info.ProviderName);
  CopyName(facts.providerVersion, info.ProviderVersion);
  info.SyncRootIdentityLength =
      facts.statedIdentityLength.value_or(static_cast<ULONG>(facts.identity.size()));
  return Fill(buffer, length, &info, offsetof(CF_SYNC_ROOT_STANDARD_INFO, SyncRootIdentity),
              facts.identity, returned);
}

}  // namespace nimbra_test
