#ifndef NIMBRA_TESTS_SUPPORT_SYNC_ROOT_HANDLES_H_
#define NIMBRA_TESTS_SUPPORT_SYNC_ROOT_HANDLES_H_

#include <cstdint>
#include <stdexcept>
#include <string>

#include "nimbra/nimbra.h"

namespace nimbra_test {

// Handles that are released when the object ends.

class SyncRoot {
 public:
  explicit SyncRoot(const std::string& path = R"(C:\Sync)", std::uint64_t session = 12) {
    if (CORVWinCFSyncRootNew(&handle_, path.c_str(), session) != 0) {
      throw std::runtime_error("no sync root handle");
    }
  }
  ~SyncRoot() { CORVWinCFSyncRootRelease(&handle_); }
  SyncRoot(const SyncRoot&) = delete;
  SyncRoot& operator=(const SyncRoot&) = delete;

  CORVWinCFSyncRootHandle Get() const { return handle_; }

 private:
  CORVWinCFSyncRootHandle handle_ = nullptr;
};

class Delegator {
 public:
  explicit Delegator(void* context = nullptr) {
    if (CORVWinCFCallbackDelegatorNew(&handle_, context) != 0) {
      throw std::runtime_error("no delegator handle");
    }
  }
  ~Delegator() { CORVWinCFCallbackDelegatorRelease(handle_); }
  Delegator(const Delegator&) = delete;
  Delegator& operator=(const Delegator&) = delete;

  CORVWinCFCallbackDelegatorHandle Get() const { return handle_; }

 private:
  CORVWinCFCallbackDelegatorHandle handle_ = nullptr;
};

class Placeholder {
 public:
  explicit Placeholder(const std::string& path) {
    if (CORVWinCFPlaceholderNew(&handle_, path.c_str()) != 0) {
      throw std::runtime_error("no placeholder handle");
    }
  }
  ~Placeholder() { CORVWinCFPlaceholderRelease(handle_); }
  Placeholder(const Placeholder&) = delete;
  Placeholder& operator=(const Placeholder&) = delete;

  CORVWinCFPlaceholderHandle Get() const { return handle_; }

 private:
  CORVWinCFPlaceholderHandle handle_ = nullptr;
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_SYNC_ROOT_HANDLES_H_
