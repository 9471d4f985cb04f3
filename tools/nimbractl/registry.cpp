#include "registry.h"

#include <utility>

#include "owners.h"

namespace nimbractl {
namespace {

// A name of a key has at most 255 characters, one of a value 16383.
constexpr DWORD kNameSize = 16384;

template <class Enumerate>
std::vector<std::wstring> Names(HKEY root, const std::wstring& key, const Enumerate& enumerate) {
  std::vector<std::wstring> names;
  HKEY handle = nullptr;
  if (RegOpenKeyExW(root, key.c_str(), 0, KEY_READ, &handle) != ERROR_SUCCESS) return names;
  const UniqueKey owner(handle);
  for (DWORD at = 0;; ++at) {
    std::wstring name(kNameSize, L'\0');
    DWORD length = kNameSize;
    if (enumerate(handle, at, name.data(), &length) != ERROR_SUCCESS) return names;
    name.resize(length);
    names.push_back(std::move(name));
  }
}

}  // namespace

std::vector<std::wstring> SubkeysOf(HKEY root, const std::wstring& key) {
  return Names(root, key, [](HKEY handle, DWORD at, wchar_t* name, DWORD* length) {
    return RegEnumKeyExW(handle, at, name, length, nullptr, nullptr, nullptr, nullptr);
  });
}

std::vector<std::wstring> ValuesOf(HKEY root, const std::wstring& key) {
  return Names(root, key, [](HKEY handle, DWORD at, wchar_t* name, DWORD* length) {
    return RegEnumValueW(handle, at, name, length, nullptr, nullptr, nullptr, nullptr);
  });
}

std::optional<std::wstring> ReadText(HKEY root, const std::wstring& key,
                                     const std::wstring& value) {
  DWORD size = 0;
  constexpr DWORD kText = RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND;
  auto error = RegGetValueW(root, key.c_str(), value.c_str(), kText, nullptr, nullptr, &size);
  std::wstring text;
  while (error == ERROR_SUCCESS || error == ERROR_MORE_DATA) {
    text.resize(size / sizeof(wchar_t));
    error = RegGetValueW(root, key.c_str(), value.c_str(), kText, nullptr, text.data(), &size);
    if (error != ERROR_SUCCESS) continue;  // it has grown meanwhile, or is gone
    const auto end = text.find(L'\0');
    if (end != std::wstring::npos) text.resize(end);
    return text;
  }
  return std::nullopt;
}

}  // namespace nimbractl
