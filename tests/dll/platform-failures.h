#ifndef NIMBRA_TESTS_DLL_PLATFORM_FAILURES_H_
#define NIMBRA_TESTS_DLL_PLATFORM_FAILURES_H_

#include <windows.h>

#include <functional>
#include <string>
#include <vector>

#include "nimbra/nimbra.h"
#include "tests/dll/loaded-library.h"
#include "tests/support/temp-folder.h"

namespace nimbra_test {

// What a client holds when it meets a platform that cannot be called: a root, a delegator and an
// open file.
class ClientObjects {
 public:
  explicit ClientObjects(const LoadedLibrary& loaded);
  ~ClientObjects();
  ClientObjects(const ClientObjects&) = delete;
  ClientObjects& operator=(const ClientObjects&) = delete;

  const LoadedLibrary& library;
  TempFolder folder;
  std::string file;
  CORVWinCFSyncRootHandle root = nullptr;
  CORVWinCFCallbackDelegatorHandle delegator = nullptr;
  CORVWinCFPlaceholderHandle placeholder = nullptr;
  CORVWinCFPlaceholderMetaHandle meta = nullptr;
};

struct PlatformCall {
  const char* name;
  std::function<int(const ClientObjects&)> call;
  int result;
  // The messages of its log lines.
  std::vector<std::string> messages;
};

// Every export that asks the platform (but for the registration of a root, which writes to the
// registry first, and those that the partial platform has), with what it gives when its function
// cannot be called for the reason `failure`.
std::vector<PlatformCall> PlatformCalls(const ClientObjects& objects, HRESULT failure);

// Connecting and disconnecting a root; the partial platform has both.
std::vector<PlatformCall> ConnectionCalls(HRESULT failure);

// Makes the calls and checks what they gave.
void ExpectPlatformFailures(const ClientObjects& objects, const std::vector<PlatformCall>& calls,
                            ImageLog& log);

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_DLL_PLATFORM_FAILURES_H_
