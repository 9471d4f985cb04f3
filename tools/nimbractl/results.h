#ifndef NIMBRA_NIMBRACTL_RESULTS_H_
#define NIMBRA_NIMBRACTL_RESULTS_H_

#include <cstdint>
#include <string>

namespace nimbractl {

// An HRESULT with its name and what it means, as far as known here or to Windows:
// "0x80070188 ERROR_CLOUD_FILE_PINNED, it is pinned".
[[nodiscard]] std::string ResultText(std::int32_t result);

// What to do where there is nothing better.
inline constexpr char kLogAdvice[] =
    "nimbractl log, in another window, shows what the library reports";

// What to do about it.
[[nodiscard]] std::string ResultAdvice(std::int32_t result);

// The same of a Win32 error code.
[[nodiscard]] std::string ErrorText(std::uint32_t error);

}  // namespace nimbractl

#endif
