#include "tests/support/recording-cloud.h"

#include <stdexcept>

#include "tests/support/cloud-copies.h"
#include "tests/support/test-scope.h"

namespace nimbra_test {
namespace {

using corvdrive::cloud_filter::CldApi;
using corvdrive::cloud_filter::ExchangeCldApi;

constexpr ULONG_PTR kStatusPending = 0x103;
constexpr USN kUsn = 1;

// Writes an optional output; whether there was one.
template <typename Output>
bool Write(Output* output, Output value) {
  if (output != nullptr) {
    *output = value;
  }
  return output != nullptr;
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
      entries[i].CreateUsn = kUsn;
    }
    Write(processed, count);
    return Self().Enter(std::move(call));
  }

  static HRESULT WINAPI ConvertToPlaceholder(HANDLE file, LPCVOID identity, DWORD identityLength,
                                             CF_CONVERT_FLAGS flags, USN* usn,
                                             LPOVERLAPPED overlapped) {
    TestScope scope;
    const bool hasUsn = Write(usn, kUsn);
    return Self().EnterOverlapped(
        ConvertToPlaceholderCall{file, Blob(identity, identityLength), identityLength, flags,
                                 hasUsn, Overlapped(overlapped)},
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
    call.hasUsn = Write(usn, kUsn);
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
    return Self().Enter(SetInSyncStateCall{file, state, flags, Write(usn, kUsn)});
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
