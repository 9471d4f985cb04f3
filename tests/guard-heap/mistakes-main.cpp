#include <windows.h>

#include <cstring>

#include "tests/guard-heap/mistakes.h"

// nimbra_mistakes <name>: gives 0 if nothing notices the mistake, 1 if there is none of that name.
int main(int argc, char** argv) {
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
  for (const auto& mistake : nimbra_test::guard_heap::AllMistakes()) {
    if (argc == 2 && std::strcmp(mistake.name, argv[1]) == 0) {
      mistake.make();
      return 0;
    }
  }
  return 1;
}
