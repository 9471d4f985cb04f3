#ifndef NIMBRA_SIMULATOR_CLDAPI_RESULT_H_
#define NIMBRA_SIMULATOR_CLDAPI_RESULT_H_

// The results that cldapi.dll makes itself; all others are the filter's.

#include <windows.h>

namespace cldapi {

constexpr HRESULT FromWin32(DWORD code) noexcept {
  return code == ERROR_SUCCESS ? S_OK : static_cast<HRESULT>(0x80070000U | (code & 0xFFFFU));
}

namespace result {
inline constexpr HRESULT kInvalidParameter = FromWin32(ERROR_INVALID_PARAMETER);
inline constexpr HRESULT kInvalidHandle = FromWin32(ERROR_INVALID_HANDLE);
inline constexpr HRESULT kMoreData = FromWin32(ERROR_MORE_DATA);
inline constexpr HRESULT kPending = FromWin32(ERROR_IO_PENDING);
inline constexpr HRESULT kInvalidData = FromWin32(ERROR_INVALID_DATA);
// No daemon answers at the endpoint. The platform knows no such state: its filter is in the kernel.
inline constexpr HRESULT kFilterNotRunning = FromWin32(ERROR_SERVICE_NOT_ACTIVE);
}  // namespace result

}  // namespace cldapi

#endif  // NIMBRA_SIMULATOR_CLDAPI_RESULT_H_
