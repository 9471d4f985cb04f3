#include "tests/support/registry-tree.h"

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace nimbra_test {
namespace {

struct CloseKey {
  void operator()(HKEY key) const { RegCloseKey(key); }
};
using OpenKey = std::unique_ptr<std::remove_pointer_t<HKEY>, CloseKey>;

constexpr REGSAM kView = KEY_WOW64_64KEY;

OpenKey Open(HKEY root, const std::wstring& path, REGSAM access) {
  HKEY key = nullptr;
  return OpenKey(
      RegOpenKeyExW(root, path.c_str(), 0, access | kView, &key) == ERROR_SUCCESS ? key : nullptr);
}

OpenKey Create(HKEY root, const std::wstring& path) {
  HKEY key = nullptr;
  if (RegCreateKeyExW(root, path.c_str(), 0, nullptr, 0, KEY_WRITE | kView, nullptr, &key,
                      nullptr) != ERROR_SUCCESS) {
    throw std::runtime_error("cannot create a registry key");
  }
  return OpenKey(key);
}

template <typename Enumerate>
std::vector<std::wstring> Names(Enumerate enumerate) {
  std::vector<std::wstring> names;
  std::wstring buffer(16384, L'\0');
  for (DWORD index = 0;; ++index) {
    auto length = static_cast<DWORD>(buffer.size());
    if (enumerate(index, buffer.data(), &length) != ERROR_SUCCESS) {
      break;
    }
    names.emplace_back(buffer.data(), length);
  }
  std::sort(names.begin(), names.end());
  return names;
}

void RemoveTree(HKEY root, const std::wstring& path) {
  RegDeleteTreeW(root, path.c_str());
  RegDeleteKeyExW(root, path.c_str(), kView, 0);
}

}  // namespace

StoredValue StoredText(DWORD type, std::wstring_view text) {
  const std::wstring terminated(text);
  const auto size = (terminated.size() + 1) * sizeof(wchar_t);
  return {type, std::string(reinterpret_cast<const char*>(terminated.c_str()), size)};
}

StoredValue StoredNumber(DWORD number) {
  return {REG_DWORD, std::string(reinterpret_cast<const char*>(&number), sizeof number)};
}

void PrintTo(const StoredValue& value, std::ostream* out) {
  *out << "type " << value.type << ", " << value.bytes.size() << " bytes: ";
  for (const char byte : value.bytes) {
    if (byte >= ' ' && byte <= '~') {
      *out << byte;
    } else if (byte != '\0') {
      *out << "\\x" << std::hex << static_cast<int>(static_cast<unsigned char>(byte)) << std::dec;
    }
  }
}

RegistryTree::RegistryTree(HKEY root, std::wstring path) : root_(root), path_(std::move(path)) {
  RemoveTree(root_, path_);
}

RegistryTree::~RegistryTree() { RemoveTree(root_, path_); }

bool RegistryTree::Exists(std::wstring_view subkey) const {
  return Open(root_, FullPath(subkey), KEY_QUERY_VALUE) != nullptr;
}

std::optional<StoredValue> RegistryTree::Value(std::wstring_view subkey,
                                               const std::wstring& name) const {
  const OpenKey key = Open(root_, FullPath(subkey), KEY_QUERY_VALUE);
  StoredValue value;
  DWORD size = 0;
  if (!key || RegQueryValueExW(key.get(), name.c_str(), nullptr, &value.type, nullptr, &size) !=
                  ERROR_SUCCESS) {
    return std::nullopt;
  }
  value.bytes.resize(size);
  if (RegQueryValueExW(key.get(), name.c_str(), nullptr, &value.type,
                       reinterpret_cast<BYTE*>(value.bytes.data()), &size) != ERROR_SUCCESS) {
    return std::nullopt;
  }
  return value;
}

std::vector<std::wstring> RegistryTree::ValueNames(std::wstring_view subkey) const {
  const OpenKey key = Open(root_, FullPath(subkey), KEY_QUERY_VALUE);
  return Names([&](DWORD index, wchar_t* name, DWORD* length) {
    return RegEnumValueW(key.get(), index, name, length, nullptr, nullptr, nullptr, nullptr);
  });
}

std::vector<std::wstring> RegistryTree::SubkeyNames(std::wstring_view subkey) const {
  const OpenKey key = Open(root_, FullPath(subkey), KEY_ENUMERATE_SUB_KEYS);
  return Names([&](DWORD index, wchar_t* name, DWORD* length) {
    return RegEnumKeyExW(key.get(), index, name, length, nullptr, nullptr, nullptr, nullptr);
  });
}

void RegistryTree::MakeKey(std::wstring_view subkey) const { Create(root_, FullPath(subkey)); }

void RegistryTree::SetNumber(std::wstring_view subkey, const std::wstring& name,
                             DWORD number) const {
  const OpenKey key = Create(root_, FullPath(subkey));
  if (RegSetValueExW(key.get(), name.c_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number),
                     sizeof number) != ERROR_SUCCESS) {
    throw std::runtime_error("cannot set a registry value");
  }
}

std::wstring RegistryTree::FullPath(std::wstring_view subkey) const {
  return subkey.empty() ? path_ : path_ + L"\\" + std::wstring(subkey);
}

}  // namespace nimbra_test
