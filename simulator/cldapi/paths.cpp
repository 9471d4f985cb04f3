#include "paths.h"

#include <winternl.h>

#include <algorithm>

#include "protected-handle.h"
#include "result.h"
#include "wine-host.h"

namespace cldapi {
namespace {

constexpr std::wstring_view kLongPrefix = L"\\\\?\\";
constexpr std::wstring_view kUnixPrefix = L"\\\\?\\unix\\";

HRESULT LastResult() noexcept {
  const DWORD error = GetLastError();
  return error == ERROR_SUCCESS ? E_FAIL : FromWin32(error);
}

// Asks a function that wants to be told the buffer's length, until the buffer is long enough.
template <class Ask>
HRESULT GetText(const Ask& ask, std::wstring& text) {
  text.resize(MAX_PATH);
  for (;;) {
    const DWORD length = ask(text.data(), static_cast<DWORD>(text.size()));
    if (length == 0) return LastResult();
    const bool fits = length < text.size();
    text.resize(length);
    if (fits) return S_OK;
  }
}

bool IsOnDrive(std::wstring_view path) noexcept { return path.size() >= 2 && path[1] == L':'; }

// Wine shows files that no drive shows below this prefix; drive Z shows all of them as a rule.
std::wstring OnDrive(const std::wstring& path) {
  if (path.starts_with(kUnixPrefix)) {
    const auto unixPath = UnixFromDos(path);
    const auto dosPath = unixPath ? DosFromUnix(*unixPath) : std::nullopt;
    return dosPath.value_or(path);
  }
  if (path.starts_with(kLongPrefix)) return path.substr(kLongPrefix.size());
  return path;
}

// Wine's file id is the inode number. GetFileInformationByHandle tells it too, but takes a hundred
// times as long, because it asks another process about the volume. 0 when it cannot be had.
std::int64_t FileIdOf(HANDLE file) {
  IO_STATUS_BLOCK status;
  LARGE_INTEGER fileId{};
  NtQueryInformationFile(file, &status, &fileId, sizeof fileId, FileInternalInformation);
  return fileId.QuadPart;
}

}  // namespace

HRESULT FullDosPath(LPCWSTR path, std::wstring& full) {
  if (path == nullptr || *path == L'\0') return result::kInvalidParameter;
  const HRESULT got = GetText(
      [&](LPWSTR buffer, DWORD size) { return GetFullPathNameW(path, size, buffer, nullptr); },
      full);
  if (FAILED(got)) return got;
  full = OnDrive(full);
  while (full.size() > 3 && full.back() == L'\\') full.pop_back();
  return IsOnDrive(full) ? S_OK : FromWin32(ERROR_BAD_PATHNAME);
}

HRESULT UnixPathOf(LPCWSTR path, std::string& unixPath) {
  std::wstring full;
  const HRESULT got = FullDosPath(path, full);
  if (FAILED(got)) return got;
  auto found = UnixFromDos(std::wstring(kLongPrefix) + full);
  if (!found) return LastResult();
  unixPath = std::move(*found);
  return S_OK;
}

HRESULT ItemOf(HANDLE file, cloud_filter::wire::ItemRef& item) {
  const HandleLease lease(file);
  if (!lease.IsHeld()) return result::kInvalidHandle;
  std::wstring path;
  SetLastError(ERROR_SUCCESS);
  const HRESULT got = GetText(
      [&](LPWSTR buffer, DWORD size) {
        return GetFinalPathNameByHandleW(lease.File(), buffer, size, FILE_NAME_NORMALIZED);
      },
      path);
  if (FAILED(got)) return got;
  auto unixPath = UnixFromDos(path);
  if (!unixPath) return LastResult();
  item.path = std::move(*unixPath);
  item.fileId = FileIdOf(lease.File());
  return S_OK;
}

std::wstring DevicePathOf(std::wstring_view dosPath) {
  WCHAR device[MAX_PATH];
  const std::wstring drive(dosPath.substr(0, 2));
  if (!IsOnDrive(dosPath) || QueryDosDeviceW(drive.c_str(), device, MAX_PATH) == 0) {
    return std::wstring(dosPath);
  }
  return device + std::wstring(WithoutDrive(dosPath));
}

std::wstring_view WithoutDrive(std::wstring_view dosPath) {
  if (dosPath.starts_with(kLongPrefix)) dosPath.remove_prefix(kLongPrefix.size());
  return IsOnDrive(dosPath) ? dosPath.substr(2) : dosPath;
}

std::wstring WithBackslashes(std::wstring path) {
  std::replace(path.begin(), path.end(), L'/', L'\\');
  return path;
}

}  // namespace cldapi
