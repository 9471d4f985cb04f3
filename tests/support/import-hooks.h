#ifndef NIMBRA_TESTS_SUPPORT_IMPORT_HOOKS_H_
#define NIMBRA_TESTS_SUPPORT_IMPORT_HOOKS_H_

#include <windows.h>

namespace nimbra_test {

// Replaces the import slot of a function in a loaded image (by default the running program) for the
// object's lifetime. Throws std::runtime_error when the image does not import the function, so that
// a test cannot watch a function that nobody could call.
class ScopedImportHook {
 public:
  ScopedImportHook(const char* function, void* replacement);
  ScopedImportHook(HMODULE image, const char* function, void* replacement);
  ~ScopedImportHook();
  ScopedImportHook(const ScopedImportHook&) = delete;
  ScopedImportHook& operator=(const ScopedImportHook&) = delete;

  // The function that the slot held.
  void* Original() const { return original_; }

 private:
  void** slot_;
  void* original_;
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_IMPORT_HOOKS_H_
