#include "win-cf/shortcut-name.h"

namespace corvdrive::cloud_filter {
namespace {

constexpr char kHomeShare[] = "home";
constexpr char kHomeLabel[] = "My Drive";

}  // namespace

std::string ShortcutBaseName(const std::string& shareName, const std::string& remotePath) {
  if (remotePath == "/") {
    return shareName == kHomeShare ? kHomeLabel : shareName;
  }
  const auto separator = remotePath.rfind('/');
  return separator == std::string::npos ? remotePath : remotePath.substr(separator + 1);
}

std::wstring ShortcutPath(const std::wstring& folder, const std::wstring& baseName, int n) {
  std::wstring path = folder + L"\\" + baseName;
  if (n != 0) {
    const std::string digits = std::to_string(n);
    path.append(L"(").append(digits.begin(), digits.end()).append(L")");
  }
  return path.append(L".lnk");
}

}  // namespace corvdrive::cloud_filter
