#include <gmock/gmock.h>
#include <windows.h>

#include <string_view>

#include "tests/faults/matrix.h"
#include "tests/faults/options.h"

namespace nimbra_test {
namespace {

unsigned long rounds = 2000;

}  // namespace

unsigned long BalanceRounds() { return rounds; }

}  // namespace nimbra_test

int main(int argc, char** argv) {
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX);
  if (nimbra_test::TestOptions().library.empty()) {
    std::fputs("which library? give --library=<path of Nimbra.dll>\n", stderr);
    return 2;
  }
  constexpr std::string_view kRounds = "--rounds=";
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    if (argument.starts_with(kRounds)) {
      nimbra_test::rounds = std::strtoul(argv[i] + kRounds.size(), nullptr, 10);
    }
  }
  nimbra_test::NameCrashes();
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
