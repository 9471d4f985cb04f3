#ifndef NIMBRA_TESTS_SUPPORT_HEAP_CENSUS_H_
#define NIMBRA_TESTS_SUPPORT_HEAP_CENSUS_H_

#include <cstddef>

namespace nimbra_test {

// The number of blocks in use in all heaps of this process, the system's own among them.
std::size_t BusyHeapBlocks();

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_HEAP_CENSUS_H_
