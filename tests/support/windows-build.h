#ifndef NIMBRA_TESTS_SUPPORT_WINDOWS_BUILD_H_
#define NIMBRA_TESTS_SUPPORT_WINDOWS_BUILD_H_

#include <windows.h>

#include <optional>
#include <vector>

#include "tests/support/import-double.h"

namespace nimbra_test {

// Lets the library believe for the object's lifetime that it was loaded on this Windows: answers
// VerifyVersionInfoW for it and has the version flags computed. Afterwards the flags are computed
// anew from the version outside. Objects do not nest: make the closed one after the open one ended,
// or use Become.
class WindowsBuild {
 public:
  explicit WindowsBuild(DWORD build) : WindowsBuild(10, 0, build) {}
  WindowsBuild(DWORD major, DWORD minor, DWORD build);
  ~WindowsBuild();

  // Turns the system into another build, as if the library were loaded there.
  void Become(DWORD build);
  void Become(DWORD major, DWORD minor, DWORD build);

  struct Query {
    OSVERSIONINFOEXW version;
    DWORD typeMask;
    DWORDLONG conditionMask;
  };
  // What was asked since the last Become, in order.
  const std::vector<Query>& Queries() const { return queries_; }

 private:
  BOOL Answer(const OSVERSIONINFOEXW& version, DWORD typeMask, DWORDLONG conditionMask);

  DWORD major_;
  DWORD minor_;
  DWORD build_;
  std::vector<Query> queries_;
  std::optional<ImportDouble<"VerifyVersionInfoW", decltype(&::VerifyVersionInfoW)>> verify_;
};

// The builds that tests name: the last one without file streaming, the one that hides its option,
// the first that makes it the default, and a usual one.
inline constexpr DWORD kBuildWithoutStreaming = 17133;
inline constexpr DWORD kBuildThatHidesOption = 17134;
inline constexpr DWORD kBuildStreamingByDefault = 17763;
inline constexpr DWORD kUsualBuild = 19045;

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_WINDOWS_BUILD_H_
