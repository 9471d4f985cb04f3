#include "bench/harness/null-cloud.h"

#include <atomic>
#include <stdexcept>

#include "bench/harness/measure.h"

namespace nimbra_bench {
namespace {

std::atomic<double> transferCost = 0;
std::atomic<std::int64_t> transferCount = 0;
std::atomic<std::int64_t> transferBytes = 0;
const CF_CALLBACK_REGISTRATION* connectedTable = nullptr;
void* connectedContext = nullptr;

template <typename Result, typename... Arguments>
void BecomeNothing(Result(WINAPI*& function)(Arguments...)) {
  function = [](Arguments...) { return Result(); };
}

template <typename... Functions>
void BecomeNothing(Functions&... functions) {
  (BecomeNothing(functions), ...);
}

HRESULT WINAPI TakeTransfer(const CF_OPERATION_INFO* info, CF_OPERATION_PARAMETERS* parameters) {
  if (info->Type != CF_OPERATION_TYPE_TRANSFER_DATA) {
    return S_OK;
  }
  transferCount.fetch_add(1, std::memory_order_relaxed);
  transferBytes.fetch_add(parameters->TransferData.Length.QuadPart, std::memory_order_relaxed);
  if (const double cost = transferCost.load(std::memory_order_relaxed); cost > 0) {
    const auto begun = Clock::now();
    while (NanosecondsSince(begun) < cost) {
    }
  }
  return S_OK;
}

HRESULT WINAPI Connect(LPCWSTR, const CF_CALLBACK_REGISTRATION* table, LPCVOID context,
                       CF_CONNECT_FLAGS, CF_CONNECTION_KEY*) {
  connectedTable = table;
  connectedContext = const_cast<void*>(context);
  return S_OK;
}

}  // namespace

NullCloud::NullCloud() {
  BecomeNothing(
      table_.CfGetPlatformInfo, table_.CfRegisterSyncRoot, table_.CfUnregisterSyncRoot,
      table_.CfDisconnectSyncRoot, table_.CfGetSyncRootInfoByPath, table_.CfGetTransferKey,
      table_.CfReleaseTransferKey, table_.CfReportProviderProgress, table_.CfCreatePlaceholders,
      table_.CfConvertToPlaceholder, table_.CfUpdatePlaceholder, table_.CfRevertPlaceholder,
      table_.CfHydratePlaceholder, table_.CfDehydratePlaceholder, table_.CfSetPinState,
      table_.CfSetInSyncState, table_.CfGetPlaceholderInfo,
      table_.CfGetPlaceholderStateFromFindData, table_.CfReferenceProtectedHandle,
      table_.CfGetWin32HandleFromProtectedHandle, table_.CfReleaseProtectedHandle);
  table_.CfExecute = TakeTransfer;
  table_.CfConnectSyncRoot = Connect;
  previous_ = corvdrive::cloud_filter::ExchangeCldApi(&table_);
}

NullCloud::~NullCloud() { corvdrive::cloud_filter::ExchangeCldApi(previous_); }

void NullCloud::SetTransferCost(double microseconds) { transferCost = microseconds * 1000; }

NullCloud::Transfers NullCloud::TakeTransfers() {
  return {transferCount.exchange(0), transferBytes.exchange(0)};
}

CF_CALLBACK NullCloud::Callback(CF_CALLBACK_TYPE type) {
  const CF_CALLBACK_REGISTRATION* entry = connectedTable;
  while (entry->Type != type) {
    if (entry->Type == CF_CALLBACK_TYPE_NONE) {
      throw std::runtime_error("the connection has no callback of a type");
    }
    ++entry;
  }
  return entry->Callback;
}

void* NullCloud::CallbackContext() { return connectedContext; }

}  // namespace nimbra_bench
