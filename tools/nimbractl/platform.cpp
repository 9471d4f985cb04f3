#include "platform.h"

#include <windows.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string_view>
#include <utility>
#include <vector>

#include "basics.h"
#include "items.h"
#include "owners.h"
#include "registry.h"
#include "results.h"

namespace nimbractl {
namespace {

template <class Function>
Function FunctionOf(HMODULE module, const char* name) {
  // By way of void*: compilers warn of a cast between unrelated function types.
  return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

// The path of a loaded module.
std::string PathOf(HMODULE module) {
  std::wstring path(32768, L'\0');
  path.resize(GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size())));
  return Utf8(path);
}

// The version in a file's resources, or empty.
std::string VersionOf(const std::string& file) {
  const auto path = Wide(file);
  DWORD unused = 0;
  const DWORD size = GetFileVersionInfoSizeW(path.c_str(), &unused);
  std::vector<std::byte> data(size);
  VS_FIXEDFILEINFO* fixed = nullptr;
  UINT length = 0;
  if (size == 0 || !GetFileVersionInfoW(path.c_str(), 0, size, data.data()) ||
      !VerQueryValueW(data.data(), L"\\", reinterpret_cast<void**>(&fixed), &length)) {
    return {};
  }
  std::string text;
  for (const WORD part : {HIWORD(fixed->dwFileVersionMS), LOWORD(fixed->dwFileVersionMS),
                          HIWORD(fixed->dwFileVersionLS), LOWORD(fixed->dwFileVersionLS)}) {
    if (!text.empty()) text += '.';
    text += std::to_string(part);
  }
  return text;
}

// What the library calls.
constexpr char kFunctions[] =
    "CfGetPlatformInfo CfRegisterSyncRoot CfUnregisterSyncRoot CfConnectSyncRoot "
    "CfDisconnectSyncRoot CfGetSyncRootInfoByPath CfGetTransferKey CfReleaseTransferKey "
    "CfExecute CfReportProviderProgress CfCreatePlaceholders CfConvertToPlaceholder "
    "CfUpdatePlaceholder CfRevertPlaceholder CfHydratePlaceholder CfDehydratePlaceholder "
    "CfSetPinState CfSetInSyncState CfGetPlaceholderInfo CfGetPlaceholderStateFromFindData "
    "CfReferenceProtectedHandle CfGetWin32HandleFromProtectedHandle CfReleaseProtectedHandle";

std::vector<std::string> FunctionsMissingIn(HMODULE module) {
  std::vector<std::string> missing;
  std::istringstream names(kFunctions);
  for (std::string name; names >> name;) {
    if (GetProcAddress(module, name.c_str()) == nullptr) missing.push_back(name);
  }
  return missing;
}

// As the library loads it.
UniqueModule LoadCloudFilesDll() {
  return UniqueModule(LoadLibraryExW(L"cldapi.dll", nullptr, LOAD_LIBRARY_SEARCH_DEFAULT_DIRS));
}

// The text of a program's manifest resource, or of the file beside it; empty if there is none.
std::string ReadManifest(const std::wstring& program) {
  const UniqueModule module(LoadLibraryExW(
      program.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE));
  if (!module) {
    const DWORD error = GetLastError();
    throw Failure(Utf8(program) + " is no program that can be read: " + ErrorText(error),
                  "name the client's .exe file");
  }
  const HRSRC found = FindResourceW(module.get(), MAKEINTRESOURCEW(1), MAKEINTRESOURCEW(24));
  if (found == nullptr) {
    std::ifstream file(std::filesystem::path(program + L".manifest"), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  const HGLOBAL loaded = LoadResource(module.get(), found);
  const auto* const text = static_cast<const char*>(LockResource(loaded));
  return {text, text == nullptr ? 0 : SizeofResource(module.get(), found)};
}

std::string WithoutComments(std::string xml) {
  constexpr std::string_view kStart = "<!--", kEnd = "-->";
  for (auto at = xml.find(kStart); at != std::string::npos; at = xml.find(kStart, at)) {
    const auto end = xml.find(kEnd, at + kStart.size());
    xml.erase(at, end == std::string::npos ? end : end + kEnd.size() - at);
  }
  return xml;
}

}  // namespace

bool WindowsVersion::IsNewEnough() const { return major >= 10 && build >= kOldestBuild; }

std::string WindowsVersion::Text() const {
  return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(build);
}

WindowsVersion RealVersion() {
  OSVERSIONINFOW version{};
  version.dwOSVersionInfoSize = sizeof version;
  const auto get =
      FunctionOf<LONG(WINAPI*)(OSVERSIONINFOW*)>(GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion");
  if (get != nullptr) get(&version);
  return {version.dwMajorVersion, version.dwMinorVersion, version.dwBuildNumber};
}

WindowsVersion ReportedVersion() {
  OSVERSIONINFOW version{};
  version.dwOSVersionInfoSize = sizeof version;
#ifdef _MSC_VER
#pragma warning(suppress : 4996)  // What is deprecated about it is just what is asked for here.
#endif
  GetVersionExW(&version);
  return {version.dwMajorVersion, version.dwMinorVersion, version.dwBuildNumber};
}

Gate FindGate() {
  if (CORVWinCFIsWinVersionSupportFileStreaming()) return Gate::kOpen;
  if (!RealVersion().IsNewEnough()) return Gate::kWindowsTooOld;
  return CompatibilityMode(PathOf(nullptr)) ? Gate::kCompatibilityMode : Gate::kManifestMissing;
}

std::string GateReason(Gate gate) {
  switch (gate) {
    case Gate::kOpen:
      return {};
    case Gate::kWindowsTooOld:
      return "Windows is too old: this is " + RealVersion().Text() + ", and it takes 10.0." +
             std::to_string(kOldestBuild) + " or later";
    case Gate::kManifestMissing:
      return "the program's manifest is missing or does not list Windows 10: Windows is " +
             RealVersion().Text() + ", but passes itself off as " + ReportedVersion().Text();
    case Gate::kCompatibilityMode:
      return "the program runs in compatibility mode: Windows is told to pass itself off as an "
             "older one";
  }
  return {};
}

std::string GateAdvice(Gate gate) {
  switch (gate) {
    case Gate::kOpen:
      return {};
    case Gate::kWindowsTooOld:
      return "update to Windows 10, version 1803, or later";
    case Gate::kManifestMissing:
      return "give the program a manifest with the supportedOS "
             "{8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a}";
    case Gate::kCompatibilityMode:
      return "switch it off in the program's properties, under Compatibility";
  }
  return {};
}

CloudFilesDll FindCloudFilesDll() {
  const auto module = LoadCloudFilesDll();
  if (!module) return {{}, {}, GetLastError(), {}};
  const auto path = PathOf(module.get());
  return {path, VersionOf(path), 0, FunctionsMissingIn(module.get())};
}

// The library asks the same, but keeps a failure to itself.
PlatformAnswer AskPlatform() {
  PlatformAnswer answer;
  const auto module = LoadCloudFilesDll();
  if (!module) {
    answer.result = HRESULT_FROM_WIN32(GetLastError());
    return answer;
  }
  const auto ask =
      FunctionOf<HRESULT(WINAPI*)(CORVWinCFPlatformInfo*)>(module.get(), "CfGetPlatformInfo");
  answer.result = ask != nullptr ? ask(&answer.info) : HRESULT_FROM_WIN32(GetLastError());
  return answer;
}

LibraryFile FindLibrary() {
  auto path = PathOf(GetModuleHandleW(L"Nimbra.dll"));
  auto version = VersionOf(path);
  return {std::move(path), std::move(version)};
}

void RequireOpenGate() {
  const auto gate = FindGate();
  if (gate == Gate::kOpen) return;
  throw Failure("the library's gate is closed: " + GateReason(gate), GateAdvice(gate),
                ExitCode::kNoPlatform);
}

void RequirePlatform() {
  RequireOpenGate();
  const auto answer = AskPlatform();
  if (answer.result >= 0) return;
  throw Failure("the Cloud Files platform does not answer: " + ResultText(answer.result),
                ResultAdvice(answer.result), ExitCode::kNoPlatform);
}

std::optional<std::string> CompatibilityMode(const std::string& program) {
  constexpr wchar_t kLayers[] =
      LR"(Software\Microsoft\Windows NT\CurrentVersion\AppCompatFlags\Layers)";
  for (auto* const root : {HKEY_CURRENT_USER, HKEY_LOCAL_MACHINE}) {
    const auto layers = ReadText(root, kLayers, AbsolutePath(program));
    std::istringstream words(Utf8(layers.value_or(L"")));
    for (std::string word; words >> word;) {
      if (word.starts_with("WIN") || word.starts_with("VISTA")) return word;
    }
  }
  return std::nullopt;
}

std::optional<bool> ManifestListsWindows10(const std::string& program) {
  const auto path = AbsolutePath(program);
  static_cast<void>(FindItem(path));
  const auto text = WithoutComments(ReadManifest(path));
  if (text.empty()) return std::nullopt;
  static const std::regex entry(
      R"(<\s*(\w+:)?supportedOS\s[^>]*\{8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a\})",
      std::regex::icase);
  return std::regex_search(text, entry);
}

}  // namespace nimbractl
