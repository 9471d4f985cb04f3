// CfConnectSyncRoot, CfDisconnectSyncRoot and what a connected provider says about itself.

#include <cwctype>
#include <optional>
#include <string>
#include <utility>

#include "common/cloud-files.h"
#include "connection.h"
#include "entry.h"
#include "filter.h"
#include "module.h"
#include "owned-handle.h"
#include "paths.h"
#include "provider-process.h"
#include "result.h"

namespace cldapi {
namespace {

namespace wire = cloud_filter::wire;

const ULONG kConnectFlags = CF_CONNECT_FLAG_REQUIRE_PROCESS_INFO |
                            CF_CONNECT_FLAG_REQUIRE_FULL_FILE_PATH |
                            CF_CONNECT_FLAG_BLOCK_SELF_IMPLICIT_HYDRATION;

// Nothing when the table has an entry that cannot be, as one without its end has sooner or later.
std::optional<CallbackTable> ReadTable(const CF_CALLBACK_REGISTRATION* entry) {
  if (entry == nullptr) return std::nullopt;
  CallbackTable table{};
  for (; entry->Type != CF_CALLBACK_TYPE_NONE; ++entry) {
    if (entry->Type >= table.size() || entry->Callback == nullptr ||
        table[entry->Type] != nullptr) {
      return std::nullopt;
    }
    table[entry->Type] = entry->Callback;
  }
  return table;
}

bool HasRequired(const CallbackTable& table, const wire::Policies& policies) {
  const bool fetches = table[CF_CALLBACK_TYPE_FETCH_DATA] != nullptr;
  const bool validates = table[CF_CALLBACK_TYPE_VALIDATE_DATA] != nullptr;
  return (fetches || policies.hydrationPrimary == CF_HYDRATION_POLICY_ALWAYS_FULL) &&
         (validates ||
          !(policies.hydrationModifier & CF_HYDRATION_POLICY_MODIFIER_VALIDATION_REQUIRED));
}

std::uint32_t MaskOf(const CallbackTable& table) {
  std::uint32_t mask = 0;
  for (std::size_t type = 0; type < table.size(); ++type) {
    if (table[type] != nullptr) mask |= 1U << type;
  }
  return mask;
}

// As it is on the disk, whatever case the caller wrote it in.
std::wstring NormalPath(const std::wstring& path) {
  std::wstring normal(GetLongPathNameW(path.c_str(), nullptr, 0), L'\0');
  if (normal.empty()) return path;
  normal.resize(GetLongPathNameW(path.c_str(), normal.data(), static_cast<DWORD>(normal.size())));
  return normal.empty() ? path : normal;
}

void DescribeVolume(const std::wstring& rootPath, ConnectedRoot& root) {
  root.volumeDosName = {static_cast<wchar_t>(std::towupper(rootPath[0])), L':'};
  const std::wstring top = root.volumeDosName + L'\\';
  WCHAR guidName[64];
  if (GetVolumeNameForVolumeMountPointW(top.c_str(), guidName, 64)) root.volumeGuidName = guidName;
  const OwnedHandle folder(CreateFileW(
      (L"\\\\?\\" + rootPath).c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
      nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  BY_HANDLE_FILE_INFORMATION information{};
  if (folder.IsValid() && GetFileInformationByHandle(folder.Get(), &information)) {
    root.volumeSerialNumber = information.dwVolumeSerialNumber;
  }
}

std::wstring PathOnVolume(const std::wstring& rootPath) {
  std::wstring path(WithoutDrive(NormalPath(rootPath)));
  if (path == L"\\") path.clear();
  return path;
}

HRESULT RequireCallbacks(const std::string& unixPath, const CallbackTable& table) {
  wire::Writer fields;
  Put(fields, wire::ItemRef{unixPath, 0});
  wire::RootInfo root;
  const HRESULT found = RequestAnswer(wire::Op::kGetRootInfo, fields, root);
  if (FAILED(found)) return found;
  return HasRequired(table, root.policies) ? S_OK : result::kInvalidParameter;
}

// Turns `channel` into the callback channel of the root at `rootPath`.
HRESULT RequestConnect(Channel& channel, const std::wstring& rootPath, const std::string& unixPath,
                       std::uint32_t mask, ConnectedRoot& root) {
  wire::Writer fields;
  fields.PutBytes(unixPath).Put(mask).Put(static_cast<std::uint32_t>(root.flags));
  Put(fields, DescribeThisProcess(rootPath));
  const auto answer = channel.Call(wire::Op::kConnect, fields.Bytes());
  if (!answer) return result::kFilterNotRunning;
  if (FAILED(answer->header.result)) return answer->header.result;
  wire::Reader reader(answer->payload);
  root.key.Internal = reader.Get<std::int64_t>();
  root.unixPath = reader.GetString();
  root.identity = reader.GetString();
  root.fileId = reader.Get<std::int64_t>();
  return reader.Good() ? S_OK : result::kInvalidData;
}

HRESULT Disconnect(CF_CONNECTION_KEY key) {
  const auto connection = RemoveConnection(key);
  if (!connection) return result::kInvalidParameter;
  wire::Writer fields;
  fields.Put(key.Internal);
  // The filter first, so that callbacks which wait for it come to an end.
  const HRESULT result = TheFilter().Request(wire::Op::kDisconnect, fields);
  connection->Stop();
  return result;
}

HRESULT Connect(LPCWSTR path, const CallbackTable& table, LPCVOID context, CF_CONNECT_FLAGS flags,
                CF_CONNECTION_KEY& key) {
  std::wstring rootPath;
  std::string unixPath;
  HRESULT result = FullDosPath(path, rootPath);
  if (SUCCEEDED(result)) result = UnixPathOf(path, unixPath);
  if (SUCCEEDED(result)) result = RequireCallbacks(unixPath, table);
  if (FAILED(result)) return result;

  ConnectedRoot root;
  root.context = const_cast<void*>(context);
  root.flags = flags;
  root.pathOnVolume = PathOnVolume(rootPath);
  DescribeVolume(rootPath, root);
  auto channel = Channel::Open();
  if (!channel) return result::kFilterNotRunning;
  result = RequestConnect(*channel, rootPath, unixPath, MaskOf(table), root);
  if (FAILED(result)) return result;

  KeepLoaded();
  key = root.key;
  auto connection = std::make_shared<Connection>(std::move(root), table, std::move(*channel));
  // Known before the first callback, which may want to execute something.
  AddConnection(key, connection);
  try {
    connection->Start();
  } catch (...) {
    static_cast<void>(Disconnect(key));
    throw;
  }
  return S_OK;
}

}  // namespace
}  // namespace cldapi

extern "C" {

HRESULT WINAPI CfConnectSyncRoot(LPCWSTR SyncRootPath,
                                 const CF_CALLBACK_REGISTRATION* CallbackTable,
                                 LPCVOID CallbackContext, CF_CONNECT_FLAGS ConnectFlags,
                                 CF_CONNECTION_KEY* ConnectionKey) {
  return cldapi::Guarded([&]() -> HRESULT {
    const auto table = cldapi::ReadTable(CallbackTable);
    if (!table || ConnectionKey == nullptr || (ConnectFlags & ~cldapi::kConnectFlags) != 0) {
      return cldapi::result::kInvalidParameter;
    }
    return cldapi::Connect(SyncRootPath, *table, CallbackContext, ConnectFlags, *ConnectionKey);
  });
}

HRESULT WINAPI CfDisconnectSyncRoot(CF_CONNECTION_KEY ConnectionKey) {
  return cldapi::Guarded([&]() -> HRESULT { return cldapi::Disconnect(ConnectionKey); });
}

HRESULT WINAPI CfUpdateSyncProviderStatus(CF_CONNECTION_KEY ConnectionKey,
                                          CF_SYNC_PROVIDER_STATUS ProviderStatus) {
  return cldapi::Guarded([&]() -> HRESULT {
    if (!cldapi::IsConnected(ConnectionKey)) return cldapi::result::kInvalidParameter;
    cldapi::wire::Writer fields;
    fields.Put(ConnectionKey.Internal).Put(static_cast<std::uint32_t>(ProviderStatus));
    return cldapi::TheFilter().Request(cldapi::wire::Op::kSetProviderStatus, fields);
  });
}

HRESULT WINAPI CfQuerySyncProviderStatus(CF_CONNECTION_KEY ConnectionKey,
                                         CF_SYNC_PROVIDER_STATUS* ProviderStatus) {
  return cldapi::Guarded([&]() -> HRESULT {
    if (ProviderStatus == nullptr || !cldapi::IsConnected(ConnectionKey)) {
      return cldapi::result::kInvalidParameter;
    }
    cldapi::wire::Writer fields;
    fields.Put(ConnectionKey.Internal);
    std::uint32_t status = 0;
    const HRESULT result =
        cldapi::RequestNumber(cldapi::wire::Op::kQueryProviderStatus, fields, status);
    if (SUCCEEDED(result)) *ProviderStatus = static_cast<CF_SYNC_PROVIDER_STATUS>(status);
    return result;
  });
}

}  // extern "C"
