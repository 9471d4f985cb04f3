// CfGetSyncRootInfoByPath and CfGetSyncRootInfoByHandle.

#include <algorithm>
#include <cstddef>
#include <string>

#include "common/cloud-files.h"
#include "entry.h"
#include "filter.h"
#include "info-buffer.h"
#include "paths.h"
#include "result.h"
#include "text.h"

namespace cldapi {
namespace {

namespace wire = cloud_filter::wire;

template <std::size_t size>
void CopyName(const std::string& utf8, WCHAR (&name)[size]) {
  ToWide(utf8).copy(name, size - 1);
}

template <class Info>
void FillProvider(const wire::RootInfo& from, Info& info) {
  info.ProviderStatus = static_cast<CF_SYNC_PROVIDER_STATUS>(from.providerStatus);
  CopyName(from.providerName, info.ProviderName);
  CopyName(from.providerVersion, info.ProviderVersion);
}

std::string BasicInfo(const wire::RootInfo& from) {
  CF_SYNC_ROOT_BASIC_INFO info{};
  info.SyncRootFileId.QuadPart = from.fileId;
  return WithBlob(info, sizeof info, {});
}

std::string ProviderInfo(const wire::RootInfo& from) {
  CF_SYNC_ROOT_PROVIDER_INFO info{};
  FillProvider(from, info);
  return WithBlob(info, sizeof info, {});
}

std::string StandardInfo(const wire::RootInfo& from) {
  CF_SYNC_ROOT_STANDARD_INFO info{};
  info.SyncRootFileId.QuadPart = from.fileId;
  info.HydrationPolicy.Primary.us = from.policies.hydrationPrimary;
  info.HydrationPolicy.Modifier.us = from.policies.hydrationModifier;
  info.PopulationPolicy.Primary.us = from.policies.populationPrimary;
  info.PopulationPolicy.Modifier.us = from.policies.populationModifier;
  info.InSyncPolicy = static_cast<CF_INSYNC_POLICY>(from.policies.inSync);
  info.HardLinkPolicy = static_cast<CF_HARDLINK_POLICY>(from.policies.hardLink);
  FillProvider(from, info);
  info.SyncRootIdentityLength = static_cast<ULONG>(from.identity.size());
  return WithBlob(info, offsetof(CF_SYNC_ROOT_STANDARD_INFO, SyncRootIdentity), from.identity);
}

HRESULT GetRootInfo(const wire::ItemRef& item, CF_SYNC_ROOT_INFO_CLASS infoClass,
                    const InfoBuffer& buffer) {
  wire::Writer fields;
  Put(fields, item);
  wire::RootInfo root;
  const HRESULT result = RequestAnswer(wire::Op::kGetRootInfo, fields, root);
  if (FAILED(result)) return result;
  switch (infoClass) {
    case CF_SYNC_ROOT_INFO_BASIC:
      return buffer.Answer(BasicInfo(root));
    case CF_SYNC_ROOT_INFO_STANDARD:
      return buffer.Answer(StandardInfo(root));
    case CF_SYNC_ROOT_INFO_PROVIDER:
      return buffer.Answer(ProviderInfo(root));
  }
  return result::kInvalidParameter;
}

}  // namespace
}  // namespace cldapi

extern "C" {

HRESULT WINAPI CfGetSyncRootInfoByPath(LPCWSTR FilePath, CF_SYNC_ROOT_INFO_CLASS InfoClass,
                                       PVOID InfoBuffer, DWORD InfoBufferLength,
                                       DWORD* ReturnedLength) {
  return cldapi::Guarded([&]() -> HRESULT {
    const cldapi::InfoBuffer buffer(InfoBuffer, InfoBufferLength, ReturnedLength);
    if (!buffer.IsUsable()) return cldapi::result::kInvalidParameter;
    cldapi::wire::ItemRef item;
    const HRESULT found = cldapi::UnixPathOf(FilePath, item.path);
    return FAILED(found) ? found : cldapi::GetRootInfo(item, InfoClass, buffer);
  });
}

HRESULT WINAPI CfGetSyncRootInfoByHandle(HANDLE FileHandle, CF_SYNC_ROOT_INFO_CLASS InfoClass,
                                         PVOID InfoBuffer, DWORD InfoBufferLength,
                                         DWORD* ReturnedLength) {
  return cldapi::Guarded([&]() -> HRESULT {
    const cldapi::InfoBuffer buffer(InfoBuffer, InfoBufferLength, ReturnedLength);
    if (!buffer.IsUsable()) return cldapi::result::kInvalidParameter;
    cldapi::wire::ItemRef item;
    const HRESULT found = cldapi::ItemOf(FileHandle, item);
    return FAILED(found) ? found : cldapi::GetRootInfo(item, InfoClass, buffer);
  });
}

}  // extern "C"
