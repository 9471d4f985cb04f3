#ifndef NIMBRA_NIMBRA_H_
#define NIMBRA_NIMBRA_H_

#include <stddef.h>
#include <stdint.h>

#ifndef __cplusplus
#include <stdbool.h>
#include <wchar.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t CORVWinCFStatus;
typedef int32_t CORVWinCFHresult;

typedef struct CORVWinCFSyncRootHandleRecord* CORVWinCFSyncRootHandle;
typedef struct CORVWinCFCallbackDelegatorHandleRecord* CORVWinCFCallbackDelegatorHandle;
typedef struct CORVWinCFPlaceholderHandleRecord* CORVWinCFPlaceholderHandle;
typedef struct __tag_PlaceholderMetaWrap* CORVWinCFPlaceholderMetaHandle;

struct _WIN32_FIND_DATAW;

typedef struct CORVWinCFPlatformInfo {
  uint32_t buildNumber;
  uint32_t revisionNumber;
  uint32_t integrationNumber;
} CORVWinCFPlatformInfo;

typedef struct CORVWinCFCallbackRecord {
  int64_t sessionNumber;
  int64_t transferKey;
  int64_t processId;
  int64_t fileId;
  const char* fileIdentity;
  const char* fullPath;
  const char* targetPath;
  int64_t parameters[4];
  int64_t reserved;
  void* context;
  const char* imagePath;
} CORVWinCFCallbackRecord;

typedef void (*CORVWinCFCallback)(const CORVWinCFCallbackRecord* record);

enum {
  CORVWinCFTransferSucceeded = 0,
  CORVWinCFTransferUnsuccessful = 1,
  CORVWinCFTransferDiskFull = 2,
  CORVWinCFTransferAborted = 3
};

bool CORVWinCFIsWinVersionSupportFileStreaming(void);
bool CORVWinCFIsWinVersionDisableUIFileStreamingOption(void);
bool CORVWinCFIsWinVersionDefaultFileStreaming(void);
CORVWinCFStatus CORVWinCFGetPlatformInfo(CORVWinCFPlatformInfo* info);

CORVWinCFStatus CORVWinCFGetSyncRootIdentityByPath(const char* path, void* identity);
CORVWinCFStatus CORVWinCFIsPathUnderCorvDriveSyncRoot(const char* path);

CORVWinCFStatus CORVWinCFSyncRootNew(CORVWinCFSyncRootHandle* handleOut, const char* path,
                                     uint64_t sessionId);
CORVWinCFHresult CORVWinCFSyncRootRegister(CORVWinCFSyncRootHandle handle, const char* text);
CORVWinCFHresult CORVWinCFSyncRootReregister(CORVWinCFSyncRootHandle handle, const char* text);
CORVWinCFHresult CORVWinCFSyncRootUnregister(CORVWinCFSyncRootHandle handle);
CORVWinCFHresult CORVWinCFSyncRootConnect(CORVWinCFSyncRootHandle syncRootHandle,
                                          CORVWinCFCallbackDelegatorHandle delegatorHandle);
CORVWinCFHresult CORVWinCFSyncRootDisconnect(CORVWinCFSyncRootHandle handle);
CORVWinCFHresult CORVWinCFSyncRootTransferData(CORVWinCFSyncRootHandle handle, int64_t transferKey,
                                               int64_t unused, const void* buffer, int64_t offset,
                                               int64_t length, uint32_t status);
CORVWinCFHresult CORVWinCFSyncRootReportTransferProgress(CORVWinCFSyncRootHandle handle,
                                                         int64_t transferKey, int64_t total,
                                                         int64_t completed);
CORVWinCFStatus CORVWinCFSyncRootProactiveTransferToPlaceholder(
    CORVWinCFSyncRootHandle handle, CORVWinCFPlaceholderHandle placeholderHandle,
    const char* localPath);
CORVWinCFStatus CORVWinCFSyncRootAckRename(CORVWinCFSyncRootHandle handle, int64_t transferKey);
CORVWinCFStatus CORVWinCFSyncRootAckDelete(CORVWinCFSyncRootHandle handle, int64_t transferKey,
                                           int64_t unused, uint32_t status);
void CORVWinCFSyncRootRelease(CORVWinCFSyncRootHandle* handleVariable);

CORVWinCFStatus CORVWinCFCallbackDelegatorNew(CORVWinCFCallbackDelegatorHandle* handleOut,
                                              void* context);
CORVWinCFStatus CORVWinCFCallbackDelegatorSetFetchCallback(CORVWinCFCallbackDelegatorHandle handle,
                                                           CORVWinCFCallback callback);
CORVWinCFStatus CORVWinCFCallbackDelegatorSetFetchCancelCallback(
    CORVWinCFCallbackDelegatorHandle handle, CORVWinCFCallback callback);
CORVWinCFStatus CORVWinCFCallbackDelegatorSetDeleteCallback(CORVWinCFCallbackDelegatorHandle handle,
                                                            CORVWinCFCallback callback);
CORVWinCFStatus CORVWinCFCallbackDelegatorSetRenameCallback(CORVWinCFCallbackDelegatorHandle handle,
                                                            CORVWinCFCallback callback);
CORVWinCFStatus CORVWinCFCallbackDelegatorSetRenameCompletionCallback(
    CORVWinCFCallbackDelegatorHandle handle, CORVWinCFCallback callback);
CORVWinCFStatus CORVWinCFCallbackDelegatorSetOpenCompletionCallback(
    CORVWinCFCallbackDelegatorHandle handle, CORVWinCFCallback callback);
void CORVWinCFCallbackDelegatorRelease(CORVWinCFCallbackDelegatorHandle handle);

CORVWinCFStatus CORVWinCFIsPlaceholder(const char* path);
CORVWinCFStatus CORVWinCFIsPlaceholderByFindData(const struct _WIN32_FIND_DATAW* findData);
CORVWinCFStatus CORVWinCFIsFullyHydrated(const char* path);
CORVWinCFStatus CORVWinCFIsFullyHydratedW(const wchar_t* path);

CORVWinCFStatus CORVWinCFPlaceholderNew(CORVWinCFPlaceholderHandle* handleOut, const char* path);
CORVWinCFStatus CORVWinCFPlaceholderOpen(CORVWinCFPlaceholderHandle handle);
CORVWinCFStatus CORVWinCFPlaceholderCreate(CORVWinCFPlaceholderHandle handle, const char* identity,
                                           CORVWinCFPlaceholderMetaHandle meta);
CORVWinCFStatus CORVWinCFPlaceholderUpdate(CORVWinCFPlaceholderHandle handle, const char* identity,
                                           CORVWinCFPlaceholderMetaHandle meta);
CORVWinCFStatus CORVWinCFPlaceholderConvertToPlaceholder(CORVWinCFPlaceholderHandle handle,
                                                         const char* identity);
CORVWinCFStatus CORVWinCFPlaceholderRevertToNormal(CORVWinCFPlaceholderHandle handle);
CORVWinCFStatus CORVWinCFPlaceholderIsPlaceholder(CORVWinCFPlaceholderHandle handle);
CORVWinCFStatus CORVWinCFPlaceholderIsFullyHydrated(CORVWinCFPlaceholderHandle handle);
CORVWinCFStatus CORVWinCFPlaceholderIsPinned(CORVWinCFPlaceholderHandle handle);
CORVWinCFStatus CORVWinCFPlaceholderIsExcluded(CORVWinCFPlaceholderHandle handle);
CORVWinCFStatus CORVWinCFPlaceholderIsInSync(CORVWinCFPlaceholderHandle handle);
void CORVWinCFPlaceholderGetFileIdentity(CORVWinCFPlaceholderHandle handle, void* buffer);
CORVWinCFStatus CORVWinCFPlaceholderHydrateAll(CORVWinCFPlaceholderHandle handle);
CORVWinCFStatus CORVWinCFPlaceholderHydrateAllAsync(CORVWinCFPlaceholderHandle handle);
CORVWinCFStatus CORVWinCFPlaceholderDehydrate(CORVWinCFPlaceholderHandle handle, int64_t offset,
                                              int64_t length);
CORVWinCFStatus CORVWinCFPlaceholderDehydrateAll(CORVWinCFPlaceholderHandle handle);
CORVWinCFStatus CORVWinCFPlaceholderPinToLocal(CORVWinCFPlaceholderHandle handle);
CORVWinCFStatus CORVWinCFPlaceholderUnpin(CORVWinCFPlaceholderHandle handle);
CORVWinCFStatus CORVWinCFPlaceholderForceUnpin(CORVWinCFPlaceholderHandle handle);
CORVWinCFStatus CORVWinCFPlaceholderSetInSync(CORVWinCFPlaceholderHandle handle);
CORVWinCFStatus CORVWinCFPlaceholderSetNotInSync(CORVWinCFPlaceholderHandle handle);
CORVWinCFStatus CORVWinCFPlaceholderSetExcluded(CORVWinCFPlaceholderHandle handle);
void CORVWinCFPlaceholderRelease(CORVWinCFPlaceholderHandle handle);

CORVWinCFPlaceholderMetaHandle CORVWinCFPlaceholderMetaNew(int64_t lastAccessTime,
                                                           int64_t changeTime, int64_t creationTime,
                                                           int64_t lastWriteTime, int64_t fileSize,
                                                           int32_t type);
void CORVWinCFPlaceholderMetaRelease(CORVWinCFPlaceholderMetaHandle handle);

#ifdef __cplusplus
}
#endif

#endif
