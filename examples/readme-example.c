#include <nimbra/nimbra.h>
#include <stdio.h>

static CORVWinCFSyncRootHandle root;
static const char text[] = "Fetched when somebody asked.\n";

static void OnFetch(const CORVWinCFCallbackRecord* request) {
  CORVWinCFSyncRootTransferData(root, request->transferKey, 0, text, 0, sizeof text - 1,
                                CORVWinCFTransferSucceeded);
}

int main(int count, char** arguments) {  // an empty folder, such as C:\Cloud
  char path[1024];
  CORVWinCFCallbackDelegatorHandle callbacks;
  CORVWinCFPlaceholderHandle file;
  if (count < 2 || CORVWinCFSyncRootNew(&root, arguments[1], 1) != 0) return 1;
  if (CORVWinCFCallbackDelegatorNew(&callbacks, NULL) != 0) return 1;
  CORVWinCFCallbackDelegatorSetFetchCallback(callbacks, OnFetch);
  if (CORVWinCFSyncRootRegister(root, "example") < 0) return 1;
  if (CORVWinCFSyncRootConnect(root, callbacks) < 0) return 1;
  snprintf(path, sizeof path, "%s/hello.txt", arguments[1]);
  if (CORVWinCFPlaceholderNew(&file, path) != 0) return 1;
  CORVWinCFPlaceholderMetaHandle size = CORVWinCFPlaceholderMetaNew(0, 0, 0, 0, sizeof text - 1, 0);
  if (CORVWinCFPlaceholderCreate(file, "hello", size) == 0) getchar();  // serves until Enter
  CORVWinCFPlaceholderMetaRelease(size);
  CORVWinCFPlaceholderRelease(file);
  return CORVWinCFSyncRootDisconnect(root) < 0;
}
