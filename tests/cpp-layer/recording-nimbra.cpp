#include "recording-nimbra.h"

#include <gtest/gtest.h>

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

  template <typename Handle>
  static void Release(const std::string& name, Handle handle) {
    Do(name, handle);
    EXPECT_EQ(current->handles_.erase(reinterpret_cast<std::uintptr_t>(handle)), 1U) << name;
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
    EXPECT_EQ(current->handles_.erase(reinterpret_cast<std::uintptr_t>(guid)), 1U);
    delete[] static_cast<char*>(guid);
  }

  // The data is no text, and so not written down.
  template <typename... Arguments>
  static CORVWinCFHresult Transfer(const void* buffer, Arguments... arguments) {
    current->buffer_ = buffer;
    return Do("SyncRootTransferData", arguments...);
  }

  static void SetRetriever(CORVWinCFThumbRetriever retriever) {
    current->retriever_ = retriever;
    Do("SetThumbRetrieverCb");
  }
};

RecordingNimbra::RecordingNimbra() { current = this; }

RecordingNimbra::~RecordingNimbra() {
  EXPECT_TRUE(handles_.empty()) << handles_.size() << " handles were not released";
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

CORVWinCFStatus CORVWinCFSyncRootNew(CORVWinCFSyncRootHandle* out, const char* path,
                                     uint64_t session) {
  return Functions::Make("SyncRootNew", out, path, session);
}
CORVWinCFHresult CORVWinCFSyncRootRegister(CORVWinCFSyncRootHandle root, const char* text) {
  return Functions::Do("SyncRootRegister", root, text);
}
CORVWinCFHresult CORVWinCFSyncRootReregister(CORVWinCFSyncRootHandle root, const char* text) {
  return Functions::Do("SyncRootReregister", root, text);
}
CORVWinCFHresult CORVWinCFSyncRootUnregister(CORVWinCFSyncRootHandle root) {
  return Functions::Do("SyncRootUnregister", root);
}
CORVWinCFHresult CORVWinCFSyncRootConnect(CORVWinCFSyncRootHandle root,
                                          CORVWinCFCallbackDelegatorHandle delegator) {
  return Functions::Do("SyncRootConnect", root, delegator);
}
CORVWinCFHresult CORVWinCFSyncRootDisconnect(CORVWinCFSyncRootHandle root) {
  return Functions::Do("SyncRootDisconnect", root);
}
CORVWinCFHresult CORVWinCFSyncRootTransferData(CORVWinCFSyncRootHandle root, int64_t key,
                                               int64_t unused, const void* buffer, int64_t offset,
                                               int64_t length, uint32_t status) {
  return Functions::Transfer(buffer, root, key, unused, offset, length, status);
}
CORVWinCFHresult CORVWinCFSyncRootReportTransferProgress(CORVWinCFSyncRootHandle root, int64_t key,
                                                         int64_t total, int64_t completed) {
  return Functions::Do("SyncRootReportTransferProgress", root, key, total, completed);
}
CORVWinCFStatus CORVWinCFSyncRootProactiveTransferToPlaceholder(CORVWinCFSyncRootHandle root,
                                                                CORVWinCFPlaceholderHandle item,
                                                                const char* path) {
  return Functions::Do("SyncRootProactiveTransferToPlaceholder", root, item, path);
}
CORVWinCFStatus CORVWinCFSyncRootAckRename(CORVWinCFSyncRootHandle root, int64_t key) {
  return Functions::Do("SyncRootAckRename", root, key);
}
CORVWinCFStatus CORVWinCFSyncRootAckDelete(CORVWinCFSyncRootHandle root, int64_t key,
                                           int64_t unused, uint32_t status) {
  return Functions::Do("SyncRootAckDelete", root, key, unused, status);
}
void CORVWinCFSyncRootRelease(CORVWinCFSyncRootHandle* root) {
  Functions::Release("SyncRootRelease", *root);
}

CORVWinCFStatus CORVWinCFCallbackDelegatorNew(CORVWinCFCallbackDelegatorHandle* out,
                                              void* context) {
  return Functions::NewDelegator(out, context);
}
CORVWinCFStatus CORVWinCFCallbackDelegatorSetFetchCallback(
    CORVWinCFCallbackDelegatorHandle delegator, CORVWinCFCallback callback) {
  return Functions::Set("Fetch", delegator, callback);
}
CORVWinCFStatus CORVWinCFCallbackDelegatorSetFetchCancelCallback(
    CORVWinCFCallbackDelegatorHandle delegator, CORVWinCFCallback callback) {
  return Functions::Set("FetchCancel", delegator, callback);
}
CORVWinCFStatus CORVWinCFCallbackDelegatorSetDeleteCallback(
    CORVWinCFCallbackDelegatorHandle delegator, CORVWinCFCallback callback) {
  return Functions::Set("Delete", delegator, callback);
}
CORVWinCFStatus CORVWinCFCallbackDelegatorSetRenameCallback(
    CORVWinCFCallbackDelegatorHandle delegator, CORVWinCFCallback callback) {
  return Functions::Set("Rename", delegator, callback);
}
CORVWinCFStatus CORVWinCFCallbackDelegatorSetRenameCompletionCallback(
    CORVWinCFCallbackDelegatorHandle delegator, CORVWinCFCallback callback) {
  return Functions::Set("RenameCompletion", delegator, callback);
}
CORVWinCFStatus CORVWinCFCallbackDelegatorSetOpenCompletionCallback(
    CORVWinCFCallbackDelegatorHandle delegator, CORVWinCFCallback callback) {
  return Functions::Set("OpenCompletion", delegator, callback);
}
void CORVWinCFCallbackDelegatorRelease(CORVWinCFCallbackDelegatorHandle delegator) {
  Functions::Release("CallbackDelegatorRelease", delegator);
}

CORVWinCFStatus CORVWinCFIsPlaceholder(const char* path) {
  return Functions::Do("IsPlaceholder", path);
}
CORVWinCFStatus CORVWinCFIsPlaceholderByFindData(const struct _WIN32_FIND_DATAW* data) {
  return Functions::Do("IsPlaceholderByFindData", data);
}
CORVWinCFStatus CORVWinCFIsFullyHydrated(const char* path) {
  return Functions::Do("IsFullyHydrated", path);
}
CORVWinCFStatus CORVWinCFIsFullyHydratedW(const wchar_t* path) {
  return Functions::Do("IsFullyHydratedW", path);
}

CORVWinCFStatus CORVWinCFPlaceholderNew(CORVWinCFPlaceholderHandle* out, const char* path) {
  return Functions::Make("PlaceholderNew", out, path);
}
CORVWinCFStatus CORVWinCFPlaceholderOpen(CORVWinCFPlaceholderHandle item) {
  return Functions::Do("PlaceholderOpen", item);
}
CORVWinCFStatus CORVWinCFPlaceholderCreate(CORVWinCFPlaceholderHandle item, const char* identity,
                                           CORVWinCFPlaceholderMetaHandle meta) {
  return Functions::Do("PlaceholderCreate", item, identity, meta);
}
CORVWinCFStatus CORVWinCFPlaceholderUpdate(CORVWinCFPlaceholderHandle item, const char* identity,
                                           CORVWinCFPlaceholderMetaHandle meta) {
  return Functions::Do("PlaceholderUpdate", item, identity, meta);
}
CORVWinCFStatus CORVWinCFPlaceholderConvertToPlaceholder(CORVWinCFPlaceholderHandle item,
                                                         const char* identity) {
  return Functions::Do("PlaceholderConvertToPlaceholder", item, identity);
}
CORVWinCFStatus CORVWinCFPlaceholderRevertToNormal(CORVWinCFPlaceholderHandle item) {
  return Functions::Do("PlaceholderRevertToNormal", item);
}
CORVWinCFStatus CORVWinCFPlaceholderIsPlaceholder(CORVWinCFPlaceholderHandle item) {
  return Functions::Do("PlaceholderIsPlaceholder", item);
}
CORVWinCFStatus CORVWinCFPlaceholderIsFullyHydrated(CORVWinCFPlaceholderHandle item) {
  return Functions::Do("PlaceholderIsFullyHydrated", item);
}
CORVWinCFStatus CORVWinCFPlaceholderIsPinned(CORVWinCFPlaceholderHandle item) {
  return Functions::Do("PlaceholderIsPinned", item);
}
CORVWinCFStatus CORVWinCFPlaceholderIsExcluded(CORVWinCFPlaceholderHandle item) {
  return Functions::Do("PlaceholderIsExcluded", item);
}
CORVWinCFStatus CORVWinCFPlaceholderIsInSync(CORVWinCFPlaceholderHandle item) {
  return Functions::Do("PlaceholderIsInSync", item);
}
CORVWinCFStatus CORVWinCFPlaceholderHydrateAll(CORVWinCFPlaceholderHandle item) {
  return Functions::Do("PlaceholderHydrateAll", item);
}
CORVWinCFStatus CORVWinCFPlaceholderHydrateAllAsync(CORVWinCFPlaceholderHandle item) {
  return Functions::Do("PlaceholderHydrateAllAsync", item);
}
CORVWinCFStatus CORVWinCFPlaceholderDehydrateAll(CORVWinCFPlaceholderHandle item) {
  return Functions::Do("PlaceholderDehydrateAll", item);
}
CORVWinCFStatus CORVWinCFPlaceholderPinToLocal(CORVWinCFPlaceholderHandle item) {
  return Functions::Do("PlaceholderPinToLocal", item);
}
CORVWinCFStatus CORVWinCFPlaceholderUnpin(CORVWinCFPlaceholderHandle item) {
  return Functions::Do("PlaceholderUnpin", item);
}
CORVWinCFStatus CORVWinCFPlaceholderForceUnpin(CORVWinCFPlaceholderHandle item) {
  return Functions::Do("PlaceholderForceUnpin", item);
}
CORVWinCFStatus CORVWinCFPlaceholderSetInSync(CORVWinCFPlaceholderHandle item) {
  return Functions::Do("PlaceholderSetInSync", item);
}
CORVWinCFStatus CORVWinCFPlaceholderSetNotInSync(CORVWinCFPlaceholderHandle item) {
  return Functions::Do("PlaceholderSetNotInSync", item);
}
CORVWinCFStatus CORVWinCFPlaceholderSetExcluded(CORVWinCFPlaceholderHandle item) {
  return Functions::Do("PlaceholderSetExcluded", item);
}
void CORVWinCFPlaceholderGetFileIdentity(CORVWinCFPlaceholderHandle item, void* buffer) {
  Functions::FillIdentity(Functions::Do("PlaceholderGetFileIdentity", item), buffer);
}
CORVWinCFStatus CORVWinCFPlaceholderDehydrate(CORVWinCFPlaceholderHandle item, int64_t offset,
                                              int64_t length) {
  return Functions::Do("PlaceholderDehydrate", item, offset, length);
}
void CORVWinCFPlaceholderRelease(CORVWinCFPlaceholderHandle item) {
  Functions::Release("PlaceholderRelease", item);
}

CORVWinCFPlaceholderMetaHandle CORVWinCFPlaceholderMetaNew(int64_t access, int64_t change,
                                                           int64_t creation, int64_t write,
                                                           int64_t size, int32_t type) {
  CORVWinCFPlaceholderMetaHandle meta = nullptr;
  Functions::Make("PlaceholderMetaNew", &meta, access, change, creation, write, size, type);
  return meta;
}
void CORVWinCFPlaceholderMetaRelease(CORVWinCFPlaceholderMetaHandle meta) {
  Functions::Release("PlaceholderMetaRelease", meta);
}

CORVWinCFStatus CORVWinCFGenerateGuid(char** out) { return Functions::NewGuid(out); }
void CORVWinCFReleaseGuid(void* guid) { Functions::ReleaseGuid(guid); }
CORVWinCFStatus CORVWinCFSyncEngineRegister(const char* root, const char* clsid, uint64_t folder,
                                            const char* display, const char* share,
                                            const char* remote) {
  return Functions::Do("SyncEngineRegister", root, clsid, folder, display, share, remote);
}
CORVWinCFStatus CORVWinCFSyncEngineUnregister(const char* root, const char* clsid, uint64_t folder,
                                              const char* display, const char* share,
                                              const char* remote) {
  return Functions::Do("SyncEngineUnregister", root, clsid, folder, display, share, remote);
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
