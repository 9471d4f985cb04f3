#ifndef NIMBRA_SIMULATOR_CLDAPI_TEXT_H_
#define NIMBRA_SIMULATOR_CLDAPI_TEXT_H_

// Conversions of text. The library has its own: the simulator shares no code with what is tested
// on it, so that a mistake cannot cancel itself out.

#include <string>
#include <string_view>

namespace cldapi {

// What is not valid becomes U+FFFD.
[[nodiscard]] std::string ToUtf8(std::wstring_view text);
[[nodiscard]] std::wstring ToWide(std::string_view text);

}  // namespace cldapi

#endif  // NIMBRA_SIMULATOR_CLDAPI_TEXT_H_
