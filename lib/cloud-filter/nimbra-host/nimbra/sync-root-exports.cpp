#include "nimbra-host/nimbra/handles.h"

// NOLINTNEXTLINE(google-build-using-namespace): the exports are C functions, in no namespace.
using namespace corvdrive::cloud_filter;

namespace {

// The common part of the exports that pass a result of the platform through.
template <typename Operation>
CORVWinCFHresult WithSyncRoot(CORVWinCFSyncRootHandle handle, Operation&& operation) {
  if (IsGateClosed()) {
    return E_NOINTERFACE;
  }
  if (handle == nullptr) {
    return E_POINTER;
  }
  return Guarded<CORVWinCFHresult>(E_OUTOFMEMORY, [&] { return operation(**ToCell(handle)); });
}

// The common part of those that give a status.
template <typename Operation>
CORVWinCFStatus StatusWithSyncRoot(CORVWinCFSyncRootHandle handle, Operation&& operation) {
  if (IsGateClosed() || handle == nullptr) {
    return kFailed;
  }
  return Guarded(kFailed, [&] { return ToStatus(operation(**ToCell(handle))); });
}

}  // namespace

CORVWinCFStatus CORVWinCFSyncRootNew(CORVWinCFSyncRootHandle* handleOut, const char* path,
                                     uint64_t sessionId) {
  if (IsGateClosed() || handleOut == nullptr || path == nullptr) {
    return kFailed;
  }
  return Guarded(kFailed, [&] {
    std::string identity = MakeSyncRootIdentity(sessionId);
    std::string rootPath = path;
    SyncRootCell* const cell = NewCell(std::make_shared<SyncRootWinCF>(
        std::move(rootPath), CurrentUserName(), std::move(identity)));
    if (cell == nullptr) {
      return kFailed;
    }
    *handleOut = reinterpret_cast<CORVWinCFSyncRootHandle>(cell);
    return kSucceeded;
  });
}

CORVWinCFHresult CORVWinCFSyncRootRegister(CORVWinCFSyncRootHandle handle, const char* text) {
  return WithSyncRoot(handle, [&](SyncRootBase& root) {
    return text == nullptr ? E_POINTER : root.Register(text);
  });
}

CORVWinCFHresult CORVWinCFSyncRootReregister(CORVWinCFSyncRootHandle handle, const char* text) {
  return WithSyncRoot(handle, [&](SyncRootBase& root) {
    return text == nullptr ? E_POINTER : root.Reregister(text);
  });
}

CORVWinCFHresult CORVWinCFSyncRootUnregister(CORVWinCFSyncRootHandle handle) {
  return WithSyncRoot(handle, [](SyncRootBase& root) { return root.Unregister(); });
}

CORVWinCFHresult CORVWinCFSyncRootConnect(CORVWinCFSyncRootHandle syncRootHandle,
                                          CORVWinCFCallbackDelegatorHandle delegatorHandle) {
  return WithSyncRoot(syncRootHandle, [&](SyncRootWinCF& root) {
    return delegatorHandle == nullptr
               ? E_POINTER
               : root.Connect(ToCell(delegatorHandle), disableUIFileStreamingOption != 0);
  });
}

CORVWinCFHresult CORVWinCFSyncRootDisconnect(CORVWinCFSyncRootHandle handle) {
  return WithSyncRoot(handle, [](SyncRootBase& root) { return root.Disconnect(); });
}

CORVWinCFHresult CORVWinCFSyncRootTransferData(CORVWinCFSyncRootHandle handle, int64_t transferKey,
                                               int64_t unused, const void* buffer, int64_t offset,
                                               int64_t length, uint32_t status) {
  return WithSyncRoot(handle, [&](SyncRootBase& root) {
    return root.TransferData(transferKey, unused, buffer, offset, length, status);
  });
}

CORVWinCFHresult CORVWinCFSyncRootReportTransferProgress(CORVWinCFSyncRootHandle handle,
                                                         int64_t transferKey, int64_t total,
                                                         int64_t completed) {
  return WithSyncRoot(handle, [&](SyncRootWinCF& root) {
    return root.ReportTransferProgress(transferKey, total, completed);
  });
}

CORVWinCFStatus CORVWinCFSyncRootProactiveTransferToPlaceholder(
    CORVWinCFSyncRootHandle handle, CORVWinCFPlaceholderHandle placeholderHandle,
    const char* localPath) {
  return StatusWithSyncRoot(handle, [&](SyncRootWinCF& root) {
    return placeholderHandle != nullptr && localPath != nullptr &&
           root.ProactiveTransfer(**ToCell(placeholderHandle), localPath);
  });
}

CORVWinCFStatus CORVWinCFSyncRootAckRename(CORVWinCFSyncRootHandle handle, int64_t transferKey) {
  return StatusWithSyncRoot(handle,
                            [&](SyncRootWinCF& root) { return root.AckRename(transferKey); });
}

CORVWinCFStatus CORVWinCFSyncRootAckDelete(CORVWinCFSyncRootHandle handle, int64_t transferKey,
                                           int64_t /*unused*/, uint32_t status) {
  return StatusWithSyncRoot(
      handle, [&](SyncRootWinCF& root) { return root.AckDelete(transferKey, status); });
}

void CORVWinCFSyncRootRelease(CORVWinCFSyncRootHandle* handleVariable) {
  if (handleVariable != nullptr) {
    FreeCell(ToCell(*handleVariable));
  }
}
