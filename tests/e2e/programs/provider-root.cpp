#include "provider-root.h"

#include <utility>

namespace e2e {
namespace {

ProviderRoot& RootOf(const CORVWinCFCallbackRecord& record) {
  return *static_cast<ProviderRoot*>(record.context);
}

void SetText(Fields& fields, const std::string& name, const char* text) {
  if (text != nullptr) fields.Set(name, text);
}

}  // namespace

ProviderRoot::ProviderRoot(std::string name, const std::string& path, std::uint64_t session)
    : name_(std::move(name)),
      status_(CORVWinCFSyncRootNew(&handle_, path.c_str(), session)),
      server_(handle_) {
  if (status_ == 0) status_ = CORVWinCFCallbackDelegatorNew(&delegator_, this);
  if (status_ == 0 && !SetCallbacks()) status_ = -1;
}

bool ProviderRoot::SetCallbacks() {
  return CORVWinCFCallbackDelegatorSetFetchCallback(delegator_, OnFetch) == 0 &&
         CORVWinCFCallbackDelegatorSetFetchCancelCallback(delegator_, OnCancel) == 0 &&
         CORVWinCFCallbackDelegatorSetRenameCallback(delegator_, OnRename) == 0 &&
         CORVWinCFCallbackDelegatorSetRenameCompletionCallback(delegator_, OnRenameCompletion) ==
             0 &&
         CORVWinCFCallbackDelegatorSetDeleteCallback(delegator_, OnDelete) == 0 &&
         CORVWinCFCallbackDelegatorSetOpenCompletionCallback(delegator_, OnOpenCompletion) == 0;
}

void ProviderRoot::ChangeRules(const Fields& command) {
  server_.ChangeRules(command);
  acknowledges_ = command.Number("acknowledges", acknowledges_) != 0;
  deleteStatus_ = static_cast<std::uint32_t>(command.Number("deleteStatus", deleteStatus_));
}

void ProviderRoot::SetContent(const Fields& command) {
  server_.SetContent(command.Text("identity"), command.Text("path"));
}

Fields ProviderRoot::Describe(const CORVWinCFCallbackRecord& record) const {
  Fields fields;
  fields.Set("root", name_)
      .Set("session", record.sessionNumber)
      .Set("key", record.transferKey)
      .Set("fileId", record.fileId)
      .Set("reserved", record.reserved);
  SetText(fields, "identity", record.fileIdentity);
  SetText(fields, "path", record.fullPath);
  SetText(fields, "target", record.targetPath);
  SetText(fields, "image", record.imagePath);
  return fields;
}

void ProviderRoot::OnFetch(const CORVWinCFCallbackRecord* record) {
  auto& root = RootOf(*record);
  EmitEvent("fetch", root.Describe(*record)
                         .Set("processId", record->processId)
                         .Set("offset", record->parameters[0])
                         .Set("length", record->parameters[1])
                         .Set("optionalOffset", record->parameters[2])
                         .Set("optionalLength", record->parameters[3]));
  root.server_.Serve({.transferKey = record->transferKey,
                      .offset = record->parameters[0],
                      .length = record->parameters[1],
                      .identity = record->fileIdentity});
}

void ProviderRoot::OnCancel(const CORVWinCFCallbackRecord* record) {
  auto& root = RootOf(*record);
  EmitEvent("cancel", root.Describe(*record)
                          .Set("offset", record->parameters[0])
                          .Set("length", record->parameters[1]));
  root.server_.Cancel(record->transferKey, record->parameters[0], record->parameters[1]);
}

void ProviderRoot::OnRename(const CORVWinCFCallbackRecord* record) {
  auto& root = RootOf(*record);
  EmitEvent("rename", root.Describe(*record).Set("processId", record->processId));
  if (!root.acknowledges_) return;
  const auto status = CORVWinCFSyncRootAckRename(root.handle_, record->transferKey);
  EmitEvent("renameAcknowledged", Fields().Set("status", status));
}

void ProviderRoot::OnRenameCompletion(const CORVWinCFCallbackRecord* record) {
  auto& root = RootOf(*record);
  EmitEvent("renameCompletion", root.Describe(*record).Set("processId", record->processId));
}

void ProviderRoot::OnDelete(const CORVWinCFCallbackRecord* record) {
  auto& root = RootOf(*record);
  EmitEvent("delete", root.Describe(*record).Set("processId", record->processId));
  if (!root.acknowledges_) return;
  const auto status =
      CORVWinCFSyncRootAckDelete(root.handle_, record->transferKey, 0, root.deleteStatus_);
  EmitEvent("deleteAcknowledged", Fields().Set("status", status));
}

void ProviderRoot::OnOpenCompletion(const CORVWinCFCallbackRecord* record) {
  EmitEvent("openCompletion", RootOf(*record).Describe(*record));
}

}  // namespace e2e
