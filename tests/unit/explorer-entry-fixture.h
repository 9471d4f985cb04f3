#ifndef NIMBRA_TESTS_UNIT_EXPLORER_ENTRY_FIXTURE_H_
#define NIMBRA_TESTS_UNIT_EXPLORER_ENTRY_FIXTURE_H_

#include <windows.h>
// windows.h first.
#include <shlobj.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "nimbra/nimbra.h"
#include "tests/support/com-apartment.h"
#include "tests/support/nimbra-test.h"
#include "tests/support/registry-tree.h"
#include "tests/support/shell-folders.h"
#include "tests/support/snapshots.h"
#include "tests/support/temp-folder.h"
#include "win-cf/wrapping-folder-composer.h"

namespace nimbra_test {

inline constexpr wchar_t kClasses[] = LR"(Software\Classes\CLSID)";
inline constexpr wchar_t kNameSpace[] =
    LR"(Software\Microsoft\Windows\CurrentVersion\Explorer\Desktop\NameSpace)";
inline constexpr wchar_t kHiddenIcons[] =
    LR"(Software\Microsoft\Windows\CurrentVersion\Explorer\HideDesktopIcons\NewStartPanel)";

// Has the keys in which entries are written present for its lifetime, as a user's registry has
// them; takes away afterwards what was not there, with all that tests left in it.
class EntryParents {
 public:
  EntryParents() {
    for (const wchar_t* path : {kClasses, kNameSpace, kHiddenIcons}) {
      Make(path);
    }
  }
  ~EntryParents() {
    for (; !made_.empty(); made_.pop_back()) {
      RegDeleteTreeW(HKEY_CURRENT_USER, made_.back().c_str());
      RegDeleteKeyExW(HKEY_CURRENT_USER, made_.back().c_str(), KEY_WOW64_64KEY, 0);
    }
  }
  EntryParents(const EntryParents&) = delete;
  EntryParents& operator=(const EntryParents&) = delete;

 private:
  void Make(const std::wstring& path) {
    for (std::size_t end = path.find(L'\\'); end != std::wstring::npos;
         end = path.find(L'\\', end + 1)) {
      MakeOne(path.substr(0, end));
    }
    MakeOne(path);
  }
  void MakeOne(const std::wstring& path) {
    HKEY key = nullptr;
    DWORD disposition = 0;
    RegCreateKeyExW(HKEY_CURRENT_USER, path.c_str(), 0, nullptr, 0, KEY_WRITE | KEY_WOW64_64KEY,
                    nullptr, &key, &disposition);
    RegCloseKey(key);
    if (disposition == REG_CREATED_NEW_KEY) {
      made_.push_back(path);
    }
  }

  std::vector<std::wstring> made_;
};

// A class identifier that no other program uses: each call gives another one.
inline std::string NextClsid() {
  static unsigned next = 0;
  char text[40];
  std::snprintf(text, sizeof text, "{7B1D0E52-%04lX-4F08-9C61-%012X}",
                GetCurrentProcessId() & 0xFFFF, ++next);
  return text;
}

// The registry's traces of one entry, removed at the object's end.
class EntryKeys {
 public:
  explicit EntryKeys(const std::string& clsid)
      : clsid_(Wide(clsid)),
        classKey(HKEY_CURRENT_USER, std::wstring(kClasses) + L"\\" + clsid_),
        nameSpaceKey(HKEY_CURRENT_USER, std::wstring(kNameSpace) + L"\\" + clsid_) {}
  ~EntryKeys() { RegDeleteKeyValueW(HKEY_CURRENT_USER, kHiddenIcons, clsid_.c_str()); }
  EntryKeys(const EntryKeys&) = delete;
  EntryKeys& operator=(const EntryKeys&) = delete;

  bool IsHidden() const {
    DWORD value = 0;
    DWORD size = sizeof value;
    return RegGetValueW(HKEY_CURRENT_USER, kHiddenIcons, clsid_.c_str(), RRF_RT_REG_DWORD, nullptr,
                        &value, &size) == ERROR_SUCCESS &&
           value == 1;
  }

 private:
  const std::wstring clsid_;

 public:
  const RegistryTree classKey;
  const RegistryTree nameSpaceKey;
};

// The arguments of a registration.
struct EntryArguments {
  std::string root = R"(C:\Users\me\My Files)";
  std::string clsid;
  std::uint64_t systemFolder = 3;
  std::string displayName = "NAS1";
  std::string shareName = "home";
  std::string remotePath = "/";
};

inline CORVWinCFStatus Register(const EntryArguments& entry) {
  return CORVWinCFSyncEngineRegister(entry.root.c_str(), entry.clsid.c_str(), entry.systemFolder,
                                     entry.displayName.c_str(), entry.shareName.c_str(),
                                     entry.remotePath.c_str());
}

inline CORVWinCFStatus Unregister(const EntryArguments& entry) {
  return CORVWinCFSyncEngineUnregister(entry.root.c_str(), entry.clsid.c_str(), entry.systemFolder,
                                       entry.displayName.c_str(), entry.shareName.c_str(),
                                       entry.remotePath.c_str());
}

inline bool IsFile(const std::string& path) {
  const DWORD attributes = GetFileAttributesW(Wide(path).c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

inline bool IsFolder(const std::string& path) {
  const DWORD attributes = GetFileAttributesW(Wide(path).c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

// An installed client whose data folder is the test's own.
class WrappingFolderFixture : public NimbraTest {
 protected:
  WrappingFolderFixture() {
    folders_.Set(CSIDL_LOCAL_APPDATA, appData_.Path());
    folders_.Set(CSIDL_PROGRAM_FILESX86, L"C:\\Program Files (x86)");
  }

  std::string FolderPath(std::uint64_t number = 3) const {
    return appData_.Item("CorvaneDrive\\SystemFolders\\" + std::to_string(number));
  }
  std::string ShortcutPath(const std::string& name) const { return FolderPath() + "\\" + name; }
  std::string UiProgram() const {
    return appData_.Item(R"(CorvaneDrive\CorvaneDrive.app\bin\cloud-drive-ui.exe)");
  }
  // The names of what the folder holds, in order.
  std::vector<std::string> FolderContent() const {
    std::vector<std::string> names;
    for (const auto& [name, content] : FolderSnapshot(Wide(FolderPath()))) {
      names.push_back(Narrow(name));
    }
    return names;
  }

  static corvdrive::cloud_filter::WrappingFolderComposer Composer(const std::string& share = "home",
                                                                  const std::string& path = "/",
                                                                  std::uint64_t number = 3) {
    return {number, "NAS1", share, path};
  }

  const ComApartment com_{COINIT_MULTITHREADED};
  const TempFolder appData_;
  ShellFolders folders_;
};

// The same with the registry's part.
class ExplorerEntryFixture : public WrappingFolderFixture {
 protected:
  EntryArguments Entry() const {
    EntryArguments entry;
    entry.clsid = clsid_;
    return entry;
  }
  EntryArguments Entry(const std::string& root, const std::string& remotePath) const {
    EntryArguments entry = Entry();
    entry.root = root;
    entry.remotePath = remotePath;
    return entry;
  }

  const EntryParents parents_;
  const std::string clsid_ = NextClsid();
  const EntryKeys keys_{clsid_};
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_UNIT_EXPLORER_ENTRY_FIXTURE_H_
