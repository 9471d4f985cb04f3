#include <gmock/gmock.h>
#include <windows.h>

// The main function of the test programs: no message boxes on a crash, a result either way.
int main(int argc, char** argv) {
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX);
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
