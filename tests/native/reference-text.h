#ifndef NIMBRA_TESTS_NATIVE_REFERENCE_TEXT_H_
#define NIMBRA_TESTS_NATIVE_REFERENCE_TEXT_H_

#include <string>
#include <string_view>

namespace nimbra_native {

// What converted text must look like, told in another way than the stand-in's converters do: by the
// Unicode Standard's table of well-formed byte sequences and its rule that every maximal subpart of
// an ill-formed one gives one U+FFFD. Text ends at its first NUL.
std::u16string ReferenceToUtf16(std::string_view utf8);
std::string ReferenceToUtf8(std::u16string_view units);

}  // namespace nimbra_native

#endif
