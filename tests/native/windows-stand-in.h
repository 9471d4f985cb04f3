#ifndef NIMBRA_TESTS_NATIVE_WINDOWS_STAND_IN_H_
#define NIMBRA_TESTS_NATIVE_WINDOWS_STAND_IN_H_

#include <windows.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace nimbra_native {

// One value that was written to the registry; texts are compared as UTF-16.
struct RegistryValue {
  std::u16string key;
  std::u16string name;
  DWORD type;
  std::vector<BYTE> data;
};

// What the functions of the stand-in's windows.h give, and what was given to them. A program has
// one; tests begin with a fresh one (`Windows() = {}`). Used by one thread.
struct WindowsState {
  std::vector<std::u16string> debugLines;
  std::map<int, std::u16string> folders;  // by CSIDL; others fail
  std::u16string userName;                // empty: fails
  std::u16string sid;                     // empty: no such account
  std::vector<RegistryValue> values;
  std::vector<std::u16string> openedKeys;
  std::vector<std::pair<std::u16string, std::u16string>> deletedTrees;
  std::u16string fileOpened;  // the last path
  bool filesOpen = true;      // whether opening a file succeeds
  std::string fileContent;
  std::size_t filePosition = 0;
  int openHandles = 0;
  // UTF-8 that ends within a sequence loses its terminator in conversion, as under Wine 8.
  bool swallowsTerminator = false;
};

WindowsState& Windows();

// Both count in 16-bit units; printable, unlike wide text.
inline std::u16string Units(const wchar_t* text) {
  std::u16string units;
  while (*text != 0) units += static_cast<char16_t>(*text++);
  return units;
}
inline std::u16string Units(const std::wstring& text) { return {text.begin(), text.end()}; }
inline std::wstring Wide(const std::u16string& units) { return {units.begin(), units.end()}; }

}  // namespace nimbra_native

#endif
