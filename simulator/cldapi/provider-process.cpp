#include "provider-process.h"

#include <windows.h>

#include <charconv>

#include "owned-handle.h"
#include "paths.h"
#include "text.h"
#include "wine-host.h"

namespace cldapi {
namespace {

namespace wire = cloud_filter::wire;

// 0 when the root is not mounted.
std::int32_t ThisUnixProcess(const std::wstring& rootPath) {
  const std::wstring path = L"\\\\?\\" + rootPath + L"\\" + ToWide(wire::kWhoAmIName);
  const OwnedHandle file(
      CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
  char text[32];
  DWORD length = 0;
  std::int32_t process = 0;
  if (file.IsValid() && ReadFile(file.Get(), text, sizeof text, &length, nullptr)) {
    std::from_chars(text, text + length, process);
  }
  return process;
}

std::wstring ThisImage() {
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    const bool fits = length < path.size();
    path.resize(fits ? length : path.size() * 2);
    if (fits) return path;
  }
}

}  // namespace

wire::ProviderProcess DescribeThisProcess(const std::wstring& rootPath) {
  wire::ProviderProcess process;
  process.windowsProcessId = GetCurrentProcessId();
  process.unixProcessId = ThisUnixProcess(rootPath);
  process.imagePath = ToUtf8(DevicePathOf(ThisImage()));
  process.commandLine = ToUtf8(GetCommandLineW());
  process.systemDriveUnixPath = UnixFromDos(L"C:\\").value_or("");
  return process;
}

}  // namespace cldapi
