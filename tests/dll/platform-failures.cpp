#include "tests/dll/platform-failures.h"

#include <gmock/gmock.h>

#include <stdexcept>

namespace nimbra_test {
namespace {

#define CALL(name, ...) NIMBRA_FUNCTION(objects.library, name)(__VA_ARGS__)

using Objects = const ClientObjects&;

std::vector<PlatformCall> RootCalls(const std::string& code, int failure) {
  return {
      {"identity by path",
       [](Objects objects) {
         char identity[64] = "untouched";
         const int result = CALL(CORVWinCFGetSyncRootIdentityByPath, "C:\\x", identity);
         return std::string(identity) == "untouched" ? result : 99;
       },
       -1,
       {"Failed to get syncroot info on path C:\\x, ec: " + code}},
      {"provider of a path",
       [](Objects objects) { return CALL(CORVWinCFIsPathUnderCorvDriveSyncRoot, "C:\\x"); },
       0,
       {"Failed to get syncroot info, path is: C:\\x"}},
      {"unregister",
       [](Objects objects) { return CALL(CORVWinCFSyncRootUnregister, objects.root); },
       failure,
       {"Failed to unregister sync root " + code}},
      {"transfer",
       [](Objects objects) {
         return CALL(CORVWinCFSyncRootTransferData, objects.root, 1, 0, "x", 0, 1, 0);
       },
       failure,
       {"Failed: " + code}},
      {"progress",
       [](Objects objects) {
         return CALL(CORVWinCFSyncRootReportTransferProgress, objects.root, 1, 2, 1);
       },
       failure,
       {"Failed to report transfer progress data" + code}},
      {"rename",
       [](Objects objects) { return CALL(CORVWinCFSyncRootAckRename, objects.root, 1); },
       -1,
       {"Failed to ack rename" + code}},
      {"delete",
       [](Objects objects) { return CALL(CORVWinCFSyncRootAckDelete, objects.root, 1, 0, 0); },
       -1,
       {"Failed to ack rename" + code}},
      {"proactive transfer",
       [](Objects objects) {
         return CALL(CORVWinCFSyncRootProactiveTransferToPlaceholder, objects.root,
                     objects.placeholder, objects.file.c_str());
       },
       -1,
       {"Failed to obtain trans key" + code}},
  };
}

std::vector<PlatformCall> QueryCalls(const std::string& file, const std::string& code) {
  const std::string noInfo = "Failed to get placholder info. " + file + " " + code;
  const std::string hydrated = file + " is not a placeholder, so it is fully hydrated";
  return {
      {"is placeholder",
       [](Objects objects) { return CALL(CORVWinCFIsPlaceholder, objects.file.c_str()); },
       -1,
       {noInfo}},
      {"is placeholder by find data",
       [](Objects objects) {
         const WIN32_FIND_DATAW data{};
         return CALL(CORVWinCFIsPlaceholderByFindData, &data);
       },
       -1,
       {}},
      {"is hydrated",
       [](Objects objects) { return CALL(CORVWinCFIsFullyHydrated, objects.file.c_str()); },
       0,
       {noInfo, hydrated}},
      {"is hydrated, wide",
       [](Objects objects) { return CALL(CORVWinCFIsFullyHydratedW, Wide(objects.file).c_str()); },
       0,
       {noInfo, hydrated}},
      {"handle is placeholder",
       [](Objects objects) { return CALL(CORVWinCFPlaceholderIsPlaceholder, objects.placeholder); },
       -1,
       {noInfo}},
      {"handle is hydrated",
       [](Objects objects) {
         return CALL(CORVWinCFPlaceholderIsFullyHydrated, objects.placeholder);
       },
       0,
       {noInfo, hydrated}},
      {"is pinned",
       [](Objects objects) { return CALL(CORVWinCFPlaceholderIsPinned, objects.placeholder); },
       -1,
       {noInfo}},
      {"is excluded",
       [](Objects objects) { return CALL(CORVWinCFPlaceholderIsExcluded, objects.placeholder); },
       -1,
       {noInfo}},
      {"is in sync",
       [](Objects objects) { return CALL(CORVWinCFPlaceholderIsInSync, objects.placeholder); },
       -1,
       {noInfo}},
      {"file identity",
       [](Objects objects) {
         std::string identity(4096, '?');
         CALL(CORVWinCFPlaceholderGetFileIdentity, objects.placeholder, identity.data());
         return identity == std::string(4096, '?') ? 0 : 99;
       },
       0,
       {noInfo}},
  };
}

std::vector<PlatformCall> ChangeCalls(const std::string& file, const std::string& code) {
  const std::string noInfo = "Failed to get placholder info. " + file + " " + code;
  return {
      {"update",
       [](Objects objects) {
         return CALL(CORVWinCFPlaceholderUpdate, objects.placeholder, "identity", objects.meta);
       },
       -1,
       {noInfo, "Failed to update placeholder, path: " + file + " " + code}},
      {"convert",
       [](Objects objects) {
         return CALL(CORVWinCFPlaceholderConvertToPlaceholder, objects.placeholder, "identity");
       },
       -1,
       {"Failed to convert to placeholder. " + code}},
      {"revert",
       [](Objects objects) {
         return CALL(CORVWinCFPlaceholderRevertToNormal, objects.placeholder);
       },
       -1,
       {"Failed to revert placeholder to normal file, hr=" + code}},
      {"dehydrate",
       [](Objects objects) {
         return CALL(CORVWinCFPlaceholderDehydrate, objects.placeholder, 0, 4096);
       },
       -1,
       {}},
      {"dehydrate all",
       [](Objects objects) { return CALL(CORVWinCFPlaceholderDehydrateAll, objects.placeholder); },
       -1,
       {"Failed to dehydrate all, reason: " + code}},
      {"pin",
       [](Objects objects) { return CALL(CORVWinCFPlaceholderPinToLocal, objects.placeholder); },
       -1,
       {"Failed to pin to local: " + file}},
      {"unpin",
       [](Objects objects) { return CALL(CORVWinCFPlaceholderUnpin, objects.placeholder); },
       -1,
       {"Failed to pin to local: " + file}},
      {"force unpin",
       [](Objects objects) { return CALL(CORVWinCFPlaceholderForceUnpin, objects.placeholder); },
       -1,
       {"Failed to pin to local: " + file}},
      {"exclude",
       [](Objects objects) { return CALL(CORVWinCFPlaceholderSetExcluded, objects.placeholder); },
       -1,
       {"Failed to set excluded." + code}},
      {"in sync",
       [](Objects objects) { return CALL(CORVWinCFPlaceholderSetInSync, objects.placeholder); },
       -1,
       {}},
      {"not in sync",
       [](Objects objects) { return CALL(CORVWinCFPlaceholderSetNotInSync, objects.placeholder); },
       -1,
       {}},
      // Closes the handle or leaves it: comes last.
      {"create",
       [](Objects objects) {
         return CALL(CORVWinCFPlaceholderCreate, objects.placeholder, "identity", objects.meta);
       },
       -1,
       {"Create placeholder failed " + file + " " + code + " 0"}},
  };
}

}  // namespace

ClientObjects::ClientObjects(const LoadedLibrary& loaded)
    : library(loaded), file(folder.WriteFile("file", "content")) {
  const ClientObjects& objects = *this;
  meta = CALL(CORVWinCFPlaceholderMetaNew, 1, 2, 3, 4, 5, 0);
  if (meta == nullptr || CALL(CORVWinCFSyncRootNew, &root, "C:\\Sync", 1) != 0 ||
      CALL(CORVWinCFCallbackDelegatorNew, &delegator, nullptr) != 0 ||
      CALL(CORVWinCFPlaceholderNew, &placeholder, file.c_str()) != 0 ||
      CALL(CORVWinCFPlaceholderOpen, placeholder) != 0) {
    throw std::runtime_error("cannot make the client's objects");
  }
}

ClientObjects::~ClientObjects() {
  const ClientObjects& objects = *this;
  CALL(CORVWinCFPlaceholderRelease, placeholder);
  CALL(CORVWinCFPlaceholderMetaRelease, meta);
  CALL(CORVWinCFCallbackDelegatorRelease, delegator);
  CALL(CORVWinCFSyncRootRelease, &root);
}

std::vector<PlatformCall> PlatformCalls(const ClientObjects& objects, HRESULT failure) {
  const std::string code = std::to_string(failure);
  std::vector<PlatformCall> calls = RootCalls(code, static_cast<int>(failure));
  for (auto& more : {QueryCalls(objects.file, code), ChangeCalls(objects.file, code)}) {
    calls.insert(calls.end(), more.begin(), more.end());
  }
  return calls;
}

std::vector<PlatformCall> ConnectionCalls(HRESULT failure) {
  const std::string code = std::to_string(failure);
  return {
      {"connect",
       [](Objects objects) {
         return CALL(CORVWinCFSyncRootConnect, objects.root, objects.delegator);
       },
       static_cast<int>(failure),
       {"Failed to connect to syncroot C:\\Sync, err: " + code}},
      {"disconnect",
       [](Objects objects) { return CALL(CORVWinCFSyncRootDisconnect, objects.root); },
       static_cast<int>(failure),
       {"Failed to disconnected from syncroot, err: " + code}},
  };
}

void ExpectPlatformFailures(const ClientObjects& objects, const std::vector<PlatformCall>& calls,
                            ImageLog& log) {
  for (const PlatformCall& call : calls) {
    SCOPED_TRACE(call.name);
    log.Clear();
    EXPECT_EQ(call.call(objects), call.result);
    EXPECT_THAT(log.Messages(), testing::ElementsAreArray(call.messages));
  }
}

}  // namespace nimbra_test
