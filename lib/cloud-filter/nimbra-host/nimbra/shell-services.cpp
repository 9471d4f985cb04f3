// Serves the thumbnail provider to the shell from the client's process.

#include <windows.h>

#include <objbase.h>

#include <new>
#include <thread>

#include "common/debug-log.h"
#include "common/exception-state.h"
#include "common/module-pin.h"
#include "nimbra-host/nimbra/class-factory.h"
#include "nimbra-host/nimbra/export-support.h"
#include "win-cf/thumbnail-provider.h"

// NOLINTNEXTLINE(google-build-using-namespace): the exports are C functions, in no namespace.
using namespace corvdrive::cloud_filter;

namespace {

constexpr char kSource[] = R"(lib\cloud-filter\nimbra-host\nimbra\nimbra)";
// A stable number of the message, by which readers of the log find it.
constexpr int kRegisteringLine = 729;

// Lets COM deliver calls until the process ends: nothing ever signals the event. It, the factory
// and its registration are never given back.
void RunShellServices() noexcept {
  PrepareExceptionState();  // which the new below needs inside
  static_cast<void>(CoInitializeEx(nullptr, COINIT_DISABLE_OLE1DDE));
  IClassFactory* const factory = new (std::nothrow) ClassFactory<WinCFThumbnailProvider>;
  DWORD cookie = 0;
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): as said above.
  static_cast<void>(CoRegisterClassObject(kThumbnailProviderClsid, factory, CLSCTX_LOCAL_SERVER,
                                          REGCLS_MULTIPLEUSE, &cookie));
  HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  if (event != INVALID_HANDLE_VALUE && GetLastError() != ERROR_ALREADY_EXISTS) {
    DWORD index = 0;
    static_cast<void>(CoWaitForMultipleHandles(COWAIT_DISPATCH_CALLS, INFINITE, 1, &event, &index));
  }
}

}  // namespace

void CORVWinCFSetThumbRetrieverCb(CORVWinCFThumbRetriever retriever) {
  if (!IsGateClosed()) {
    thumbRetriever = retriever;
  }
}

void CORVWinCFStartShellServices() {
  if (IsGateClosed()) {
    return;
  }
  Log(kSource, kRegisteringLine, "Registring shell services");
  PinModule();
  std::thread(RunShellServices).detach();
}
