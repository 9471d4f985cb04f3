#ifndef NIMBRA_TESTS_STRESS_MEMORY_COUNT_H_
#define NIMBRA_TESTS_STRESS_MEMORY_COUNT_H_

#include <cstddef>

namespace nimbra_stress {

// The blocks of all heaps of this process that are in use now.
std::size_t BlocksInUse();

}  // namespace nimbra_stress

#endif  // NIMBRA_TESTS_STRESS_MEMORY_COUNT_H_
