#include "tests/dll/image.h"

#include <cstdint>

namespace nimbra_test {
namespace {

template <typename T>
T* At(HMODULE image, DWORD address) {
  return reinterpret_cast<T*>(reinterpret_cast<std::uint8_t*>(image) + address);
}

const IMAGE_DATA_DIRECTORY& Directory(HMODULE image, std::size_t which) {
  const auto* const dos = At<IMAGE_DOS_HEADER>(image, 0);
  const auto* const headers = At<IMAGE_NT_HEADERS>(image, static_cast<DWORD>(dos->e_lfanew));
  return headers->OptionalHeader.DataDirectory[which];
}

}  // namespace

std::vector<std::string> ExportNames(HMODULE image) {
  std::vector<std::string> names;
  const IMAGE_DATA_DIRECTORY& directory = Directory(image, IMAGE_DIRECTORY_ENTRY_EXPORT);
  if (directory.Size != 0) {
    const auto* const table = At<IMAGE_EXPORT_DIRECTORY>(image, directory.VirtualAddress);
    const auto* const addresses = At<DWORD>(image, table->AddressOfNames);
    for (DWORD i = 0; i < table->NumberOfNames; ++i) {
      names.emplace_back(At<char>(image, addresses[i]));
    }
  }
  return names;
}

std::size_t NamelessExportCount(HMODULE image) {
  const IMAGE_DATA_DIRECTORY& directory = Directory(image, IMAGE_DIRECTORY_ENTRY_EXPORT);
  const auto* const table = At<IMAGE_EXPORT_DIRECTORY>(image, directory.VirtualAddress);
  return directory.Size == 0 ? 0 : table->NumberOfFunctions - table->NumberOfNames;
}

std::vector<ImportSlot> ImportSlots(HMODULE image) {
  std::vector<ImportSlot> slots;
  const IMAGE_DATA_DIRECTORY& directory = Directory(image, IMAGE_DIRECTORY_ENTRY_IMPORT);
  if (directory.Size == 0) {
    return slots;
  }
  const auto* library = At<IMAGE_IMPORT_DESCRIPTOR>(image, directory.VirtualAddress);
  for (; library->Name != 0; ++library) {
    const auto* name = At<IMAGE_THUNK_DATA>(image, library->OriginalFirstThunk);
    auto* slot = At<void*>(image, library->FirstThunk);
    for (; name->u1.AddressOfData != 0; ++name, ++slot) {
      const bool byOrdinal = IMAGE_SNAP_BY_ORDINAL(name->u1.Ordinal);
      const auto address = static_cast<DWORD>(name->u1.AddressOfData);
      slots.push_back({At<char>(image, library->Name),
                       byOrdinal ? "" : At<IMAGE_IMPORT_BY_NAME>(image, address)->Name, slot});
    }
  }
  return slots;
}

std::size_t DelayedImportSize(HMODULE image) {
  return Directory(image, IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT).Size;
}

}  // namespace nimbra_test
