#ifndef NIMBRA_SIMULATOR_CLDAPI_PATHS_H_
#define NIMBRA_SIMULATOR_CLDAPI_PATHS_H_

// From what callers name files by to what the filter names them by.

#include <windows.h>

#include <string>
#include <string_view>

#include "protocol/wire.h"

namespace cldapi {

// The absolute DOS path "X:\…" of a path in any form that Windows takes: relative, with slashes,
// with the prefix for long paths.
[[nodiscard]] HRESULT FullDosPath(LPCWSTR path, std::wstring& full);

[[nodiscard]] HRESULT UnixPathOf(LPCWSTR path, std::string& unixPath);

// The file behind a handle, which may be a protected one and may have been opened for no access.
[[nodiscard]] HRESULT ItemOf(HANDLE file, cloud_filter::wire::ItemRef& item);

// "\Device\…" for "X:\…".
[[nodiscard]] std::wstring DevicePathOf(std::wstring_view dosPath);

// "X:\…" without its drive.
[[nodiscard]] std::wstring_view WithoutDrive(std::wstring_view dosPath);

[[nodiscard]] std::wstring WithBackslashes(std::wstring path);

}  // namespace cldapi

#endif  // NIMBRA_SIMULATOR_CLDAPI_PATHS_H_
