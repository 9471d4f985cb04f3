#ifndef NIMBRA_NIMBRA_H_
#define NIMBRA_NIMBRA_H_

/*
 * Nimbra: desktop file synchronisation on the Windows Cloud Files interface.
 *
 * Conventions that hold for every function here:
 *
 *  1. Text is NUL-terminated UTF-8, except for the one function with the suffix W, which takes
 *     UTF-16. Ill-formed UTF-8 reaches Windows as U+FFFD. The library copies what it keeps; the
 *     caller's text is needed for the duration of the call only.
 *  2. Results. A CORVWinCFStatus is 0 for success or yes and -1 for failure or no. A
 *     CORVWinCFHresult is a Windows HRESULT: the platform's own result, unchanged, where the
 *     description says nothing else; negative means failure. Outputs are written on success only,
 *     where the description says nothing else.
 *  3. The gate. Windows must be version 10.0, build 17134 or later. On anything older each
 *     function does nothing at all and returns its closed-gate result: -1, E_NOINTERFACE
 *     (0x80004002), null, or nothing, by its type. The exceptions are the functions described as
 *     having no gate, and CORVWinCFIsPathUnderCorvDriveSyncRoot, which returns 0.
 *  4. The host's manifest. Windows tells a program its true version only if the program's
 *     manifest lists the Windows 10 `supportedOS` {8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a}. WITHOUT
 *     IT THE GATE STAYS CLOSED on every Windows.
 *  5. Null. A null handle is a failure: -1, or E_POINTER (0x80004003) from functions with a
 *     CORVWinCFHresult; release functions ignore it. A null text or output pointer is a failure
 *     too, where the description does not allow it or say otherwise.
 *  6. Ownership. What a ...New function hands out is given back to the ...Release function of its
 *     family, exactly once, and not used afterwards. Sync roots and callback delegators live on
 *     until the process ends: their release gives back the handle only.
 *  7. Threads. Any function may be called from any thread, from a callback too, and at the same
 *     time as any other, with three limits: one placeholder handle is used by one thread at a
 *     time; a delegator's callbacks are set before it is connected and stay as they are; sync roots
 *     of one Explorer entry are registered one after another. No function takes a lock that
 *     another waits for, but functions load DLLs of the system when they first need them, which
 *     waits for Windows' loader: none may be called from a DllMain.
 *  8. Diagnostics. Every failure of the platform writes one line to the debugger output
 *     (OutputDebugString) where nothing else is announced; wrong arguments write none. There is
 *     nothing to switch on.
 *  9. Memory. Running out of it is a failure like any other: -1, E_OUTOFMEMORY (0x8007000E) or
 *     null. No C++ exception leaves a function, except where its description says so.
 * 10. Calling convention: the one of 64-bit Windows. The library needs cldapi.dll and loads it on
 *     first use from the default DLL directories; without it, or without a function in it, calls
 *     fail with the Win32 error as HRESULT (0x8007007E, 0x8007007F). What it needs of the shell,
 *     COM and drawing it loads on first use from the system's folder.
 */

#include <stddef.h>
#include <stdint.h>

#ifndef __cplusplus
#include <stdbool.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** 0 for success or yes, -1 for failure or no. */
typedef int32_t CORVWinCFStatus;
/** A Windows HRESULT; negative means failure. */
typedef int32_t CORVWinCFHresult;

/** A folder that the client serves on demand. */
typedef struct CORVWinCFSyncRootHandleRecord* CORVWinCFSyncRootHandle;
/** The client's callbacks for a connected sync root. */
typedef struct CORVWinCFCallbackDelegatorHandleRecord* CORVWinCFCallbackDelegatorHandle;
/** One file or folder below a sync root. */
typedef struct CORVWinCFPlaceholderHandleRecord* CORVWinCFPlaceholderHandle;
/** Times, size and type of a placeholder; unchangeable once made. */
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name is part of the binary interface.
typedef struct __tag_PlaceholderMetaWrap* CORVWinCFPlaceholderMetaHandle;

// NOLINTNEXTLINE(bugprone-reserved-identifier): Windows names it so.
struct _WIN32_FIND_DATAW;

/* ---- Platform and version ------------------------------------------------------------------- */

/** The version of the Cloud Files platform. */
typedef struct CORVWinCFPlatformInfo {
  uint32_t buildNumber;
  uint32_t revisionNumber;
  uint32_t integrationNumber;
} CORVWinCFPlatformInfo;

/**
 * Whether file streaming can run here: Windows 10.0, build 17134 or later. This is the gate. No
 * gate of its own.
 */
bool CORVWinCFIsWinVersionSupportFileStreaming(void);

/**
 * Whether this is exactly Windows 10.0, build 17134, on which a client offers file streaming but
 * hides the option in its user interface. No gate.
 */
bool CORVWinCFIsWinVersionDisableUIFileStreamingOption(void);

/** Whether streaming is a client's default: Windows 10.0, build 17763 or later. No gate. */
bool CORVWinCFIsWinVersionDefaultFileStreaming(void);

/**
 * Gets the version of the Cloud Files platform.
 *
 * @param info  [out] receives the three numbers, all 0 when the platform does not tell; must not be
 *              null: it is not checked. Untouched when the gate is closed.
 * @return 0, also when the platform does not tell (which is not logged); -1 when the gate is
 * closed.
 */
CORVWinCFStatus CORVWinCFGetPlatformInfo(CORVWinCFPlatformInfo* info);

/* ---- Which sync root a path lies in --------------------------------------------------------- */

/**
 * Gets the identity of the sync root that holds a path.
 *
 * @param path      any path; it need not be the root itself.
 * @param identity  [out] receives the identity's bytes, without a terminator and without a bound:
 *                  it must be as large as the identity that was registered (at most 64,480 bytes
 *                  are given). May be null, to ask only whether there is a root.
 * @return 0; -1 when the path is in no sync root or the query fails, with `identity` untouched.
 */
CORVWinCFStatus CORVWinCFGetSyncRootIdentityByPath(const char* path, void* identity);

/**
 * Tells another provider's sync root from everything else. One log line names the provider found,
 * or the failure.
 *
 * @return -1 when the path lies in a sync root whose provider is not "CorvaneDrive" (case counts);
 *         0 in every other case: in this client's root, in no root at all, when the query fails,
 * for null and when the gate is closed. To know that a path is in a root of this client, ask
 *         CORVWinCFGetSyncRootIdentityByPath too.
 */
CORVWinCFStatus CORVWinCFIsPathUnderCorvDriveSyncRoot(const char* path);

/* ---- Sync roots ----------------------------------------------------------------------------- */

/**
 * Makes an object for a sync root. Nothing on disk or in the system changes, and nothing is
 * checked: the folder need not exist.
 *
 * @param handleOut  [out] receives the handle; release it with CORVWinCFSyncRootRelease. Untouched
 *                   on failure.
 * @param path       the root's folder, with backslashes: what follows the last one is the folder's
 *                   name in the shell. May be empty.
 * @param sessionId  the client's number for this root. It becomes the root's identity,
 *                   "Corvane.Drive.FileStreaming.session." and the number in decimal, and comes
 * back in every callback. Use at most 2147483647: callbacks of a root with a larger number cannot
 * be read, and their fetches fail.
 * @return 0; -1 on failure.
 */
CORVWinCFStatus CORVWinCFSyncRootNew(CORVWinCFSyncRootHandle* handleOut, const char* path,
                                     uint64_t sessionId);

/**
 * Registers the root: describes it to the shell under the machine's SyncRootManager registry key
 * (which needs the right to write to HKEY_LOCAL_MACHINE) and then makes it known to the platform.
 * What was written stays when a later step fails.
 *
 * @param text  shown in the display name: "Corvane Drive (<text>, <folder name>)".
 * @return the platform's result; 0x80040151 (REGDB_E_WRITEREGDB) when the registry could not be
 *         written, the user's account has no SID or the client's launcher folder is unknown: the
 *         platform is not asked then.
 */
CORVWinCFHresult CORVWinCFSyncRootRegister(CORVWinCFSyncRootHandle handle, const char* text);

/** Like CORVWinCFSyncRootRegister, but for a root that is registered: updates it. */
CORVWinCFHresult CORVWinCFSyncRootReregister(CORVWinCFSyncRootHandle handle, const char* text);

/**
 * Unregisters the root with the platform and then removes its description for the shell. The root
 * must not be connected. THE PLATFORM DELETES FILES BELOW IT THAT ARE NOT FULLY HYDRATED; the
 * others become ordinary files.
 *
 * @return S_OK; the platform's result when it is not S_OK (the registry is then left as it is);
 *         0x80040151 when only the registry entry could not be removed.
 */
CORVWinCFHresult CORVWinCFSyncRootUnregister(CORVWinCFSyncRootHandle handle);

/**
 * Connects the registered root: from now on the delegator's callbacks are called for it, on the
 * platform's threads, several at once, and already before this function returns. The module stays
 * loaded from the first connection on. Connect a root once: a second connection's key replaces the
 * first's.
 *
 * @param delegatorHandle  the callbacks. The handle is in use until the root is disconnected: do
 * not release it before.
 * @return the platform's result; E_POINTER for a null handle of either kind.
 */
CORVWinCFHresult CORVWinCFSyncRootConnect(CORVWinCFSyncRootHandle syncRootHandle,
                                          CORVWinCFCallbackDelegatorHandle delegatorHandle);

/**
 * Disconnects the root. Callbacks may still run while this function does, and none after it. Must
 * not run at the same time as CORVWinCFSyncRootConnect for the same handle.
 *
 * @return the platform's result.
 */
CORVWinCFHresult CORVWinCFSyncRootDisconnect(CORVWinCFSyncRootHandle handle);

/** What a transfer, or the answer to a delete, tells the platform. Other values mean 1. */
enum {
  CORVWinCFTransferSucceeded = 0,
  CORVWinCFTransferUnsuccessful = 1, /**< STATUS_CLOUD_FILE_UNSUCCESSFUL */
  CORVWinCFTransferDiskFull = 2,     /**< STATUS_DISK_FULL */
  CORVWinCFTransferAborted = 3       /**< STATUS_CLOUD_FILE_REQUEST_ABORTED */
};

/**
 * Answers a fetch, or a part of it, with data, or says that the data does not come. The data is
 * handed on without a copy.
 *
 * @param transferKey  from the callback record.
 * @param unused       ignored; pass 0.
 * @param buffer       `length` bytes; needed during the call only. May be null with a status other
 *                     than 0.
 * @param offset       where in the file the bytes belong; a multiple of 4096.
 * @param length       how many; a multiple of 4096, unless they reach the end of the file.
 * @param status       CORVWinCFTransfer...; when it is not 0, the range names what does not come,
 * and programs that wait for it get an error.
 * @return the platform's result: 0x8007018E means that the fetch was cancelled meanwhile, which is
 *         no error of the client.
 */
CORVWinCFHresult CORVWinCFSyncRootTransferData(CORVWinCFSyncRootHandle handle, int64_t transferKey,
                                               int64_t unused, const void* buffer, int64_t offset,
                                               int64_t length, uint32_t status);

/**
 * Reports the progress of a download that the platform cannot see, and keeps its fetch from timing
 * out. About ten times a second is plenty. Keep `completed` below `total` until the data is
 * transferred: the platform may take them for the end when they are equal.
 *
 * @param transferKey  from the callback record.
 * @param total        bytes in all.
 * @param completed    bytes so far.
 * @return the platform's result.
 */
CORVWinCFHresult CORVWinCFSyncRootReportTransferProgress(CORVWinCFSyncRootHandle handle,
                                                         int64_t transferKey, int64_t total,
                                                         int64_t completed);

/**
 * Fills a placeholder from a local file, without having been asked, in pieces of 4 MiB. Blocks
 * until everything is handed over. An empty file transfers nothing and succeeds.
 *
 * @param handle             a connected root.
 * @param placeholderHandle  an open placeholder in it.
 * @param localPath          the file with the data; it is shared for reading and writing meanwhile.
 * @return 0; -1 on failure, with the placeholder as far filled as it was by then.
 */
CORVWinCFStatus CORVWinCFSyncRootProactiveTransferToPlaceholder(
    CORVWinCFSyncRootHandle handle, CORVWinCFPlaceholderHandle placeholderHandle,
    const char* localPath);

/**
 * Accepts the rename that a rename callback has announced; there is no way to refuse one. Until it
 * is called, the program that renames waits, for a minute at most.
 *
 * @param transferKey  from the callback record.
 * @return 0; -1 on failure.
 */
CORVWinCFStatus CORVWinCFSyncRootAckRename(CORVWinCFSyncRootHandle handle, int64_t transferKey);

/**
 * Answers the delete that a delete callback has announced.
 *
 * @param transferKey  from the callback record.
 * @param unused       ignored; pass 0.
 * @param status       CORVWinCFTransferSucceeded lets the item go; anything else keeps it.
 * @return 0; -1 on failure.
 */
CORVWinCFStatus CORVWinCFSyncRootAckDelete(CORVWinCFSyncRootHandle handle, int64_t transferKey,
                                           int64_t unused, uint32_t status);

/**
 * Gives the handle back. The object itself, its registration and its connection live on: disconnect
 * first. No gate.
 *
 * @param handleVariable  the address of the caller's handle variable (unlike the other release
 *                        functions); null, or a variable that holds null, is ignored. The variable
 *                        keeps its value, which must not be used again.
 */
void CORVWinCFSyncRootRelease(CORVWinCFSyncRootHandle* handleVariable);

/* ---- Callbacks ------------------------------------------------------------------------------ */

/**
 * What a callback is told: 14 slots of 64 bits. The record and everything it points to are valid
 * during the callback only; copy what is needed later. Texts are UTF-8. A slot that does not belong
 * to an event is 0 or null.
 */
typedef struct CORVWinCFCallbackRecord {
  /** All events: the session number in the sync root's identity; 0 for a foreign identity. */
  int64_t sessionNumber;
  /** All events: names the request in the answer. */
  int64_t transferKey;
  /** The process that caused the event; not for a cancel. */
  int64_t processId;
  /** All events: the platform's number of the file. */
  int64_t fileId;
  /** All events: the placeholder's identity, followed by a zero byte; it may hold zero bytes. */
  const char* fileIdentity;
  /** All events: the item's full path, e.g. "C:\Users\me\Drive\a.txt". */
  const char* fullPath;
  /** Rename: the full path after it, if both ends are in the sync root; else null. */
  const char* targetPath;
  /**
   * Fetch: required offset, required length, optional offset, optional length (in bytes; a length
   * of -1 means to the end). Cancel: offset and length of what is no longer wanted, 0, 0.
   */
  int64_t parameters[4];
  /** Always 0. */
  int64_t reserved;
  /** All events: the delegator's context. */
  void* context;
  /**
   * The program that caused the event: a zero-filled buffer of at least 260 bytes; null for a
   * cancel. Empty when the platform does not tell.
   */
  const char* imagePath;
} CORVWinCFCallbackRecord;

/**
 * A client's callback. It runs on one of the platform's threads, at the same time as others: return
 * soon and do the work on a thread of the client's own. No exception may leave it.
 */
typedef void (*CORVWinCFCallback)(const CORVWinCFCallbackRecord* record);

/**
 * Makes a delegator without callbacks. An event for which none is set is dropped: nothing answers
 * it.
 *
 * @param handleOut  [out] receives the handle; release it with CORVWinCFCallbackDelegatorRelease.
 * @param context    handed back in every record; never looked into. May be null.
 * @return 0; -1 on failure, with `handleOut` untouched.
 */
CORVWinCFStatus CORVWinCFCallbackDelegatorNew(CORVWinCFCallbackDelegatorHandle* handleOut,
                                              void* context);

/**
 * Sets the callback for a fetch: a program, or a hydration, needs data of a placeholder that is not
 * on the disk. Answer it with CORVWinCFSyncRootTransferData, at once or later, from any thread: the
 * program waits, for a minute without an answer at most.
 *
 * The same for all six setters: set a kind again and the last callback counts.
 *
 * @return 0; -1 for a null handle or callback (one cannot be taken back), leaving what was set.
 */
CORVWinCFStatus CORVWinCFCallbackDelegatorSetFetchCallback(CORVWinCFCallbackDelegatorHandle handle,
                                                           CORVWinCFCallback callback);

/** Sets the callback for the end of a fetch that nobody waits for any more. Needs no answer. */
CORVWinCFStatus CORVWinCFCallbackDelegatorSetFetchCancelCallback(
    CORVWinCFCallbackDelegatorHandle handle, CORVWinCFCallback callback);

/**
 * Sets the callback for a delete; answer it with CORVWinCFSyncRootAckDelete. Deletes are announced
 * on Windows 10, build 17134, only.
 */
CORVWinCFStatus CORVWinCFCallbackDelegatorSetDeleteCallback(CORVWinCFCallbackDelegatorHandle handle,
                                                            CORVWinCFCallback callback);

/** Sets the callback for a rename; answer it with CORVWinCFSyncRootAckRename. */
CORVWinCFStatus CORVWinCFCallbackDelegatorSetRenameCallback(CORVWinCFCallbackDelegatorHandle handle,
                                                            CORVWinCFCallback callback);

/** Sets the callback for a rename that is done. Needs no answer. */
CORVWinCFStatus CORVWinCFCallbackDelegatorSetRenameCompletionCallback(
    CORVWinCFCallbackDelegatorHandle handle, CORVWinCFCallback callback);

/** Sets the callback for an opened file. It is kept, but never called: no connection asks for it.
 */
CORVWinCFStatus CORVWinCFCallbackDelegatorSetOpenCompletionCallback(
    CORVWinCFCallbackDelegatorHandle handle, CORVWinCFCallback callback);

/**
 * Gives the handle back; null is ignored. While a root is connected with it the platform uses the
 * handle: disconnect first. No gate.
 *
 * @param handle  the handle itself.
 */
void CORVWinCFCallbackDelegatorRelease(CORVWinCFCallbackDelegatorHandle handle);

/* ---- Questions about a path ----------------------------------------------------------------- */

/** Whether the item at a path is a placeholder. A missing item is -1, without a log line. */
CORVWinCFStatus CORVWinCFIsPlaceholder(const char* path);

/**
 * Whether an entry of a directory listing is a placeholder. It goes by the entry's attributes and
 * reparse tag, which Windows hides from some programs; CORVWinCFIsPlaceholder always knows.
 *
 * @param findData  a WIN32_FIND_DATAW as FindFirstFileW gives it.
 */
CORVWinCFStatus CORVWinCFIsPlaceholderByFindData(const struct _WIN32_FIND_DATAW* findData);

/**
 * Whether all data of the item at a path is on the disk. An item that is no placeholder is; a
 * missing one is not.
 */
CORVWinCFStatus CORVWinCFIsFullyHydrated(const char* path);

/** Like CORVWinCFIsFullyHydrated, for a UTF-16 path. */
CORVWinCFStatus CORVWinCFIsFullyHydratedW(const wchar_t* path);

/* ---- Placeholders --------------------------------------------------------------------------- */

/**
 * Makes an object for an item below a sync root. Nothing on disk changes.
 *
 * @param handleOut  [out] receives the handle; release it with CORVWinCFPlaceholderRelease. Null
 *                   when there is no memory.
 * @param path       the item's full path, with "/" before its last component: where an item is
 *                   created, its folder is what stands before the last "/".
 * @return 0; -1 on failure.
 */
CORVWinCFStatus CORVWinCFPlaceholderNew(CORVWinCFPlaceholderHandle* handleOut, const char* path);

/**
 * Opens the item, for the functions below that work on an open one; opens it again if it is open.
 * Opening fetches no data.
 *
 * @return 0; -1 on failure (which is not logged if the item does not exist), with the object
 * closed.
 */
CORVWinCFStatus CORVWinCFPlaceholderOpen(CORVWinCFPlaceholderHandle handle);

/**
 * Creates the item on disk as a placeholder that is in sync. Where it inherits a pin, its data is
 * fetched before this function returns; a failure of that is logged and is no failure here. Leaves
 * the object closed.
 *
 * @param identity  the client's own name of the item, at most 4096 bytes; comes back in every
 *                  callback. May be empty for a folder only.
 * @param meta      times, size and type; must not be null.
 * @return 0; -1 on failure.
 */
CORVWinCFStatus CORVWinCFPlaceholderCreate(CORVWinCFPlaceholderHandle handle, const char* identity,
                                           CORVWinCFPlaceholderMetaHandle meta);

/**
 * Replaces an open placeholder's identity and metadata and marks it in sync. A pinned one stays
 * pinned. The object stays open.
 *
 * @param identity  the new identity.
 * @param meta      the new metadata; its size is applied, whatever it is. Null stands for metadata
 *                  of which all is zero: times stay, THE SIZE BECOMES 0.
 * @return 0; -1 on failure, or if the object is not open.
 */
CORVWinCFStatus CORVWinCFPlaceholderUpdate(CORVWinCFPlaceholderHandle handle, const char* identity,
                                           CORVWinCFPlaceholderMetaHandle meta);

/**
 * Turns an open ordinary item into a placeholder that is in sync, keeps its data, and unpins it so
 * that it may be dehydrated.
 *
 * @param identity  the new placeholder's identity; may be empty.
 * @return 0; -1 on failure.
 */
CORVWinCFStatus CORVWinCFPlaceholderConvertToPlaceholder(CORVWinCFPlaceholderHandle handle,
                                                         const char* identity);

/**
 * Turns an open placeholder into an ordinary item; its missing data is fetched before.
 *
 * @return 0; -1 on failure.
 */
CORVWinCFStatus CORVWinCFPlaceholderRevertToNormal(CORVWinCFPlaceholderHandle handle);

/** Whether an open item is a placeholder; -1 for an object that is not open. */
CORVWinCFStatus CORVWinCFPlaceholderIsPlaceholder(CORVWinCFPlaceholderHandle handle);

/** Whether all data of an open item is on the disk; an item that is no placeholder counts as so. */
CORVWinCFStatus CORVWinCFPlaceholderIsFullyHydrated(CORVWinCFPlaceholderHandle handle);

/** Whether an open placeholder is pinned: to be kept on the disk. */
CORVWinCFStatus CORVWinCFPlaceholderIsPinned(CORVWinCFPlaceholderHandle handle);

/** Whether an open placeholder is excluded from synchronisation. */
CORVWinCFStatus CORVWinCFPlaceholderIsExcluded(CORVWinCFPlaceholderHandle handle);

/** Whether an open placeholder is marked as in sync. */
CORVWinCFStatus CORVWinCFPlaceholderIsInSync(CORVWinCFPlaceholderHandle handle);

/**
 * Gets the identity of an open placeholder.
 *
 * @param buffer  [out] receives the identity's bytes, without a terminator and without its length:
 *                it must hold 4096 bytes; clear it before. Untouched on failure and for an empty
 *                identity.
 */
void CORVWinCFPlaceholderGetFileIdentity(CORVWinCFPlaceholderHandle handle, void* buffer);

/**
 * Brings all data of an open placeholder onto the disk and waits for it: the fetch arrives at the
 * connected client's callback, so never wait for it there.
 *
 * @return 0; -1 on failure.
 */
CORVWinCFStatus CORVWinCFPlaceholderHydrateAll(CORVWinCFPlaceholderHandle handle);

/**
 * Like CORVWinCFPlaceholderHydrateAll, without waiting. Nothing tells of the end: ask the item.
 *
 * @return 0 when the hydration was started, or was not needed; -1 on failure.
 */
CORVWinCFStatus CORVWinCFPlaceholderHydrateAllAsync(CORVWinCFPlaceholderHandle handle);

/**
 * Drops a range of an open placeholder's data from the disk and waits for it.
 *
 * @param offset  first byte.
 * @param length  bytes; -1 means to the end.
 * @return -1, ALWAYS, also when the data went, and without a log line: ask the item what became of
 *         it, or use CORVWinCFPlaceholderDehydrateAll.
 */
CORVWinCFStatus CORVWinCFPlaceholderDehydrate(CORVWinCFPlaceholderHandle handle, int64_t offset,
                                              int64_t length);

/**
 * Drops all data of an open placeholder from the disk. The platform refuses it for an item that is
 * pinned, not in sync or in use.
 *
 * @return 0; -1 on failure.
 */
CORVWinCFStatus CORVWinCFPlaceholderDehydrateAll(CORVWinCFPlaceholderHandle handle);

/**
 * Pins an open placeholder, and all below it if it is a folder: its data is to be kept on the disk.
 * Pinning itself fetches nothing.
 *
 * @return 0; -1 on failure.
 */
CORVWinCFStatus CORVWinCFPlaceholderPinToLocal(CORVWinCFPlaceholderHandle handle);

/**
 * Unpins an open placeholder, and all below it: the platform is told to let the item take the state
 * that its folder gives it (pin state 4). Drops no data.
 *
 * @return 0; -1 on failure.
 */
CORVWinCFStatus CORVWinCFPlaceholderUnpin(CORVWinCFPlaceholderHandle handle);

/**
 * Takes every pin state from an open placeholder, and all below it, whatever its folder's (pin
 * state 0).
 *
 * @return 0; -1 on failure.
 */
CORVWinCFStatus CORVWinCFPlaceholderForceUnpin(CORVWinCFPlaceholderHandle handle);

/** Marks an open placeholder as in sync. Returns 0, or -1 on failure, which is not logged. */
CORVWinCFStatus CORVWinCFPlaceholderSetInSync(CORVWinCFPlaceholderHandle handle);

/** Marks an open placeholder as not in sync. Returns 0, or -1 on failure, which is not logged. */
CORVWinCFStatus CORVWinCFPlaceholderSetNotInSync(CORVWinCFPlaceholderHandle handle);

/**
 * Excludes an open placeholder, and all below it, from synchronisation.
 *
 * @return 0; -1 on failure.
 */
CORVWinCFStatus CORVWinCFPlaceholderSetExcluded(CORVWinCFPlaceholderHandle handle);

/**
 * Closes the item and gives the handle back; null is ignored. The item on disk stays as it is, and
 * a hydration that was started goes on. No gate.
 */
void CORVWinCFPlaceholderRelease(CORVWinCFPlaceholderHandle handle);

/* ---- Placeholder metadata ------------------------------------------------------------------- */

/**
 * Makes metadata for placeholders. Times are seconds since 1970-01-01 00:00:00 UTC; 0 means not
 * given. Only their low 32 bits count, as a signed number: times after 2038-01-19 03:14:07 UTC wrap
 * around. Nothing is checked.
 *
 * @param lastAccessTime  when it was last read.
 * @param changeTime      when its metadata last changed.
 * @param creationTime    when it was created.
 * @param lastWriteTime   when its data last changed.
 * @param fileSize        in bytes.
 * @param type            1 for a folder, anything else for a file.
 * @return the handle; release it with CORVWinCFPlaceholderMetaRelease. Null on failure; only when
 *         the handle could be had but not the memory for the metadata behind it, std::bad_alloc
 *         leaves it as a C++ exception.
 */
CORVWinCFPlaceholderMetaHandle CORVWinCFPlaceholderMetaNew(int64_t lastAccessTime,
                                                           int64_t changeTime, int64_t creationTime,
                                                           int64_t lastWriteTime, int64_t fileSize,
                                                           int32_t type);

/** Gives metadata back; null is ignored. An update that still uses it keeps it alive. No gate. */
void CORVWinCFPlaceholderMetaRelease(CORVWinCFPlaceholderMetaHandle handle);

/* ---- The Explorer entry --------------------------------------------------------------------- */

/**
 * Makes a new class identifier for an Explorer entry. No gate.
 *
 * @param out  [out] receives the text, 38 characters in upper case with its braces and a
 *             terminator; give it back to CORVWinCFReleaseGuid. Untouched on failure.
 * @return 0; -1 on failure.
 */
CORVWinCFStatus CORVWinCFGenerateGuid(char** out);

/** Gives a text of CORVWinCFGenerateGuid back; null is ignored. No gate. */
void CORVWinCFReleaseGuid(void* guid);

/**
 * Shows a sync root in Explorer's navigation pane, for the current user: puts a shortcut to the
 * root into a hidden folder, "CorvaneDrive\SystemFolders\<systemFolderId>" in the user's local
 * application data, and writes the entry "Corvane Drive - <displayName>" that shows this folder.
 * Roots that are registered with the same systemFolderId and clsid share one entry. Registering a
 * root a second time makes a second shortcut to it and writes the entry anew.
 *
 * The calling thread's COM is initialised (multithreaded, if it was not initialised) and stays so.
 * Nothing that was made is taken back when a later step fails; registry values that cannot be
 * written are logged and left out.
 *
 * @param syncRootPath    the root's folder, with backslashes, as long as a shortcut can hold (259
 *                        characters), spelled as it is on disk: unregistering compares exactly.
 * @param clsid           the entry's class identifier, with its braces. Keep it: it names the entry
 *                        when it is removed. Used as it is; one that is empty or holds a backslash,
 *                        and so would name other programs' keys, is a failure.
 * @param systemFolderId  the client's number for the entry's folder.
 * @param displayName     shown after the product's name. May be empty.
 * @param shareName       the remote share; "home" is shown as "My Drive".
 * @param remotePath      the folder in the share, with slashes. The shortcut is named after its
 *                        last component, or after the share when it is "/"; when there is such a
 *                        shortcut, "(1)", "(2)" … is appended. It must be a file name: nothing is
 *                        checked.
 * @return 0; -1 when the folder or the shortcut cannot be made, or there is no folder for 32-bit
 *         programs, where the client's launcher is expected (which is not logged; of the entry only
 *         the class key with its name is written then).
 */
CORVWinCFStatus CORVWinCFSyncEngineRegister(const char* syncRootPath, const char* clsid,
                                            uint64_t systemFolderId, const char* displayName,
                                            const char* shareName, const char* remotePath);

/**
 * Removes a sync root from Explorer's navigation pane: deletes the first shortcut found that leads
 * to it, and, when no file is left in the folder of shortcuts, the entry. The folder itself and an
 * empty key "Software\Classes\CLSID\<clsid>" stay. The calling thread's COM is initialised as by
 * CORVWinCFSyncEngineRegister.
 *
 * @param syncRootPath    as it was registered; a root that has no shortcut is no failure.
 * @param clsid           as it was registered.
 * @param systemFolderId  as it was registered. The other arguments are not used; pass them as for
 *                        the registration, as null is a failure.
 * @return 0, also when the entry stays because there are other files in the folder, or because the
 *         folder is missing or cannot be read (CORVWinCFSyncEngineUnregisterSystemFolder removes it
 *         then); -1 when the entry could not be removed, or was not there, in full: what follows
 *         the part that failed is left as it is.
 */
CORVWinCFStatus CORVWinCFSyncEngineUnregister(const char* syncRootPath, const char* clsid,
                                              uint64_t systemFolderId, const char* displayName,
                                              const char* shareName, const char* remotePath);

/**
 * Removes an entry from Explorer's navigation pane, whatever sync roots it shows. Its folder and
 * the shortcuts in it stay, and so does an empty key "Software\Classes\CLSID\<clsid>".
 *
 * @param clsid  as it was registered; empty or with a backslash is a failure.
 * @return 0; -1 when a part of the entry could not be removed or was not there: what follows it is
 *         left as it is.
 */
CORVWinCFStatus CORVWinCFSyncEngineUnregisterSystemFolder(const char* clsid);

/* ---- Thumbnails ----------------------------------------------------------------------------- */

/**
 * Finds an image that stands for an item, for instance a preview from the client's server. Called
 * on COM's threads, several at once. It should not open the item, which would fetch its data. No
 * exception may leave it; one of the compiler that the library was built with counts as false.
 *
 * @param itemPath   the item.
 * @param imagePath  [out] 260 characters, all zero: receives the path of a local file in a format
 *                   that Windows decodes, with its terminator.
 * @return whether there is one.
 */
typedef bool (*CORVWinCFThumbRetriever)(const wchar_t* itemPath, wchar_t* imagePath);

/**
 * Sets what finds the images for thumbnails. May be called at any time, before or after the shell
 * services start; a request that runs already may still use the one before.
 *
 * @param retriever  null for none: the shell then shows its own icons.
 */
void CORVWinCFSetThumbRetrieverCb(CORVWinCFThumbRetriever retriever);

/**
 * Serves thumbnails of the sync roots' items to the shell from this process, until it ends: starts
 * a thread that makes the thumbnail provider {D35B8E20-61C4-4A97-B2F3-08E6C1A7D594} known to COM
 * and waits for its calls. The module stays loaded from then on. Call it once; a second call serves
 * the class a second time, to no use. That COM starts the client for this class when it does not
 * run is the installer's business. Failures are not reported: there are no thumbnails then.
 *
 * When the thread cannot be started, std::system_error (or std::bad_alloc) leaves this function as
 * a C++ exception.
 */
void CORVWinCFStartShellServices(void);

#ifdef __cplusplus
}
#endif

#endif
