// A process with nothing but the system's core: loads the library, asks it for what needs no
// DLL of the shell, and fails if one came along.
//   bare-host --library=DLL

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "nimbra/nimbra.h"

namespace {

// What the library calls, and what these bring along.
constexpr const char* kCostly[] = {"combase.dll", "gdi32.dll",   "ole32.dll",  "rpcrt4.dll",
                                   "shell32.dll", "shlwapi.dll", "user32.dll", "windowscodecs.dll"};

std::vector<std::string> CostlyOnes() {
  std::vector<std::string> loaded;
  for (const char* name : kCostly) {
    if (GetModuleHandleA(name) != nullptr) {
      loaded.emplace_back(name);
    }
  }
  return loaded;
}

// How many are there that were not before.
int CountNew(const char* when, const std::vector<std::string>& before) {
  int count = 0;
  for (const std::string& name : CostlyOnes()) {
    if (std::find(before.begin(), before.end(), name) == before.end()) {
      std::printf("%s: %s is loaded\n", when, name.c_str());
      ++count;
    }
  }
  return count;
}

// On Windows the core, or the platform, may bring some of them; Wine is known not to.
bool CanBeSeen(const std::vector<std::string>& before) {
  const HMODULE system = GetModuleHandleA("ntdll.dll");
  const bool isWine = system != nullptr && GetProcAddress(system, "wine_get_version") != nullptr;
  return before.empty() || (!isWine && before.size() < std::size(kCostly));
}

template <typename Function>
Function Find(HMODULE library, const char* name) {
  return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(library, name)));
}

// Empty if there is no such option; others are the business of other programs.
std::string LibraryPath(int argc, char** argv) {
  constexpr std::string_view kOption = "--library=";
  std::string path;
  for (int i = 1; i < argc; ++i) {
    if (std::string_view(argv[i]).starts_with(kOption)) {
      path = argv[i] + kOption.size();
    }
  }
  if (path.starts_with('/')) {
    // A path of the build machine: its root is drive Z.
    std::replace(path.begin(), path.end(), '/', '\\');
    path.insert(0, "Z:");
  }
  return path;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string path = LibraryPath(argc, argv);
  if (path.empty()) {
    std::puts("which library? give --library=<path of Nimbra.dll>");
    return 2;
  }
  // The platform brings what it brings.
  LoadLibraryExW(L"cldapi.dll", nullptr, LOAD_LIBRARY_SEARCH_DEFAULT_DIRS);
  const std::vector<std::string> before = CostlyOnes();
  if (!CanBeSeen(before)) {
    std::puts("nothing can be seen in this process: they are there already");
    return 2;
  }
  const HMODULE library = LoadLibraryA(path.c_str());
  if (library == nullptr) {
    std::printf("the library cannot be loaded: error %lu\n", GetLastError());
    return 2;
  }
  int found = CountNew("after loading the library", before);
  CORVWinCFPlatformInfo info{};
  Find<decltype(&CORVWinCFGetPlatformInfo)>(library, "CORVWinCFGetPlatformInfo")(&info);
  Find<decltype(&CORVWinCFIsWinVersionSupportFileStreaming)>(
      library, "CORVWinCFIsWinVersionSupportFileStreaming")();
  found += CountNew("after asking for the platform", before);
  // Were they seen if they came?
  char* guid = nullptr;
  Find<decltype(&CORVWinCFGenerateGuid)>(library, "CORVWinCFGenerateGuid")(&guid);
  Find<decltype(&CORVWinCFReleaseGuid)>(library, "CORVWinCFReleaseGuid")(guid);
  if (guid == nullptr || GetModuleHandleA("ole32.dll") == nullptr) {
    std::puts("making a GUID has not loaded ole32.dll");
    ++found;
  }
  std::printf("%zu of them before, %d faults\n", before.size(), found);
  return found == 0 ? 0 : 1;
}
