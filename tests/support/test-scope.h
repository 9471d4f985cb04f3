#ifndef NIMBRA_TESTS_SUPPORT_TEST_SCOPE_H_
#define NIMBRA_TESTS_SUPPORT_TEST_SCOPE_H_

namespace nimbra_test {

// Marks that the current thread runs test code, reached through a double or a hook in the middle of
// the library's own work. Allocations made inside are neither counted nor failed.
class TestScope {
 public:
  TestScope();
  ~TestScope();
  TestScope(const TestScope&) = delete;
  TestScope& operator=(const TestScope&) = delete;

  static bool Active();
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_TEST_SCOPE_H_
