#include <gmock/gmock.h>
#include <windows.h>

#include "tests/dll/options.h"

int main(int argc, char** argv) {
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX);
  testing::InitGoogleMock(&argc, argv);
  if (nimbra_test::TestOptions().library.empty()) {
    std::fputs("which library? give --library=<path of Nimbra.dll>\n", stderr);
    return 2;
  }
  return RUN_ALL_TESTS();
}
