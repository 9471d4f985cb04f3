#include "common/cldapi-table.h"
#include "nimbra-host/nimbra/export-support.h"

// NOLINTNEXTLINE(google-build-using-namespace): the exports are C functions, in no namespace.
using namespace corvdrive::cloud_filter;

bool CORVWinCFIsWinVersionSupportFileStreaming() { return supportFileStreaming != 0; }

bool CORVWinCFIsWinVersionDisableUIFileStreamingOption() {
  return disableUIFileStreamingOption != 0;
}

bool CORVWinCFIsWinVersionDefaultFileStreaming() { return defaultFileStreaming != 0; }

CORVWinCFStatus CORVWinCFGetPlatformInfo(CORVWinCFPlatformInfo* info) {
  if (IsGateClosed()) {
    return kFailed;
  }
  CF_PLATFORM_INFO platform{};
  if (FAILED(Cloud().CfGetPlatformInfo(&platform))) {
    platform = {};
  }
  *info = {platform.BuildNumber, platform.RevisionNumber, platform.IntegrationNumber};
  return kSucceeded;
}
