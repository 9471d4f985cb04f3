#ifndef NIMBRA_NIMBRACTL_IDENTITY_H_
#define NIMBRA_NIMBRACTL_IDENTITY_H_

// Identities: bytes that the library gives without telling how many.

#include <cstddef>
#include <string>
#include <string_view>

namespace nimbractl {

// The bytes that `fill` writes to the start of a buffer of `size` bytes: it is asked twice, for
// buffers filled differently, and what differs afterwards was not written.
template <class Fill>
std::string BytesWritten(std::size_t size, const Fill& fill) {
  std::string first(size, '\0'), second(size, '\xFF');
  fill(first.data());
  fill(second.data());
  std::size_t length = 0;
  while (length < size && first[length] == second[length]) ++length;
  first.resize(length);
  return first;
}

// Whether the bytes are well-formed UTF-8 without control characters.
[[nodiscard]] bool IsText(std::string_view bytes);

// Two digits a byte: "00ff".
[[nodiscard]] std::string Hex(std::string_view bytes);

}  // namespace nimbractl

#endif
