#include "win-cf/wrapping-folder-composer.h"

#include <windows.h>

#include <shlobj.h>
#include <wrl/client.h>

#include <iterator>
#include <utility>

#include "common/debug-log.h"
#include "common/installation.h"
#include "common/owners.h"
#include "common/text.h"
#include "win-cf/shortcut-name.h"

namespace corvdrive::cloud_filter {
namespace {

using Microsoft::WRL::ComPtr;

constexpr char kSource[] = R"(lib\cloud-filter\win-cf\wrapping-folder-composer)";

constexpr int kIconIndex = 3;
constexpr DWORD kFolderAttributes =
    FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_NOT_CONTENT_INDEXED;
static_assert(kFolderAttributes == 0x2006);

ComPtr<IShellLinkW> NewShellLink() {
  ComPtr<IShellLinkW> link;
  static_cast<void>(CoCreateInstance(CLSID_ShellLink, nullptr, CLSCTX_INPROC_SERVER,
                                     IID_PPV_ARGS(link.GetAddressOf())));
  return link;
}

bool SaveShortcut(const std::string& target, const std::wstring& shortcutPath) {
  const ComPtr<IShellLinkW> link = NewShellLink();
  const std::wstring wideTarget = Utf8ToWide(target);
  // Without memory for its target a shortcut would lead nowhere.
  if (!link || (wideTarget.empty() && !target.empty())) {
    return false;
  }
  const std::wstring description =
      Utf8ToWide(std::string(kProductDisplayName) + " Client: " + target);
  static_cast<void>(link->SetPath(wideTarget.c_str()));
  static_cast<void>(link->SetDescription(description.c_str()));
  static_cast<void>(link->SetIconLocation(Utf8ToWide(GetCloudDriveUiPath()).c_str(), kIconIndex));
  ComPtr<IPersistFile> file;
  return SUCCEEDED(link.As(&file)) && SUCCEEDED(file->Save(shortcutPath.c_str(), TRUE));
}

bool Exists(const std::wstring& path) {
  WIN32_FIND_DATAW data;
  const UniqueFind search(FindFirstFileW(path.c_str(), &data));
  return search.IsValid();
}

// The path with every component in its long form; empty when it cannot be had or is too long.
std::wstring LongPath(const wchar_t* path) {
  wchar_t longPath[MAX_PATH] = {};
  const DWORD length = GetLongPathNameW(path, longPath, MAX_PATH);
  return length < MAX_PATH ? std::wstring(longPath, length) : std::wstring();
}

}  // namespace

WrappingFolderComposer::WrappingFolderComposer(std::uint64_t folderId, std::string name,
                                               std::string share, std::string path)
    : systemFolderId(folderId),
      displayName(std::move(name)),
      shareName(std::move(share)),
      remotePath(std::move(path)) {}

std::string WrappingFolderComposer::GetWrappingFolderPath() const {
  const std::string appData = GetLocalAppDataDir();
  if (appData.empty()) {
    Log(kSource, __LINE__, "Failed to get corvane drive appdata path");
    return {};
  }
  return appData + R"(\SystemFolders\)" + std::to_string(systemFolderId);
}

bool WrappingFolderComposer::CreateFolder() const {
  const std::string path = GetWrappingFolderPath();
  if (path.empty()) {
    return false;
  }
  const std::wstring widePath = Utf8ToWide(path);
  const int code = SHCreateDirectory(nullptr, widePath.c_str());
  if (code != ERROR_SUCCESS && code != ERROR_ALREADY_EXISTS) {
    Log(kSource, __LINE__, "Failed to create folder: ", path, ErrorNumber(GetLastError()));
    return false;
  }
  if (!SetFileAttributesW(widePath.c_str(), kFolderAttributes)) {
    Log(kSource, __LINE__, "Failed to set file attr, ec: ", ErrorNumber(GetLastError()));
  }
  return true;
}

std::string WrappingFolderComposer::GetShortcutBaseName() const {
  return ShortcutBaseName(shareName, remotePath);
}

std::wstring WrappingFolderComposer::GetUniqueShortcutPath() const {
  const std::wstring folder = Utf8ToWide(GetWrappingFolderPath());
  if (folder.empty()) {
    return {};
  }
  const std::wstring base = Utf8ToWide(GetShortcutBaseName());
  int n = 0;
  while (Exists(ShortcutPath(folder, base, n))) {
    ++n;
  }
  return ShortcutPath(folder, base, n);
}

bool WrappingFolderComposer::CreateShortcut(const std::string& syncRootPath) const {
  const std::wstring shortcutPath = GetUniqueShortcutPath();
  if (shortcutPath.empty() || !SaveShortcut(syncRootPath, shortcutPath)) {
    Log(kSource, __LINE__, "Failed to create shortcut: ", WideToUtf8(shortcutPath));
    return false;
  }
  Log(kSource, __LINE__, "Success to create shortcut: ", WideToUtf8(shortcutPath));
  return true;
}

std::wstring WrappingFolderComposer::ResolveShortcut(const std::wstring& shortcutPath) {
  const ComPtr<IShellLinkW> link = NewShellLink();
  ComPtr<IPersistFile> file;
  if (!link || FAILED(link.As(&file)) || FAILED(file->Load(shortcutPath.c_str(), STGM_READ))) {
    return {};
  }
  Log(kSource, __LINE__, "Resolving shortcut: ", WideToUtf8(shortcutPath));
  if (FAILED(link->Resolve(nullptr, SLR_NO_UI))) {
    return {};
  }
  wchar_t shortPath[MAX_PATH] = {};
  WIN32_FIND_DATAW data;
  static_cast<void>(link->GetPath(shortPath, MAX_PATH, &data, SLGP_SHORTPATH));
  std::wstring target = LongPath(shortPath);
  Log(kSource, __LINE__, "Result: ", WideToUtf8(target));
  return target;
}

std::wstring WrappingFolderComposer::FindShortcutForSyncRoot(
    const std::string& syncRootPath) const {
  const std::wstring folder = Utf8ToWide(GetWrappingFolderPath());
  WIN32_FIND_DATAW data;
  // Without a folder the pattern would name the root of the current drive.
  const UniqueFind search(folder.empty() ? INVALID_HANDLE_VALUE
                                         : FindFirstFileW((folder + L"\\*").c_str(), &data));
  if (!search.IsValid()) {
    Log(kSource, __LINE__, "Failed to enum shortcuts under wrapping folder");
    return {};
  }
  const std::wstring wanted = Utf8ToWide(syncRootPath);
  do {
    std::wstring candidate = folder + L"\\" + data.cFileName;
    const std::wstring target = ResolveShortcut(candidate);
    // What leads nowhere is no shortcut to a root without a path.
    if (!target.empty() && target == wanted) {
      return candidate;
    }
  } while (FindNextFileW(search.Get(), &data));
  return {};
}

bool WrappingFolderComposer::RemoveShortcut(const std::string& syncRootPath) const {
  const std::wstring shortcut = FindShortcutForSyncRoot(syncRootPath);
  if (shortcut.empty()) {
    Log(kSource, __LINE__,
        "Failed to find shortcut point to sync root under system folder, sync root: ",
        syncRootPath);
  } else if (!DeleteFileW(shortcut.c_str())) {
    Log(kSource, __LINE__, "Failed to remove shortcut by deletefile: ", WideToUtf8(shortcut));
  }
  return true;
}

}  // namespace corvdrive::cloud_filter
