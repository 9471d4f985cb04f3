// nimbractl roots: the sync roots that the shell knows, and what the platform says of them.

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "commands.h"
#include "console.h"
#include "items.h"
#include "json.h"
#include "library-log.h"
#include "platform.h"
#include "registry.h"

namespace nimbractl {
namespace {

constexpr wchar_t kSyncRootManager[] =
    LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\Explorer\SyncRootManager)";
constexpr std::string_view kProvider = "CorvaneDrive";  // the library's clients

// A key of the shell's is named "<provider>!<user's SID>!<the sync root's identity>".
struct Root {
  std::string key;
  std::string provider, user, identity;
  std::string displayName;
  std::string path;                       // empty when the user has none in this key
  std::optional<bool> folderExists;       // nothing when Windows does not tell
  std::optional<bool> isKnownToPlatform;  // nothing when the platform does not tell
};

Root ParseKey(const std::string& key) {
  Root root;
  root.key = R"(HKEY_LOCAL_MACHINE\)" + Utf8(kSyncRootManager) + "\\" + key;
  const auto first = key.find('!');
  const auto second = first == std::string::npos ? first : key.find('!', first + 1);
  root.provider = key.substr(0, first);
  if (second != std::string::npos) {
    root.user = key.substr(first + 1, second - first - 1);
    root.identity = key.substr(second + 1);
  }
  return root;
}

// What is no more, and not what this user may not see or what cannot be reached: people remove the
// registrations of folders that are gone.
std::optional<bool> FolderExists(const std::wstring& path) {
  if (GetFileAttributesW(ForWindows(path).c_str()) != INVALID_FILE_ATTRIBUTES) return true;
  const DWORD error = GetLastError();
  const bool isGone = error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
  return isGone ? std::optional(false) : std::nullopt;
}

std::optional<bool> IsKnownToPlatform(const std::wstring& path, const Root& root) {
  LibraryLogCapture log;
  if (const auto identity = SyncRootIdentity(path)) {
    // How other providers form what stands in the key is not known.
    return root.provider != kProvider || *identity == root.identity;
  }
  switch (static_cast<std::uint32_t>(log.Result().value_or(0))) {
    case 0x80070178:  // ERROR_NOT_A_CLOUD_FILE
    case 0x80070186:  // ERROR_CLOUD_FILE_NOT_UNDER_SYNC_ROOT
    case 0x80070195:  // ERROR_NOT_A_CLOUD_SYNC_ROOT
      return false;
    default:
      return std::nullopt;
  }
}

void AskAboutFolder(Root& root, bool canAsk) {
  const auto path = Wide(root.path);
  root.folderExists = path.empty() ? false : FolderExists(path);
  if (canAsk) {
    root.isKnownToPlatform = root.folderExists == false ? false : IsKnownToPlatform(path, root);
  }
}

std::vector<Root> FindRoots(bool canAsk) {
  std::vector<Root> roots;
  for (const auto& name : SubkeysOf(HKEY_LOCAL_MACHINE, kSyncRootManager)) {
    const auto key = std::wstring(kSyncRootManager) + L"\\" + name;
    const auto folders = key + L"\\UserSyncRoots";
    auto root = ParseKey(Utf8(name));
    root.displayName =
        Utf8(ReadText(HKEY_LOCAL_MACHINE, key, L"DisplayNameResource").value_or(L""));
    auto users = ValuesOf(HKEY_LOCAL_MACHINE, folders);
    if (users.empty()) users.emplace_back();
    for (const auto& user : users) {
      root.path = Utf8(ReadText(HKEY_LOCAL_MACHINE, folders, user).value_or(L""));
      AskAboutFolder(root, canAsk);
      roots.push_back(root);
    }
  }
  return roots;
}

// What a person has to know about it in one word.
std::string Status(const Root& root) {
  if (root.path.empty()) return "no folder";
  if (root.folderExists == false) return "folder missing";
  if (!root.isKnownToPlatform) return "not known";
  return *root.isKnownToPlatform ? "ready" : "shell only";
}

void PrintTable(const std::vector<Root>& roots) {
  if (roots.empty()) return void(WriteLine(Stream::kOutput, "No sync root is registered."));
  Table table({"state", "provider", "display name", "identity", "path"});
  for (const auto& root : roots) {
    table.Add({Status(root), root.provider, root.displayName, root.identity, root.path});
  }
  Write(Stream::kOutput, table.Text());
}

void PrintJson(const std::vector<Root>& roots) {
  Json json = Json::array();
  for (const auto& root : roots) {
    json.push_back({{"path", root.path},
                    {"provider", root.provider},
                    {"user", root.user},
                    {"identity", root.identity},
                    {"displayName", root.displayName},
                    {"folderExists", OrNull(root.folderExists)},
                    {"knownToPlatform", OrNull(root.isKnownToPlatform)},
                    {"key", root.key}});
  }
  WriteLine(Stream::kOutput, JsonText(json));
}

}  // namespace

ExitCode RunRoots(bool json) {
  const bool canAsk = FindGate() == Gate::kOpen && AskPlatform().result >= 0;
  const auto roots = FindRoots(canAsk);
  json ? PrintJson(roots) : PrintTable(roots);
  return ExitCode::kOk;
}

}  // namespace nimbractl
