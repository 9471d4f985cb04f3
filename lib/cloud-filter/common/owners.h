#ifndef NIMBRA_COMMON_OWNERS_H_
#define NIMBRA_COMMON_OWNERS_H_

#include <windows.h>

#include <objbase.h>

#include <utility>

namespace corvdrive::cloud_filter {

// Owns one value of a platform type and closes it; move-only. `Traits` names the type, the value
// that stands for nothing, and the closer. Closing keeps the thread's last error, so that a failure
// can be reported after its cleaning up.
template <typename Traits>
class UniqueResource {
 public:
  using Type = typename Traits::Type;

  UniqueResource() noexcept = default;
  explicit UniqueResource(Type value) noexcept : value_(value) {}
  UniqueResource(UniqueResource&& other) noexcept : value_(other.Release()) {}
  UniqueResource& operator=(UniqueResource&& other) noexcept {
    if (this != &other) {
      Reset(other.Release());
    }
    return *this;
  }
  ~UniqueResource() { Reset(); }

  [[nodiscard]] Type Get() const noexcept { return value_; }
  [[nodiscard]] bool IsValid() const noexcept { return value_ != Traits::Invalid(); }
  [[nodiscard]] Type Release() noexcept { return std::exchange(value_, Traits::Invalid()); }
  void Reset(Type value = Traits::Invalid()) noexcept {
    const Type old = std::exchange(value_, value);
    if (old != Traits::Invalid()) {
      const DWORD lastError = GetLastError();
      Traits::Close(old);
      SetLastError(lastError);
    }
  }

 private:
  Type value_ = Traits::Invalid();
};

struct FileHandleTraits {
  using Type = HANDLE;
  static Type Invalid() noexcept { return INVALID_HANDLE_VALUE; }
  static void Close(Type handle) noexcept { CloseHandle(handle); }
};
using UniqueFile = UniqueResource<FileHandleTraits>;

struct RegistryKeyTraits {
  using Type = HKEY;
  // All bits set, as for a file: the marker of a key that could not be opened.
  static Type Invalid() noexcept { return static_cast<HKEY>(INVALID_HANDLE_VALUE); }
  static void Close(Type key) noexcept { RegCloseKey(key); }
};
using UniqueRegistryKey = UniqueResource<RegistryKeyTraits>;

// Memory that a system function wants given back with LocalFree.
struct LocalMemoryTraits {
  using Type = wchar_t*;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type memory) noexcept { LocalFree(memory); }
};
using UniqueLocalText = UniqueResource<LocalMemoryTraits>;

struct ModuleTraits {
  using Type = HMODULE;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type module) noexcept { FreeLibrary(module); }
};
using UniqueModule = UniqueResource<ModuleTraits>;

struct FindHandleTraits {
  using Type = HANDLE;
  static Type Invalid() noexcept { return INVALID_HANDLE_VALUE; }
  static void Close(Type search) noexcept { FindClose(search); }
};
using UniqueFind = UniqueResource<FindHandleTraits>;

// Text that a COM function wants given back with CoTaskMemFree.
struct TaskMemoryTraits {
  using Type = wchar_t*;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type memory) noexcept { CoTaskMemFree(memory); }
};
using UniqueTaskText = UniqueResource<TaskMemoryTraits>;

struct BitmapTraits {
  using Type = HBITMAP;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type bitmap) noexcept { DeleteObject(bitmap); }
};
using UniqueBitmap = UniqueResource<BitmapTraits>;

}  // namespace corvdrive::cloud_filter

#endif
