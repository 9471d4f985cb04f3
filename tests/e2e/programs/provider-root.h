#ifndef NIMBRA_TESTS_E2E_PROVIDER_ROOT_H_
#define NIMBRA_TESTS_E2E_PROVIDER_ROOT_H_

#include <nimbra/nimbra.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "command-loop.h"
#include "fetch-server.h"

namespace e2e {

// One sync root object of the library with its delegator. It lives as long as the process, since
// callbacks may come whenever the root is connected; its address is the callbacks' context.
class ProviderRoot {
 public:
  ProviderRoot(std::string name, const std::string& path, std::uint64_t session);
  ProviderRoot(const ProviderRoot&) = delete;
  ProviderRoot& operator=(const ProviderRoot&) = delete;
  ~ProviderRoot() = default;

  [[nodiscard]] std::int32_t Status() const { return status_; }
  [[nodiscard]] CORVWinCFSyncRootHandle Handle() const { return handle_; }
  [[nodiscard]] CORVWinCFCallbackDelegatorHandle Delegator() const { return delegator_; }
  void ChangeRules(const Fields& command);
  void SetContent(const Fields& command);

 private:
  static void OnFetch(const CORVWinCFCallbackRecord* record);
  static void OnCancel(const CORVWinCFCallbackRecord* record);
  static void OnRename(const CORVWinCFCallbackRecord* record);
  static void OnRenameCompletion(const CORVWinCFCallbackRecord* record);
  static void OnDelete(const CORVWinCFCallbackRecord* record);
  static void OnOpenCompletion(const CORVWinCFCallbackRecord* record);

  bool SetCallbacks();
  [[nodiscard]] Fields Describe(const CORVWinCFCallbackRecord& record) const;

  std::string name_;
  CORVWinCFSyncRootHandle handle_ = nullptr;
  CORVWinCFCallbackDelegatorHandle delegator_ = nullptr;
  std::int32_t status_;
  FetchServer server_;
  std::atomic<bool> acknowledges_ = true;
  std::atomic<std::uint32_t> deleteStatus_ = CORVWinCFTransferSucceeded;
};

}  // namespace e2e

#endif  // NIMBRA_TESTS_E2E_PROVIDER_ROOT_H_
