#include "tests/dll/options.h"

#include <windows.h>
// windows.h first.
#include <shellapi.h>

#include <algorithm>
#include <string_view>

namespace nimbra_test {
namespace {

// A path of the build machine: where that is not Windows, its root is drive Z.
std::wstring NativePath(std::wstring path) {
  if (!path.empty() && path.front() == L'/') {
    std::replace(path.begin(), path.end(), L'/', L'\\');
    path.insert(0, L"Z:");
  }
  return path;
}

Options Parse() {
  Options options;
  int count = 0;
  wchar_t** const arguments = CommandLineToArgvW(GetCommandLineW(), &count);
  for (int i = 1; arguments != nullptr && i < count; ++i) {
    const std::wstring_view argument = arguments[i];
    const std::size_t equals = argument.find(L'=');
    const std::wstring_view name = argument.substr(0, equals);
    const std::wstring value(equals == std::wstring_view::npos ? std::wstring_view()
                                                               : argument.substr(equals + 1));
    if (name == L"--library") {
      options.library = NativePath(value);
    } else if (name == L"--build") {
      options.build = std::wcstoul(value.c_str(), nullptr, 10);
    } else if (name == L"--flags") {
      options.flags = value;
    } else if (name == L"--planted") {
      options.planted = NativePath(value);
    }
  }
  LocalFree(arguments);
  return options;
}

}  // namespace

const Options& TestOptions() {
  static const Options options = Parse();
  return options;
}

}  // namespace nimbra_test
