#include "common/cldapi-table.h"

#include <atomic>
#include <mutex>

#include "common/owners.h"

namespace corvdrive::cloud_filter {
namespace {

// Why an entry of the table stands in for a missing function.
template <auto Entry>
std::atomic<DWORD> missingBecause{ERROR_PROC_NOT_FOUND};

// What a missing function gives, by the type of its result.
template <typename Result>
Result FailureResult(DWORD error);
template <>
HRESULT FailureResult<HRESULT>(DWORD error) {
  return HRESULT_FROM_WIN32(error);
}
template <>
CF_PLACEHOLDER_STATE FailureResult<CF_PLACEHOLDER_STATE>(DWORD) {
  return CF_PLACEHOLDER_STATE_NO_STATES;
}
template <>
BOOLEAN FailureResult<BOOLEAN>(DWORD) {
  return FALSE;
}
template <>
HANDLE FailureResult<HANDLE>(DWORD) {
  return INVALID_HANDLE_VALUE;
}
template <>
void FailureResult<void>(DWORD) {}

template <auto Entry, typename Function>
struct StandIn;
template <auto Entry, typename Result, typename... Arguments>
struct StandIn<Entry, Result(WINAPI*)(Arguments...)> {
  static Result WINAPI Call(Arguments...) { return FailureResult<Result>(missingBecause<Entry>); }
};

// Fills one entry from the loaded DLL, or with its stand-in: `module` is null when there is no DLL,
// and `loadError` then says why.
template <auto Entry, typename Function>
void Fill(CldApi& table, Function CldApi::*, const char* name, HMODULE module, DWORD loadError) {
  const FARPROC found = module == nullptr ? nullptr : GetProcAddress(module, name);
  if (found != nullptr) {
    // By way of void*: compilers warn of a cast between unrelated function types.
    table.*Entry = reinterpret_cast<Function>(reinterpret_cast<void*>(found));
    return;
  }
  missingBecause<Entry> = module == nullptr ? loadError : ERROR_PROC_NOT_FOUND;
  table.*Entry = &StandIn<Entry, Function>::Call;
}

#define NIMBRA_FILL(name) Fill<&CldApi::name>(table, &CldApi::name, #name, module, loadError)

CldApi MakeTable(HMODULE module, DWORD loadError) {
  CldApi table{};
  NIMBRA_FILL(CfGetPlatformInfo);
  NIMBRA_FILL(CfRegisterSyncRoot);
  NIMBRA_FILL(CfUnregisterSyncRoot);
  NIMBRA_FILL(CfConnectSyncRoot);
  NIMBRA_FILL(CfDisconnectSyncRoot);
  NIMBRA_FILL(CfGetSyncRootInfoByPath);
  NIMBRA_FILL(CfGetTransferKey);
  NIMBRA_FILL(CfReleaseTransferKey);
  NIMBRA_FILL(CfExecute);
  NIMBRA_FILL(CfReportProviderProgress);
  NIMBRA_FILL(CfCreatePlaceholders);
  NIMBRA_FILL(CfConvertToPlaceholder);
  NIMBRA_FILL(CfUpdatePlaceholder);
  NIMBRA_FILL(CfRevertPlaceholder);
  NIMBRA_FILL(CfHydratePlaceholder);
  NIMBRA_FILL(CfDehydratePlaceholder);
  NIMBRA_FILL(CfSetPinState);
  NIMBRA_FILL(CfSetInSyncState);
  NIMBRA_FILL(CfGetPlaceholderInfo);
  NIMBRA_FILL(CfGetPlaceholderStateFromFindData);
  NIMBRA_FILL(CfReferenceProtectedHandle);
  NIMBRA_FILL(CfGetWin32HandleFromProtectedHandle);
  NIMBRA_FILL(CfReleaseProtectedHandle);
  return table;
}

#undef NIMBRA_FILL

std::atomic<const CldApi*> installed{nullptr};

// The system's table; loads cldapi.dll when that has not succeeded yet. Nothing asks the loader for
// something while it holds a lock: the loader may run code of others that waits for this one.
const CldApi& SystemTable() {
  static std::atomic<const CldApi*> loaded{nullptr};
  if (const CldApi* table = loaded.load(std::memory_order_acquire)) {
    return *table;
  }
  // The default directories leave out the current one, where a foreign DLL could lie in wait.
  const HMODULE module = LoadLibraryExW(L"cldapi.dll", nullptr, LOAD_LIBRARY_SEARCH_DEFAULT_DIRS);
  if (module == nullptr) {
    const DWORD loadError = GetLastError();
    // Rewriting equal entries would race with callers of the table given out before.
    static const CldApi absent = MakeTable(nullptr, loadError);
    return absent;
  }
  const CldApi found = MakeTable(module, ERROR_SUCCESS);
  static std::mutex mutex;
  static CldApi complete;
  {
    const std::lock_guard lock(mutex);
    if (loaded.load(std::memory_order_relaxed) == nullptr) {
      complete = found;
      loaded.store(&complete, std::memory_order_release);
      return complete;
    }
  }
  // Another thread was quicker; its reference to the DLL stays.
  FreeLibrary(module);
  return complete;
}

}  // namespace

const CldApi& Cloud() {
  const CldApi* table = installed.load(std::memory_order_acquire);
  return table != nullptr ? *table : SystemTable();
}

const CldApi* ExchangeCldApi(const CldApi* table) { return installed.exchange(table); }

}  // namespace corvdrive::cloud_filter
