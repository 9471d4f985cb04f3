#ifndef NIMBRA_TESTS_GUARD_HEAP_REPORT_H_
#define NIMBRA_TESTS_GUARD_HEAP_REPORT_H_

#include <windows.h>

#include "tests/guard-heap/guard-heap.h"

namespace nimbra_test::guard_heap {

// Says what `function` was given instead of a good block, and ends the process.
[[noreturn]] void EndWithReport(Mistake mistake, const char* function, const void* address);

// A vectored exception handler. Says what happened and ends the process where an access violation
// is about a block of this heap, or undefined behaviour was met in this module.
LONG CALLBACK ReportException(EXCEPTION_POINTERS* exception);

}  // namespace nimbra_test::guard_heap

#endif  // NIMBRA_TESTS_GUARD_HEAP_REPORT_H_
