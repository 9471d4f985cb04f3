#include "win-cf/registration.h"

#include <windows.h>

#include <sddl.h>

#include <vector>

#include "common/debug-log.h"
#include "common/installation.h"
#include "common/owners.h"
#include "common/text.h"
#include "win-cf/registry-key.h"
#include "win-cf/thumbnail-provider.h"

namespace corvdrive::cloud_filter {
namespace {

constexpr char kSource[] = R"(lib\cloud-filter\win-cf\sync-root)";

constexpr DWORD kShellFlags = 0x62;

// The account's SID in string form, or empty.
std::string LookUpSid(const std::string& account) {
  const WideText wideAccount(account);
  DWORD sidSize = 0;
  DWORD domainSize = 0;
  SID_NAME_USE use{};
  if (LookupAccountNameW(nullptr, wideAccount.Get(), nullptr, &sidSize, nullptr, &domainSize,
                         &use) ||
      GetLastError() != ERROR_INSUFFICIENT_BUFFER) {
    return {};
  }
  std::vector<BYTE> sid(sidSize);
  std::vector<wchar_t> domain(domainSize);
  if (!LookupAccountNameW(nullptr, wideAccount.Get(), sid.data(), &sidSize, domain.data(),
                          &domainSize, &use)) {
    return {};
  }
  wchar_t* text = nullptr;
  if (!ConvertSidToStringSidW(sid.data(), &text)) {
    return {};
  }
  const UniqueLocalText owner(text);
  return WideToUtf8(text);
}

std::string KeyName(const std::string& sid, const std::string& identity) {
  return std::string(kProviderName) + "!" + sid + "!" + identity;
}

std::string FolderName(const std::string& path) {
  const auto separator = path.rfind('\\');
  return separator == std::string::npos ? path : path.substr(separator + 1);
}

bool WriteIcon(RegistryKey& key) {
  const std::string launcher = GetLauncherPath();
  if (launcher.empty()) {
    Log(kSource, __LINE__, "registry failed Launcher bin path failed");
    return false;
  }
  if (!key.SetValue("IconResource", launcher + ", 0")) {
    Log(kSource, __LINE__, "registry failed IconResource");
    return false;
  }
  return true;
}

bool WriteDescription(RegistryKey& key, const std::string& displayName) {
  if (!key.SetValue("DisplayNameResource", displayName)) {
    Log(kSource, __LINE__, "registry failed DisplayNameResource");
    return false;
  }
  if (!WriteIcon(key)) {
    return false;
  }
  if (!key.SetValue("Flags", kShellFlags)) {
    Log(kSource, __LINE__, "registry failed Flags");
    return false;
  }
  // The message stands for the success, and nothing for the failure, which stops nothing: who reads
  // these logs counts on it.
  if (key.SetValue("ThumbnailProvider", kThumbnailProviderClsidText)) {
    Log(kSource, __LINE__, "register thumbnail provider failed");
  }
  return true;
}

}  // namespace

bool ShellRegistration::Write(const std::string& text) const {
  const std::string sid = LookUpSid(userName);
  if (sid.empty()) {
    Log(kSource, __LINE__, "user_sid failed");
    return false;
  }
  const std::string keyPath = kSyncRootManagerKey + KeyName(sid, identity);
  RegistryKey key(HKEY_LOCAL_MACHINE, keyPath);
  if (!WriteDescription(
          key, std::string(kProductDisplayName) + " (" + text + ", " + FolderName(path) + ")")) {
    return false;
  }
  RegistryKey users(HKEY_LOCAL_MACHINE, keyPath + R"(\UserSyncRoots)");
  if (!users.SetValue(sid, path)) {
    Log(kSource, __LINE__, "registry failed user_sid");
    return false;
  }
  return true;
}

bool ShellRegistration::Delete() const {
  const std::string sid = LookUpSid(userName);
  if (sid.empty()) {
    Log(kSource, __LINE__, "user_sid is empty");
    return false;
  }
  const std::string name = KeyName(sid, identity);
  if (!RegistryKey(HKEY_LOCAL_MACHINE, kSyncRootManagerKey).DeleteTree(name)) {
    Log(kSource, __LINE__, "Failed to delete reg_sync_root_entry ", name);
    return false;
  }
  return true;
}

}  // namespace corvdrive::cloud_filter
