#ifndef NIMBRA_TESTS_FAULTS_OPTIONS_H_
#define NIMBRA_TESTS_FAULTS_OPTIONS_H_

#include "tests/dll/options.h"

namespace nimbra_test {

// --rounds=<number>: how often the balance repeats each call (2000).
unsigned long BalanceRounds();

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_FAULTS_OPTIONS_H_
