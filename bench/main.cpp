// Measures families of operations, each beside a baseline, and writes a line of JSON for each row:
//   nimbra-bench [--quick] [--large] [--folder=PATH] FAMILY...
// "serve" measures nothing: it serves the sync roots in the folder for others to measure.

#include <cstdio>
#include <exception>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "bench/harness/families.h"
#include "common/version-flags.h"

namespace {

using nimbra_bench::Settings;

constexpr std::string_view kFolder = "--folder=";

const std::map<std::string_view, std::function<void(const Settings&)>>& Families() {
  static const std::map<std::string_view, std::function<void(const Settings&)>> families = {
      {"exports", nimbra_bench::MeasureExports},
      {"callbacks", nimbra_bench::MeasureCallbacks},
      {"streaming", nimbra_bench::MeasureStreaming},
      {"shell", nimbra_bench::MeasureShell},
      {"placeholders", nimbra_bench::MeasurePlaceholders},
      {"serve", nimbra_bench::ServeRoots}};
  return families;
}

int Run(const std::vector<std::string_view>& arguments) {
  Settings settings;
  std::vector<std::string_view> names;
  for (const std::string_view argument : arguments) {
    if (argument == "--quick") {
      settings.isQuick = true;
    } else if (argument == "--large") {
      settings.isLarge = true;
    } else if (argument.starts_with(kFolder)) {
      settings.folder = argument.substr(kFolder.size());
    } else if (Families().contains(argument)) {
      names.push_back(argument);
    } else {
      std::fprintf(stderr, "unknown argument: %s\n", std::string(argument).c_str());
      return 2;
    }
  }
  // What the library does when it is loaded as a DLL.
  corvdrive::cloud_filter::ComputeVersionFlags();
  for (const std::string_view name : names) {
    Families().at(name)(settings);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run({argv + 1, argv + argc});
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
  }
}
