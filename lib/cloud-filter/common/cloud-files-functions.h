#ifndef NIMBRA_COMMON_CLOUD_FILES_FUNCTIONS_H_
#define NIMBRA_COMMON_CLOUD_FILES_FUNCTIONS_H_

// Functions of the Cloud Files interface; see cloud-files.h.
//
// They are declared for their types: the library reaches them through the table of
// cldapi-table.h and never links to cldapi.dll, which may be absent.

#include <windows.h>

#include "common/cloud-files-structs.h"

extern "C" {

HRESULT WINAPI CfGetPlatformInfo(CF_PLATFORM_INFO* PlatformVersion);

// Sync roots.

HRESULT WINAPI CfRegisterSyncRoot(LPCWSTR SyncRootPath, const CF_SYNC_REGISTRATION* Registration,
                                  const CF_SYNC_POLICIES* Policies,
                                  CF_REGISTER_FLAGS RegisterFlags);
HRESULT WINAPI CfUnregisterSyncRoot(LPCWSTR SyncRootPath);
HRESULT WINAPI CfConnectSyncRoot(LPCWSTR SyncRootPath,
                                 const CF_CALLBACK_REGISTRATION* CallbackTable,
                                 LPCVOID CallbackContext, CF_CONNECT_FLAGS ConnectFlags,
                                 CF_CONNECTION_KEY* ConnectionKey);
HRESULT WINAPI CfDisconnectSyncRoot(CF_CONNECTION_KEY ConnectionKey);
HRESULT WINAPI CfUpdateSyncProviderStatus(CF_CONNECTION_KEY ConnectionKey,
                                          CF_SYNC_PROVIDER_STATUS ProviderStatus);
HRESULT WINAPI CfQuerySyncProviderStatus(CF_CONNECTION_KEY ConnectionKey,
                                         CF_SYNC_PROVIDER_STATUS* ProviderStatus);
HRESULT WINAPI CfReportSyncStatus(LPCWSTR SyncRootPath, CF_SYNC_STATUS* SyncStatus);
HRESULT WINAPI CfGetSyncRootInfoByPath(LPCWSTR FilePath, CF_SYNC_ROOT_INFO_CLASS InfoClass,
                                       PVOID InfoBuffer, DWORD InfoBufferLength,
                                       DWORD* ReturnedLength);
HRESULT WINAPI CfGetSyncRootInfoByHandle(HANDLE FileHandle, CF_SYNC_ROOT_INFO_CLASS InfoClass,
                                         PVOID InfoBuffer, DWORD InfoBufferLength,
                                         DWORD* ReturnedLength);

// Operations and progress.

HRESULT WINAPI CfGetTransferKey(HANDLE FileHandle, CF_TRANSFER_KEY* TransferKey);
void WINAPI CfReleaseTransferKey(HANDLE FileHandle, CF_TRANSFER_KEY* TransferKey);
HRESULT WINAPI CfExecute(const CF_OPERATION_INFO* OpInfo, CF_OPERATION_PARAMETERS* OpParams);
HRESULT WINAPI CfReportProviderProgress(CF_CONNECTION_KEY ConnectionKey,
                                        CF_TRANSFER_KEY TransferKey,
                                        LARGE_INTEGER ProviderProgressTotal,
                                        LARGE_INTEGER ProviderProgressCompleted);
HRESULT WINAPI CfReportProviderProgress2(CF_CONNECTION_KEY ConnectionKey,
                                         CF_TRANSFER_KEY TransferKey, CF_REQUEST_KEY RequestKey,
                                         LARGE_INTEGER ProviderProgressTotal,
                                         LARGE_INTEGER ProviderProgressCompleted,
                                         DWORD TargetSessionId);

// Placeholders.

HRESULT WINAPI CfCreatePlaceholders(LPCWSTR BaseDirectoryPath,
                                    CF_PLACEHOLDER_CREATE_INFO* PlaceholderArray,
                                    DWORD PlaceholderCount, CF_CREATE_FLAGS CreateFlags,
                                    PDWORD EntriesProcessed);
HRESULT WINAPI CfConvertToPlaceholder(HANDLE FileHandle, LPCVOID FileIdentity,
                                      DWORD FileIdentityLength, CF_CONVERT_FLAGS ConvertFlags,
                                      USN* ConvertUsn, LPOVERLAPPED Overlapped);
HRESULT WINAPI CfUpdatePlaceholder(HANDLE FileHandle, const CF_FS_METADATA* FsMetadata,
                                   LPCVOID FileIdentity, DWORD FileIdentityLength,
                                   const CF_FILE_RANGE* DehydrateRangeArray,
                                   DWORD DehydrateRangeCount, CF_UPDATE_FLAGS UpdateFlags,
                                   USN* UpdateUsn, LPOVERLAPPED Overlapped);
HRESULT WINAPI CfRevertPlaceholder(HANDLE FileHandle, CF_REVERT_FLAGS RevertFlags,
                                   LPOVERLAPPED Overlapped);
HRESULT WINAPI CfHydratePlaceholder(HANDLE FileHandle, LARGE_INTEGER StartingOffset,
                                    LARGE_INTEGER Length, CF_HYDRATE_FLAGS HydrateFlags,
                                    LPOVERLAPPED Overlapped);
HRESULT WINAPI CfDehydratePlaceholder(HANDLE FileHandle, LARGE_INTEGER StartingOffset,
                                      LARGE_INTEGER Length, CF_DEHYDRATE_FLAGS DehydrateFlags,
                                      LPOVERLAPPED Overlapped);
HRESULT WINAPI CfSetPinState(HANDLE FileHandle, CF_PIN_STATE PinState, CF_SET_PIN_FLAGS PinFlags,
                             LPOVERLAPPED Overlapped);
HRESULT WINAPI CfSetInSyncState(HANDLE FileHandle, CF_IN_SYNC_STATE InSyncState,
                                CF_SET_IN_SYNC_FLAGS InSyncFlags, USN* InSyncUsn);
HRESULT WINAPI CfSetCorrelationVector(HANDLE FileHandle,
                                      const PCORRELATION_VECTOR CorrelationVector);
HRESULT WINAPI CfGetCorrelationVector(HANDLE FileHandle, PCORRELATION_VECTOR CorrelationVector);

// Queries.

HRESULT WINAPI CfGetPlaceholderInfo(HANDLE FileHandle, CF_PLACEHOLDER_INFO_CLASS InfoClass,
                                    PVOID InfoBuffer, DWORD InfoBufferLength,
                                    PDWORD ReturnedLength);
HRESULT WINAPI CfGetPlaceholderRangeInfo(HANDLE FileHandle,
                                         CF_PLACEHOLDER_RANGE_INFO_CLASS InfoClass,
                                         LARGE_INTEGER StartingOffset, LARGE_INTEGER Length,
                                         PVOID InfoBuffer, DWORD InfoBufferLength,
                                         PDWORD ReturnedLength);
HRESULT WINAPI CfGetPlaceholderRangeInfoForHydration(
    CF_CONNECTION_KEY ConnectionKey, CF_TRANSFER_KEY TransferKey, LARGE_INTEGER FileId,
    CF_PLACEHOLDER_RANGE_INFO_CLASS InfoClass, LARGE_INTEGER StartingOffset,
    LARGE_INTEGER RangeLength, PVOID InfoBuffer, DWORD InfoBufferSize, PDWORD InfoBufferWritten);
CF_PLACEHOLDER_STATE WINAPI CfGetPlaceholderStateFromFindData(const WIN32_FIND_DATAW* FindData);
CF_PLACEHOLDER_STATE WINAPI CfGetPlaceholderStateFromFileInfo(LPCVOID InfoBuffer,
                                                              FILE_INFO_BY_HANDLE_CLASS InfoClass);
CF_PLACEHOLDER_STATE WINAPI CfGetPlaceholderStateFromAttributeTag(DWORD FileAttributes,
                                                                  DWORD ReparseTag);

// Protected handles.

HRESULT WINAPI CfOpenFileWithOplock(LPCWSTR FilePath, CF_OPEN_FILE_FLAGS Flags,
                                    PHANDLE ProtectedHandle);
BOOLEAN WINAPI CfReferenceProtectedHandle(HANDLE ProtectedHandle);
HANDLE WINAPI CfGetWin32HandleFromProtectedHandle(HANDLE ProtectedHandle);
void WINAPI CfReleaseProtectedHandle(HANDLE ProtectedHandle);
void WINAPI CfCloseHandle(HANDLE FileHandle);

}  // extern "C"

#endif
