// Placeholders and their metadata.

#include <cstring>

#include "tests/faults/scenario.h"

namespace nimbra_test {
namespace {

const std::string kNoInfo = "placeholder-info|54|Failed to get placholder info. {file} {code}";

using OnHandle = CORVWinCFStatus (*)(CORVWinCFPlaceholderHandle);

void Pinned(Stage& stage) {
  PlaceholderFacts facts;
  facts.onDiskDataSize = 7;
  facts.pinState = CF_PIN_STATE_PINNED;
  facts.inSyncState = CF_IN_SYNC_STATE_IN_SYNC;
  facts.identity = "file-identity";
  stage.cloud.SetPlaceholder(facts);
}

// A call on an open placeholder that is pinned and in sync.
Scenario OnOpen(std::string name, std::function<std::int64_t(Stage&)> call, Outcome success,
                std::vector<Row> rows) {
  return {std::move(name),
          [](Stage& stage) {
            Pinned(stage);
            OpenPlaceholder(stage);
          },
          std::move(call),
          ReleaseAll,
          std::move(success),
          std::move(rows)};
}
Scenario OnOpen(const std::string& name, std::vector<Row> rows, std::int64_t result = 0) {
  return OnOpen(
      name,
      [name](Stage& stage) -> std::int64_t {
        return stage.library.Get<OnHandle>(name.c_str())(stage.placeholder);
      },
      {result}, std::move(rows));
}

std::int64_t NewCall(Stage& stage) {
  auto* const nothing = reinterpret_cast<CORVWinCFPlaceholderHandle>(&stage);
  stage.placeholder = nothing;
  const auto result = CALL(CORVWinCFPlaceholderNew, &stage.placeholder, stage.file.c_str());
  stage.state = stage.placeholder == nothing   ? "untouched"
                : stage.placeholder == nullptr ? "null"
                                               : "placeholder";
  if (stage.placeholder == nothing) {
    stage.placeholder = nullptr;
  }
  return result;
}

// A placeholder that inherits a pin, which adds the hydration to the creation.
std::int64_t CreateCall(Stage& stage) {
  return CALL(CORVWinCFPlaceholderCreate, stage.placeholder, "identity", stage.meta);
}

std::vector<Row> CreateRows() {
  const std::string unopened = "placeholder|366|Failed to open placeholder\n";
  return {
      {"CfCreatePlaceholders", {-1, {"placeholder|357|Create placeholder failed {file} {code} 0"}}},
      {"CreateFileW", {-1, {unopened}}, kAnyCall, ERROR_FILE_NOT_FOUND},
      {"CreateFileW",
       {-1, {"placeholder|464|Failed call on CreateFile on path {file}, ec: {code}", unopened}}},
      {"CfGetPlaceholderInfo", {0, {kNoInfo}}},
      {"CfHydratePlaceholder", {0}, kAnyCall, kIoPending},
      {"CfHydratePlaceholder",
       {0,
        {"placeholder|135|hydration failed {code} {handle}",
         "placeholder|374|Failed to hydrate placeholder after creation"}}},
  };
}

std::vector<Row> HydrateRows(const std::string& line) {
  return {{"GetFileSizeEx", {-1, {"placeholder|" + line + "|Failed to get filesize\n"}}},
          {"CfHydratePlaceholder", {0}, kAnyCall, kIoPending},
          {"CfHydratePlaceholder", {-1, {"placeholder|135|hydration failed {code} {handle}"}}}};
}

Scenario IdentityScenario() {
  return OnOpen("CORVWinCFPlaceholderGetFileIdentity",
                [](Stage& stage) -> std::int64_t {
                  std::string identity(4096, '\0');
                  std::memcpy(identity.data(), "untouched", 9);
                  CALL(CORVWinCFPlaceholderGetFileIdentity, stage.placeholder, identity.data());
                  stage.state = identity.substr(0, identity.find('\0'));
                  return 0;
                },
                {0, {}, "file-identity"}, {{"CfGetPlaceholderInfo", {0, {kNoInfo}, "untouched"}}});
}

std::vector<Scenario> ObjectScenarios() {
  std::vector<Scenario> scenarios;
  scenarios.push_back(
      {"CORVWinCFPlaceholderNew", {}, NewCall, ReleaseAll, {0, {}, "placeholder"}, {}});
  scenarios.push_back({"CORVWinCFPlaceholderRelease",
                       OpenPlaceholder,
                       [](Stage& stage) -> std::int64_t {
                         CALL(CORVWinCFPlaceholderRelease, stage.placeholder);
                         stage.placeholder = nullptr;
                         return 0;
                       },
                       ReleaseAll,
                       {0},
                       {},
                       0});
  scenarios.push_back({"CORVWinCFPlaceholderMetaNew",
                       {},
                       [](Stage& stage) -> std::int64_t {
                         stage.meta = CALL(CORVWinCFPlaceholderMetaNew, 1, 2, 3, 4, 5, 0);
                         return stage.meta == nullptr ? -1 : 0;
                       },
                       ReleaseAll,
                       {0},
                       {},
                       -1,
                       {},
                       true});
  scenarios.push_back({"CORVWinCFPlaceholderMetaRelease",
                       NewPlaceholder,
                       [](Stage& stage) -> std::int64_t {
                         CALL(CORVWinCFPlaceholderMetaRelease, stage.meta);
                         stage.meta = nullptr;
                         return 0;
                       },
                       ReleaseAll,
                       {0},
                       {},
                       0});
  scenarios.push_back(
      {"CORVWinCFPlaceholderOpen",
       NewPlaceholder,
       [](Stage& stage) { return CALL(CORVWinCFPlaceholderOpen, stage.placeholder); },
       ReleaseAll,
       {0},
       {{"CreateFileW", {-1}, kAnyCall, ERROR_FILE_NOT_FOUND},
        {"CreateFileW",
         {-1,
          {"placeholder|464|Failed call on CreateFile on path {file}, ec: "
           "{code}"}}}}});
  scenarios.push_back({"CORVWinCFPlaceholderCreate",
                       [](Stage& stage) {
                         Pinned(stage);
                         NewPlaceholder(stage);
                       },
                       CreateCall,
                       ReleaseAll,
                       {0},
                       CreateRows(),
                       -1,
                       // A creation stays done when only its hydration has no memory.
                       {0}});
  return scenarios;
}

std::vector<Scenario> ChangeScenarios() {
  const std::string unpinned = "placeholder|273|Failed to pin to local: {file}";
  std::vector<Scenario> scenarios;
  scenarios.push_back(
      OnOpen("CORVWinCFPlaceholderUpdate",
             [](Stage& stage) {
               return CALL(CORVWinCFPlaceholderUpdate, stage.placeholder, "identity", stage.meta);
             },
             {0},
             {{"CfGetPlaceholderInfo", {0, {kNoInfo}}},
              {"CfUpdatePlaceholder",
               {-1, {"placeholder|409|Failed to update placeholder, path: {file} {code}"}}},
              {"LoadLibraryExW:cldapi.dll",
               {-1, {kNoInfo, "placeholder|409|Failed to update placeholder, path: {file} {code}"}},
               kAnyCall,
               std::nullopt,
               true},
              {"CfSetPinState", {0, {unpinned}}}}));
  scenarios.push_back(OnOpen("CORVWinCFPlaceholderConvertToPlaceholder",
                             [](Stage& stage) {
                               return CALL(CORVWinCFPlaceholderConvertToPlaceholder,
                                           stage.placeholder, "identity");
                             },
                             {0},
                             {{"CfConvertToPlaceholder",
                               {-1, {"placeholder|332|Failed to convert to placeholder. {code}"}}},
                              {"CfSetPinState", {0, {unpinned}}}}));
  scenarios.push_back(
      OnOpen("CORVWinCFPlaceholderRevertToNormal",
             {{"CfRevertPlaceholder",
               {-1, {"placeholder|313|Failed to revert placeholder to normal file, hr={code}"}}}}));
  for (const char* name : {"CORVWinCFPlaceholderPinToLocal", "CORVWinCFPlaceholderUnpin",
                           "CORVWinCFPlaceholderForceUnpin"}) {
    scenarios.push_back(OnOpen(name, {{"CfSetPinState", {-1, {unpinned}}}}));
  }
  scenarios.push_back(
      OnOpen("CORVWinCFPlaceholderSetExcluded",
             {{"CfSetPinState", {-1, {"placeholder|256|Failed to set excluded.{code}"}}}}));
  for (const char* name : {"CORVWinCFPlaceholderSetInSync", "CORVWinCFPlaceholderSetNotInSync"}) {
    scenarios.push_back(OnOpen(name, {{"CfSetInSyncState", {-1}}}));
  }
  return scenarios;
}

std::vector<Scenario> DataScenarios() {
  std::vector<Scenario> scenarios;
  scenarios.push_back(OnOpen("CORVWinCFPlaceholderHydrateAll", HydrateRows("95")));
  scenarios.push_back(OnOpen("CORVWinCFPlaceholderHydrateAllAsync", HydrateRows("107")));
  // -1 in every case and never a line.
  scenarios.push_back(OnOpen(
      "CORVWinCFPlaceholderDehydrate",
      [](Stage& stage) { return CALL(CORVWinCFPlaceholderDehydrate, stage.placeholder, 0, 4096); },
      {-1},
      {{"CfReferenceProtectedHandle", {-1}},
       {"CfGetWin32HandleFromProtectedHandle", {-1}},
       {"CfDehydratePlaceholder", {-1}},
       {"GetOverlappedResult", {-1}}}));
  scenarios.push_back(
      OnOpen("CORVWinCFPlaceholderDehydrateAll",
             {{"CfUpdatePlaceholder",
               {-1, {"placeholder|183|Failed to dehydrate all, reason: {code}"}}}}));
  return scenarios;
}

std::vector<Scenario> StateScenarios() {
  std::vector<Scenario> scenarios;
  const std::vector<Row> noInfo = {{"CfGetPlaceholderInfo", {-1, {kNoInfo}}}};
  scenarios.push_back(OnOpen("CORVWinCFPlaceholderIsPlaceholder", noInfo));
  scenarios.push_back(OnOpen("CORVWinCFPlaceholderIsPinned", noInfo));
  scenarios.push_back(OnOpen("CORVWinCFPlaceholderIsExcluded", noInfo, -1));
  scenarios.push_back(OnOpen("CORVWinCFPlaceholderIsInSync", noInfo));
  scenarios.push_back(IdentityScenario());
  const std::string hydrated =
      "placeholder|202|{file} is not a placeholder, so it is fully hydrated";
  scenarios.push_back(OnOpen(
      "CORVWinCFPlaceholderIsFullyHydrated",
      {{"GetFileSizeEx", {-1, {"placeholder|195|Failed to get filesize [{file}] error: {code}"}}},
       {"CfGetPlaceholderInfo", {0, {kNoInfo, hydrated}}}}));
  // An empty file's attributes decide.
  Scenario empty = scenarios.back();
  empty.variant = "empty";
  empty.setUp = [](Stage& stage) {
    Pinned(stage);
    const std::string file = std::exchange(stage.file, stage.names.at("empty"));
    OpenPlaceholder(stage);
    stage.file = file;
  };
  empty.rows = {
      {"GetFileSizeEx", {-1, {"placeholder|195|Failed to get filesize [{empty}] error: {code}"}}},
      {"CfGetPlaceholderInfo",
       {0,
        {"placeholder-info|54|Failed to get placholder info. {empty} {code}",
         "placeholder|202|{empty} is not a placeholder, so it is fully hydrated"}}},
      {"GetFileAttributesW", {0, {"placeholder|213|Failed to get file attr {empty}, ec: {code}"}}}};
  empty.otherResults = {0};
  scenarios.push_back(empty);
  return scenarios;
}

}  // namespace

std::vector<Scenario> PlaceholderScenarios() {
  std::vector<Scenario> scenarios = ObjectScenarios();
  for (auto& part : {ChangeScenarios(), DataScenarios(), StateScenarios()}) {
    scenarios.insert(scenarios.end(), part.begin(), part.end());
  }
  return scenarios;
}

}  // namespace nimbra_test
