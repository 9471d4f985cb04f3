#include "win-cf/sync-engine.h"

#include <windows.h>

#include <objbase.h>
#include <shlwapi.h>

#include <utility>

#include "common/debug-log.h"
#include "common/installation.h"
#include "common/owners.h"
#include "common/text.h"
#include "win-cf/registry-key.h"

namespace corvdrive::cloud_filter {
namespace {

constexpr char kSource[] = R"(lib\cloud-filter\win-cf\sync-engine)";

constexpr char kClassKeyRoot[] = R"(Software\Classes\CLSID\)";
// The shell's own folder that shows another one.
constexpr char kDelegateFolderClsid[] = "{0E5AAE11-A475-4c5b-AB00-C66DE400274E}";

constexpr DWORD kPinned = 1;
constexpr DWORD kSortOrder = 0x42;
constexpr DWORD kTargetAttributes = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_DIRECTORY;
constexpr DWORD kFolderValueFlags = 0x28;
constexpr DWORD kShellFolderAttributes = 0xF080004D;
constexpr DWORD kHidden = 1;

std::string NameSpaceKey() { return std::string(kExplorerKeyRoot) + R"(Desktop\NameSpace)"; }
std::string HiddenIconsKey() {
  return std::string(kExplorerKeyRoot) + R"(HideDesktopIcons\NewStartPanel)";
}

// Writes a value of a key of the current user. A failure is logged by the key and stops nothing.
template <typename Value>
void Write(const std::string& key, const std::string& name, const Value& value) {
  static_cast<void>(RegistryKey(HKEY_CURRENT_USER, key).SetValue(name, value));
}

void WriteNames(const std::string& key, const std::string& displayName) {
  RegistryKey entry(HKEY_CURRENT_USER, key);
  static_cast<void>(entry.SetValue("", std::string(kProductDisplayName) + " - " + displayName));
  static_cast<void>(entry.SetValue("System.IsPinnedToNameSpaceTree", kPinned));
  static_cast<void>(entry.SetValue("SortOrderIndex", kSortOrder));
}

void WriteTarget(const std::string& key, const std::string& folder) {
  RegistryKey bag(HKEY_CURRENT_USER, key);
  static_cast<void>(bag.SetValue("Attributes", kTargetAttributes));
  static_cast<void>(bag.SetValue("TargetFolderPath", folder));
}

void WriteShellFolder(const std::string& key) {
  RegistryKey shellFolder(HKEY_CURRENT_USER, key);
  static_cast<void>(shellFolder.SetValue("FolderValueFlags", kFolderValueFlags));
  static_cast<void>(shellFolder.SetValue("Attributes", kShellFolderAttributes));
}

}  // namespace

SyncEngineWinCF::SyncEngineWinCF(std::string rootPath, std::string entryClsid,
                                 WrappingFolderComposer folder)
    : syncRootPath(std::move(rootPath)),
      clsid(std::move(entryClsid)),
      composer(std::move(folder)) {}

bool SyncEngineWinCF::Register() {
  return composer.CreateFolder() && composer.CreateShortcut(syncRootPath) && RegisterNamespace();
}

bool SyncEngineWinCF::Unregister() {
  // One entry serves all sync roots with a shortcut in the folder; it goes with the last.
  return composer.RemoveShortcut(syncRootPath) &&
         (!PathIsDirectoryEmptyW(Utf8ToWide(composer.GetWrappingFolderPath()).c_str()) ||
          UnregisterNamespace(clsid));
}

bool SyncEngineWinCF::RegisterNamespace() const {
  const std::string folder = composer.GetWrappingFolderPath();
  Log(kSource, __LINE__, "Generated clsid: ", clsid);
  if (folder.empty()) {
    return false;
  }
  const std::string classKey = kClassKeyRoot + clsid;
  WriteNames(classKey, composer.GetDisplayName());
  const std::string launcher = GetLauncherPath();
  if (launcher.empty()) {
    return false;
  }
  Write(classKey + R"(\DefaultIcon)", "", launcher + ", 0");
  Write(classKey + R"(\InProcServer32)", "", R"(%SystemRoot%\system32\shell32.dll)");
  Write(classKey + R"(\Instance)", "CLSID", kDelegateFolderClsid);
  WriteTarget(classKey + R"(\Instance\InitPropertyBag)", folder);
  WriteShellFolder(classKey + R"(\ShellFolder)");
  // Unlike the name above, this one has no blanks around the hyphen.
  Write(NameSpaceKey() + "\\" + clsid, "",
        std::string(kProductDisplayName) + "-" + composer.GetDisplayName());
  Write(HiddenIconsKey(), clsid, kHidden);
  return true;
}

bool NamesAnEntry(const std::string& clsid) {
  return !clsid.empty() && clsid.find('\\') == std::string::npos;
}

bool UnregisterNamespace(const std::string& clsid) {
  if (!RegistryKey(HKEY_CURRENT_USER, kClassKeyRoot + clsid).DeleteTree("")) {
    return false;
  }
  if (!RegistryKey(HKEY_CURRENT_USER, NameSpaceKey()).DeleteTree(clsid)) {
    return false;
  }
  return RegistryKey(HKEY_CURRENT_USER, HiddenIconsKey()).DeleteValue(clsid);
}

std::string GenerateClsid() {
  GUID guid;
  if (FAILED(CoCreateGuid(&guid))) {
    Log(kSource, __LINE__, "Failed to gen uuid");
    return {};
  }
  wchar_t* text = nullptr;
  if (FAILED(StringFromCLSID(guid, &text))) {
    Log(kSource, __LINE__, "Failed to convert guid");
    return {};
  }
  const UniqueTaskText owner(text);
  return WideToUtf8(text);
}

}  // namespace corvdrive::cloud_filter
