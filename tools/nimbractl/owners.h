#ifndef NIMBRA_NIMBRACTL_OWNERS_H_
#define NIMBRA_NIMBRACTL_OWNERS_H_

// Owners of what Windows hands out.

#include <windows.h>

#include <memory>
#include <type_traits>

namespace nimbractl {

// For handles that are null or INVALID_HANDLE_VALUE when there is none.
template <auto kClose>
class UniqueHandle {
 public:
  explicit UniqueHandle(HANDLE handle = nullptr)
      : handle_(handle == INVALID_HANDLE_VALUE ? nullptr : handle) {}

  [[nodiscard]] HANDLE get() const { return handle_.get(); }
  explicit operator bool() const { return handle_ != nullptr; }

 private:
  struct Closer {
    void operator()(HANDLE handle) const { kClose(handle); }
  };
  std::unique_ptr<void, Closer> handle_;
};

using UniqueKernelObject = UniqueHandle<CloseHandle>;
using UniqueFile = UniqueHandle<CloseHandle>;
using UniqueSearch = UniqueHandle<FindClose>;

template <auto kFunction>
struct Call {
  template <class Pointer>
  void operator()(Pointer pointer) const {
    kFunction(pointer);
  }
};

using UniqueKey = std::unique_ptr<std::remove_pointer_t<HKEY>, Call<RegCloseKey>>;
using UniqueModule = std::unique_ptr<std::remove_pointer_t<HMODULE>, Call<FreeLibrary>>;
using UniqueView = std::unique_ptr<void, Call<UnmapViewOfFile>>;
using UniqueLocal = std::unique_ptr<void, Call<LocalFree>>;

}  // namespace nimbractl

#endif
