#include "fake-cloud.h"

#include <algorithm>
#include <cstring>

#include "windows-stand-in.h"

namespace nimbra_native {
namespace {

using corvdrive::cloud_filter::Cloud;
using corvdrive::cloud_filter::ExchangeCldApi;

FakeCloud* active = nullptr;

void RecordTransfer(ExecuteCall& call) {
  const auto& transfer = call.parameters.TransferData;
  if (transfer.Buffer == nullptr) return;
  const auto* bytes = static_cast<const char*>(transfer.Buffer);
  const auto length = static_cast<std::size_t>(transfer.Length.QuadPart);
  active->transferred.append(bytes, length);
  if (length < active->bufferSize) {
    call.dirtyTail = static_cast<std::size_t>(std::count_if(
        bytes + length, bytes + active->bufferSize, [](char byte) { return byte != '\0'; }));
  }
}

HRESULT Execute(const CF_OPERATION_INFO* info, CF_OPERATION_PARAMETERS* parameters) {
  ExecuteCall call{*info, *parameters};
  if (info->Type == CF_OPERATION_TYPE_TRANSFER_DATA) RecordTransfer(call);
  active->executed.push_back(call);
  return S_OK;
}

HRESULT CreatePlaceholders(LPCWSTR directory, CF_PLACEHOLDER_CREATE_INFO* entries, DWORD count,
                           CF_CREATE_FLAGS /*flags*/, PDWORD /*processed*/) {
  for (DWORD i = 0; i < count; ++i) {
    const auto& entry = entries[i];
    active->created.push_back(
        {Units(directory), Units(entry.RelativeFileName),
         std::string(static_cast<const char*>(entry.FileIdentity), entry.FileIdentityLength),
         entry.FsMetadata});
  }
  return S_OK;
}

HRESULT GetPlaceholderInfo(HANDLE /*file*/, CF_PLACEHOLDER_INFO_CLASS /*infoClass*/, PVOID buffer,
                           DWORD length, PDWORD returned) {
  const std::string& info = active->placeholderInfo;
  if (info.empty()) return HRESULT_FROM_WIN32(ERROR_NOT_A_CLOUD_FILE);
  std::memcpy(buffer, info.data(), std::min<std::size_t>(info.size(), length));
  *returned = static_cast<DWORD>(info.size());
  return S_OK;
}

HRESULT HydratePlaceholder(HANDLE /*file*/, LARGE_INTEGER offset, LARGE_INTEGER length,
                           CF_HYDRATE_FLAGS /*flags*/, LPOVERLAPPED /*record*/) {
  active->hydrated.emplace_back(offset.QuadPart, length.QuadPart);
  return S_OK;
}

HRESULT GetTransferKey(HANDLE /*file*/, CF_TRANSFER_KEY* key) {
  ++active->transferKeys;
  key->QuadPart = 7;
  return S_OK;
}

void ReleaseTransferKey(HANDLE /*file*/, CF_TRANSFER_KEY* /*key*/) { --active->transferKeys; }

}  // namespace

FakeCloud::FakeCloud() : table_(Cloud()) {
  table_.CfExecute = Execute;
  table_.CfCreatePlaceholders = CreatePlaceholders;
  table_.CfGetPlaceholderInfo = GetPlaceholderInfo;
  table_.CfHydratePlaceholder = HydratePlaceholder;
  table_.CfGetTransferKey = GetTransferKey;
  table_.CfReleaseTransferKey = ReleaseTransferKey;
  active = this;
  ExchangeCldApi(&table_);
}

FakeCloud::~FakeCloud() {
  ExchangeCldApi(nullptr);
  active = nullptr;
}

}  // namespace nimbra_native
