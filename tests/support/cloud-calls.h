#ifndef NIMBRA_TESTS_SUPPORT_CLOUD_CALLS_H_
#define NIMBRA_TESTS_SUPPORT_CLOUD_CALLS_H_

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "common/cloud-files.h"

namespace nimbra_test {

// One structure for each platform function, holding copies of everything that its arguments point
// to. Texts and blobs that were passed as null pointers are empty optionals.

using Bytes = std::string;

// An OVERLAPPED argument: where it lies and what it held when the call began.
struct OverlappedArgument {
  OVERLAPPED* address = nullptr;
  OVERLAPPED contents{};
};

struct GetPlatformInfoCall {};

struct RegisterSyncRootCall {
  std::wstring path;
  ULONG structSize;
  std::wstring providerName;
  std::wstring providerVersion;
  Bytes syncRootIdentity;
  DWORD syncRootIdentityLength;
  std::optional<Bytes> fileIdentity;
  DWORD fileIdentityLength;
  GUID providerId;
  CF_SYNC_POLICIES policies;
  // Where the policies lie, to tell one process-wide value from copies.
  const CF_SYNC_POLICIES* policiesAddress;
  CF_REGISTER_FLAGS flags;
};

struct UnregisterSyncRootCall {
  std::wstring path;
};

struct ConnectSyncRootCall {
  std::wstring path;
  // The terminator included.
  std::vector<CF_CALLBACK_REGISTRATION> table;
  const CF_CALLBACK_REGISTRATION* tableAddress;
  const void* context;
  CF_CONNECT_FLAGS flags;
  CF_CONNECTION_KEY* keyAddress;
};

struct DisconnectSyncRootCall {
  std::int64_t connectionKey;
};

struct GetTransferKeyCall {
  HANDLE file;
};

struct ReleaseTransferKeyCall {
  HANDLE file;
  std::int64_t transferKey;
};

// An answer through CfExecute. The fields after `flags` hold what the operation type has.
struct ExecuteCall {
  CF_OPERATION_INFO info;
  ULONG paramSize;
  DWORD flags;
  std::int32_t status;
  // Transfers: the address as passed, a copy of its `length` bytes, and the range.
  const void* buffer;
  Bytes data;
  std::int64_t offset;
  std::int64_t length;
  // Transfers: the number of zero bytes between the end of the range's bytes and the end of the
  // buffer, when RecordingCloud::SetTransferBufferSize told the buffer's size.
  std::int64_t zeroBytesAfter;
};

struct ReportProviderProgressCall {
  std::int64_t connectionKey;
  std::int64_t transferKey;
  std::int64_t total;
  std::int64_t completed;
};

struct CreateEntry {
  std::wstring relativeFileName;
  CF_FS_METADATA metadata;
  std::optional<Bytes> identity;
  DWORD identityLength;
  CF_PLACEHOLDER_CREATE_FLAGS flags;
  HRESULT resultBefore;
  USN createUsnBefore;
};

struct CreatePlaceholdersCall {
  std::wstring baseDirectory;
  std::vector<CreateEntry> entries;
  DWORD count;
  CF_CREATE_FLAGS flags;
  bool asksEntriesProcessed;
};

struct ConvertToPlaceholderCall {
  HANDLE file;
  std::optional<Bytes> identity;
  DWORD identityLength;
  CF_CONVERT_FLAGS flags;
  bool hasUsn;
  OverlappedArgument overlapped;
};

struct UpdatePlaceholderCall {
  HANDLE file;
  std::optional<CF_FS_METADATA> metadata;
  std::optional<Bytes> identity;
  DWORD identityLength;
  std::optional<std::vector<CF_FILE_RANGE>> ranges;
  DWORD rangeCount;
  CF_UPDATE_FLAGS flags;
  bool hasUsn;
  OverlappedArgument overlapped;
};

struct RevertPlaceholderCall {
  HANDLE file;
  CF_REVERT_FLAGS flags;
  OverlappedArgument overlapped;
};

struct HydratePlaceholderCall {
  HANDLE file;
  std::int64_t offset;
  std::int64_t length;
  CF_HYDRATE_FLAGS flags;
  OverlappedArgument overlapped;
};

struct DehydratePlaceholderCall {
  HANDLE file;
  std::int64_t offset;
  std::int64_t length;
  CF_DEHYDRATE_FLAGS flags;
  OverlappedArgument overlapped;
};

struct SetPinStateCall {
  HANDLE file;
  CF_PIN_STATE state;
  CF_SET_PIN_FLAGS flags;
  OverlappedArgument overlapped;
};

struct SetInSyncStateCall {
  HANDLE file;
  CF_IN_SYNC_STATE state;
  CF_SET_IN_SYNC_FLAGS flags;
  bool hasUsn;
};

struct GetPlaceholderInfoCall {
  HANDLE file;
  CF_PLACEHOLDER_INFO_CLASS infoClass;
  DWORD bufferLength;
  bool bufferIsZeroed;
  bool asksReturnedLength;
  void* bufferAddress;
};

struct GetPlaceholderStateFromFindDataCall {
  const WIN32_FIND_DATAW* address;
  WIN32_FIND_DATAW contents;
};

struct GetSyncRootInfoByPathCall {
  std::wstring path;
  CF_SYNC_ROOT_INFO_CLASS infoClass;
  DWORD bufferLength;
  bool asksReturnedLength;
  void* bufferAddress;
};

struct ReferenceProtectedHandleCall {
  HANDLE handle;
};

struct GetWin32HandleFromProtectedHandleCall {
  HANDLE handle;
};

struct ReleaseProtectedHandleCall {
  HANDLE handle;
};

// The order of the alternatives is that of CloudFunction.
using CloudCall = std::variant<
    GetPlatformInfoCall, RegisterSyncRootCall, UnregisterSyncRootCall, ConnectSyncRootCall,
    DisconnectSyncRootCall, GetTransferKeyCall, ReleaseTransferKeyCall, ExecuteCall,
    ReportProviderProgressCall, CreatePlaceholdersCall, ConvertToPlaceholderCall,
    UpdatePlaceholderCall, RevertPlaceholderCall, HydratePlaceholderCall, DehydratePlaceholderCall,
    SetPinStateCall, SetInSyncStateCall, GetPlaceholderInfoCall,
    GetPlaceholderStateFromFindDataCall, GetSyncRootInfoByPathCall, ReferenceProtectedHandleCall,
    GetWin32HandleFromProtectedHandleCall, ReleaseProtectedHandleCall>;

enum class CloudFunction {
  GetPlatformInfo,
  RegisterSyncRoot,
  UnregisterSyncRoot,
  ConnectSyncRoot,
  DisconnectSyncRoot,
  GetTransferKey,
  ReleaseTransferKey,
  Execute,
  ReportProviderProgress,
  CreatePlaceholders,
  ConvertToPlaceholder,
  UpdatePlaceholder,
  RevertPlaceholder,
  HydratePlaceholder,
  DehydratePlaceholder,
  SetPinState,
  SetInSyncState,
  GetPlaceholderInfo,
  GetPlaceholderStateFromFindData,
  GetSyncRootInfoByPath,
  ReferenceProtectedHandle,
  GetWin32HandleFromProtectedHandle,
  ReleaseProtectedHandle,
};

// "CfExecute" and so on; what the tests' messages and call order lists use.
const char* Name(CloudFunction function);

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_CLOUD_CALLS_H_
