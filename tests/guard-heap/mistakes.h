#ifndef NIMBRA_TESTS_GUARD_HEAP_MISTAKES_H_
#define NIMBRA_TESTS_GUARD_HEAP_MISTAKES_H_

#include <ostream>
#include <span>

#include "tests/guard-heap/guard-heap.h"

namespace nimbra_test::guard_heap {

struct NamedMistake {
  const char* name;
  void (*make)();
  Mistake noticedAs;
  // What the report says, besides addresses.
  const char* report;
};

std::span<const NamedMistake> AllMistakes();

// For the names of tests.
inline void PrintTo(const NamedMistake& mistake, std::ostream* stream) { *stream << mistake.name; }

}  // namespace nimbra_test::guard_heap

#endif  // NIMBRA_TESTS_GUARD_HEAP_MISTAKES_H_
