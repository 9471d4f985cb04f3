#include <windows.h>

#include <objbase.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "nimbra-host/nimbra/export-support.h"
#include "win-cf/sync-engine.h"

// NOLINTNEXTLINE(google-build-using-namespace): the exports are C functions, in no namespace.
using namespace corvdrive::cloud_filter;

namespace {

// What both exports that work on a sync root's entry are given.
struct EntryArguments {
  const char* syncRootPath;
  const char* clsid;
  std::uint64_t systemFolderId;
  const char* displayName;
  const char* shareName;
  const char* remotePath;

  [[nodiscard]] bool HasAll() const {
    return syncRootPath != nullptr && clsid != nullptr && displayName != nullptr &&
           shareName != nullptr && remotePath != nullptr;
  }
};

// Shell links need COM. The thread stays initialised: ending what may not have begun here would
// take COM away from the client.
void InitialiseCom() { static_cast<void>(CoInitializeEx(nullptr, COINIT_MULTITHREADED)); }

CORVWinCFStatus WithSyncEngine(const EntryArguments& arguments,
                               bool (SyncEngineBase::*operation)()) {
  if (IsGateClosed() || !arguments.HasAll()) {
    return kFailed;
  }
  return Guarded(kFailed, [&] {
    if (!NamesAnEntry(arguments.clsid)) {
      return kFailed;
    }
    SyncEngineWinCF engine(arguments.syncRootPath, arguments.clsid,
                           WrappingFolderComposer(arguments.systemFolderId, arguments.displayName,
                                                  arguments.shareName, arguments.remotePath));
    InitialiseCom();
    return ToStatus((engine.*operation)());
  });
}

}  // namespace

CORVWinCFStatus CORVWinCFGenerateGuid(char** out) {
  if (out == nullptr) {
    return kFailed;
  }
  return Guarded(kFailed, [&] {
    const std::string guid = GenerateClsid();
    // The client may give the text back to this library only, but as any memory of the C runtime.
    auto* const copy = guid.empty() ? nullptr : static_cast<char*>(std::malloc(guid.size() + 1));
    if (copy == nullptr) {
      return kFailed;
    }
    std::memcpy(copy, guid.c_str(), guid.size() + 1);
    *out = copy;
    return kSucceeded;
  });
}

void CORVWinCFReleaseGuid(void* guid) { std::free(guid); }

CORVWinCFStatus CORVWinCFSyncEngineRegister(const char* syncRootPath, const char* clsid,
                                            uint64_t systemFolderId, const char* displayName,
                                            const char* shareName, const char* remotePath) {
  return WithSyncEngine({syncRootPath, clsid, systemFolderId, displayName, shareName, remotePath},
                        &SyncEngineBase::Register);
}

CORVWinCFStatus CORVWinCFSyncEngineUnregister(const char* syncRootPath, const char* clsid,
                                              uint64_t systemFolderId, const char* displayName,
                                              const char* shareName, const char* remotePath) {
  return WithSyncEngine({syncRootPath, clsid, systemFolderId, displayName, shareName, remotePath},
                        &SyncEngineBase::Unregister);
}

CORVWinCFStatus CORVWinCFSyncEngineUnregisterSystemFolder(const char* clsid) {
  if (IsGateClosed() || clsid == nullptr) {
    return kFailed;
  }
  return Guarded(kFailed,
                 [&] { return ToStatus(NamesAnEntry(clsid) && UnregisterNamespace(clsid)); });
}
