// nimbractl roots: the sync roots that the shell knows, and what the platform says of them.

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "console.h"
#include "items.h"
#include "json.h"
#include "platform.h"
#include "registry.h"

namespace nimbractl {
namespace {

constexpr wchar_t kSyncRootManager[] =
    LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\Explorer\SyncRootManager)";

// A key of the shell's is named "<provider>!<user's SID>!<the sync root's identity>".
struct Root {
  std::string key;
  std::string provider, user, identity;
  std::string displayName;
  std::string path;  // empty when the user has none in this key
  bool folderExists = false;
  std::optional<bool> isKnownToPlatform;  // nothing when the platform cannot be asked
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

void AskAboutFolder(Root& root, bool canAsk) {
  const auto path = Wide(root.path);
  root.folderExists = !path.empty() && GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
  if (canAsk) {
    const auto identity = path.empty() ? std::nullopt : SyncRootIdentity(path);
    root.isKnownToPlatform = identity.has_value() && *identity == root.identity;
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
  if (!root.folderExists) return "folder missing";
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
                    {"folderExists", root.folderExists},
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
