#include "nimbra-host/nimbra/handles.h"

// NOLINTNEXTLINE(google-build-using-namespace): the exports are C functions, in no namespace.
using namespace corvdrive::cloud_filter;

namespace {

CORVWinCFStatus SetCallback(CORVWinCFCallbackDelegatorHandle handle, CallbackKind kind,
                            CORVWinCFCallback callback) {
  if (IsGateClosed() || handle == nullptr) {
    return kFailed;
  }
  return Guarded(kFailed, [&] { return ToStatus((*ToCell(handle))->SetCallback(kind, callback)); });
}

}  // namespace

CORVWinCFStatus CORVWinCFCallbackDelegatorNew(CORVWinCFCallbackDelegatorHandle* handleOut,
                                              void* context) {
  if (IsGateClosed() || handleOut == nullptr) {
    return kFailed;
  }
  return Guarded(kFailed, [&] {
    DelegatorCell* const cell = NewCell(std::make_shared<CallbackDelegatorWinCF>(context));
    if (cell == nullptr) {
      return kFailed;
    }
    *handleOut = reinterpret_cast<CORVWinCFCallbackDelegatorHandle>(cell);
    return kSucceeded;
  });
}

CORVWinCFStatus CORVWinCFCallbackDelegatorSetFetchCallback(CORVWinCFCallbackDelegatorHandle handle,
                                                           CORVWinCFCallback callback) {
  return SetCallback(handle, kFetchData, callback);
}

CORVWinCFStatus CORVWinCFCallbackDelegatorSetFetchCancelCallback(
    CORVWinCFCallbackDelegatorHandle handle, CORVWinCFCallback callback) {
  return SetCallback(handle, kFetchCancel, callback);
}

CORVWinCFStatus CORVWinCFCallbackDelegatorSetDeleteCallback(CORVWinCFCallbackDelegatorHandle handle,
                                                            CORVWinCFCallback callback) {
  return SetCallback(handle, kDelete, callback);
}

CORVWinCFStatus CORVWinCFCallbackDelegatorSetRenameCallback(CORVWinCFCallbackDelegatorHandle handle,
                                                            CORVWinCFCallback callback) {
  return SetCallback(handle, kRename, callback);
}

CORVWinCFStatus CORVWinCFCallbackDelegatorSetRenameCompletionCallback(
    CORVWinCFCallbackDelegatorHandle handle, CORVWinCFCallback callback) {
  return SetCallback(handle, kRenameCompletion, callback);
}

CORVWinCFStatus CORVWinCFCallbackDelegatorSetOpenCompletionCallback(
    CORVWinCFCallbackDelegatorHandle handle, CORVWinCFCallback callback) {
  return SetCallback(handle, kOpenCompletion, callback);
}

void CORVWinCFCallbackDelegatorRelease(CORVWinCFCallbackDelegatorHandle handle) {
  FreeCell(ToCell(handle));
}
