#ifndef NIMBRA_TESTS_DLL_LOADED_LIBRARY_H_
#define NIMBRA_TESTS_DLL_LOADED_LIBRARY_H_

#include <windows.h>

#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "nimbra/nimbra.h"
#include "tests/support/import-hooks.h"

// One of the library's functions, with the type that its header declares.
#define NIMBRA_FUNCTION(library, name) (library).Get<decltype(&::name)>(#name)

namespace nimbra_test {

// The library under test, loaded for the object's lifetime.
class LoadedLibrary {
 public:
  LoadedLibrary();
  ~LoadedLibrary();
  LoadedLibrary(const LoadedLibrary&) = delete;
  LoadedLibrary& operator=(const LoadedLibrary&) = delete;

  HMODULE Module() const { return module_; }

  template <typename Function>
  Function Get(const char* name) const {
    const auto address = reinterpret_cast<void*>(GetProcAddress(module_, name));
    if (address == nullptr) {
      throw std::runtime_error(std::string("not exported: ") + name);
    }
    return reinterpret_cast<Function>(address);
  }

  // Gives the library back before the end.
  void Free();

  // Whether an image of the library's name is in the process.
  static bool IsLoaded();

 private:
  HMODULE module_;
};

// Collects the lines that a loaded image writes to the debugger output, in UTF-8.
class ImageLog {
 public:
  explicit ImageLog(HMODULE image);
  ~ImageLog();
  ImageLog(const ImageLog&) = delete;
  ImageLog& operator=(const ImageLog&) = delete;

  std::vector<std::string> Lines() const;
  // The lines' messages: what stands between the frame and the line's end.
  std::vector<std::string> Messages() const;
  void Clear();

 private:
  static void WINAPI Take(LPCWSTR text);

  static ImageLog* current_;
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  ScopedImportHook hook_;
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_DLL_LOADED_LIBRARY_H_
