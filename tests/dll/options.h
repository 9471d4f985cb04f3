#ifndef NIMBRA_TESTS_DLL_OPTIONS_H_
#define NIMBRA_TESTS_DLL_OPTIONS_H_

#include <string>

namespace nimbra_test {

// What the test program was started with.
struct Options {
  // --library=<path>: the library under test.
  std::wstring library;
  // --build=<number>: the Windows build that the tests are to find.
  unsigned long build = 0;
  // --flags=<three digits>: what the three version queries are to answer.
  std::wstring flags;
  // --planted=<folder>: a folder that holds a cldapi.dll which must not be loaded.
  std::wstring planted;
};

const Options& TestOptions();

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_DLL_OPTIONS_H_
