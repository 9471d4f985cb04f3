#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <set>

#include "tests/dll/image.h"
#include "tests/faults/matrix.h"
#include "tests/faults/options.h"

namespace nimbra_test {
namespace {

std::map<std::string, FaultMatrix::Result>& Results() {
  static std::map<std::string, FaultMatrix::Result> results;
  return results;
}

// Each export under every fault of every platform function that it calls.
class FaultMatrixTest : public testing::TestWithParam<std::string> {
 protected:
  static void TearDownTestSuite() {
    FaultMatrix::Result total;
    std::printf("\n%-58s %6s %7s %7s\n", "export", "sites", "faults", "passed");
    for (const auto& [name, result] : Results()) {
      std::printf("%-58s %6d %7d %7d\n", name.c_str(), result.callSites, result.faults,
                  result.passed);
      total.callSites += result.callSites;
      total.faults += result.faults;
      total.passed += result.passed;
    }
    std::printf("%-58s %6d %7d %7d\n\n", ("total: " + std::to_string(Results().size())).c_str(),
                total.callSites, total.faults, total.passed);
  }
};

TEST_P(FaultMatrixTest, FailsAsDocumentedUnderEveryFault) {
  bool isKnown = false;
  for (const Scenario& scenario : Scenarios()) {
    if (scenario.exportName != GetParam()) {
      continue;
    }
    isKnown = true;
    const FaultMatrix::Result result = FaultMatrix(scenario).RunAll();
    for (const std::string& failure : result.failures) {
      ADD_FAILURE() << failure;
    }
    for (const std::string& function : result.unknown) {
      ADD_FAILURE() << function << " is called and has no row. Add one to functions.cpp: how it "
                    << "fails, or why it is not failed";
    }
    FaultMatrix::Result& sum = Results()[GetParam()];
    sum.callSites += result.callSites;
    sum.faults += result.faults;
    sum.passed += result.passed;
  }
  EXPECT_TRUE(isKnown) << "Add a scenario for it";
}

std::vector<std::string> Exports() {
  const HMODULE image =
      LoadLibraryExW(TestOptions().library.c_str(), nullptr, DONT_RESOLVE_DLL_REFERENCES);
  std::vector<std::string> names =
      image == nullptr ? std::vector<std::string>() : ExportNames(image);
  FreeLibrary(image);
  return names;
}

INSTANTIATE_TEST_SUITE_P(AllExports, FaultMatrixTest, testing::ValuesIn(Exports()),
                         [](const auto& test) { return test.param; });

TEST(FaultTableTest, EveryImportHasARow) {
  const Stage stage;
  for (const std::string& function : stage.gates.Imports()) {
    EXPECT_NE(FindFunction(function), nullptr)
        << function << " is imported and has no row. Add one to functions.cpp: how it fails, or "
        << "why it is not failed";
  }
  EXPECT_GT(stage.gates.Imports().size(), 100u);
}

TEST(FaultTableTest, EveryScenarioIsAnExports) {
  const std::vector<std::string> exports = Exports();
  EXPECT_EQ(exports.size(), 62u);
  const std::set<std::string> names(exports.begin(), exports.end());
  for (const Scenario& scenario : Scenarios()) {
    EXPECT_TRUE(names.contains(scenario.exportName)) << scenario.exportName;
  }
}

}  // namespace
}  // namespace nimbra_test
