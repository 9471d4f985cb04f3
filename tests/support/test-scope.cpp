#include "tests/support/test-scope.h"

namespace nimbra_test {
namespace {

thread_local int depth = 0;

}  // namespace

TestScope::TestScope() { ++depth; }

TestScope::~TestScope() { --depth; }

bool TestScope::Active() { return depth > 0; }

}  // namespace nimbra_test
