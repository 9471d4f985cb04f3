#ifndef NIMBRA_SIMULATOR_CLDAPI_PROTECTED_HANDLE_H_
#define NIMBRA_SIMULATOR_CLDAPI_PROTECTED_HANDLE_H_

// Protected handles: opaque values that stand for a file handle which the system may take back.
// Wine has no opportunistic locks, so nothing here is ever taken back.

#include <windows.h>

namespace cldapi {

// The file handle behind a handle that a caller passed, for the length of one call. A plain handle
// stands for itself.
class HandleLease {
 public:
  explicit HandleLease(HANDLE given);
  HandleLease(const HandleLease&) = delete;
  HandleLease& operator=(const HandleLease&) = delete;
  ~HandleLease();

  [[nodiscard]] bool IsHeld() const noexcept { return held_; }
  [[nodiscard]] HANDLE File() const noexcept { return file_; }

 private:
  HANDLE given_;
  HANDLE file_ = INVALID_HANDLE_VALUE;
  bool held_ = false;
};

}  // namespace cldapi

#endif  // NIMBRA_SIMULATOR_CLDAPI_PROTECTED_HANDLE_H_
