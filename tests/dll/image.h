#ifndef NIMBRA_TESTS_DLL_IMAGE_H_
#define NIMBRA_TESTS_DLL_IMAGE_H_

#include <windows.h>

#include <string>
#include <vector>

namespace nimbra_test {

// What a loaded image's own tables say.

// The names of its exports, in the order of its table (alphabetical by byte).
std::vector<std::string> ExportNames(HMODULE image);

// Exports without a name.
std::size_t NamelessExportCount(HMODULE image);

struct ImportSlot {
  std::string library;
  // Empty for an import by ordinal.
  std::string function;
  void** slot;
};
std::vector<ImportSlot> ImportSlots(HMODULE image);

// The bytes of its directory of delayed imports.
std::size_t DelayedImportSize(HMODULE image);

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_DLL_IMAGE_H_
