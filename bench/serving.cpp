// Two providers in one program, each of a sync root of its own: one through the library, one that
// calls the platform itself. Both answer fetches at once, out of the same memory, so that what
// programs wait longer for the one is what the library costs.

#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/harness/families.h"
#include "common/cldapi-table.h"
#include "common/text.h"
#include "nimbra/nimbra.h"
#include "tests/support/sync-root-handles.h"

namespace nimbra_bench {
namespace {

using corvdrive::cloud_filter::Cloud;
using corvdrive::cloud_filter::Utf8ToWide;

constexpr std::int64_t kPiece = 4 << 20;

const void* Data() {
  static const std::vector<std::byte> data(static_cast<std::size_t>(kPiece), std::byte{'x'});
  return data.data();
}

void Require(bool succeeded, const char* what) {
  if (!succeeded) {
    throw std::runtime_error(std::string("failed: ") + what);
  }
}

// Calls `transfer` with the place and the length of each piece of a range.
template <typename Transfer>
void InPieces(std::int64_t offset, std::int64_t length, Transfer transfer) {
  for (const std::int64_t end = offset + length; offset < end; offset += kPiece) {
    transfer(offset, std::min(kPiece, end - offset));
  }
}

class LibraryProvider {
 public:
  explicit LibraryProvider(const std::string& folder) : root_(folder), delegator_(this) {
    static_cast<void>(Data());
    CORVWinCFCallbackDelegatorSetFetchCallback(delegator_.Get(), OnFetch);
    Require(CORVWinCFSyncRootRegister(root_.Get(), "bench") == 0, "to register with the library");
    Require(CORVWinCFSyncRootConnect(root_.Get(), delegator_.Get()) == 0,
            "to connect with the library");
  }
  ~LibraryProvider() {
    CORVWinCFSyncRootDisconnect(root_.Get());
    CORVWinCFSyncRootUnregister(root_.Get());
  }
  LibraryProvider(const LibraryProvider&) = delete;
  LibraryProvider& operator=(const LibraryProvider&) = delete;

 private:
  static void OnFetch(const CORVWinCFCallbackRecord* record) {
    auto& provider = *static_cast<LibraryProvider*>(record->context);
    InPieces(record->parameters[0], record->parameters[1],
             [&](std::int64_t offset, std::int64_t length) {
               CORVWinCFSyncRootTransferData(provider.root_.Get(), record->transferKey, 0, Data(),
                                             offset, length, CORVWinCFTransferSucceeded);
             });
  }

  nimbra_test::SyncRoot root_;
  nimbra_test::Delegator delegator_;
};

// Registers and connects as the library does.
class BareProvider {
 public:
  explicit BareProvider(const std::string& folder) : path_(Utf8ToWide(folder)) {
    Register();
    static constexpr CF_CALLBACK_REGISTRATION kTable[] = {
        {CF_CALLBACK_TYPE_FETCH_DATA, OnFetch},
        {CF_CALLBACK_TYPE_CANCEL_FETCH_DATA, Ignore},
        {CF_CALLBACK_TYPE_NOTIFY_RENAME, Ignore},
        {CF_CALLBACK_TYPE_NOTIFY_RENAME_COMPLETION, Ignore},
        {CF_CALLBACK_TYPE_NONE, nullptr}};
    const auto flags = CF_CONNECT_FLAG_REQUIRE_PROCESS_INFO |
                       CF_CONNECT_FLAG_REQUIRE_FULL_FILE_PATH |
                       CF_CONNECT_FLAG_BLOCK_SELF_IMPLICIT_HYDRATION;
    Require(SUCCEEDED(Cloud().CfConnectSyncRoot(path_.c_str(), kTable, nullptr, flags, &key_)),
            "to connect without the library");
  }
  ~BareProvider() {
    Cloud().CfDisconnectSyncRoot(key_);
    Cloud().CfUnregisterSyncRoot(path_.c_str());
  }
  BareProvider(const BareProvider&) = delete;
  BareProvider& operator=(const BareProvider&) = delete;

 private:
  void Register() const {
    static constexpr char kIdentity[] = "bench";
    CF_SYNC_REGISTRATION registration{};
    registration.StructSize = sizeof registration;
    registration.ProviderName = L"bench";
    registration.ProviderVersion = L"1";
    registration.SyncRootIdentity = kIdentity;
    registration.SyncRootIdentityLength = sizeof kIdentity - 1;
    CF_SYNC_POLICIES policies{};
    policies.StructSize = sizeof policies;
    policies.Hydration.Primary.us = CF_HYDRATION_POLICY_FULL;
    policies.Hydration.Modifier.us = CF_HYDRATION_POLICY_MODIFIER_AUTO_DEHYDRATION_ALLOWED;
    policies.Population.Primary.us = CF_POPULATION_POLICY_ALWAYS_FULL;
    policies.InSync = CF_INSYNC_POLICY_PRESERVE_INSYNC_FOR_SYNC_ENGINE;
    Require(SUCCEEDED(
                Cloud().CfRegisterSyncRoot(path_.c_str(), &registration, &policies,
                                           CF_REGISTER_FLAG_DISABLE_ON_DEMAND_POPULATION_ON_ROOT)),
            "to register without the library");
  }

  static void CALLBACK OnFetch(const CF_CALLBACK_INFO* info,
                               const CF_CALLBACK_PARAMETERS* parameters) {
    CF_OPERATION_INFO operation{};
    operation.StructSize = sizeof operation;
    operation.Type = CF_OPERATION_TYPE_TRANSFER_DATA;
    operation.ConnectionKey = info->ConnectionKey;
    operation.TransferKey = info->TransferKey;
    CF_OPERATION_PARAMETERS transfer{};
    transfer.ParamSize = static_cast<ULONG>(offsetof(CF_OPERATION_PARAMETERS, TransferData) +
                                            sizeof transfer.TransferData);
    transfer.TransferData.Buffer = Data();
    InPieces(parameters->FetchData.RequiredFileOffset.QuadPart,
             parameters->FetchData.RequiredLength.QuadPart,
             [&](std::int64_t offset, std::int64_t length) {
               transfer.TransferData.Offset.QuadPart = offset;
               transfer.TransferData.Length.QuadPart = length;
               Cloud().CfExecute(&operation, &transfer);
             });
  }
  static void CALLBACK Ignore(const CF_CALLBACK_INFO*, const CF_CALLBACK_PARAMETERS*) {}

  std::wstring path_;
  CF_CONNECTION_KEY key_{};
};

}  // namespace

void ServeRoots(const Settings& settings) {
  const LibraryProvider library(settings.folder + "/library");
  const BareProvider bare(settings.folder + "/bare");
  std::puts("ready");
  std::fflush(stdout);
  // Until whoever started this has seen enough.
  while (std::getchar() != EOF) {
  }
}

}  // namespace nimbra_bench
