// What the library calls through for functions of those system DLLs that cost a program without
// windows far more to load than the library itself: gdi32, ole32, shell32 and shlwapi, with all
// that they need. Each is loaded when the first of its functions is called. advapi32 costs little,
// and is imported as usual: names of users and registry keys are to be had at any time.
//
// Compilers call an imported function through a slot named __imp_<function>, which an import
// library brings along. Defined here, the slots lead to stand-ins, and the image imports nothing of
// these DLLs. That holds for the DLL alone: whoever links the sources statically calls Windows
// directly. Unlike the delayed imports of linkers, a DLL that cannot be loaded is no structured
// exception but a function that fails, and the slots stay constant.

#include <windows.h>

#include <objbase.h>
#include <shlobj.h>
#include <shlwapi.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <string_view>
#include <tuple>

namespace corvdrive::cloud_filter {
namespace {

// A DLL and everything that the library calls in it.
template <std::size_t Count>
struct SystemLibrary {
  const wchar_t* file;
  std::array<const char*, Count> functions;

  // Which of its functions; does not compile for a name that is not there.
  consteval std::size_t IndexOf(std::string_view function) const {
    std::size_t index = 0;
    while (functions.at(index) != function) {
      ++index;
    }
    return index;
  }
};

constexpr SystemLibrary<2> kGdi32{L"gdi32.dll", {"CreateDIBSection", "DeleteObject"}};
constexpr SystemLibrary<7> kOle32{
    L"ole32.dll",
    {"CoCreateGuid", "CoCreateInstance", "CoInitializeEx", "CoRegisterClassObject", "CoTaskMemFree",
     "CoWaitForMultipleHandles", "StringFromCLSID"}};
constexpr SystemLibrary<2> kShell32{L"shell32.dll", {"SHCreateDirectory", "SHGetFolderPathW"}};
constexpr SystemLibrary<3> kShlwapi{L"shlwapi.dll",
                                    {"PathIsDirectoryEmptyW", "QISearch", "SHCreateStreamOnFileW"}};

// Its functions once they are known: all of them or none, so that what one function made can be
// given back by another.
template <const auto& Library>
class LoadedFunctions {
 public:
  // Loads the DLL unless that has been done. Takes no lock, which a thread could hold while it
  // waits for the loader and another one that has the loader waits for it: threads that come here
  // at once do the same, and one reference to the DLL stays, for good.
  static DWORD Load() noexcept {
    if (areKnown_.load(std::memory_order_acquire)) {
      return ERROR_SUCCESS;
    }
    const DWORD lastError = GetLastError();
    // From the system's folder only: nobody may put another one in its place.
    const HMODULE module = LoadLibraryExW(Library.file, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    if (module == nullptr || !FindAll(module)) {
      return Forget(module);
    }
    if (areKnown_.exchange(true, std::memory_order_acq_rel)) {
      FreeLibrary(module);
    }
    // A function that succeeds may leave what was there before it.
    SetLastError(lastError);
    return ERROR_SUCCESS;
  }

  template <typename Function>
  static Function At(std::size_t index) noexcept {
    // By way of void*: compilers warn of a cast between unrelated function types.
    return reinterpret_cast<Function>(
        reinterpret_cast<void*>(found_[index].load(std::memory_order_relaxed)));
  }

 private:
  static bool FindAll(HMODULE module) noexcept {
    for (std::size_t i = 0; i < found_.size(); ++i) {
      const FARPROC function = GetProcAddress(module, Library.functions[i]);
      if (function == nullptr) {
        return false;
      }
      found_[i].store(function, std::memory_order_relaxed);
    }
    return true;
  }

  // Why the DLL is of no use, unless another thread has had more luck meanwhile.
  static DWORD Forget(HMODULE module) noexcept {
    const DWORD error = GetLastError();
    if (module != nullptr) {
      FreeLibrary(module);
    }
    if (areKnown_.load(std::memory_order_acquire)) {
      return ERROR_SUCCESS;
    }
    return error != ERROR_SUCCESS ? error : ERROR_MOD_NOT_FOUND;
  }

  static inline std::atomic<bool> areKnown_{false};
  static inline std::array<std::atomic<FARPROC>, Library.functions.size()> found_{};
};

// What a function gives when its DLL cannot be loaded.
struct Hresult {
  template <typename... Arguments>
  static HRESULT Of(DWORD error, Arguments...) {
    return HRESULT_FROM_WIN32(error);
  }
};
// The same, where the last argument takes an object or a text.
struct HresultAndNull {
  template <typename... Arguments>
  static HRESULT Of(DWORD error, Arguments&... arguments) {
    auto* const output = std::get<sizeof...(arguments) - 1>(std::tie(arguments...));
    if (output != nullptr) {
      *output = nullptr;
    }
    return HRESULT_FROM_WIN32(error);
  }
};
template <typename Result>
struct ErrorNumber {
  template <typename... Arguments>
  static Result Of(DWORD error, Arguments...) {
    return static_cast<Result>(error);
  }
};
template <typename Result>
struct Zero {
  template <typename... Arguments>
  static Result Of(DWORD, Arguments...) {
    return Result();
  }
};

template <const auto& Library, std::size_t Index, typename Failure, typename Function>
struct StandIn;
template <const auto& Library, std::size_t Index, typename Failure, typename Result,
          typename... Arguments>
struct StandIn<Library, Index, Failure, Result(WINAPI*)(Arguments...)> {
  static Result WINAPI Call(Arguments... arguments) {
    using Functions = LoadedFunctions<Library>;
    const DWORD error = Functions::Load();
    if (error != ERROR_SUCCESS) {
      SetLastError(error);
      return Failure::Of(error, arguments...);
    }
    return Functions::template At<Result(WINAPI*)(Arguments...)>(Index)(arguments...);
  }
};

}  // namespace

#define NIMBRA_STAND_IN(library, function, failure) \
  (&StandIn<library, (library).IndexOf(#function), failure, decltype(&::function)>::Call)

// Defines the slot of a function.
#define NIMBRA_DEFER(library, function, failure)       \
  extern const decltype(&::function) __imp_##function; \
  const decltype(&::function) __imp_##function = NIMBRA_STAND_IN(library, function, failure)

// NOLINTBEGIN(bugprone-reserved-identifier): the linker knows the slots by these names.
extern "C" {
NIMBRA_DEFER(kGdi32, CreateDIBSection, Zero<HBITMAP>);
NIMBRA_DEFER(kGdi32, DeleteObject, Zero<BOOL>);
NIMBRA_DEFER(kOle32, CoCreateGuid, Hresult);
NIMBRA_DEFER(kOle32, CoCreateInstance, HresultAndNull);
NIMBRA_DEFER(kOle32, CoInitializeEx, Hresult);
NIMBRA_DEFER(kOle32, CoRegisterClassObject, Hresult);
NIMBRA_DEFER(kOle32, CoTaskMemFree, Zero<void>);
NIMBRA_DEFER(kOle32, CoWaitForMultipleHandles, Hresult);
NIMBRA_DEFER(kOle32, StringFromCLSID, HresultAndNull);
NIMBRA_DEFER(kShell32, SHCreateDirectory, ErrorNumber<int>);
NIMBRA_DEFER(kShell32, SHGetFolderPathW, Hresult);
NIMBRA_DEFER(kShlwapi, PathIsDirectoryEmptyW, Zero<BOOL>);
NIMBRA_DEFER(kShlwapi, SHCreateStreamOnFileW, HresultAndNull);
// NOLINTEND(bugprone-reserved-identifier)

// Its header does not say that it is imported: it is called by its name.
HRESULT WINAPI QISearch(void* object, LPCQITAB table, REFIID id, void** result) {
  return NIMBRA_STAND_IN(kShlwapi, QISearch, HresultAndNull)(object, table, id, result);
}
}  // extern "C"

}  // namespace corvdrive::cloud_filter
