// What a client answers, and the transfer that nobody asked for.

#include "tests/faults/scenario.h"

namespace nimbra_test {
namespace {

// The number of answers that reached the platform.
void CountAnswers(Stage& stage) {
  stage.state = std::to_string(stage.cloud.CallsOf<ExecuteCall>().size()) + " answers";
}

template <typename Answer>
std::function<std::int64_t(Stage&)> Answering(Answer answer) {
  return [answer](Stage& stage) -> std::int64_t {
    const auto result = answer(stage);
    CountAnswers(stage);
    return result;
  };
}

Scenario OfRoot(const char* name, std::function<std::int64_t(Stage&)> call, Outcome success,
                std::vector<Row> rows, std::int64_t withoutMemory) {
  return {name,
          NewRoot,
          std::move(call),
          ReleaseAll,
          std::move(success),
          std::move(rows),
          withoutMemory,
          {},
          false,
          {},
          kKeptRoot,
          "the root lives until the process ends"};
}

// A file of two pieces, so that what happens between them happens too.
constexpr std::int64_t kTwoPieces = (std::int64_t{4} << 20) + 1;

// `hasKept`: a transfer before has left its buffer, so that no memory is taken.
std::vector<Row> ProactiveRows(bool hasKept) {
  const auto line = [](const std::string& message) { return "sync-root|#|" + message; };
  std::vector<Row> rows = {
      {"CfGetTransferKey", {-1, {line("Failed to obtain trans key{code}")}, "0 answers"}},
      // The file is not tested; asking for its size fails then.
      {"CreateFileW", {-1, {line("Get file size failed: {source}: ec = 6")}, "0 answers"}},
      {"GetFileSizeEx", {-1, {line("Get file size failed: {source}: ec = {code}")}, "0 answers"}},
      {"SetFilePointerEx",
       {-1, {line("Failed to set file pointer to 0 ec = {code}")}, "0 answers"},
       1},
      {"SetFilePointerEx",
       {-1, {line("Failed to set file pointer to 4194304 ec = {code}")}, "1 answers"},
       2},
      {"ReadFile", {-1, {line("Read file failed: {source}: ec = {code}")}, "0 answers"}, 1},
      {"ReadFile", {-1, {line("Read file failed: {source}: ec = {code}")}, "1 answers"}, 2},
      {"CfExecute",
       {-1, {line("Failed: {code}"), line("Failed to transfer [0, 4194304]")}, "0 answers"},
       1},
      {"CfExecute",
       {-1, {line("Failed: {code}"), line("Failed to transfer [4194304, 4194305]")}, "1 answers"},
       2},
  };
  if (!hasKept) {
    rows.push_back(
        {"VirtualAlloc",
         {-1, {line("Failed to allocate the transfer buffer, ec = {code}")}, "0 answers"}});
  }
  return rows;
}

std::int64_t TransferFile(Stage& stage, const std::string& path) {
  return CALL(CORVWinCFSyncRootProactiveTransferToPlaceholder, stage.root, stage.placeholder,
              path.c_str());
}

// Each round begins and ends without a kept buffer: disconnecting frees it. With `hasKept` the
// setting up makes one.
Scenario ProactiveTransfer(bool hasKept) {
  Scenario transfer =
      OfRoot("CORVWinCFSyncRootProactiveTransferToPlaceholder",
             Answering([](Stage& stage) { return TransferFile(stage, stage.names.at("source")); }),
             {0, {}, "2 answers"}, ProactiveRows(hasKept), -1);
  transfer.setUp = [hasKept](Stage& stage) {
    if (!stage.names.contains("source")) {
      stage.names["source"] = stage.folder.WriteLargeFile("source", kTwoPieces);
    }
    NewRoot(stage);
    OpenPlaceholder(stage);
    if (hasKept) {
      TransferFile(stage, stage.file);
      stage.cloud.Clear();
    }
  };
  transfer.tearDown = [](Stage& stage) {
    CALL(CORVWinCFSyncRootDisconnect, stage.root);
    ReleaseAll(stage);
  };
  transfer.variant = hasKept ? "WithAKeptBuffer" : "";
  transfer.share = 100;
  transfer.whyFewer = "each round moves 4 MiB";
  return transfer;
}

}  // namespace

std::vector<Scenario> TransferScenarios() {
  std::vector<Scenario> scenarios;
  scenarios.push_back(OfRoot(
      "CORVWinCFSyncRootTransferData", Answering([](Stage& stage) {
        return CALL(CORVWinCFSyncRootTransferData, stage.root, 1, 0, "x", 0, 1, 0);
      }),
      {0, {}, "1 answers"},
      {{"CfExecute", {kItsCode, {"sync-root|#|Failed: {code}"}, "0 answers"}}}, E_OUTOFMEMORY));
  scenarios.push_back(OfRoot(
      "CORVWinCFSyncRootReportTransferProgress",
      [](Stage& stage) {
        return CALL(CORVWinCFSyncRootReportTransferProgress, stage.root, 1, 2, 1);
      },
      {0},
      {{"CfReportProviderProgress",
        {kItsCode, {"sync-root|#|Failed to report transfer progress data{code}"}}}},
      E_OUTOFMEMORY));
  scenarios.push_back(OfRoot(
      "CORVWinCFSyncRootAckRename",
      Answering([](Stage& stage) { return CALL(CORVWinCFSyncRootAckRename, stage.root, 1); }),
      {0, {}, "1 answers"},
      {{"CfExecute", {-1, {"sync-root|#|Failed to ack rename{code}"}, "0 answers"}}}, -1));
  // The delete's message is the rename's.
  scenarios.push_back(OfRoot(
      "CORVWinCFSyncRootAckDelete",
      Answering([](Stage& stage) { return CALL(CORVWinCFSyncRootAckDelete, stage.root, 1, 0, 0); }),
      {0, {}, "1 answers"},
      {{"CfExecute", {-1, {"sync-root|#|Failed to ack rename{code}"}, "0 answers"}}}, -1));
  scenarios.push_back(ProactiveTransfer(false));
  scenarios.push_back(ProactiveTransfer(true));
  return scenarios;
}

}  // namespace nimbra_test
