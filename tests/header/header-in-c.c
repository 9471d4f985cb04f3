/* The public header, included first and alone, by a C program that calls every function. Started
   with "open" or "closed": what the availability gate is to be. */
#include "nimbra/nimbra.h"

#include <assert.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

/* The record is shared with programs in other languages: its layout is part of the interface. */
static_assert(sizeof(CORVWinCFCallbackRecord) == 112, "14 slots of 64 bits");
static_assert(offsetof(CORVWinCFCallbackRecord, sessionNumber) == 0, "slot 1");
static_assert(offsetof(CORVWinCFCallbackRecord, transferKey) == 8, "slot 2");
static_assert(offsetof(CORVWinCFCallbackRecord, processId) == 16, "slot 3");
static_assert(offsetof(CORVWinCFCallbackRecord, fileId) == 24, "slot 4");
static_assert(offsetof(CORVWinCFCallbackRecord, fileIdentity) == 32, "slot 5");
static_assert(offsetof(CORVWinCFCallbackRecord, fullPath) == 40, "slot 6");
static_assert(offsetof(CORVWinCFCallbackRecord, targetPath) == 48, "slot 7");
static_assert(offsetof(CORVWinCFCallbackRecord, parameters) == 56, "slots 8 to 11");
static_assert(offsetof(CORVWinCFCallbackRecord, reserved) == 88, "slot 12");
static_assert(offsetof(CORVWinCFCallbackRecord, context) == 96, "slot 13");
static_assert(offsetof(CORVWinCFCallbackRecord, imagePath) == 104, "slot 14");
static_assert(sizeof(CORVWinCFPlatformInfo) == 12, "three 32-bit numbers");
static_assert(offsetof(CORVWinCFPlatformInfo, buildNumber) == 0, "first");
static_assert(offsetof(CORVWinCFPlatformInfo, revisionNumber) == 4, "second");
static_assert(offsetof(CORVWinCFPlatformInfo, integrationNumber) == 8, "third");
static_assert(sizeof(CORVWinCFStatus) == 4 && sizeof(CORVWinCFHresult) == 4, "32-bit results");

static int failures = 0;
static int calls = 0;

static void Check(const char* what, long long got, long long expected) {
  ++calls;
  if (got != expected) {
    printf("%s: got %lld, expected %lld\n", what, got, expected);
    ++failures;
  }
}

#define CHECK(call, expected) Check(#call, (long long)(call), (long long)(expected))
#define CALL(call) (++calls, (void)(call))

#define NO_INTERFACE ((CORVWinCFHresult)0x80004002)
#define NULL_POINTER ((CORVWinCFHresult)0x80004003)

static void OnEvent(const CORVWinCFCallbackRecord* record) { (void)record; }

static void CallQueries(bool open) {
  const CORVWinCFStatus none = -1;
  CORVWinCFPlatformInfo info;
  char identity[4096];
  CHECK(CORVWinCFIsWinVersionSupportFileStreaming(), open);
  CHECK(CORVWinCFIsWinVersionDisableUIFileStreamingOption(), false);
  CHECK(CORVWinCFIsWinVersionDefaultFileStreaming(), open);
  memset(&info, 0x5A, sizeof info);
  CHECK(CORVWinCFGetPlatformInfo(&info), open ? 0 : none);
  if (!open) {
    CHECK(info.buildNumber, 0x5A5A5A5A);
  }
  CHECK(CORVWinCFGetSyncRootIdentityByPath("C:\\none", identity), none);
  CHECK(CORVWinCFIsPathUnderCorvDriveSyncRoot("C:\\none"), 0);
  CHECK(CORVWinCFIsPlaceholder("C:\\none"), none);
  CHECK(CORVWinCFIsFullyHydrated("C:\\none"), none);
  CHECK(CORVWinCFIsFullyHydratedW(L"C:\\none"), none);
}

static void CallSyncRoot(bool open, CORVWinCFSyncRootHandle root,
                         CORVWinCFPlaceholderHandle placeholder) {
  const CORVWinCFHresult none = open ? NULL_POINTER : NO_INTERFACE;
  CHECK(CORVWinCFSyncRootRegister(NULL, "text"), none);
  CHECK(CORVWinCFSyncRootReregister(NULL, "text"), none);
  CHECK(CORVWinCFSyncRootUnregister(NULL), none);
  CHECK(CORVWinCFSyncRootConnect(root, NULL), none);
  CHECK(CORVWinCFSyncRootDisconnect(NULL), none);
  CHECK(CORVWinCFSyncRootTransferData(NULL, 1, 0, "data", 0, 4, CORVWinCFTransferSucceeded), none);
  CHECK(CORVWinCFSyncRootReportTransferProgress(NULL, 1, 2, 1), none);
  CHECK(CORVWinCFSyncRootAckRename(NULL, 1), -1);
  CHECK(CORVWinCFSyncRootAckDelete(NULL, 1, 0, CORVWinCFTransferAborted), -1);
  CHECK(CORVWinCFSyncRootProactiveTransferToPlaceholder(root, placeholder, "C:\\none"), -1);
}

static void CallDelegator(bool open, CORVWinCFCallbackDelegatorHandle delegator) {
  const CORVWinCFStatus set = open ? 0 : -1;
  CHECK(CORVWinCFCallbackDelegatorSetFetchCallback(delegator, OnEvent), set);
  CHECK(CORVWinCFCallbackDelegatorSetFetchCancelCallback(delegator, OnEvent), set);
  CHECK(CORVWinCFCallbackDelegatorSetDeleteCallback(delegator, OnEvent), set);
  CHECK(CORVWinCFCallbackDelegatorSetRenameCallback(delegator, OnEvent), set);
  CHECK(CORVWinCFCallbackDelegatorSetRenameCompletionCallback(delegator, OnEvent), set);
  CHECK(CORVWinCFCallbackDelegatorSetOpenCompletionCallback(delegator, OnEvent), set);
}

/* The path of `placeholder` does not exist, so that every operation fails with the gate open. */
static void CallPlaceholder(CORVWinCFPlaceholderHandle placeholder,
                            CORVWinCFPlaceholderMetaHandle meta) {
  char identity[4096];
  CHECK(CORVWinCFPlaceholderOpen(placeholder), -1);
  CHECK(CORVWinCFPlaceholderCreate(placeholder, "identity", meta), -1);
  CHECK(CORVWinCFPlaceholderUpdate(placeholder, "identity", meta), -1);
  CHECK(CORVWinCFPlaceholderConvertToPlaceholder(placeholder, "identity"), -1);
  CHECK(CORVWinCFPlaceholderRevertToNormal(placeholder), -1);
  CHECK(CORVWinCFPlaceholderIsPlaceholder(placeholder), -1);
  CHECK(CORVWinCFPlaceholderIsFullyHydrated(placeholder), -1);
  CHECK(CORVWinCFPlaceholderIsPinned(placeholder), -1);
  CHECK(CORVWinCFPlaceholderIsExcluded(placeholder), -1);
  CHECK(CORVWinCFPlaceholderIsInSync(placeholder), -1);
  identity[0] = '?';
  CALL(CORVWinCFPlaceholderGetFileIdentity(placeholder, identity));
  CHECK(identity[0], '?');
  CHECK(CORVWinCFPlaceholderHydrateAll(placeholder), -1);
  CHECK(CORVWinCFPlaceholderHydrateAllAsync(placeholder), -1);
  CHECK(CORVWinCFPlaceholderDehydrate(placeholder, 0, 4096), -1);
  CHECK(CORVWinCFPlaceholderDehydrateAll(placeholder), -1);
  CHECK(CORVWinCFPlaceholderPinToLocal(placeholder), -1);
  CHECK(CORVWinCFPlaceholderUnpin(placeholder), -1);
  CHECK(CORVWinCFPlaceholderForceUnpin(placeholder), -1);
  CHECK(CORVWinCFPlaceholderSetInSync(placeholder), -1);
  CHECK(CORVWinCFPlaceholderSetNotInSync(placeholder), -1);
  CHECK(CORVWinCFPlaceholderSetExcluded(placeholder), -1);
}

/* The find data's layout is the platform's, which this program does not include. */
static void CallFindData(void) {
  long long findData[80];
  memset(findData, 0, sizeof findData);
  CHECK(CORVWinCFIsPlaceholderByFindData((const struct _WIN32_FIND_DATAW*)findData), -1);
}

/* With an identifier that names no entry, nothing is registered whatever the gate. */
static void CallExplorerEntry(void) {
  char* guid = NULL;
  CHECK(CORVWinCFGenerateGuid(&guid), 0);
  CHECK(guid != NULL && strlen(guid) == 38, true);
  CALL(CORVWinCFReleaseGuid(guid));
  CHECK(CORVWinCFSyncEngineRegister("C:\\none", "", 1, "name", "home", "/"), -1);
  CHECK(CORVWinCFSyncEngineUnregister("C:\\none", "", 1, "name", "home", "/"), -1);
  CHECK(CORVWinCFSyncEngineUnregisterSystemFolder(""), -1);
}

static bool FindNoImage(const wchar_t* itemPath, wchar_t* imagePath) {
  imagePath[0] = 0;
  return itemPath == NULL;
}

static void CallThumbnails(void) {
  CALL(CORVWinCFSetThumbRetrieverCb(FindNoImage));
  CALL(CORVWinCFStartShellServices());
}

int main(int argc, char** argv) {
  const bool open = argc == 2 && strcmp(argv[1], "open") == 0;
  const CORVWinCFStatus made = open ? 0 : -1;
  CORVWinCFSyncRootHandle root = NULL;
  CORVWinCFCallbackDelegatorHandle delegator = NULL;
  CORVWinCFPlaceholderHandle placeholder = NULL;
  CORVWinCFPlaceholderMetaHandle meta = NULL;

  CHECK(CORVWinCFSyncRootNew(&root, "C:\\Sync", UINT64_MAX), made);
  CHECK(CORVWinCFCallbackDelegatorNew(&delegator, &failures), made);
  CHECK(CORVWinCFPlaceholderNew(&placeholder, "C:/no/such/folder/file"), made);
  meta = CORVWinCFPlaceholderMetaNew(1, 2, 3, 4, 5, 0);
  CHECK(meta != NULL, open);

  CallQueries(open);
  CallFindData();
  CallSyncRoot(open, root, placeholder);
  CallDelegator(open, delegator);
  CallPlaceholder(placeholder, meta);
  CallExplorerEntry();
  CallThumbnails();

  CALL(CORVWinCFPlaceholderMetaRelease(meta));
  CALL(CORVWinCFPlaceholderRelease(placeholder));
  CALL(CORVWinCFCallbackDelegatorRelease(delegator));
  CALL(CORVWinCFSyncRootRelease(&root));

  printf("gate %s: %d calls, %d failures\n", open ? "open" : "closed", calls, failures);
  return failures == 0 ? 0 : 1;
}
