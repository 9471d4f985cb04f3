#ifndef NIMBRA_TESTS_SUPPORT_HANDLE_CENSUS_H_
#define NIMBRA_TESTS_SUPPORT_HANDLE_CENSUS_H_

#include <cstddef>

namespace nimbra_test {

// The number of kernel handles that this process has open now, as the system counts them.
std::size_t OpenHandleCount();

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_HANDLE_CENSUS_H_
