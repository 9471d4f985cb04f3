#ifndef NIMBRA_TESTS_FAULTS_MATRIX_H_
#define NIMBRA_TESTS_FAULTS_MATRIX_H_

#include <memory>
#include <string>
#include <vector>

#include "tests/faults/scenario.h"

namespace nimbra_test {

struct Played {
  std::int64_t result = 0;
  Observation observation;
  std::string state;
  // What is held after it and was not before.
  Holdings growth;
  // What `check` of the scenario said.
  std::string complaint;
};
// Has the library throw and catch once on this thread without memory for it. Before that, a lack of
// all memory ends the process: the runtime makes what it needs for its first exception only then.
void MeetException(Stage& stage);

// One run of a scenario.
Played Play(Stage& stage, const Scenario& scenario, const Fault& fault = {});
// The same without measuring what is held.
Played PlayOnly(Stage& stage, const Scenario& scenario, const Fault& fault);
// What is held now, kernel handles included, and by how much it is more than before.
Holdings HeldNow(const Stage& stage);
Holdings Growth(const Holdings& before, const Holdings& after);

// What is wrong with a run, one text for each thing.
std::vector<std::string> Compare(const Stage& stage, const Played& run, const Outcome& expected,
                                 const Fault& fault);
// The same under the weak expectations of a call without memory or conversions.
std::vector<std::string> CompareWeakly(const Played& run, const Scenario& scenario);
// What is wrong with what a run holds on to.
std::vector<std::string> CompareGrowth(const Played& run, const Scenario& scenario);

std::string Describe(const Fault& fault);

// A scenario under every fault, on one warmed-up library, and on fresh ones where that matters.
class FaultMatrix {
 public:
  explicit FaultMatrix(const Scenario& scenario) : scenario_(scenario) {}

  struct Result {
    int callSites = 0;
    int faults = 0;
    int passed = 0;
    std::vector<std::string> failures = {};
    // What the library called in this scenario and has no row.
    std::vector<std::string> unknown = {};
  };
  Result RunAll();

 private:
  void RunWarm();
  void RunFresh();
  void RunFunction(const FunctionRow& row, const std::string& function, int calls);
  void Inject(const Fault& fault, bool weak);
  void InjectFirst(const Fault& fault, bool weak, const Played& first);
  // What is wrong with a run under a fault, what it holds apart.
  std::vector<std::string> Judge(const Stage& stage, const Played& run, const Fault& fault,
                                 bool weak, const Observation& usual) const;
  void Report(const Fault& fault, const std::vector<std::string>& complaints);

  const Scenario& scenario_;
  std::unique_ptr<Stage> stage_;
  Observation usual_;
  Result result_;
};

// Has a crash say in which scenario and under which fault it happened.
void NameCrashes();

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_FAULTS_MATRIX_H_
