// Version and platform, sync roots by path, and questions about an item by its path.

#include <cstring>

#include "tests/faults/scenario.h"

namespace nimbra_test {
namespace {

Scenario Version(const char* name, bool (*call)(Stage&), int answer) {
  return {name,  {},       [call](Stage& stage) { return static_cast<std::int64_t>(call(stage)); },
          {},    {answer}, {},
          answer};
}

std::int64_t PlatformInfo(Stage& stage) {
  CORVWinCFPlatformInfo info{9, 9, 9};
  const auto result = CALL(CORVWinCFGetPlatformInfo, &info);
  stage.state = std::to_string(info.buildNumber) + " " + std::to_string(info.revisionNumber) + " " +
                std::to_string(info.integrationNumber);
  return result;
}

std::int64_t RootIdentity(Stage& stage) {
  char identity[64] = "untouched";
  const auto result = CALL(CORVWinCFGetSyncRootIdentityByPath, "C:\\x", identity);
  stage.state = identity;
  return result;
}

std::int64_t FindData(Stage& stage) {
  const WIN32_FIND_DATAW data{};
  return CALL(CORVWinCFIsPlaceholderByFindData, &data);
}

// What a failing open gives in every question about a path.
std::vector<Row> OpenRows() {
  return {{"CreateFileW", {-1}, kAnyCall, ERROR_FILE_NOT_FOUND},
          {"CreateFileW",
           {-1, {"placeholder|464|Failed call on CreateFile on path {file}, ec: {code}"}}}};
}

std::vector<Row> HydratedRows() {
  std::vector<Row> rows = OpenRows();
  rows.push_back(
      {"GetFileSizeEx", {-1, {"placeholder|195|Failed to get filesize [{file}] error: {code}"}}});
  rows.push_back({"CfGetPlaceholderInfo",
                  {0,
                   {"placeholder-info|54|Failed to get placholder info. {file} {code}",
                    "placeholder|202|{file} is not a placeholder, so it is fully hydrated"}}});
  return rows;
}

void StandInRoot(Stage& stage) {
  SyncRootFacts facts;
  facts.identity = "root-identity";
  stage.cloud.SetSyncRoot(facts);
  stage.names["provider"] = "CorvaneDrive";
}

void StandInHydrated(Stage& stage) {
  PlaceholderFacts facts;
  facts.onDiskDataSize = 7;
  stage.cloud.SetPlaceholder(facts);
}

}  // namespace

std::vector<Scenario> QueryScenarios() {
  std::vector<Scenario> scenarios = {
      Version(
          "CORVWinCFIsWinVersionSupportFileStreaming",
          [](Stage& stage) { return CALL(CORVWinCFIsWinVersionSupportFileStreaming); }, 1),
      Version(
          "CORVWinCFIsWinVersionDisableUIFileStreamingOption",
          [](Stage& stage) { return CALL(CORVWinCFIsWinVersionDisableUIFileStreamingOption); }, 0),
      Version(
          "CORVWinCFIsWinVersionDefaultFileStreaming",
          [](Stage& stage) { return CALL(CORVWinCFIsWinVersionDefaultFileStreaming); }, 1),
  };
  scenarios.push_back({"CORVWinCFGetPlatformInfo",
                       [](Stage& stage) {
                         stage.cloud.SetPlatform({11, 22, 33});
                       },
                       PlatformInfo,
                       {},
                       {0, {}, "11 22 33"},
                       {{"CfGetPlatformInfo", {0, {}, "0 0 0"}}},
                       0});
  scenarios.push_back(
      {"CORVWinCFGetSyncRootIdentityByPath",
       StandInRoot,
       RootIdentity,
       {},
       {0, {}, "root-identity"},
       {{"CfGetSyncRootInfoByPath",
         {-1, {"nimbra|#|Failed to get syncroot info on path C:\\x, ec: {code}"}, "untouched"}}}});
  scenarios.push_back(
      {"CORVWinCFIsPathUnderCorvDriveSyncRoot",
       StandInRoot,
       [](Stage& stage) { return CALL(CORVWinCFIsPathUnderCorvDriveSyncRoot, "C:\\x"); },
       {},
       {0, {"nimbra|#|ProviderName of C:\\x is: {provider}"}},
       {{"CfGetSyncRootInfoByPath", {0, {"nimbra|#|Failed to get syncroot info, path is: C:\\x"}}}},
       // A name that there was no memory for is not this provider's.
       0,
       {-1}});
  std::vector<Row> rows = OpenRows();
  rows.push_back({"CfGetPlaceholderInfo",
                  {-1, {"placeholder-info|54|Failed to get placholder info. {file} {code}"}}});
  scenarios.push_back(
      {"CORVWinCFIsPlaceholder",
       {},
       [](Stage& stage) { return CALL(CORVWinCFIsPlaceholder, stage.file.c_str()); },
       {},
       {0},
       rows});
  scenarios.push_back(
      {"CORVWinCFIsPlaceholderByFindData",
       [](Stage& stage) { stage.cloud.SetFindDataState(CF_PLACEHOLDER_STATE_PLACEHOLDER); },
       FindData,
       {},
       {0},
       {{"CfGetPlaceholderStateFromFindData", {-1}}}});
  scenarios.push_back(
      {"CORVWinCFIsFullyHydrated",
       StandInHydrated,
       [](Stage& stage) { return CALL(CORVWinCFIsFullyHydrated, stage.file.c_str()); },
       {},
       {0},
       HydratedRows()});
  scenarios.push_back(
      {"CORVWinCFIsFullyHydratedW",
       StandInHydrated,
       [](Stage& stage) { return CALL(CORVWinCFIsFullyHydratedW, Wide(stage.file).c_str()); },
       {},
       {0},
       HydratedRows()});
  return scenarios;
}

}  // namespace nimbra_test
