#ifndef NIMBRA_TESTS_SUPPORT_RAW_BYTES_H_
#define NIMBRA_TESTS_SUPPORT_RAW_BYTES_H_

#include <string>
#include <type_traits>

namespace nimbra_test {

// The bytes of a plain record, padding included, for comparing it as a whole.
template <typename Record>
std::string RawBytes(const Record& record) {
  static_assert(std::is_trivially_copyable_v<Record>);
  return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_RAW_BYTES_H_
