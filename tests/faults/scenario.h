#ifndef NIMBRA_TESTS_FAULTS_SCENARIO_H_
#define NIMBRA_TESTS_FAULTS_SCENARIO_H_

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "nimbra/nimbra.h"
#include "tests/dll/loaded-library.h"
#include "tests/faults/gate.h"
#include "tests/support/com-apartment.h"
#include "tests/support/recording-cloud.h"
#include "tests/support/temp-folder.h"

namespace nimbra_test {

// What scenarios work on: one loaded library, the platform, and what a client holds.
class Stage {
 public:
  Stage();

  const ComApartment com{COINIT_MULTITHREADED};
  LoadedLibrary library;
  RecordingCloud cloud;
  CallGates gates{library.Module()};

  TempFolder folder;
  // A file of 7 bytes, with "/" between the components.
  std::string file;
  CORVWinCFSyncRootHandle root = nullptr;
  CORVWinCFCallbackDelegatorHandle delegator = nullptr;
  CORVWinCFPlaceholderHandle placeholder = nullptr;
  CORVWinCFPlaceholderMetaHandle meta = nullptr;

  // What the call wrote or what became of the world, as far as the scenario looks at it.
  std::string state;
  // Names in expected messages that stand for something known at run time only.
  std::map<std::string, std::string> names;
};

// What a call gives: its result, its log lines (written "source|number|message", with "#" for a
// source line's number and {names} in the message) and the state after it.
struct Outcome {
  std::int64_t result = 0;
  std::vector<std::string> log = {};
  std::string state = {};
};

inline constexpr int kAnyCall = 0;
// The result is the failure's own code.
inline constexpr std::int64_t kItsCode = INT64_MIN;
// An exception left the export.
inline constexpr std::int64_t kThrown = INT64_MAX;

// What comes of the failure of one of the platform's functions.
struct Row {
  std::string function;
  Outcome outcome;
  // Which of its calls.
  int n = kAnyCall;
  // Counts for this code only.
  std::optional<std::int64_t> code = std::nullopt;
  // Counts when all calls from the n-th on fail, or when it is the only one that does.
  std::optional<bool> persistent = std::nullopt;
};

struct Scenario {
  std::string exportName;
  std::function<void(Stage&)> setUp;
  std::function<std::int64_t(Stage&)> call;
  std::function<void(Stage&)> tearDown;

  Outcome success;
  std::vector<Row> rows;

  // The result when there is no memory; further results that are right when only some texts or
  // lines could not be made.
  std::int64_t withoutMemory = -1;
  std::vector<std::int64_t> otherResults = {};
  // Whether running out of memory may leave the export as an exception.
  bool mayThrow = false;
  // Says what is wrong after a call without memory or conversions; empty for nothing.
  std::function<std::string(const Stage&, std::int64_t result)> check = {};

  // What one round keeps on purpose, and why.
  Holdings kept = {};
  std::string whyKept = {};
  // Rounds out of 100,000 for the balance, when fewer, and why.
  int share = 1;
  std::string whyFewer = {};
  // Tells scenarios of one export apart.
  std::string variant = {};
  // What a failing round keeps, when that is not what a successful one does.
  std::optional<Holdings> keptOnFailure = std::nullopt;
  // Failing rounds keep anything up to what a successful one does.
  bool keepsParts = false;
  // Works on a thread of its own, whose first exception without any memory would end the process:
  // the runtime makes room for it then and gives up where there is none.
  bool startsThread = false;
};

// In the order of the exports' names.
const std::vector<Scenario>& Scenarios();

// Parts of the table.
std::vector<Scenario> QueryScenarios();
std::vector<Scenario> RootScenarios();
std::vector<Scenario> TransferScenarios();
std::vector<Scenario> DelegatorScenarios();
std::vector<Scenario> PlaceholderScenarios();
std::vector<Scenario> EntryScenarios();
std::vector<Scenario> ThumbnailScenarios();

// Calls one of the library's functions.
#define CALL(name, ...) NIMBRA_FUNCTION(stage.library, name)(__VA_ARGS__)

// Steps that scenarios share.
void NewRoot(Stage& stage);
void NewDelegator(Stage& stage);
void NewPlaceholder(Stage& stage);
void OpenPlaceholder(Stage& stage);
void ReleaseAll(Stage& stage);

// The number of values of a registry key and all keys below it.
std::size_t CountValues(HKEY root, const std::wstring& path);

// What a released root or delegator keeps: the object lives until the process ends.
extern const Holdings kKeptRoot;
extern const Holdings kKeptDelegator;

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_FAULTS_SCENARIO_H_
