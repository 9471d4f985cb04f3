#ifndef NIMBRA_SIMULATOR_CLDAPI_OWNED_HANDLE_H_
#define NIMBRA_SIMULATOR_CLDAPI_OWNED_HANDLE_H_

#include <windows.h>

#include <utility>

namespace cldapi {

// Owns a file handle.
class OwnedHandle {
 public:
  OwnedHandle() = default;
  explicit OwnedHandle(HANDLE handle) noexcept : handle_(handle) {}
  OwnedHandle(OwnedHandle&& other) noexcept : handle_(other.Release()) {}
  OwnedHandle& operator=(OwnedHandle&& other) noexcept {
    if (this != &other) Reset(other.Release());
    return *this;
  }
  ~OwnedHandle() { Reset(INVALID_HANDLE_VALUE); }

  [[nodiscard]] bool IsValid() const noexcept { return handle_ != INVALID_HANDLE_VALUE; }
  [[nodiscard]] HANDLE Get() const noexcept { return handle_; }
  [[nodiscard]] HANDLE Release() noexcept { return std::exchange(handle_, INVALID_HANDLE_VALUE); }

 private:
  void Reset(HANDLE handle) noexcept {
    if (IsValid()) CloseHandle(handle_);
    handle_ = handle;
  }

  HANDLE handle_ = INVALID_HANDLE_VALUE;
};

}  // namespace cldapi

#endif  // NIMBRA_SIMULATOR_CLDAPI_OWNED_HANDLE_H_
