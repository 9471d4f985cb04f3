#include "paths.h"

#include <winternl.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <utility>

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
// times as long, because it asks another process about the volume.
HRESULT GetFileId(HANDLE file, std::int64_t& fileId) {
  IO_STATUS_BLOCK status;
  LARGE_INTEGER number{};
  const NTSTATUS result =
      NtQueryInformationFile(file, &status, &number, sizeof number, FileInternalInformation);
  fileId = number.QuadPart;
  return result < 0 ? result::kInvalidHandle : S_OK;
}

// The NT path by which a file was opened. Wine's GetFinalPathNameByHandle is made of the same, but
// fails beyond MAX_PATH.
HRESULT GetNtPath(HANDLE file, std::wstring& path) {
  // The record that is filled in begins with a UNICODE_STRING; the name follows it. No name is
  // longer than that can say.
  constexpr std::size_t kLongest = sizeof(UNICODE_STRING) + 0x10000;
  const auto buffer = std::make_unique_for_overwrite<std::byte[]>(kLongest);
  ULONG length = 0;
  const NTSTATUS result =
      NtQueryObject(file, ObjectNameInformation, buffer.get(), kLongest, &length);
  if (result < 0) return FromWin32(RtlNtStatusToDosError(result));
  const auto* name = reinterpret_cast<const UNICODE_STRING*>(buffer.get());
  path.assign(name->Buffer, name->Length / sizeof(WCHAR));
  return S_OK;
}

}  // namespace

HRESULT FullDosPath(LPCWSTR path, std::wstring& full) {
  if (path == nullptr || *path == L'\0') return result::kInvalidParameter;
  full.resize(GetFullPathNameW(path, 0, nullptr, nullptr));
  full.resize(GetFullPathNameW(path, static_cast<DWORD>(full.size()), full.data(), nullptr));
  if (full.empty()) return LastResult();
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
  HRESULT got = GetFileId(lease.File(), item.fileId);
  if (SUCCEEDED(got)) got = GetNtPath(lease.File(), path);
  if (FAILED(got)) return got;
  auto unixPath = UnixFromDos(path);
  if (!unixPath) return LastResult();
  item.path = std::move(*unixPath);
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
