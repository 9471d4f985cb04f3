#ifndef NIMBRA_COMMON_CLDAPI_TABLE_H_
#define NIMBRA_COMMON_CLDAPI_TABLE_H_

#include "common/cloud-files.h"

namespace corvdrive::cloud_filter {

// The functions of cldapi.dll that the library calls, each under its own name.
struct CldApi {
  decltype(&::CfGetPlatformInfo) CfGetPlatformInfo;
  decltype(&::CfRegisterSyncRoot) CfRegisterSyncRoot;
  decltype(&::CfUnregisterSyncRoot) CfUnregisterSyncRoot;
  decltype(&::CfConnectSyncRoot) CfConnectSyncRoot;
  decltype(&::CfDisconnectSyncRoot) CfDisconnectSyncRoot;
  decltype(&::CfGetSyncRootInfoByPath) CfGetSyncRootInfoByPath;
  decltype(&::CfGetTransferKey) CfGetTransferKey;
  decltype(&::CfReleaseTransferKey) CfReleaseTransferKey;
  decltype(&::CfExecute) CfExecute;
  decltype(&::CfReportProviderProgress) CfReportProviderProgress;
  decltype(&::CfCreatePlaceholders) CfCreatePlaceholders;
  decltype(&::CfConvertToPlaceholder) CfConvertToPlaceholder;
  decltype(&::CfUpdatePlaceholder) CfUpdatePlaceholder;
  decltype(&::CfRevertPlaceholder) CfRevertPlaceholder;
  decltype(&::CfHydratePlaceholder) CfHydratePlaceholder;
  decltype(&::CfDehydratePlaceholder) CfDehydratePlaceholder;
  decltype(&::CfSetPinState) CfSetPinState;
  decltype(&::CfSetInSyncState) CfSetInSyncState;
  decltype(&::CfGetPlaceholderInfo) CfGetPlaceholderInfo;
  decltype(&::CfGetPlaceholderStateFromFindData) CfGetPlaceholderStateFromFindData;
  decltype(&::CfReferenceProtectedHandle) CfReferenceProtectedHandle;
  decltype(&::CfGetWin32HandleFromProtectedHandle) CfGetWin32HandleFromProtectedHandle;
  decltype(&::CfReleaseProtectedHandle) CfReleaseProtectedHandle;
};

// The table to call through, from any thread. cldapi.dll is loaded on first use and stays loaded.
// Every entry can be called: without the DLL, or for a function that it lacks, it gives the Win32
// error of the failed look-up as an HRESULT, or the quiet answer of a function that has none. A DLL
// that could not be loaded is tried again at the next use.
[[nodiscard]] const CldApi& Cloud();

// Makes `Cloud` give another table, which must outlive its use; null means cldapi.dll again. Gives
// what was installed before. This is where tests put their own platform.
const CldApi* ExchangeCldApi(const CldApi* table);

}  // namespace corvdrive::cloud_filter

#endif
