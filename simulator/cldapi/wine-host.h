#ifndef NIMBRA_SIMULATOR_CLDAPI_WINE_HOST_H_
#define NIMBRA_SIMULATOR_CLDAPI_WINE_HOST_H_

// The bridge between Windows' and Linux' file names that Wine offers to programs.

#include <optional>
#include <string>

namespace cldapi {

// False on a real Windows, where there is nothing to simulate.
[[nodiscard]] bool RunsUnderWine() noexcept;

// The Unix path of a DOS path, without a trailing slash. The last component need not exist. Nothing
// when there is no such path; the last error tells why.
[[nodiscard]] std::optional<std::string> UnixFromDos(const std::wstring& dosPath);

// The DOS path of a Unix path: on the drive that shows it, else on drive Z.
[[nodiscard]] std::optional<std::wstring> DosFromUnix(const std::string& unixPath);

}  // namespace cldapi

#endif  // NIMBRA_SIMULATOR_CLDAPI_WINE_HOST_H_
