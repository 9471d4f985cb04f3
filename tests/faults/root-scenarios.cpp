// Sync roots: the object, its registration and its connection.

#include <windows.h>

#include "tests/faults/scenario.h"

namespace nimbra_test {
namespace {

constexpr std::int64_t kNotWritten = static_cast<HRESULT>(0x80040151);
constexpr wchar_t kManager[] =
    LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\Explorer\SyncRootManager)";

std::int64_t NewRootCall(Stage& stage) {
  auto* const nothing = reinterpret_cast<CORVWinCFSyncRootHandle>(&stage);
  stage.root = nothing;
  const auto result = CALL(CORVWinCFSyncRootNew, &stage.root, "C:\\Sync", 12);
  stage.state = stage.root == nothing ? "untouched" : stage.root == nullptr ? "null" : "root";
  if (stage.root == nothing) {
    stage.root = nullptr;
  }
  return result;
}

// The number of values that the root's description has, in all its keys.
std::string Values() {
  return std::to_string(CountValues(HKEY_LOCAL_MACHINE, kManager)) + " values";
}

void EmptyManager(Stage&) {
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, kManager);
  RegDeleteKeyW(HKEY_LOCAL_MACHINE, kManager);
}

// The key that a root's description has, with the user's SID found by the registry itself.
std::string Describe(Stage& stage, std::int64_t result) {
  stage.state = Values();
  if (!stage.cloud.CallsOf<RegisterSyncRootCall>().empty()) {
    stage.state += ", told the platform";
  }
  return std::to_string(result);
}

std::int64_t RegisterCall(Stage& stage) {
  const auto result = CALL(CORVWinCFSyncRootRegister, stage.root, "home");
  Describe(stage, result);
  return result;
}
std::int64_t ReregisterCall(Stage& stage) {
  const auto result = CALL(CORVWinCFSyncRootReregister, stage.root, "home");
  Describe(stage, result);
  return result;
}
std::int64_t UnregisterCall(Stage& stage) {
  const auto result = CALL(CORVWinCFSyncRootUnregister, stage.root);
  stage.state = Values();
  return result;
}

// Takes the identifier of the user from the description, to name it in expected messages.
void FindSid(Stage& stage) {
  HKEY key = nullptr;
  wchar_t name[256] = {};
  DWORD size = 256;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kManager, 0, KEY_READ | KEY_WOW64_64KEY, &key) ==
      ERROR_SUCCESS) {
    RegEnumKeyExW(key, 0, name, &size, nullptr, nullptr, nullptr, nullptr);
    RegCloseKey(key);
  }
  stage.names["entry"] = Narrow(name);
}

std::vector<Row> RegisterRows() {
  const std::string set = "registry-key|#|Failed to set value";
  const std::string closed = "registry-key|#|registry not good";
  const std::string thumbnail = "sync-root|#|register thumbnail provider failed";
  const auto failed = [](const std::string& why) { return "sync-root|#|registry failed " + why; };
  const Outcome noSid{kNotWritten, {"sync-root|#|user_sid failed"}, "0 values"};
  return {
      // The first call asks for sizes and is to fail, but with another error.
      {"LookupAccountNameW", noSid},
      {"ConvertSidToStringSidW", noSid},
      {"RegCreateKeyExW", {kNotWritten, {closed, failed("DisplayNameResource")}, "0 values"}, 1},
      {"RegCreateKeyExW", {kNotWritten, {thumbnail, closed, failed("user_sid")}, "4 values"}, 2},
      {"RegSetValueExW", {kNotWritten, {set, failed("DisplayNameResource")}, "0 values"}, 1},
      {"RegSetValueExW", {kNotWritten, {set, failed("IconResource")}, "1 values"}, 2},
      {"RegSetValueExW", {kNotWritten, {set, failed("Flags")}, "2 values"}, 3},
      // The thumbnail provider's value is the one that may be missing; then the message is, too.
      {"RegSetValueExW",
       {0,
        {set,
         "sync-root|#|Succeed to register sync root: C:\\Sync identity: "
         "Corvane.Drive.FileStreaming.session.12"},
        "4 values, told the platform"},
       4,
       std::nullopt,
       false},
      {"RegSetValueExW",
       {kNotWritten, {set, set, failed("user_sid")}, "3 values"},
       4,
       std::nullopt,
       true},
      {"RegSetValueExW", {kNotWritten, {thumbnail, set, failed("user_sid")}, "4 values"}, 5},
      {"SHGetFolderPathW",
       {kNotWritten, {"sync-root|#|registry failed Launcher bin path failed"}, "1 values"}},
      {"CfRegisterSyncRoot",
       {kItsCode, {thumbnail, "sync-root|#|Failed to register sync root {code}"}, "5 values"}},
  };
}

Scenario Registration(const char* name, std::int64_t (*call)(Stage&)) {
  return {name,
          [](Stage& stage) {
            NewRoot(stage);
            EmptyManager(stage);
          },
          call,
          [](Stage& stage) {
            EmptyManager(stage);
            ReleaseAll(stage);
          },
          {0,
           {"sync-root|#|register thumbnail provider failed",
            "sync-root|#|Succeed to register sync root: C:\\Sync identity: "
            "Corvane.Drive.FileStreaming.session.12"},
           "5 values, told the platform"},
          RegisterRows(),
          E_OUTOFMEMORY,
          {kNotWritten},
          false,
          {},
          kKeptRoot,
          "the root lives until the process ends",
          100,
          "the registry and the account are the system's own"};
}

}  // namespace

// NOLINTNEXTLINE(readability-function-size): a table.
std::vector<Scenario> RootScenarios() {
  std::vector<Scenario> scenarios;
  scenarios.push_back({"CORVWinCFSyncRootNew",
                       {},
                       NewRootCall,
                       ReleaseAll,
                       {0, {}, "root"},
                       // Without a name the root has none; registering it then fails.
                       {{"GetUserNameW", {0, {}, "root"}}},
                       -1,
                       {},
                       false,
                       {},
                       kKeptRoot,
                       "the root lives until the process ends"});
  scenarios.back().keptOnFailure = Holdings();
  scenarios.push_back({"CORVWinCFSyncRootRelease",
                       NewRoot,
                       [](Stage& stage) -> std::int64_t {
                         CALL(CORVWinCFSyncRootRelease, &stage.root);
                         stage.root = nullptr;
                         return 0;
                       },
                       {},
                       {0},
                       {},
                       0,
                       {},
                       false,
                       {},
                       kKeptRoot,
                       "the root lives until the process ends"});
  scenarios.push_back(Registration("CORVWinCFSyncRootRegister", RegisterCall));
  scenarios.push_back(Registration("CORVWinCFSyncRootReregister", ReregisterCall));
  scenarios.push_back(
      {"CORVWinCFSyncRootUnregister",
       [](Stage& stage) {
         NewRoot(stage);
         EmptyManager(stage);
         CALL(CORVWinCFSyncRootRegister, stage.root, "home");
         FindSid(stage);
       },
       UnregisterCall,
       [](Stage& stage) {
         EmptyManager(stage);
         ReleaseAll(stage);
       },
       {0, {}, "0 values"},
       {{"CfUnregisterSyncRoot",
         {kItsCode, {"sync-root|#|Failed to unregister sync root {code}"}, "5 values"}},
        {"LookupAccountNameW", {kNotWritten, {"sync-root|#|user_sid is empty"}, "5 values"}},
        {"ConvertSidToStringSidW", {kNotWritten, {"sync-root|#|user_sid is empty"}, "5 values"}},
        {"RegCreateKeyExW",
         {kNotWritten,
          {"registry-key|#|reg is not good ",
           "sync-root|#|Failed to delete reg_sync_root_entry {entry}"},
          "5 values"}},
        {"RegDeleteTreeW",
         {kNotWritten,
          {"registry-key|#|Failed to RegDeleteTree, "
           "key=SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Explorer\\SyncRootManager\\ hr={hr}",
           "sync-root|#|Failed to delete reg_sync_root_entry {entry}"},
          "5 values"}}},
       E_OUTOFMEMORY,
       {kNotWritten},
       false,
       {},
       kKeptRoot,
       "the root lives until the process ends",
       100,
       "the registry and the account are the system's own"});
  Holdings keptConnection = kKeptRoot;
  for (const auto& [name, count] : kKeptDelegator) {
    keptConnection[name] += count;
  }
  scenarios.push_back(
      {"CORVWinCFSyncRootConnect",
       [](Stage& stage) {
         NewRoot(stage);
         NewDelegator(stage);
       },
       [](Stage& stage) { return CALL(CORVWinCFSyncRootConnect, stage.root, stage.delegator); },
       ReleaseAll,
       {0},
       {{"CfConnectSyncRoot",
         {kItsCode, {"sync-root|#|Failed to connect to syncroot C:\\Sync, err: {code}"}}},
        // The module then is not kept by itself.
        {"GetModuleHandleExW", {0}}},
       E_OUTOFMEMORY,
       {},
       false,
       {},
       keptConnection,
       "the root and the delegator live until the process ends"});
  scenarios.push_back(
      {"CORVWinCFSyncRootDisconnect",
       NewRoot,
       [](Stage& stage) { return CALL(CORVWinCFSyncRootDisconnect, stage.root); },
       ReleaseAll,
       {0},
       {{"CfDisconnectSyncRoot",
         {kItsCode, {"sync-root|#|Failed to disconnected from syncroot, err: {code}"}}}},
       E_OUTOFMEMORY,
       {},
       false,
       {},
       kKeptRoot,
       "the root lives until the process ends"});
  return scenarios;
}

}  // namespace nimbra_test
