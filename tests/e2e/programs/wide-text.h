#ifndef NIMBRA_TESTS_E2E_WIDE_TEXT_H_
#define NIMBRA_TESTS_E2E_WIDE_TEXT_H_

#include <string>
#include <string_view>

namespace e2e {

std::wstring ToWide(std::string_view utf8);
std::string ToNarrow(std::wstring_view text);

}  // namespace e2e

#endif  // NIMBRA_TESTS_E2E_WIDE_TEXT_H_
