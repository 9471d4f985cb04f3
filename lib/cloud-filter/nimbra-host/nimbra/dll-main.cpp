#include <windows.h>

#include "common/version-flags.h"

BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID /*reserved*/) {
  if (reason == DLL_PROCESS_ATTACH) {
    DisableThreadLibraryCalls(module);
    corvdrive::cloud_filter::ComputeVersionFlags();
  }
  return TRUE;
}
