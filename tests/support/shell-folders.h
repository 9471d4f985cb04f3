#ifndef NIMBRA_TESTS_SUPPORT_SHELL_FOLDERS_H_
#define NIMBRA_TESTS_SUPPORT_SHELL_FOLDERS_H_

#include <windows.h>
// windows.h first.
#include <shlobj.h>

#include <cwchar>
#include <map>
#include <mutex>
#include <string>

#include "tests/support/import-double.h"

namespace nimbra_test {

// Says where the shell's folders are; the ones that nobody set are not there.
class ShellFolders {
 public:
  ShellFolders()
      : shell_([this](auto, HWND, int folder, HANDLE, DWORD, LPWSTR path) -> HRESULT {
          const std::lock_guard lock(mutex_);
          const auto found = folders_.find(folder);
          if (found == folders_.end()) {
            return E_FAIL;
          }
          std::wmemcpy(path, found->second.c_str(), found->second.size() + 1);
          return S_OK;
        }) {}

  void Set(int folder, const std::wstring& path) {
    const std::lock_guard lock(mutex_);
    folders_[folder] = path;
  }
  void Remove(int folder) {
    const std::lock_guard lock(mutex_);
    folders_.erase(folder);
  }

 private:
  std::mutex mutex_;
  std::map<int, std::wstring> folders_;
  ImportDouble<"SHGetFolderPathW", decltype(&::SHGetFolderPathW)> shell_;
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_SHELL_FOLDERS_H_
