#ifndef NIMBRA_TESTS_FAULTS_EXPECTATION_H_
#define NIMBRA_TESTS_FAULTS_EXPECTATION_H_

#include <optional>
#include <string>
#include <string_view>

#include "tests/faults/scenario.h"

namespace nimbra_test {

// A DLL is loaded, and a function looked up in it, as a call of its own: the name goes on with that
// of the DLL in lower case, or of the function.
inline constexpr std::string_view kLoad = "LoadLibraryExW:";
inline constexpr std::string_view kLookUp = "GetProcAddress:";

struct Expectation {
  // Nothing when the table does not say.
  std::optional<Outcome> outcome;
  // The fault as log lines show it.
  Fault shown;
};

// What a fault is to lead to, in a scenario that usually does what was observed.
Expectation Expected(const Scenario& scenario, const Fault& fault, const Observation& usual);

// Whether anything becomes of it that a function cannot be found.
bool IsMissed(const std::string& lookUp, const Observation& usual);

// Whether a fault is the look-up of one of the platform's functions. Each of these is missing for
// itself; a DLL of the system is of no use without any of the functions that are looked up in it.
bool IsLookUpOfPlatform(const Fault& fault, const Observation& usual);

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_FAULTS_EXPECTATION_H_
