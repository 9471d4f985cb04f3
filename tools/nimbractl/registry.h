#ifndef NIMBRA_NIMBRACTL_REGISTRY_H_
#define NIMBRA_NIMBRACTL_REGISTRY_H_

// Reading the registry.

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

namespace nimbractl {

// Both are empty for a key that is missing or may not be read.
[[nodiscard]] std::vector<std::wstring> SubkeysOf(HKEY root, const std::wstring& key);
[[nodiscard]] std::vector<std::wstring> ValuesOf(HKEY root, const std::wstring& key);

// A text value; nothing if it is missing or no text.
[[nodiscard]] std::optional<std::wstring> ReadText(HKEY root, const std::wstring& key,
                                                   const std::wstring& value);

}  // namespace nimbractl

#endif
