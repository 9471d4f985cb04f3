// nimbractl explorer: entries in Explorer's navigation pane.

#include <windows.h>
#include <nimbra/nimbra.hpp>

#include <charconv>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "console.h"
#include "items.h"
#include "json.h"
#include "platform.h"
#include "registry.h"
#include "results.h"

namespace nimbractl {
namespace {

constexpr wchar_t kNameSpace[] =
    LR"(Software\Microsoft\Windows\CurrentVersion\Explorer\Desktop\NameSpace)";
constexpr std::wstring_view kFolders = LR"(\CorvaneDrive\SystemFolders\)";

struct Entry {
  std::string clsid, name, folder;
  std::optional<std::uint64_t> folderId;  // the last component of the folder
  std::vector<std::string> shortcuts;
};

template <class Character>
std::optional<std::uint64_t> NumberIn(const Character& text, int base = 10) {
  std::uint64_t number = 0;
  const auto* const end = text.data() + text.size();
  const auto read = std::from_chars(text.data(), end, number, base);
  return read.ec == std::errc() && read.ptr == end ? std::optional(number) : std::nullopt;
}

std::vector<std::string> FilesIn(const std::string& folder) {
  std::vector<std::string> names;
  const auto work = [&](const Item& item) {
    if (!item.wasNamed) names.push_back(item.Name().substr(folder.size() + 1));
    return Outcome::kDone;
  };
  ForEachItem({folder}, true, work);
  return names;
}

// The entry of a class, if it is one of this library's.
std::optional<Entry> ReadEntry(const std::wstring& clsid) {
  const auto key = LR"(Software\Classes\CLSID\)" + clsid;
  const auto folder =
      ReadText(HKEY_CURRENT_USER, key + LR"(\Instance\InitPropertyBag)", L"TargetFolderPath");
  const auto at = folder ? folder->rfind(kFolders) : std::wstring::npos;
  if (at == std::wstring::npos) return std::nullopt;
  Entry entry{Utf8(clsid),
              Utf8(ReadText(HKEY_CURRENT_USER, key, L"").value_or(L"")),
              Utf8(*folder),
              NumberIn(Utf8(folder->substr(at + kFolders.size()))),
              {}};
  if (GetFileAttributesW(folder->c_str()) != INVALID_FILE_ATTRIBUTES) {
    entry.shortcuts = FilesIn(entry.folder);
  }
  return entry;
}

std::string NewClsid() {
  const auto clsid = nimbra::GenerateGuid();
  if (!clsid) throw Failure("Windows makes no new GUID", "try again");
  return *clsid;
}

std::string NameOf(const std::wstring& folder) {
  return Utf8(folder.substr(folder.rfind(L'\\') + 1));
}

// What stands before the first hyphen of the identifier is a good number for a new folder.
std::uint64_t FolderIdFrom(const std::string& clsid) {
  return NumberIn(clsid.substr(1, clsid.find('-') - 1), 16).value_or(0);
}

}  // namespace

ExitCode RunExplorerRegister(const EntryOptions& options) {
  RequireOpenGate();
  const auto folder = FindItem(AbsolutePath(options.path));
  if (!folder.isFolder) throw Failure(folder.Name() + " is a file", "name the sync root's folder");
  static_cast<void>(OtherProviders().Own(folder));
  if (folder.path.size() >= MAX_PATH) {
    throw Failure("no shortcut can hold a path as long as " + folder.Name(),
                  "choose a shorter one");
  }
  const auto clsid = options.clsid.empty() ? NewClsid() : options.clsid;
  const auto known = ReadEntry(Wide(clsid));
  const auto folderId =
      options.folderId.value_or(known && known->folderId ? *known->folderId : FolderIdFrom(clsid));
  const auto name = options.name.empty() ? NameOf(folder.path) : options.name;
  if (CORVWinCFSyncEngineRegister(folder.Name().c_str(), clsid.c_str(), folderId, name.c_str(),
                                  options.share.c_str(), options.remotePath.c_str()) != 0) {
    throw Failure(folder.Name() + " was not added to Explorer's navigation pane", kLogAdvice);
  }
  WriteLine(Stream::kOutput, "added " + folder.Name() +
                                 " to Explorer's navigation pane\n  clsid      " + clsid +
                                 "\n  folder id  " + std::to_string(folderId));
  return ExitCode::kOk;
}

ExitCode RunExplorerUnregister(const EntryOptions& options) {
  RequireOpenGate();
  const auto entry = ReadEntry(Wide(options.clsid));
  if (!entry) {
    throw Failure("there is no entry " + options.clsid + " in Explorer's navigation pane",
                  "nimbractl explorer list shows the entries");
  }
  if (options.path.empty()) {
    if (CORVWinCFSyncEngineUnregisterSystemFolder(options.clsid.c_str()) != 0) {
      throw Failure("the entry " + options.clsid + " was not removed in full", kLogAdvice);
    }
    WriteLine(Stream::kOutput, "removed the entry " + options.clsid);
    return ExitCode::kOk;
  }
  const auto path = Utf8(AbsolutePath(options.path));
  const auto folderId = options.folderId.value_or(entry->folderId.value_or(0));
  if (CORVWinCFSyncEngineUnregister(path.c_str(), options.clsid.c_str(), folderId, "", "", "") !=
      0) {
    throw Failure(path + " was not removed from the entry " + options.clsid, kLogAdvice);
  }
  const auto left = ReadEntry(Wide(options.clsid));
  if (left && left->shortcuts.size() == entry->shortcuts.size()) {
    throw Failure("the entry " + options.clsid + " does not show " + path,
                  "spell the path as it was when it was added");
  }
  WriteLine(Stream::kOutput,
            "removed " + path + (left ? " from the entry " : " and the entry ") + options.clsid);
  return ExitCode::kOk;
}

ExitCode RunExplorerList(bool json) {
  Json list = Json::array();
  Table table({"clsid", "name", "folder id", "shortcuts"});
  for (const auto& clsid : SubkeysOf(HKEY_CURRENT_USER, kNameSpace)) {
    const auto entry = ReadEntry(clsid);
    if (!entry) continue;
    list.push_back({{"clsid", entry->clsid},
                    {"name", entry->name},
                    {"folder", entry->folder},
                    {"folderId", OrNull(entry->folderId)},
                    {"shortcuts", entry->shortcuts}});
    std::string shortcuts;
    for (const auto& name : entry->shortcuts) shortcuts += (shortcuts.empty() ? "" : ", ") + name;
    const auto folderId = entry->folderId ? std::to_string(*entry->folderId) : "-";
    table.Add({entry->clsid, entry->name, folderId, shortcuts});
  }
  if (json) {
    WriteLine(Stream::kOutput, JsonText(list));
  } else if (list.empty()) {
    WriteLine(Stream::kOutput, "There is no entry in Explorer's navigation pane.");
  } else {
    Write(Stream::kOutput, table.Text());
  }
  return ExitCode::kOk;
}

}  // namespace nimbractl
