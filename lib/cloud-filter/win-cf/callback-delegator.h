#ifndef NIMBRA_WIN_CF_CALLBACK_DELEGATOR_H_
#define NIMBRA_WIN_CF_CALLBACK_DELEGATOR_H_

#include <cstdint>
#include <map>

#include "nimbra/nimbra.h"

namespace corvdrive::cloud_filter {

// The library's own numbering of events; not the platform's.
enum CallbackKind : std::int32_t {
  kFetchData = 1,
  kFetchCancel = 2,
  kDelete = 3,
  kRename = 4,
  kRenameCompletion = 5,
  // Accepted, but no connection asks the platform for it.
  kOpenCompletion = 8,
};

// The client's side of the platform's callbacks. Filled before it is connected and not changed
// while it is, so that callbacks on many threads may read it without a lock.
class CallbackDelegatorBase {
 public:
  virtual ~CallbackDelegatorBase() = default;
};

class CallbackDelegatorWinCF : public CallbackDelegatorBase {
 public:
  explicit CallbackDelegatorWinCF(void* clientContext) : context(clientContext) {}

  // Stores the client's function for an event; the last one counts. Null is refused.
  [[nodiscard]] bool SetCallback(CallbackKind kind, CORVWinCFCallback callback) {
    if (callback == nullptr) {
      return false;
    }
    callbacks.insert_or_assign(kind, callback);
    return true;
  }
  // Null when there is none.
  [[nodiscard]] CORVWinCFCallback FindCallback(CallbackKind kind) const {
    const auto found = callbacks.find(kind);
    return found == callbacks.end() ? nullptr : found->second;
  }
  [[nodiscard]] void* Context() const { return context; }

 private:
  std::map<std::int32_t, CORVWinCFCallback> callbacks;
  void* context;
};

}  // namespace corvdrive::cloud_filter

#endif
