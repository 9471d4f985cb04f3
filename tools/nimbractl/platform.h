#ifndef NIMBRA_NIMBRACTL_PLATFORM_H_
#define NIMBRA_NIMBRACTL_PLATFORM_H_

// What there is to work on: Windows, its Cloud Files platform, and the library's gate.

#include <nimbra/nimbra.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace nimbractl {

inline constexpr std::uint32_t kOldestBuild = 17134;

struct WindowsVersion {
  std::uint32_t major = 0;
  std::uint32_t minor = 0;
  std::uint32_t build = 0;

  [[nodiscard]] bool IsNewEnough() const;  // for the gate
  [[nodiscard]] std::string Text() const;  // "10.0.19045"
};

// What Windows is.
[[nodiscard]] WindowsVersion RealVersion();
// What it says that it is, to a program with this one's manifest. The library goes by that.
[[nodiscard]] WindowsVersion ReportedVersion();

enum class Gate { kOpen, kWindowsTooOld, kManifestMissing, kCompatibilityMode };
[[nodiscard]] Gate FindGate();
// Why the gate is closed and what to do about it; empty for an open one.
[[nodiscard]] std::string GateReason(Gate gate);
[[nodiscard]] std::string GateAdvice(Gate gate);

// The cldapi.dll that the library uses.
struct CloudFilesDll {
  std::string path;     // empty when there is none
  std::string version;  // empty when it does not tell
  std::uint32_t error = 0;
  std::vector<std::string> missing;  // the functions that the library calls and that it lacks
};
[[nodiscard]] CloudFilesDll FindCloudFilesDll();

// How the platform answers when asked for its version.
struct PlatformAnswer {
  std::int32_t result = 0;
  CORVWinCFPlatformInfo info{};
};
[[nodiscard]] PlatformAnswer AskPlatform();

// The library in this process.
struct LibraryFile {
  std::string path;
  std::string version;  // empty when it does not tell
};
[[nodiscard]] LibraryFile FindLibrary();

// Throws a Failure with ExitCode::kNoPlatform unless the gate is open.
void RequireOpenGate();
// And unless the platform answers.
void RequirePlatform();

// The older Windows that this one is told to show a program, by the program's properties, such as
// "WIN7RTM"; nothing if it is not.
[[nodiscard]] std::optional<std::string> CompatibilityMode(const std::string& program);

// Whether a program's manifest lists Windows 10; nothing if it has no manifest. Throws a Failure
// if it cannot be read.
[[nodiscard]] std::optional<bool> ManifestListsWindows10(const std::string& program);

}  // namespace nimbractl

#endif
