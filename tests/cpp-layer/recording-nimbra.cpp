#include "recording-nimbra.h"

#include <cstring>
#include <sstream>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace cpp_layer_test {

namespace {

RecordingNimbra* current = nullptr;

void Write(std::ostream& out, const char* text) {
  text != nullptr ? out << '"' << text << '"' : out << "null";
}

void Write(std::ostream& out, const wchar_t* text) {
  if (text == nullptr) {
    out << "null";
    return;
  }
  const std::wstring wide(text);
  out << "L\"";
  for (const wchar_t letter : wide) {
    out << static_cast<char>(letter);
  }
  out << '"';
}

// Addresses, too: as the number that a handle is.
template <typename Value>
void Write(std::ostream& out, Value value) {
  if constexpr (std::is_pointer_v<Value>) {
    value != nullptr ? out << reinterpret_cast<std::uintptr_t>(value) : out << "null";
  } else {
    out << value;
  }
}

}  // namespace

// What the functions below have in common.
struct Functions {
  template <typename... Arguments>
  static CORVWinCFStatus Do(const std::string& name, Arguments... arguments) {
    std::ostringstream text;
    [[maybe_unused]] const char* separator = "";
    text << name << '(';
    ((text << std::exchange(separator, ", "), Write(text, arguments)), ...);
    current->calls_.push_back(text.str() + ')');
    const auto result = current->results_.find(name);
    return static_cast<CORVWinCFStatus>(result != current->results_.end() ? result->second : 0U);
  }

  template <typename Handle, typename... Arguments>
  static CORVWinCFStatus Make(const std::string& name, Handle* out, Arguments... arguments) {
    const auto result = Do(name, arguments...);
    if (result == 0) {
      current->handles_.insert(++current->lastHandle_);
      *out = reinterpret_cast<Handle>(current->lastHandle_);
    }
    return result;
  }

  static void Forget(const std::string& name, std::uintptr_t handle) {
    if (current->handles_.erase(handle) == 0) {
      Complain(name + " of what there is not");
    }
  }

  template <typename Handle>
  static void Release(const std::string& name, Handle handle) {
    Do(name, handle);
    if (handle != nullptr) {
      Forget(name, reinterpret_cast<std::uintptr_t>(handle));
    }
  }

  static CORVWinCFStatus FillIdentity(CORVWinCFStatus result, void* buffer) {
    if (result == 0 && buffer != nullptr) {
      std::memcpy(buffer, current->identity_.data(), current->identity_.size());
    }
    return result;
  }

  static CORVWinCFStatus Set(const std::string& event, CORVWinCFCallbackDelegatorHandle handle,
                             CORVWinCFCallback callback) {
    current->callbacks_[event] = callback;
    return Do("CallbackDelegatorSet" + event + "Callback", handle);
  }

  static CORVWinCFStatus NewDelegator(CORVWinCFCallbackDelegatorHandle* out, void* context) {
    current->context_ = context;
    return Make("CallbackDelegatorNew", out);
  }

  // Text of its own, which is missed if it is not given back.
  static CORVWinCFStatus NewGuid(char** out) {
    const auto result = Do("GenerateGuid");
    if (result == 0) {
      *out = new char[sizeof kGuid];
      std::memcpy(*out, kGuid, sizeof kGuid);
      current->handles_.insert(reinterpret_cast<std::uintptr_t>(*out));
    }
    return result;
  }

  static void ReleaseGuid(void* guid) {
    Do("ReleaseGuid");
    Forget("ReleaseGuid", reinterpret_cast<std::uintptr_t>(guid));
    delete[] static_cast<char*>(guid);
  }

  // The data is no text, and so not written down.
  static CORVWinCFHresult Transfer(CORVWinCFSyncRootHandle handle, int64_t transferKey,
                                   int64_t unused, const void* buffer, int64_t offset,
                                   int64_t length, uint32_t status) {
    current->buffer_ = buffer;
    if (buffer != nullptr) {
      current->data_.append(static_cast<const char*>(buffer), static_cast<std::size_t>(length));
    }
    return Do("SyncRootTransferData", handle, transferKey, unused, offset, length, status);
  }

  static void SetRetriever(CORVWinCFThumbRetriever retriever) {
    current->retriever_ = retriever;
    Do("SetThumbRetrieverCb");
  }
};

RecordingNimbra::RecordingNimbra() { current = this; }

RecordingNimbra::~RecordingNimbra() {
  if (!handles_.empty()) {
    Complain(std::to_string(handles_.size()) + " handles were not released");
  }
  current = nullptr;
}

std::vector<std::string> RecordingNimbra::Take() { return std::exchange(calls_, {}); }

void RecordingNimbra::Play(const std::string& event, CORVWinCFCallbackRecord record) const {
  record.context = context_;
  callbacks_.at(event)(&record);
}

}  // namespace cpp_layer_test

using cpp_layer_test::Functions;

bool CORVWinCFIsWinVersionSupportFileStreaming() {
  return Functions::Do("IsWinVersionSupportFileStreaming") == 1;
}
bool CORVWinCFIsWinVersionDisableUIFileStreamingOption() {
  return Functions::Do("IsWinVersionDisableUIFileStreamingOption") == 1;
}
bool CORVWinCFIsWinVersionDefaultFileStreaming() {
  return Functions::Do("IsWinVersionDefaultFileStreaming") == 1;
}
CORVWinCFStatus CORVWinCFGetPlatformInfo(CORVWinCFPlatformInfo* info) {
  const auto result = Functions::Do("GetPlatformInfo");
  if (result == 0) {
    *info = {19041, 2, 3};
  }
  return result;
}
CORVWinCFStatus CORVWinCFGetSyncRootIdentityByPath(const char* path, void* identity) {
  return Functions::FillIdentity(Functions::Do("GetSyncRootIdentityByPath", path), identity);
}
CORVWinCFStatus CORVWinCFIsPathUnderCorvDriveSyncRoot(const char* path) {
  return Functions::Do("IsPathUnderCorvDriveSyncRoot", path);
}

CORVWinCFStatus CORVWinCFSyncRootNew(CORVWinCFSyncRootHandle* handleOut, const char* path,
                                     uint64_t sessionId) {
  return Functions::Make("SyncRootNew", handleOut, path, sessionId);
}
CORVWinCFHresult CORVWinCFSyncRootRegister(CORVWinCFSyncRootHandle handle, const char* text) {
  return Functions::Do("SyncRootRegister", handle, text);
}
CORVWinCFHresult CORVWinCFSyncRootReregister(CORVWinCFSyncRootHandle handle, const char* text) {
  return Functions::Do("SyncRootReregister", handle, text);
}
CORVWinCFHresult CORVWinCFSyncRootUnregister(CORVWinCFSyncRootHandle handle) {
  return Functions::Do("SyncRootUnregister", handle);
}
CORVWinCFHresult CORVWinCFSyncRootConnect(CORVWinCFSyncRootHandle syncRootHandle,
                                          CORVWinCFCallbackDelegatorHandle delegatorHandle) {
  return Functions::Do("SyncRootConnect", syncRootHandle, delegatorHandle);
}
CORVWinCFHresult CORVWinCFSyncRootDisconnect(CORVWinCFSyncRootHandle handle) {
  return Functions::Do("SyncRootDisconnect", handle);
}
CORVWinCFHresult CORVWinCFSyncRootTransferData(CORVWinCFSyncRootHandle handle, int64_t transferKey,
                                               int64_t unused, const void* buffer, int64_t offset,
                                               int64_t length, uint32_t status) {
  return Functions::Transfer(handle, transferKey, unused, buffer, offset, length, status);
}
CORVWinCFHresult CORVWinCFSyncRootReportTransferProgress(CORVWinCFSyncRootHandle handle,
                                                         int64_t transferKey, int64_t total,
                                                         int64_t completed) {
  return Functions::Do("SyncRootReportTransferProgress", handle, transferKey, total, completed);
}
CORVWinCFStatus CORVWinCFSyncRootProactiveTransferToPlaceholder(
    CORVWinCFSyncRootHandle handle, CORVWinCFPlaceholderHandle placeholderHandle,
    const char* localPath) {
  return Functions::Do("SyncRootProactiveTransferToPlaceholder", handle, placeholderHandle,
                       localPath);
}
CORVWinCFStatus CORVWinCFSyncRootAckRename(CORVWinCFSyncRootHandle handle, int64_t transferKey) {
  return Functions::Do("SyncRootAckRename", handle, transferKey);
}
CORVWinCFStatus CORVWinCFSyncRootAckDelete(CORVWinCFSyncRootHandle handle, int64_t transferKey,
                                           int64_t unused, uint32_t status) {
  return Functions::Do("SyncRootAckDelete", handle, transferKey, unused, status);
}
void CORVWinCFSyncRootRelease(CORVWinCFSyncRootHandle* handleVariable) {
  Functions::Release("SyncRootRelease", *handleVariable);
}

CORVWinCFStatus CORVWinCFCallbackDelegatorNew(CORVWinCFCallbackDelegatorHandle* handleOut,
                                              void* context) {
  return Functions::NewDelegator(handleOut, context);
}
CORVWinCFStatus CORVWinCFCallbackDelegatorSetFetchCallback(CORVWinCFCallbackDelegatorHandle handle,
                                                           CORVWinCFCallback callback) {
  return Functions::Set("Fetch", handle, callback);
}
CORVWinCFStatus CORVWinCFCallbackDelegatorSetFetchCancelCallback(
    CORVWinCFCallbackDelegatorHandle handle, CORVWinCFCallback callback) {
  return Functions::Set("FetchCancel", handle, callback);
}
CORVWinCFStatus CORVWinCFCallbackDelegatorSetDeleteCallback(CORVWinCFCallbackDelegatorHandle handle,
                                                            CORVWinCFCallback callback) {
  return Functions::Set("Delete", handle, callback);
}
CORVWinCFStatus CORVWinCFCallbackDelegatorSetRenameCallback(CORVWinCFCallbackDelegatorHandle handle,
                                                            CORVWinCFCallback callback) {
  return Functions::Set("Rename", handle, callback);
}
CORVWinCFStatus CORVWinCFCallbackDelegatorSetRenameCompletionCallback(
    CORVWinCFCallbackDelegatorHandle handle, CORVWinCFCallback callback) {
  return Functions::Set("RenameCompletion", handle, callback);
}
CORVWinCFStatus CORVWinCFCallbackDelegatorSetOpenCompletionCallback(
    CORVWinCFCallbackDelegatorHandle handle, CORVWinCFCallback callback) {
  return Functions::Set("OpenCompletion", handle, callback);
}
void CORVWinCFCallbackDelegatorRelease(CORVWinCFCallbackDelegatorHandle handle) {
  Functions::Release("CallbackDelegatorRelease", handle);
}

CORVWinCFStatus CORVWinCFIsPlaceholder(const char* path) {
  return Functions::Do("IsPlaceholder", path);
}
CORVWinCFStatus CORVWinCFIsPlaceholderByFindData(const struct _WIN32_FIND_DATAW* findData) {
  return Functions::Do("IsPlaceholderByFindData", findData);
}
CORVWinCFStatus CORVWinCFIsFullyHydrated(const char* path) {
  return Functions::Do("IsFullyHydrated", path);
}
CORVWinCFStatus CORVWinCFIsFullyHydratedW(const wchar_t* path) {
  return Functions::Do("IsFullyHydratedW", path);
}

CORVWinCFStatus CORVWinCFPlaceholderNew(CORVWinCFPlaceholderHandle* handleOut, const char* path) {
  return Functions::Make("PlaceholderNew", handleOut, path);
}
CORVWinCFStatus CORVWinCFPlaceholderOpen(CORVWinCFPlaceholderHandle handle) {
  return Functions::Do("PlaceholderOpen", handle);
}
CORVWinCFStatus CORVWinCFPlaceholderCreate(CORVWinCFPlaceholderHandle handle, const char* identity,
                                           CORVWinCFPlaceholderMetaHandle meta) {
  return Functions::Do("PlaceholderCreate", handle, identity, meta);
}
CORVWinCFStatus CORVWinCFPlaceholderUpdate(CORVWinCFPlaceholderHandle handle, const char* identity,
                                           CORVWinCFPlaceholderMetaHandle meta) {
  return Functions::Do("PlaceholderUpdate", handle, identity, meta);
}
CORVWinCFStatus CORVWinCFPlaceholderConvertToPlaceholder(CORVWinCFPlaceholderHandle handle,
                                                         const char* identity) {
  return Functions::Do("PlaceholderConvertToPlaceholder", handle, identity);
}
CORVWinCFStatus CORVWinCFPlaceholderRevertToNormal(CORVWinCFPlaceholderHandle handle) {
  return Functions::Do("PlaceholderRevertToNormal", handle);
}
CORVWinCFStatus CORVWinCFPlaceholderIsPlaceholder(CORVWinCFPlaceholderHandle handle) {
  return Functions::Do("PlaceholderIsPlaceholder", handle);
}
CORVWinCFStatus CORVWinCFPlaceholderIsFullyHydrated(CORVWinCFPlaceholderHandle handle) {
  return Functions::Do("PlaceholderIsFullyHydrated", handle);
}
CORVWinCFStatus CORVWinCFPlaceholderIsPinned(CORVWinCFPlaceholderHandle handle) {
  return Functions::Do("PlaceholderIsPinned", handle);
}
CORVWinCFStatus CORVWinCFPlaceholderIsExcluded(CORVWinCFPlaceholderHandle handle) {
  return Functions::Do("PlaceholderIsExcluded", handle);
}
CORVWinCFStatus CORVWinCFPlaceholderIsInSync(CORVWinCFPlaceholderHandle handle) {
  return Functions::Do("PlaceholderIsInSync", handle);
}
CORVWinCFStatus CORVWinCFPlaceholderHydrateAll(CORVWinCFPlaceholderHandle handle) {
  return Functions::Do("PlaceholderHydrateAll", handle);
}
CORVWinCFStatus CORVWinCFPlaceholderHydrateAllAsync(CORVWinCFPlaceholderHandle handle) {
  return Functions::Do("PlaceholderHydrateAllAsync", handle);
}
CORVWinCFStatus CORVWinCFPlaceholderDehydrateAll(CORVWinCFPlaceholderHandle handle) {
  return Functions::Do("PlaceholderDehydrateAll", handle);
}
CORVWinCFStatus CORVWinCFPlaceholderPinToLocal(CORVWinCFPlaceholderHandle handle) {
  return Functions::Do("PlaceholderPinToLocal", handle);
}
CORVWinCFStatus CORVWinCFPlaceholderUnpin(CORVWinCFPlaceholderHandle handle) {
  return Functions::Do("PlaceholderUnpin", handle);
}
CORVWinCFStatus CORVWinCFPlaceholderForceUnpin(CORVWinCFPlaceholderHandle handle) {
  return Functions::Do("PlaceholderForceUnpin", handle);
}
CORVWinCFStatus CORVWinCFPlaceholderSetInSync(CORVWinCFPlaceholderHandle handle) {
  return Functions::Do("PlaceholderSetInSync", handle);
}
CORVWinCFStatus CORVWinCFPlaceholderSetNotInSync(CORVWinCFPlaceholderHandle handle) {
  return Functions::Do("PlaceholderSetNotInSync", handle);
}
CORVWinCFStatus CORVWinCFPlaceholderSetExcluded(CORVWinCFPlaceholderHandle handle) {
  return Functions::Do("PlaceholderSetExcluded", handle);
}
void CORVWinCFPlaceholderGetFileIdentity(CORVWinCFPlaceholderHandle handle, void* buffer) {
  Functions::FillIdentity(Functions::Do("PlaceholderGetFileIdentity", handle), buffer);
}
CORVWinCFStatus CORVWinCFPlaceholderDehydrate(CORVWinCFPlaceholderHandle handle, int64_t offset,
                                              int64_t length) {
  return Functions::Do("PlaceholderDehydrate", handle, offset, length);
}
void CORVWinCFPlaceholderRelease(CORVWinCFPlaceholderHandle handle) {
  Functions::Release("PlaceholderRelease", handle);
}

CORVWinCFPlaceholderMetaHandle CORVWinCFPlaceholderMetaNew(int64_t lastAccessTime,
                                                           int64_t changeTime, int64_t creationTime,
                                                           int64_t lastWriteTime, int64_t fileSize,
                                                           int32_t type) {
  CORVWinCFPlaceholderMetaHandle meta = nullptr;
  Functions::Make("PlaceholderMetaNew", &meta, lastAccessTime, changeTime, creationTime,
                  lastWriteTime, fileSize, type);
  return meta;
}
void CORVWinCFPlaceholderMetaRelease(CORVWinCFPlaceholderMetaHandle handle) {
  Functions::Release("PlaceholderMetaRelease", handle);
}

CORVWinCFStatus CORVWinCFGenerateGuid(char** out) { return Functions::NewGuid(out); }
void CORVWinCFReleaseGuid(void* guid) { Functions::ReleaseGuid(guid); }
CORVWinCFStatus CORVWinCFSyncEngineRegister(const char* syncRootPath, const char* clsid,
                                            uint64_t systemFolderId, const char* displayName,
                                            const char* shareName, const char* remotePath) {
  return Functions::Do("SyncEngineRegister", syncRootPath, clsid, systemFolderId, displayName,
                       shareName, remotePath);
}
CORVWinCFStatus CORVWinCFSyncEngineUnregister(const char* syncRootPath, const char* clsid,
                                              uint64_t systemFolderId, const char* displayName,
                                              const char* shareName, const char* remotePath) {
  return Functions::Do("SyncEngineUnregister", syncRootPath, clsid, systemFolderId, displayName,
                       shareName, remotePath);
}
CORVWinCFStatus CORVWinCFSyncEngineUnregisterSystemFolder(const char* clsid) {
  return Functions::Do("SyncEngineUnregisterSystemFolder", clsid);
}

void CORVWinCFSetThumbRetrieverCb(CORVWinCFThumbRetriever retriever) {
  Functions::SetRetriever(retriever);
}
void CORVWinCFStartShellServices() {
  if (Functions::Do("StartShellServices") != 0) {
    throw std::runtime_error("no thread");
  }
}
