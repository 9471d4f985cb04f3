#ifndef NIMBRA_TESTS_SUPPORT_VIRTUAL_SLOT_H_
#define NIMBRA_TESTS_SUPPORT_VIRTUAL_SLOT_H_

#include <cstddef>
#include <cstring>

namespace nimbra_test {

// Where a virtual operation stands in its class's table, counted from 0 in the compiler's own
// layout (GCC and Clang: the destructor takes the first two places).
template <typename Member>
std::ptrdiff_t VirtualSlot(Member member) {
  std::ptrdiff_t offset = 0;
  static_assert(sizeof(member) >= sizeof(offset));
  std::memcpy(&offset, &member, sizeof(offset));
  return (offset - 1) / static_cast<std::ptrdiff_t>(sizeof(void*));
}

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_VIRTUAL_SLOT_H_
