// A sync client at a test's word: does through the library's public interface what the test asks
// for, and answers the callbacks by rules that the test sets.

#include <nimbra/nimbra.h>
#include <windows.h>

#include <array>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "command-loop.h"
#include "file-access.h"
#include "log-capture.h"
#include "provider-placeholders.h"
#include "provider-root.h"

namespace e2e {
namespace {

std::mutex rootsMutex;
std::map<std::string, std::unique_ptr<ProviderRoot>> roots;

ProviderRoot& RootNamed(const Fields& command) {
  const std::lock_guard lock(rootsMutex);
  return *roots.at(command.Text("root"));
}

Fields Outcome(std::int64_t status) { return Fields().Set("status", status); }

Fields NewRoot(const Fields& command) {
  const auto& name = command.Text("root");
  auto root = std::make_unique<ProviderRoot>(name, command.Text("path"),
                                             static_cast<std::uint64_t>(command.Number("session")));
  const auto status = root->Status();
  const std::lock_guard lock(rootsMutex);
  roots[name] = std::move(root);
  return Outcome(status);
}

Fields Serve(const Fields& command) {
  RootNamed(command).ChangeRules(command);
  return Outcome(0);
}

Fields Content(const Fields& command) {
  RootNamed(command).SetContent(command);
  return Outcome(0);
}

Fields Register(const Fields& command) {
  return Outcome(
      CORVWinCFSyncRootRegister(RootNamed(command).Handle(), command.Text("text", "e2e").c_str()));
}

Fields Reregister(const Fields& command) {
  return Outcome(CORVWinCFSyncRootReregister(RootNamed(command).Handle(),
                                             command.Text("text", "e2e").c_str()));
}

Fields Unregister(const Fields& command) {
  return Outcome(CORVWinCFSyncRootUnregister(RootNamed(command).Handle()));
}

Fields Connect(const Fields& command) {
  auto& root = RootNamed(command);
  return Outcome(CORVWinCFSyncRootConnect(root.Handle(), root.Delegator()));
}

Fields Disconnect(const Fields& command) {
  return Outcome(CORVWinCFSyncRootDisconnect(RootNamed(command).Handle()));
}

Fields Transfer(const Fields& command) {
  const auto length = command.Number("length");
  const std::vector<std::byte> data(static_cast<std::size_t>(length));
  return Outcome(CORVWinCFSyncRootTransferData(
      RootNamed(command).Handle(), command.Number("key"), 0, data.data(), command.Number("offset"),
      length, static_cast<std::uint32_t>(command.Number("transferStatus", 0))));
}

Fields AcknowledgeRename(const Fields& command) {
  return Outcome(CORVWinCFSyncRootAckRename(RootNamed(command).Handle(), command.Number("key")));
}

Fields AcknowledgeDelete(const Fields& command) {
  return Outcome(
      CORVWinCFSyncRootAckDelete(RootNamed(command).Handle(), command.Number("key"), 0,
                                 static_cast<std::uint32_t>(command.Number("deleteStatus", 0))));
}

Fields ProactiveTransfer(const Fields& command) {
  const auto placeholder = MakePlaceholder(command.Text("path"));
  const auto opened = CORVWinCFPlaceholderOpen(placeholder.get());
  return Outcome(CORVWinCFSyncRootProactiveTransferToPlaceholder(
                     RootNamed(command).Handle(), placeholder.get(), command.Text("from").c_str()))
      .Set("opened", opened);
}

Fields RootIdentity(const Fields& command) {
  std::array<char, 65536> identity{};
  const auto status =
      CORVWinCFGetSyncRootIdentityByPath(command.Text("path").c_str(), identity.data());
  return Outcome(status).Set("identity", identity.data());
}

Fields IsUnderRoot(const Fields& command) {
  return Outcome(CORVWinCFIsPathUnderCorvDriveSyncRoot(command.Text("path").c_str()));
}

Fields Platform(const Fields&) {
  CORVWinCFPlatformInfo info{};
  const auto status = CORVWinCFGetPlatformInfo(&info);
  return Outcome(status)
      .Set("build", info.buildNumber)
      .Set("revision", info.revisionNumber)
      .Set("integration", info.integrationNumber)
      .Set("supports", CORVWinCFIsWinVersionSupportFileStreaming())
      .Set("hidesOption", CORVWinCFIsWinVersionDisableUIFileStreamingOption())
      .Set("byDefault", CORVWinCFIsWinVersionDefaultFileStreaming());
}

// The client's own ordinary read of a file.
Fields OwnRead(const Fields& command) {
  File file(command.Text("path"), GENERIC_READ);
  std::vector<std::byte> data(static_cast<std::size_t>(file.Error() == 0 ? file.Size() : 0));
  const bool whole = file.Error() == 0 && file.ReadAt(0, data);
  return Fields().Set("whole", whole).Set("error", file.Error());
}

void AddRootCommands(CommandLoop& loop) {
  loop.Add("newRoot", NewRoot);
  loop.Add("serve", Serve);
  loop.Add("content", Content);
  loop.Add("register", Register);
  loop.Add("reregister", Reregister);
  loop.Add("unregister", Unregister);
  loop.Add("connect", Connect);
  loop.Add("disconnect", Disconnect);
  loop.Add("transfer", Transfer);
  loop.Add("acknowledgeRename", AcknowledgeRename);
  loop.Add("acknowledgeDelete", AcknowledgeDelete);
  loop.Add("proactiveTransfer", ProactiveTransfer);
}

void AddQueryCommands(CommandLoop& loop) {
  loop.Add("rootIdentity", RootIdentity);
  loop.Add("isUnderRoot", IsUnderRoot);
  loop.Add("platform", Platform);
  loop.Add("ownRead", OwnRead);
  loop.Add("crash", [](const Fields&) {
    TerminateProcess(GetCurrentProcess(), 9);
    return Outcome(-1);
  });
}

}  // namespace
}  // namespace e2e

int main() {
  e2e::CaptureDebugOutput();
  e2e::CommandLoop loop;
  e2e::AddRootCommands(loop);
  e2e::AddPlaceholderCommands(loop);
  e2e::AddQueryCommands(loop);
  loop.Run();
}
