#include "tests/support/windows-build.h"

#include "common/version-flags.h"

namespace nimbra_test {
namespace {

// The comparison that a condition mask holds for one part of the version: three bits a part, in the
// order of the type bits.
DWORD ConditionOf(DWORDLONG conditionMask, DWORD typeBit) {
  int index = 0;
  while ((typeBit >> index) != 1) {
    ++index;
  }
  return static_cast<DWORD>((conditionMask >> (3 * index)) & 7);
}

bool Holds(DWORD actual, DWORD wanted, DWORD condition) {
  switch (condition) {
    case VER_EQUAL:
      return actual == wanted;
    case VER_GREATER:
      return actual > wanted;
    case VER_GREATER_EQUAL:
      return actual >= wanted;
    case VER_LESS:
      return actual < wanted;
    case VER_LESS_EQUAL:
      return actual <= wanted;
    default:
      return false;
  }
}

}  // namespace

WindowsBuild::WindowsBuild(DWORD major, DWORD minor, DWORD build)
    : major_(major), minor_(minor), build_(build) {
  verify_.emplace([this](auto, LPOSVERSIONINFOEXW version, DWORD typeMask, DWORDLONG conditions) {
    return Answer(*version, typeMask, conditions);
  });
  corvdrive::cloud_filter::ComputeVersionFlags();
}

WindowsBuild::~WindowsBuild() {
  verify_.reset();
  corvdrive::cloud_filter::ComputeVersionFlags();
}

void WindowsBuild::Become(DWORD build) { Become(10, 0, build); }

void WindowsBuild::Become(DWORD major, DWORD minor, DWORD build) {
  major_ = major;
  minor_ = minor;
  build_ = build;
  queries_.clear();
  corvdrive::cloud_filter::ComputeVersionFlags();
}

// As the platform compares: the minor version only decides where the major versions are equal.
BOOL WindowsBuild::Answer(const OSVERSIONINFOEXW& version, DWORD typeMask,
                          DWORDLONG conditionMask) {
  queries_.push_back({version, typeMask, conditionMask});
  bool holds = true;
  if ((typeMask & VER_BUILDNUMBER) != 0) {
    holds = Holds(build_, version.dwBuildNumber, ConditionOf(conditionMask, VER_BUILDNUMBER));
  }
  if ((typeMask & VER_MAJORVERSION) != 0 && major_ != version.dwMajorVersion) {
    holds = holds &&
            Holds(major_, version.dwMajorVersion, ConditionOf(conditionMask, VER_MAJORVERSION));
  } else if ((typeMask & VER_MINORVERSION) != 0) {
    holds = holds &&
            Holds(minor_, version.dwMinorVersion, ConditionOf(conditionMask, VER_MINORVERSION));
  }
  if (!holds) {
    SetLastError(ERROR_OLD_WIN_VERSION);
  }
  return holds ? TRUE : FALSE;
}

}  // namespace nimbra_test
