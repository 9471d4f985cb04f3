#include "tests/support/snapshots.h"

#include <windows.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <type_traits>

#include "tests/support/temp-folder.h"

namespace nimbra_test {
namespace {

struct CloseKey {
  void operator()(HKEY key) const { RegCloseKey(key); }
};
using OpenKey = std::unique_ptr<std::remove_pointer_t<HKEY>, CloseKey>;

struct CloseFile {
  void operator()(HANDLE file) const { CloseHandle(file); }
};
using OpenFile = std::unique_ptr<std::remove_pointer_t<HANDLE>, CloseFile>;

constexpr DWORD kLongestName = 16384;

void AddValues(Snapshot& snapshot, HKEY key, const std::wstring& path) {
  std::wstring name(kLongestName, L'\0');
  for (DWORD index = 0;; ++index) {
    DWORD length = kLongestName;
    DWORD type = 0;
    DWORD size = 0;
    if (RegEnumValueW(key, index, name.data(), &length, nullptr, &type, nullptr, &size) !=
        ERROR_SUCCESS) {
      return;
    }
    std::string content(size, '\0');
    RegQueryValueExW(key, name.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(content.data()),
                     &size);
    snapshot[path + L"|" + name.substr(0, length)] = std::to_string(type) + ":" + content;
  }
}

void AddKey(Snapshot& snapshot, HKEY parent, const std::wstring& name, const std::wstring& path) {
  HKEY opened = nullptr;
  if (RegOpenKeyExW(parent, name.c_str(), 0, KEY_READ | KEY_WOW64_64KEY, &opened) !=
      ERROR_SUCCESS) {
    snapshot[path] = "cannot be read";
    return;
  }
  const OpenKey key(opened);
  snapshot[path];
  AddValues(snapshot, opened, path);
  std::wstring subkey(kLongestName, L'\0');
  for (DWORD index = 0;; ++index) {
    DWORD length = kLongestName;
    if (RegEnumKeyExW(opened, index, subkey.data(), &length, nullptr, nullptr, nullptr, nullptr) !=
        ERROR_SUCCESS) {
      return;
    }
    const std::wstring found = subkey.substr(0, length);
    AddKey(snapshot, opened, found, path.empty() ? found : path + L"\\" + found);
  }
}

void AddFolder(Snapshot& snapshot, const std::wstring& folder, const std::wstring& path) {
  WIN32_FIND_DATAW found;
  const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) {
    return;
  }
  do {
    const std::wstring name = found.cFileName;
    if (name == L"." || name == L"..") {
      continue;
    }
    const std::wstring item = path.empty() ? name : path + L"\\" + name;
    std::string& content = snapshot[item];
    content = std::to_string(found.dwFileAttributes) + ":";
    if ((found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
      continue;
    }
    if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
      AddFolder(snapshot, folder + L"\\" + name, item);
    } else {
      content += FileContent(folder + L"\\" + name);
    }
  } while (FindNextFileW(search, &found));
  FindClose(search);
}

}  // namespace

std::string FileContent(const std::wstring& path) {
  const HANDLE opened = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                    nullptr, OPEN_EXISTING, 0, nullptr);
  if (opened == INVALID_HANDLE_VALUE) {
    throw std::runtime_error("a file cannot be read: " + Narrow(path));
  }
  const OpenFile file(opened);
  std::string content(GetFileSize(opened, nullptr), '\0');
  DWORD size = 0;
  if (!ReadFile(opened, content.data(), static_cast<DWORD>(content.size()), &size, nullptr)) {
    throw std::runtime_error("a file cannot be read: " + Narrow(path));
  }
  return content;
}

Snapshot RegistrySnapshot() {
  Snapshot snapshot;
  AddKey(snapshot, HKEY_CURRENT_USER, L"", L"");
  if (snapshot.size() < 2) {
    throw std::runtime_error("the registry cannot be read");
  }
  return snapshot;
}

Snapshot FolderSnapshot(const std::wstring& folder) {
  Snapshot snapshot;
  AddFolder(snapshot, folder, L"");
  return snapshot;
}

std::vector<std::string> Changes(const Snapshot& before, const Snapshot& after) {
  std::vector<std::string> changes;
  for (const auto& [name, content] : before) {
    const auto now = after.find(name);
    if (now == after.end()) {
      changes.push_back("- " + Narrow(name));
    } else if (now->second != content) {
      changes.push_back("~ " + Narrow(name));
    }
  }
  for (const auto& [name, content] : after) {
    if (!before.contains(name)) {
      changes.push_back("+ " + Narrow(name));
    }
  }
  std::sort(changes.begin(), changes.end());
  return changes;
}

}  // namespace nimbra_test
