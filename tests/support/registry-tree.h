#ifndef NIMBRA_TESTS_SUPPORT_REGISTRY_TREE_H_
#define NIMBRA_TESTS_SUPPORT_REGISTRY_TREE_H_

#include <windows.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace nimbra_test {

// A registry value as it is stored: its type and its bytes.
struct StoredValue {
  DWORD type = REG_NONE;
  std::string bytes;

  friend bool operator==(const StoredValue&, const StoredValue&) = default;
};

// The bytes that a text has in the registry, its terminator included.
StoredValue StoredText(DWORD type, std::wstring_view text);
StoredValue StoredNumber(DWORD number);
void PrintTo(const StoredValue& value, std::ostream* out);

// A registry key (not held open) whose whole tree is removed when the object is made and when it
// ends.
class RegistryTree {
 public:
  RegistryTree(HKEY root, std::wstring path);
  ~RegistryTree();
  RegistryTree(const RegistryTree&) = delete;
  RegistryTree& operator=(const RegistryTree&) = delete;

  const std::wstring& Path() const { return path_; }

  // Below, `subkey` is relative to the tree; empty means its top. What is absent reads as nothing.
  bool Exists(std::wstring_view subkey = L"") const;
  std::optional<StoredValue> Value(std::wstring_view subkey, const std::wstring& name) const;
  // In alphabetical order.
  std::vector<std::wstring> ValueNames(std::wstring_view subkey = L"") const;
  std::vector<std::wstring> SubkeyNames(std::wstring_view subkey = L"") const;

  void MakeKey(std::wstring_view subkey) const;
  void SetNumber(std::wstring_view subkey, const std::wstring& name, DWORD number) const;

 private:
  std::wstring FullPath(std::wstring_view subkey) const;

  HKEY root_;
  std::wstring path_;
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_REGISTRY_TREE_H_
