#include "tests/support/recording-cloud.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <stdexcept>

#include "tests/support/test-scope.h"

namespace nimbra_test {
namespace {

using corvdrive::cloud_filter::CldApi;
using corvdrive::cloud_filter::ExchangeCldApi;

constexpr HRESULT kMoreData = static_cast<HRESULT>(0x800700EA);
constexpr HRESULT kInvalidParameter = static_cast<HRESULT>(0x80070057);
constexpr ULONG_PTR kStatusPending = 0x103;

std::wstring Text(LPCWSTR text) { return text != nullptr ? text : L"(null)"; }

std::optional<Bytes> Blob(const void* data, DWORD length) {
  if (data == nullptr) {
    return std::nullopt;
  }
  return Bytes(static_cast<const char*>(data), length);
}

OverlappedArgument Overlapped(OVERLAPPED* overlapped) {
  OverlappedArgument argument;
  argument.address = overlapped;
  if (overlapped != nullptr) {
    argument.contents = *overlapped;
  }
  return argument;
}

bool IsZeroed(const void* buffer, DWORD length) {
  const auto* bytes = static_cast<const char*>(buffer);
  return std::all_of(bytes, bytes + length, [](char byte) { return byte == 0; });
}

CreateEntry CopyEntry(const CF_PLACEHOLDER_CREATE_INFO& entry) {
  return {Text(entry.RelativeFileName),
          entry.FsMetadata,
          Blob(entry.FileIdentity, entry.FileIdentityLength),
          entry.FileIdentityLength,
          entry.Flags,
          entry.Result,
          entry.CreateUsn};
}

std::vector<CF_CALLBACK_REGISTRATION> CopyTable(const CF_CALLBACK_REGISTRATION* table) {
  std::vector<CF_CALLBACK_REGISTRATION> copy;
  constexpr std::size_t kMostEntries = 32;
  while (table != nullptr && copy.size() < kMostEntries) {
    copy.push_back(*table);
    if (table->Type == CF_CALLBACK_TYPE_NONE) {
      break;
    }
    ++table;
  }
  return copy;
}

std::int64_t CountZeroes(const std::byte* begin, const std::byte* end) {
  return std::count(begin, std::max(begin, end), std::byte{0});
}

void CopyTransfer(const CF_OPERATION_PARAMETERS::TransferDataArm& arm, std::int64_t bufferSize,
                  ExecuteCall& call) {
  call.flags = static_cast<DWORD>(arm.Flags);
  call.status = arm.CompletionStatus;
  call.buffer = arm.Buffer;
  call.offset = arm.Offset.QuadPart;
  call.length = arm.Length.QuadPart;
  const auto* bytes = static_cast<const std::byte*>(arm.Buffer);
  if (bytes != nullptr && call.length > 0) {
    call.data.assign(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(call.length));
  }
  if (bytes != nullptr && bufferSize > 0) {
    call.zeroBytesAfter = CountZeroes(bytes + call.length, bytes + bufferSize);
  }
}

ExecuteCall CopyExecute(const CF_OPERATION_INFO& info, const CF_OPERATION_PARAMETERS& parameters,
                        std::int64_t bufferSize) {
  ExecuteCall call{};
  call.info = info;
  call.paramSize = parameters.ParamSize;
  switch (info.Type) {
    case CF_OPERATION_TYPE_TRANSFER_DATA:
      CopyTransfer(parameters.TransferData, bufferSize, call);
      break;
    case CF_OPERATION_TYPE_ACK_RENAME:
      call.flags = static_cast<DWORD>(parameters.AckRename.Flags);
      call.status = parameters.AckRename.CompletionStatus;
      break;
    case CF_OPERATION_TYPE_ACK_DELETE:
      call.flags = static_cast<DWORD>(parameters.AckDelete.Flags);
      call.status = parameters.AckDelete.CompletionStatus;
      break;
    default:
      throw std::logic_error("an operation that this system never asks for");
  }
  return call;
}

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

void CopyName(const std::wstring& name, WCHAR (&field)[256]) {
  std::copy_n(name.begin(), std::min<std::size_t>(name.size(), 255), field);
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

}  // namespace

// The functions of the table. Outputs are written whatever the result, so that code which reads
// them after a failure is found out; only a refused connection leaves its key alone.
struct RecordingCloud::Table {
  static RecordingCloud& Self() { return *current_; }

  static HRESULT WINAPI GetPlatformInfo(CF_PLATFORM_INFO* info) {
    TestScope scope;
    *info = Self().platform_;
    return Self().Enter(GetPlatformInfoCall{});
  }

  static HRESULT WINAPI RegisterSyncRoot(LPCWSTR path, const CF_SYNC_REGISTRATION* registration,
                                         const CF_SYNC_POLICIES* policies,
                                         CF_REGISTER_FLAGS flags) {
    TestScope scope;
    RegisterSyncRootCall call{};
    call.path = Text(path);
    call.structSize = registration->StructSize;
    call.providerName = Text(registration->ProviderName);
    call.providerVersion = Text(registration->ProviderVersion);
    call.syncRootIdentity =
        Blob(registration->SyncRootIdentity, registration->SyncRootIdentityLength).value_or("");
    call.syncRootIdentityLength = registration->SyncRootIdentityLength;
    call.fileIdentity = Blob(registration->FileIdentity, registration->FileIdentityLength);
    call.fileIdentityLength = registration->FileIdentityLength;
    call.providerId = registration->ProviderId;
    call.policies = *policies;
    call.policiesAddress = policies;
    call.flags = flags;
    return Self().Enter(std::move(call));
  }

  static HRESULT WINAPI UnregisterSyncRoot(LPCWSTR path) {
    TestScope scope;
    return Self().Enter(UnregisterSyncRootCall{Text(path)});
  }

  static HRESULT WINAPI ConnectSyncRoot(LPCWSTR path, const CF_CALLBACK_REGISTRATION* table,
                                        LPCVOID context, CF_CONNECT_FLAGS flags,
                                        CF_CONNECTION_KEY* key) {
    TestScope scope;
    const HRESULT result =
        Self().Enter(ConnectSyncRootCall{Text(path), CopyTable(table), table, context, flags, key});
    if (SUCCEEDED(result)) {
      std::lock_guard lock(Self().mutex_);
      Self().connectedTable_ = CopyTable(table);
      Self().connectedContext_ = const_cast<void*>(context);
      key->Internal = Self().connectionKey_;
    }
    return result;
  }

  static HRESULT WINAPI DisconnectSyncRoot(CF_CONNECTION_KEY key) {
    TestScope scope;
    return Self().Enter(DisconnectSyncRootCall{key.Internal});
  }

  static HRESULT WINAPI GetTransferKey(HANDLE file, CF_TRANSFER_KEY* key) {
    TestScope scope;
    key->QuadPart = Self().transferKey_;
    return Self().Enter(GetTransferKeyCall{file});
  }

  static void WINAPI ReleaseTransferKey(HANDLE file, CF_TRANSFER_KEY* key) {
    TestScope scope;
    Self().Enter(ReleaseTransferKeyCall{file, key->QuadPart});
  }

  static HRESULT WINAPI Execute(const CF_OPERATION_INFO* info,
                                CF_OPERATION_PARAMETERS* parameters) {
    TestScope scope;
    return Self().Enter(CopyExecute(*info, *parameters, Self().transferBufferSize_));
  }

  static HRESULT WINAPI ReportProviderProgress(CF_CONNECTION_KEY connectionKey,
                                               CF_TRANSFER_KEY transferKey, LARGE_INTEGER total,
                                               LARGE_INTEGER completed) {
    TestScope scope;
    return Self().Enter(ReportProviderProgressCall{connectionKey.Internal, transferKey.QuadPart,
                                                   total.QuadPart, completed.QuadPart});
  }

  static HRESULT WINAPI CreatePlaceholders(LPCWSTR baseDirectory,
                                           CF_PLACEHOLDER_CREATE_INFO* entries, DWORD count,
                                           CF_CREATE_FLAGS flags, PDWORD processed) {
    TestScope scope;
    CreatePlaceholdersCall call{Text(baseDirectory), {}, count, flags, processed != nullptr};
    for (DWORD i = 0; i < count; ++i) {
      call.entries.push_back(CopyEntry(entries[i]));
      entries[i].Result = Self().entryResult_;
      entries[i].CreateUsn = 1;
    }
    return Self().Enter(std::move(call));
  }

  static HRESULT WINAPI ConvertToPlaceholder(HANDLE file, LPCVOID identity, DWORD identityLength,
                                             CF_CONVERT_FLAGS flags, USN* usn,
                                             LPOVERLAPPED overlapped) {
    TestScope scope;
    return Self().EnterOverlapped(
        ConvertToPlaceholderCall{file, Blob(identity, identityLength), identityLength, flags,
                                 usn != nullptr, Overlapped(overlapped)},
        overlapped);
  }

  static HRESULT WINAPI UpdatePlaceholder(HANDLE file, const CF_FS_METADATA* metadata,
                                          LPCVOID identity, DWORD identityLength,
                                          const CF_FILE_RANGE* ranges, DWORD rangeCount,
                                          CF_UPDATE_FLAGS flags, USN* usn,
                                          LPOVERLAPPED overlapped) {
    TestScope scope;
    UpdatePlaceholderCall call{};
    call.file = file;
    call.metadata = metadata != nullptr ? std::optional(*metadata) : std::nullopt;
    call.identity = Blob(identity, identityLength);
    call.identityLength = identityLength;
    if (ranges != nullptr) {
      call.ranges.emplace(ranges, ranges + rangeCount);
    }
    call.rangeCount = rangeCount;
    call.flags = flags;
    call.hasUsn = usn != nullptr;
    call.overlapped = Overlapped(overlapped);
    return Self().EnterOverlapped(std::move(call), overlapped);
  }

  static HRESULT WINAPI RevertPlaceholder(HANDLE file, CF_REVERT_FLAGS flags,
                                          LPOVERLAPPED overlapped) {
    TestScope scope;
    return Self().EnterOverlapped(RevertPlaceholderCall{file, flags, Overlapped(overlapped)},
                                  overlapped);
  }

  static HRESULT WINAPI HydratePlaceholder(HANDLE file, LARGE_INTEGER offset, LARGE_INTEGER length,
                                           CF_HYDRATE_FLAGS flags, LPOVERLAPPED overlapped) {
    TestScope scope;
    return Self().EnterOverlapped(HydratePlaceholderCall{file, offset.QuadPart, length.QuadPart,
                                                         flags, Overlapped(overlapped)},
                                  overlapped);
  }

  static HRESULT WINAPI DehydratePlaceholder(HANDLE file, LARGE_INTEGER offset,
                                             LARGE_INTEGER length, CF_DEHYDRATE_FLAGS flags,
                                             LPOVERLAPPED overlapped) {
    TestScope scope;
    return Self().EnterOverlapped(DehydratePlaceholderCall{file, offset.QuadPart, length.QuadPart,
                                                           flags, Overlapped(overlapped)},
                                  overlapped);
  }

  static HRESULT WINAPI SetPinState(HANDLE file, CF_PIN_STATE state, CF_SET_PIN_FLAGS flags,
                                    LPOVERLAPPED overlapped) {
    TestScope scope;
    return Self().EnterOverlapped(SetPinStateCall{file, state, flags, Overlapped(overlapped)},
                                  overlapped);
  }

  static HRESULT WINAPI SetInSyncState(HANDLE file, CF_IN_SYNC_STATE state,
                                       CF_SET_IN_SYNC_FLAGS flags, USN* usn) {
    TestScope scope;
    return Self().Enter(SetInSyncStateCall{file, state, flags, usn != nullptr});
  }

  static HRESULT WINAPI GetPlaceholderInfo(HANDLE file, CF_PLACEHOLDER_INFO_CLASS infoClass,
                                           PVOID buffer, DWORD length, PDWORD returned) {
    TestScope scope;
    const GetPlaceholderInfoCall call{
        file, infoClass, length, IsZeroed(buffer, length), returned != nullptr, buffer};
    const HRESULT filled = FillPlaceholder(Self().placeholder_, buffer, length, returned);
    const HRESULT result = Self().Enter(call);
    return FAILED(result) ? result : filled;
  }

  static CF_PLACEHOLDER_STATE WINAPI
  GetPlaceholderStateFromFindData(const WIN32_FIND_DATAW* findData) {
    TestScope scope;
    Self().Enter(GetPlaceholderStateFromFindDataCall{findData, *findData});
    return Self().findDataState_;
  }

  static HRESULT WINAPI GetSyncRootInfoByPath(LPCWSTR path, CF_SYNC_ROOT_INFO_CLASS infoClass,
                                              PVOID buffer, DWORD length, DWORD* returned) {
    TestScope scope;
    const HRESULT filled = FillSyncRoot(Self().syncRoot_, infoClass, buffer, length, returned);
    const HRESULT result = Self().Enter(
        GetSyncRootInfoByPathCall{Text(path), infoClass, length, returned != nullptr, buffer});
    return FAILED(result) ? result : filled;
  }

  static BOOLEAN WINAPI ReferenceProtectedHandle(HANDLE handle) {
    TestScope scope;
    Self().Enter(ReferenceProtectedHandleCall{handle});
    return Self().referenceResult_;
  }

  static HANDLE WINAPI GetWin32HandleFromProtectedHandle(HANDLE handle) {
    TestScope scope;
    Self().Enter(GetWin32HandleFromProtectedHandleCall{handle});
    return Self().win32Handle_.value_or(handle);
  }

  static void WINAPI ReleaseProtectedHandle(HANDLE handle) {
    TestScope scope;
    Self().Enter(ReleaseProtectedHandleCall{handle});
  }

  static CldApi Make() {
    CldApi table{};
    table.CfGetPlatformInfo = &GetPlatformInfo;
    table.CfRegisterSyncRoot = &RegisterSyncRoot;
    table.CfUnregisterSyncRoot = &UnregisterSyncRoot;
    table.CfConnectSyncRoot = &ConnectSyncRoot;
    table.CfDisconnectSyncRoot = &DisconnectSyncRoot;
    table.CfGetTransferKey = &GetTransferKey;
    table.CfReleaseTransferKey = &ReleaseTransferKey;
    table.CfExecute = &Execute;
    table.CfReportProviderProgress = &ReportProviderProgress;
    table.CfCreatePlaceholders = &CreatePlaceholders;
    table.CfConvertToPlaceholder = &ConvertToPlaceholder;
    table.CfUpdatePlaceholder = &UpdatePlaceholder;
    table.CfRevertPlaceholder = &RevertPlaceholder;
    table.CfHydratePlaceholder = &HydratePlaceholder;
    table.CfDehydratePlaceholder = &DehydratePlaceholder;
    table.CfSetPinState = &SetPinState;
    table.CfSetInSyncState = &SetInSyncState;
    table.CfGetPlaceholderInfo = &GetPlaceholderInfo;
    table.CfGetPlaceholderStateFromFindData = &GetPlaceholderStateFromFindData;
    table.CfGetSyncRootInfoByPath = &GetSyncRootInfoByPath;
    table.CfReferenceProtectedHandle = &ReferenceProtectedHandle;
    table.CfGetWin32HandleFromProtectedHandle = &GetWin32HandleFromProtectedHandle;
    table.CfReleaseProtectedHandle = &ReleaseProtectedHandle;
    return table;
  }
};

RecordingCloud* RecordingCloud::current_ = nullptr;

const char* Name(CloudFunction function) {
  static constexpr const char* kNames[] = {
      "CfGetPlatformInfo",
      "CfRegisterSyncRoot",
      "CfUnregisterSyncRoot",
      "CfConnectSyncRoot",
      "CfDisconnectSyncRoot",
      "CfGetTransferKey",
      "CfReleaseTransferKey",
      "CfExecute",
      "CfReportProviderProgress",
      "CfCreatePlaceholders",
      "CfConvertToPlaceholder",
      "CfUpdatePlaceholder",
      "CfRevertPlaceholder",
      "CfHydratePlaceholder",
      "CfDehydratePlaceholder",
      "CfSetPinState",
      "CfSetInSyncState",
      "CfGetPlaceholderInfo",
      "CfGetPlaceholderStateFromFindData",
      "CfGetSyncRootInfoByPath",
      "CfReferenceProtectedHandle",
      "CfGetWin32HandleFromProtectedHandle",
      "CfReleaseProtectedHandle",
  };
  static_assert(std::size(kNames) == std::variant_size_v<CloudCall>);
  return kNames[static_cast<std::size_t>(function)];
}

RecordingCloud::RecordingCloud() : table_(Table::Make()) {
  if (current_ != nullptr) {
    throw std::logic_error("one recording platform at a time");
  }
  current_ = this;
  previous_ = ExchangeCldApi(&table_);
}

RecordingCloud::~RecordingCloud() {
  ExchangeCldApi(previous_);
  current_ = nullptr;
}

std::vector<CloudCall> RecordingCloud::Calls() const {
  std::lock_guard lock(mutex_);
  return calls_;
}

std::vector<std::string> RecordingCloud::CallNames() const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> names;
  for (const CloudCall& call : calls_) {
    names.emplace_back(Name(static_cast<CloudFunction>(call.index())));
  }
  return names;
}

void RecordingCloud::Clear() {
  std::lock_guard lock(mutex_);
  calls_.clear();
}

void RecordingCloud::RequireOne(std::size_t count) {
  if (count != 1) {
    throw std::logic_error("expected one such call, found " + std::to_string(count));
  }
}

void RecordingCloud::ResultOnCall(CloudFunction function, int n, HRESULT result) {
  std::lock_guard lock(mutex_);
  results_[{function, counts_[function] + n}] = result;
}

void RecordingCloud::Always(CloudFunction function, HRESULT result) {
  std::lock_guard lock(mutex_);
  defaults_[function] = result;
}

void RecordingCloud::OnCall(CloudFunction function, std::function<void()> action) {
  std::lock_guard lock(mutex_);
  actions_[function] = std::move(action);
}

HRESULT RecordingCloud::Enter(CloudCall call) {
  const auto function = static_cast<CloudFunction>(call.index());
  std::function<void()> action;
  HRESULT result = S_OK;
  {
    std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
    result = TakeResult(function);
    const auto found = actions_.find(function);
    if (found != actions_.end()) {
      action = found->second;
    }
  }
  if (action) {
    action();
  }
  return result;
}

HRESULT RecordingCloud::EnterOverlapped(CloudCall call, OVERLAPPED* overlapped) {
  const HRESULT result = Enter(std::move(call));
  if (overlapped == nullptr || FAILED(result)) {
    return result;
  }
  std::lock_guard lock(mutex_);
  overlapped->Internal = overlappedPending_ ? kStatusPending : 0;
  return overlappedPending_ ? kIoPending : result;
}

HRESULT RecordingCloud::TakeResult(CloudFunction function) {
  const auto special = results_.find({function, ++counts_[function]});
  if (special != results_.end()) {
    return special->second;
  }
  const auto usual = defaults_.find(function);
  return usual != defaults_.end() ? usual->second : S_OK;
}

void RecordingCloud::SetPlaceholder(const PlaceholderFacts& facts) { placeholder_ = facts; }

void RecordingCloud::SetSyncRoot(const SyncRootFacts& facts) { syncRoot_ = facts; }

void RecordingCloud::SetPlatform(const CF_PLATFORM_INFO& info) { platform_ = info; }

void RecordingCloud::SetConnectionKey(std::int64_t key) { connectionKey_ = key; }

void RecordingCloud::SetTransferKey(std::int64_t key) { transferKey_ = key; }

void RecordingCloud::SetEntryResult(HRESULT result) { entryResult_ = result; }

void RecordingCloud::SetFindDataState(CF_PLACEHOLDER_STATE state) { findDataState_ = state; }

void RecordingCloud::SetReferenceResult(BOOLEAN result) { referenceResult_ = result; }

void RecordingCloud::SetWin32Handle(std::optional<HANDLE> handle) { win32Handle_ = handle; }

void RecordingCloud::SetTransferBufferSize(std::int64_t size) { transferBufferSize_ = size; }

void RecordingCloud::LeaveOverlappedPending(bool pending) { overlappedPending_ = pending; }

void RecordingCloud::Complete(OVERLAPPED* overlapped, std::int32_t status) {
  overlapped->InternalHigh = 0;
  // Written last: whoever sees it may let the record go.
  InterlockedExchange64(reinterpret_cast<volatile LONG64*>(&overlapped->Internal),
                        static_cast<std::uint32_t>(status));
}

bool RecordingCloud::Play(const CallbackEvent& event) {
  void* context = nullptr;
  {
    std::lock_guard lock(mutex_);
    context = connectedContext_;
  }
  return Play(event, context);
}

bool RecordingCloud::Play(const CallbackEvent& event, void* context) {
  CF_CALLBACK callback = nullptr;
  {
    std::lock_guard lock(mutex_);
    for (const CF_CALLBACK_REGISTRATION& entry : connectedTable_) {
      if (entry.Type == event.type) {
        callback = entry.Callback;
      }
    }
  }
  if (callback == nullptr) {
    return false;
  }
  Deliver(callback, context, event);
  return true;
}

}  // namespace nimbra_test
