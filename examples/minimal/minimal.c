/*
 * minimal: shows one local file in a folder, as a file that takes no room until it is opened.
 *
 *     minimal <empty folder> <local file>        e.g. minimal C:\Cloud C:\Photos\cat.jpg
 *
 * A whole client of Nimbra, to start one's own from. Its program needs a manifest that names
 * Windows 10 (host.manifest). From version 1903 on that also makes main's arguments, and names of
 * files for the C library, UTF-8; on 1803 and 1809 only ASCII is sure to work. For these, have
 * wmain instead, convert its arguments to UTF-8 for Nimbra, and open files with _wfopen.
 */
#define _CRT_SECURE_NO_WARNINGS /* Microsoft's compiler would rather not see fopen */

#include <nimbra/nimbra.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

enum { kPiece = 1 << 20 }; /* bytes handed over at once: a multiple of 4096 */

typedef struct Client {
  const char* folder;
  const char* source;
  struct _stat64 sourceInfo;
  CORVWinCFSyncRootHandle root;
} Client;

/* Prints what failed and what to do about it; gives 0, for "no". */
static int Fail(const char* what, const char* advice, CORVWinCFHresult result) {
  fprintf(stderr, "minimal: %s: %s\n", what, advice);
  if (result < 0) fprintf(stderr, "  Windows says 0x%08X\n", (unsigned)result);
  return 0;
}

/* A program reads what is not on disk. This runs on a thread of the system's, several at a time,
 * and the reader waits; a client whose data comes slowly copies the record's numbers and answers
 * later, from a thread of its own. */
static void OnFetch(const CORVWinCFCallbackRecord* record) {
  const Client* client = record->context;
  int64_t offset = record->parameters[0];
  const int64_t wanted = offset + record->parameters[1], size = client->sourceInfo.st_size;
  const int64_t end = record->parameters[1] < 0 || wanted > size ? size : wanted;
  FILE* file = fopen(client->source, "rb");
  char* piece = malloc(kPiece);
  int isFine = file != NULL && piece != NULL && _fseeki64(file, offset, SEEK_SET) == 0;
  while (isFine && offset < end) {
    const int64_t length = end - offset < kPiece ? end - offset : kPiece;
    isFine = fread(piece, 1, (size_t)length, file) == (size_t)length &&
             CORVWinCFSyncRootTransferData(client->root, record->transferKey, 0, piece, offset,
                                           length, CORVWinCFTransferSucceeded) >= 0;
    if (isFine) offset += length;
  }
  if (!isFine) { /* every fetch is answered, or the reader would wait for a minute */
    CORVWinCFSyncRootTransferData(client->root, record->transferKey, 0, NULL, offset, end - offset,
                                  CORVWinCFTransferUnsuccessful);
  }
  free(piece);
  if (file != NULL) fclose(file);
  printf("fetch %s: %s\n", record->fullPath, isFine ? "sent" : "failed");
}

static void OnRename(const CORVWinCFCallbackRecord* record) {
  const Client* client = record->context;
  CORVWinCFSyncRootAckRename(client->root, record->transferKey);
}

static void OnDelete(const CORVWinCFCallbackRecord* record) {
  const Client* client = record->context;
  CORVWinCFSyncRootAckDelete(client->root, record->transferKey, 0, CORVWinCFTransferSucceeded);
}

/* What a placeholder is called follows the last "/" of its path. One of an earlier run is left. */
static int CreatePlaceholder(const Client* client) {
  char path[1024];
  const char* name = client->source;
  for (const char* at = name; *at != 0; ++at) {
    if (*at == '\\' || *at == '/') name = at + 1;
  }
  const int length = snprintf(path, sizeof path, "%s/%s", client->folder, name);
  if (length < 0 || (size_t)length >= sizeof path) return Fail(path, "choose shorter names", 0);
  if (CORVWinCFIsPlaceholder(path) == 0) return 1;
  const int64_t changed = client->sourceInfo.st_mtime;
  CORVWinCFPlaceholderMetaHandle meta = CORVWinCFPlaceholderMetaNew(
      changed, changed, changed, changed, client->sourceInfo.st_size, 0);
  CORVWinCFPlaceholderHandle item = NULL;
  const int isMade = CORVWinCFPlaceholderNew(&item, path) == 0 &&
                     CORVWinCFPlaceholderCreate(item, name, meta) == 0;
  CORVWinCFPlaceholderRelease(item);
  CORVWinCFPlaceholderMetaRelease(meta);
  return isMade || Fail(path, "no placeholder: is there a file of this name already?", 0);
}

static int Serve(Client* client, CORVWinCFCallbackDelegatorHandle callbacks) {
  CORVWinCFCallbackDelegatorSetFetchCallback(callbacks, OnFetch);
  CORVWinCFCallbackDelegatorSetRenameCallback(callbacks, OnRename);
  CORVWinCFCallbackDelegatorSetDeleteCallback(callbacks, OnDelete);
  const CORVWinCFHresult result = CORVWinCFSyncRootConnect(client->root, callbacks);
  if (result < 0) return Fail(client->folder, "not connected: does another client run?", result);
  const int isShown = CreatePlaceholder(client);
  if (isShown) {
    printf("serving %s, press Enter to stop\n", client->folder);
    getchar();
  }
  return CORVWinCFSyncRootDisconnect(client->root) >= 0 && isShown;
}

/* Registers the folder, or does so anew if an earlier run was cut short, serves it, and makes it an
 * ordinary folder again. A real client leaves it registered until its user gives the folder up:
 * UNREGISTERING DELETES WHAT IS NOT ON DISK. */
static int Run(Client* client, CORVWinCFCallbackDelegatorHandle callbacks) {
  const int isKnown = CORVWinCFGetSyncRootIdentityByPath(client->folder, NULL) == 0;
  CORVWinCFHresult result = isKnown ? CORVWinCFSyncRootReregister(client->root, "minimal")
                                    : CORVWinCFSyncRootRegister(client->root, "minimal");
  if (result < 0) return Fail(client->folder, "not registered: run it as administrator", result);
  const int isServed = Serve(client, callbacks);
  result = CORVWinCFSyncRootUnregister(client->root);
  return result < 0 ? Fail(client->folder, "not unregistered", result) : isServed;
}

int main(int count, char** arguments) {
  Client client = {0};
  CORVWinCFCallbackDelegatorHandle callbacks = NULL;
  int isFine = 0;
  setvbuf(stdout, NULL, _IONBF, 0); /* what is printed is seen at once, whoever reads it */
  if (count != 3) {
    fputs("minimal <empty folder> <local file>\n", stderr);
    return 2;
  }
  client.folder = arguments[1];
  client.source = arguments[2];
  if (!CORVWinCFIsWinVersionSupportFileStreaming()) {
    Fail("Windows is too old", "it takes Windows 10, version 1803, and a manifest that names it",
         0);
  } else if (_stat64(client.source, &client.sourceInfo) != 0) {
    Fail(client.source, "there is no such file", 0);
  } else if (CORVWinCFSyncRootNew(&client.root, client.folder, 1) != 0 ||
             CORVWinCFCallbackDelegatorNew(&callbacks, &client) != 0) {
    Fail("out of memory", "close other programs", 0);
  } else {
    isFine = Run(&client, callbacks);
  }
  CORVWinCFCallbackDelegatorRelease(callbacks);
  CORVWinCFSyncRootRelease(&client.root);
  return isFine ? 0 : 1;
}
