#include "win-cf/sync-root.h"

#include <utility>

#include "common/cldapi-table.h"
#include "common/debug-log.h"
#include "common/installation.h"
#include "common/module-pin.h"
#include "common/session-number.h"
#include "common/text.h"
#include "win-cf/callback-dispatch.h"
#include "win-cf/operations.h"
#include "win-cf/registration.h"
#include "win-cf/transfer-buffer.h"

namespace corvdrive::cloud_filter {
namespace {

constexpr char kSource[] = R"(lib\cloud-filter\win-cf\sync-root)";

constexpr CF_SYNC_POLICIES MakePolicies() {
  CF_SYNC_POLICIES policies{};
  policies.StructSize = sizeof policies;
  policies.Hydration.Primary.us = CF_HYDRATION_POLICY_FULL;
  policies.Hydration.Modifier.us = CF_HYDRATION_POLICY_MODIFIER_AUTO_DEHYDRATION_ALLOWED;
  policies.Population.Primary.us = CF_POPULATION_POLICY_ALWAYS_FULL;
  policies.Population.Modifier.us = CF_POPULATION_POLICY_MODIFIER_NONE;
  policies.InSync = CF_INSYNC_POLICY_PRESERVE_INSYNC_FOR_SYNC_ENGINE;
  policies.HardLink = CF_HARDLINK_POLICY_NONE;
  policies.PlaceholderManagement = CF_PLACEHOLDER_MANAGEMENT_POLICY_DEFAULT;
  return policies;
}

LARGE_INTEGER ToLargeInteger(std::int64_t value) {
  LARGE_INTEGER large;
  large.QuadPart = value;
  return large;
}

}  // namespace

std::string MakeSyncRootIdentity(std::uint64_t sessionId) {
  return std::string(kSessionPrefix) + std::to_string(sessionId);
}

std::string CurrentUserName() {
  wchar_t name[257] = {};
  // The size is given in bytes although the call counts characters. Names are at most 256 long, so
  // it is only the call that takes the buffer for twice its size.
  DWORD size = sizeof name;
  return GetUserNameW(name, &size) ? WideToUtf8(name) : std::string();
}

SyncRootWinCF::SyncRootWinCF(std::string rootPath, std::string rootUserName,
                             std::string rootIdentity)
    : path(std::move(rootPath)),
      userName(std::move(rootUserName)),
      identity(std::move(rootIdentity)) {}

HRESULT SyncRootWinCF::Register(const std::string& text) {
  return RegisterWithFlags(text, CF_REGISTER_FLAG_DISABLE_ON_DEMAND_POPULATION_ON_ROOT);
}

HRESULT SyncRootWinCF::Reregister(const std::string& text) {
  return RegisterWithFlags(
      text, CF_REGISTER_FLAG_DISABLE_ON_DEMAND_POPULATION_ON_ROOT | CF_REGISTER_FLAG_UPDATE);
}

HRESULT SyncRootWinCF::RegisterWithFlags(const std::string& text, CF_REGISTER_FLAGS flags) {
  static constexpr CF_SYNC_POLICIES kPolicies = MakePolicies();
  if (!ShellRegistration{path, userName, identity}.Write(text)) {
    return REGDB_E_WRITEREGDB;
  }
  const WideText providerName(kProviderName);
  const WideText providerVersion(kProviderVersion);
  CF_SYNC_REGISTRATION registration{};
  registration.StructSize = sizeof registration;
  registration.ProviderName = providerName.Get();
  registration.ProviderVersion = providerVersion.Get();
  registration.SyncRootIdentity = identity.data();
  registration.SyncRootIdentityLength = static_cast<DWORD>(identity.size());
  const HRESULT result =
      Cloud().CfRegisterSyncRoot(WideText(path).Get(), &registration, &kPolicies, flags);
  if (FAILED(result)) {
    Log(kSource, __LINE__, "Failed to register sync root ", result);
  } else {
    Log(kSource, __LINE__, "Succeed to register sync root: ", path, " identity: ", identity);
  }
  return result;
}

HRESULT SyncRootWinCF::Unregister() {
  const HRESULT result = Cloud().CfUnregisterSyncRoot(WideText(path).Get());
  if (result != S_OK) {
    Log(kSource, __LINE__, "Failed to unregister sync root ", result);
    return result;
  }
  return ShellRegistration{path, userName, identity}.Delete() ? S_OK : REGDB_E_WRITEREGDB;
}

HRESULT SyncRootWinCF::Connect(const void* delegatorHandle, bool notifyDelete) {
  const auto flags = CF_CONNECT_FLAG_REQUIRE_PROCESS_INFO | CF_CONNECT_FLAG_REQUIRE_FULL_FILE_PATH |
                     CF_CONNECT_FLAG_BLOCK_SELF_IMPLICIT_HYDRATION;
  const CF_CALLBACK_REGISTRATION* const table = CallbackTable(notifyDelete);
  const HRESULT result = Cloud().CfConnectSyncRoot(WideText(path).Get(), table, delegatorHandle,
                                                   flags, &connectionKey);
  if (FAILED(result)) {
    Log(kSource, __LINE__, "Failed to connect to syncroot ", path, ", err: ", result);
  } else {
    PinModule();
  }
  return result;
}

HRESULT SyncRootWinCF::Disconnect() {
  const HRESULT result = Cloud().CfDisconnectSyncRoot(connectionKey);
  if (FAILED(result)) {
    Log(kSource, __LINE__, "Failed to disconnected from syncroot, err: ", result);
  }
  // A client without a root transfers no more for now; a running transfer has a buffer of its own.
  FreeKeptTransferBuffer();
  return result;
}

HRESULT SyncRootWinCF::TransferData(std::int64_t transferKey, std::int64_t /*unused*/,
                                    const void* buffer, std::int64_t offset, std::int64_t length,
                                    std::uint32_t status) {
  CF_OPERATION_PARAMETERS parameters =
      MakeTransfer(ToCompletionStatus(status), buffer, offset, length);
  const HRESULT result =
      Execute(CF_OPERATION_TYPE_TRANSFER_DATA, connectionKey, transferKey, parameters);
  if (FAILED(result)) {
    Log(kSource, __LINE__, "Failed: ", result);
  }
  return result;
}

HRESULT SyncRootWinCF::ReportTransferProgress(std::int64_t transferKey, std::int64_t total,
                                              std::int64_t completed) {
  const HRESULT result = Cloud().CfReportProviderProgress(
      connectionKey, ToLargeInteger(transferKey), ToLargeInteger(total), ToLargeInteger(completed));
  if (FAILED(result)) {
    Log(kSource, __LINE__, "Failed to report transfer progress data", result);
  }
  return result;
}

bool SyncRootWinCF::AckRename(std::int64_t transferKey) {
  CF_OPERATION_PARAMETERS parameters = MakeAckRename();
  const HRESULT result =
      Execute(CF_OPERATION_TYPE_ACK_RENAME, connectionKey, transferKey, parameters);
  if (FAILED(result)) {
    Log(kSource, __LINE__, "Failed to ack rename", result);
    return false;
  }
  return true;
}

bool SyncRootWinCF::AckDelete(std::int64_t transferKey, std::uint32_t status) {
  CF_OPERATION_PARAMETERS parameters = MakeAckDelete(ToCompletionStatus(status));
  const HRESULT result =
      Execute(CF_OPERATION_TYPE_ACK_DELETE, connectionKey, transferKey, parameters);
  if (FAILED(result)) {
    // The rename acknowledgement's words: who reads these logs knows the message so.
    Log(kSource, __LINE__, "Failed to ack rename", result);
    return false;
  }
  return true;
}

}  // namespace corvdrive::cloud_filter
