#include "common/version-flags.h"

#include <windows.h>

namespace corvdrive::cloud_filter {

std::int32_t supportFileStreaming = 0;
std::int32_t disableUIFileStreamingOption = 0;
std::int32_t defaultFileStreaming = 0;

namespace {

static_assert(sizeof(OSVERSIONINFOEXW) == 284);

// Whether the running Windows is 10.0 with a build that compares so with `build`; the condition
// holds for each of the three parts.
std::int32_t IsWindows10(DWORD build, BYTE condition) {
  OSVERSIONINFOEXW version{};
  version.dwOSVersionInfoSize = sizeof version;
  version.dwMajorVersion = 10;
  version.dwMinorVersion = 0;
  version.dwBuildNumber = build;
  DWORDLONG conditions = VerSetConditionMask(0, VER_MAJORVERSION, condition);
  conditions = VerSetConditionMask(conditions, VER_MINORVERSION, condition);
  conditions = VerSetConditionMask(conditions, VER_BUILDNUMBER, condition);
  const DWORD parts = VER_MAJORVERSION | VER_MINORVERSION | VER_BUILDNUMBER;
  return VerifyVersionInfoW(&version, parts, conditions) != 0 ? 1 : 0;
}

}  // namespace

void ComputeVersionFlags() {
  supportFileStreaming = IsWindows10(17134, VER_GREATER_EQUAL);
  disableUIFileStreamingOption = IsWindows10(17134, VER_EQUAL);
  defaultFileStreaming = IsWindows10(17763, VER_GREATER_EQUAL);
}

}  // namespace corvdrive::cloud_filter
