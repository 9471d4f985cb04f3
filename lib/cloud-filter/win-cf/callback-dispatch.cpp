#include "win-cf/callback-dispatch.h"

#include <memory>
#include <vector>

#include "common/cldapi-table.h"
#include "common/debug-log.h"
#include "win-cf/callback-delegator.h"
#include "win-cf/callback-record.h"
#include "win-cf/operations.h"

namespace corvdrive::cloud_filter {
namespace {

constexpr char kSource[] = R"(lib\cloud-filter\win-cf\sync-root)";

using DelegatorReference = std::shared_ptr<CallbackDelegatorWinCF>;

// Tells the platform that nobody will serve a fetch, so that the program which opened the file is
// not left waiting for the time-out.
void FailFetch(const CF_CALLBACK_INFO& info, const CF_CALLBACK_PARAMETERS& parameters) {
  CF_OPERATION_PARAMETERS operation = MakeTransfer(STATUS_CLOUD_FILE_UNSUCCESSFUL, nullptr,
                                                   parameters.FetchData.RequiredFileOffset.QuadPart,
                                                   parameters.FetchData.RequiredLength.QuadPart);
  static_cast<void>(Execute(CF_OPERATION_TYPE_TRANSFER_DATA, info.ConnectionKey,
                            info.TransferKey.QuadPart, operation));
}

// The record could not be built. Nothing may leave here, and nothing does: a line as short as this
// takes no memory.
void ReportUnbuilt(const char* why) noexcept {
  Log(kSource, __LINE__, "Failed to build the callback record: ", why);
}

template <CallbackKind Kind>
void CALLBACK Translate(const CF_CALLBACK_INFO* info, const CF_CALLBACK_PARAMETERS* parameters) {
  if (info->CallbackContext == nullptr) {
    return;
  }
  const DelegatorReference& delegator =
      *static_cast<const DelegatorReference*>(info->CallbackContext);
  const CallbackRecord record(Kind, *info, parameters, delegator->Context());
  if (record.Failure() != nullptr) {
    ReportUnbuilt(record.Failure());
    if constexpr (Kind == kFetchData) {
      FailFetch(*info, *parameters);
    }
    return;
  }
  if (const CORVWinCFCallback callback = delegator->FindCallback(Kind)) {
    callback(record.Get());
  }
}

std::vector<CF_CALLBACK_REGISTRATION> MakeTable(bool notifyDelete) {
  std::vector<CF_CALLBACK_REGISTRATION> table = {
      {CF_CALLBACK_TYPE_FETCH_DATA, Translate<kFetchData>},
      {CF_CALLBACK_TYPE_CANCEL_FETCH_DATA, Translate<kFetchCancel>},
      {CF_CALLBACK_TYPE_NOTIFY_RENAME, Translate<kRename>},
      {CF_CALLBACK_TYPE_NOTIFY_RENAME_COMPLETION, Translate<kRenameCompletion>}};
  if (notifyDelete) {
    table.push_back({CF_CALLBACK_TYPE_NOTIFY_DELETE, Translate<kDelete>});
  }
  table.push_back({CF_CALLBACK_TYPE_NONE, nullptr});
  return table;
}

}  // namespace

const CF_CALLBACK_REGISTRATION* CallbackTable(bool notifyDelete) {
  // Never destroyed: a connection may outlive the library's own statics at process exit.
  if (notifyDelete) {
    static const auto& withDelete = *new std::vector(MakeTable(true));
    return withDelete.data();
  }
  static const auto& plain = *new std::vector(MakeTable(false));
  return plain.data();
}

}  // namespace corvdrive::cloud_filter
