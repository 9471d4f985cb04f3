#include <windows.h>

#include "common/version-flags.h"

namespace {

// The compiler's runtime sets its exceptions up when it meets the first one, which may be for want
// of memory: too late then.
void PrepareExceptions() noexcept {
  try {
    throw 0;
  } catch (int) {
    return;
  }
}

}  // namespace

BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID /*reserved*/) {
  if (reason == DLL_PROCESS_ATTACH) {
    DisableThreadLibraryCalls(module);
    corvdrive::cloud_filter::ComputeVersionFlags();
    PrepareExceptions();
  }
  return TRUE;
}
