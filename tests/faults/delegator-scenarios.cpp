// The client's callbacks: the delegator, and each event from the platform to the client.

#include <windows.h>

#include "tests/faults/scenario.h"

namespace nimbra_test {
namespace {

// What the last callback was told.
std::string told;
int events = 0;

void Take(const CORVWinCFCallbackRecord* record) {
  ++events;
  told =
      std::to_string(record->sessionNumber) + " " + record->fileIdentity + " " + record->fullPath;
  if (record->targetPath != nullptr) {
    told += std::string(" to ") + record->targetPath;
  }
  if (record->imagePath != nullptr) {
    told += std::string(" by ") + record->imagePath;
  }
}

using Setter = CORVWinCFStatus (*)(CORVWinCFCallbackDelegatorHandle, CORVWinCFCallback);

Holdings KeptConnection() {
  Holdings kept = kKeptRoot;
  for (const auto& [name, count] : kKeptDelegator) {
    kept[name] += count;
  }
  return kept;
}

constexpr char kWhyKept[] = "the root, the delegator and its callbacks live until the process ends";

// Whether an event that did not reach the client was answered where an answer is waited for.
std::string CheckFetch(const Stage& stage, std::int64_t result) {
  const auto answers = stage.cloud.CallsOf<ExecuteCall>();
  if (result == 0 && stage.names.at("setter") == "0" &&
      (answers.size() != 1 || answers[0].status >= 0)) {
    return "nobody told the platform that the fetch fails";
  }
  return {};
}

// Setting a callback, and the event that it is for. The result is the number of callbacks called,
// less one for each failure of the setter.
Scenario Event(const char* name, CF_CALLBACK_TYPE type, const std::string& record) {
  Scenario scenario;
  scenario.exportName = name;
  const std::string exportName = name;
  scenario.setUp = [](Stage& stage) {
    NewRoot(stage);
    NewDelegator(stage);
    events = 0;
    told = "nothing";
    CALL(CORVWinCFSyncRootConnect, stage.root, stage.delegator);
    stage.cloud.Clear();
  };
  scenario.call = [exportName, type](Stage& stage) -> std::int64_t {
    const auto set = stage.library.Get<Setter>(exportName.c_str());
    const int status = set(stage.delegator, Take);
    stage.names["setter"] = std::to_string(status);
    CallbackEvent event;
    event.type = type;
    event.flags = type == CF_CALLBACK_TYPE_NOTIFY_RENAME ? 6 : 0;
    stage.cloud.Play(event);
    stage.state = told;
    return status == 0 ? events : -1;
  };
  scenario.tearDown = ReleaseAll;
  scenario.success = {1, {}, record};
  scenario.withoutMemory = -1;
  scenario.otherResults = {0, 1};
  if (type == CF_CALLBACK_TYPE_FETCH_DATA) {
    scenario.check = CheckFetch;
  }
  scenario.keptOnFailure = scenario.kept = KeptConnection();
  // One entry of the table of callbacks.
  scenario.kept["memory block"] += 1;
  scenario.kept["memory byte"] += 48;
  scenario.whyKept = kWhyKept;
  return scenario;
}

}  // namespace

std::vector<Scenario> DelegatorScenarios() {
  const std::string program = R"( by \Device\HarddiskVolume1\Windows\notepad.exe)";
  const std::string item = "12 file-identity C:\\Sync\\file.txt";
  std::vector<Scenario> scenarios;
  scenarios.push_back({"CORVWinCFCallbackDelegatorNew",
                       {},
                       [](Stage& stage) -> std::int64_t {
                         const auto result =
                             CALL(CORVWinCFCallbackDelegatorNew, &stage.delegator, nullptr);
                         stage.state = stage.delegator == nullptr ? "untouched" : "delegator";
                         return result;
                       },
                       ReleaseAll,
                       {0, {}, "delegator"},
                       {},
                       -1,
                       {},
                       false,
                       {},
                       kKeptDelegator,
                       "the delegator lives until the process ends"});
  scenarios.back().keptOnFailure = Holdings();
  scenarios.push_back({"CORVWinCFCallbackDelegatorRelease",
                       NewDelegator,
                       [](Stage& stage) -> std::int64_t {
                         CALL(CORVWinCFCallbackDelegatorRelease, stage.delegator);
                         stage.delegator = nullptr;
                         return 0;
                       },
                       {},
                       {0},
                       {},
                       0,
                       {},
                       false,
                       {},
                       kKeptDelegator,
                       "the delegator lives until the process ends"});
  scenarios.push_back(Event("CORVWinCFCallbackDelegatorSetFetchCallback",
                            CF_CALLBACK_TYPE_FETCH_DATA, item + program));
  scenarios.push_back(Event("CORVWinCFCallbackDelegatorSetFetchCancelCallback",
                            CF_CALLBACK_TYPE_CANCEL_FETCH_DATA, item));
  scenarios.push_back(Event("CORVWinCFCallbackDelegatorSetRenameCallback",
                            CF_CALLBACK_TYPE_NOTIFY_RENAME,
                            item + " to C:\\Sync\\renamed.txt" + program));
  scenarios.push_back(Event("CORVWinCFCallbackDelegatorSetRenameCompletionCallback",
                            CF_CALLBACK_TYPE_NOTIFY_RENAME_COMPLETION, item + program));
  // No connection of this Windows asks for these two events.
  for (const char* name : {"CORVWinCFCallbackDelegatorSetDeleteCallback",
                           "CORVWinCFCallbackDelegatorSetOpenCompletionCallback"}) {
    Scenario scenario = Event(name, CF_CALLBACK_TYPE_NOTIFY_FILE_OPEN_COMPLETION, "nothing");
    scenario.success.result = 0;
    scenarios.push_back(scenario);
  }
  return scenarios;
}

}  // namespace nimbra_test
