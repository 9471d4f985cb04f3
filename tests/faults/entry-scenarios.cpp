// The Explorer entry, on the real registry and the real profile.

#include <windows.h>

#include <shlobj.h>

#include <utility>

#include "tests/faults/scenario.h"
#include "tests/support/snapshots.h"

namespace nimbra_test {
namespace {

constexpr char kClsid[] = "{7B1D0E52-FA17-4F08-9C61-000000004711}";
constexpr std::uint64_t kFolderId = 4711;

const std::wstring kClassKey = LR"(Software\Classes\CLSID\)" + Wide(kClsid);
constexpr wchar_t kNameSpace[] =
    LR"(Software\Microsoft\Windows\CurrentVersion\Explorer\Desktop\NameSpace)";
constexpr wchar_t kHiddenIcons[] =
    LR"(Software\Microsoft\Windows\CurrentVersion\Explorer\HideDesktopIcons\NewStartPanel)";

// The values that an entry has, by the key that they are in.
constexpr int kValuesOfKeys[] = {3, 1, 1, 1, 2, 2, 1, 1};
constexpr int kValues = 12;
// Those that are left when the class key was emptied.
constexpr int kValuesOutsideClass = 2;

const std::string kClosed = "registry-key|#|registry not good";
const std::string kUnset = "registry-key|#|Failed to set value";
const std::string kCreated = "wrapping-folder-composer|#|Success to create shortcut: {shortcut}";
const std::string kNotCreated = "wrapping-folder-composer|#|Failed to create shortcut: {shortcut}";
const std::string kGenerated = "sync-engine|#|Generated clsid: {clsid}";
const std::string kNoAppData =
    "wrapping-folder-composer|#|Failed to get corvane drive appdata path";
const std::string kResolving = "wrapping-folder-composer|#|Resolving shortcut: {shortcut}";
const std::string kResolved = "wrapping-folder-composer|#|Result: {root}";
const std::string kUnresolved = "wrapping-folder-composer|#|Result: ";
const std::string kNotFound =
    "wrapping-folder-composer|#|Failed to find shortcut point to sync root under system folder, "
    "sync root: {root}";
const std::string kNotListed =
    "wrapping-folder-composer|#|Failed to enum shortcuts under wrapping folder";
const std::string kBadKey = "registry-key|#|reg is not good ";

std::wstring Folder() {
  wchar_t path[MAX_PATH] = {};
  SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, path);
  return std::wstring(path) + L"\\CorvaneDrive\\SystemFolders\\" + std::to_wstring(kFolderId);
}

std::string Entry(std::size_t values, std::size_t shortcuts) {
  return std::to_string(values) + " values, " + std::to_string(shortcuts) + " shortcuts";
}

void Look(Stage& stage) {
  const bool isHidden = RegGetValueW(HKEY_CURRENT_USER, kHiddenIcons, Wide(kClsid).c_str(),
                                     RRF_RT_REG_DWORD, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
  const std::size_t values =
      CountValues(HKEY_CURRENT_USER, kClassKey) +
      CountValues(HKEY_CURRENT_USER, std::wstring(kNameSpace) + L"\\" + Wide(kClsid)) +
      (isHidden ? 1 : 0);
  const std::wstring folder = Folder();
  const bool exists = GetFileAttributesW(folder.c_str()) != INVALID_FILE_ATTRIBUTES;
  stage.state = Entry(values, exists ? FolderSnapshot(folder).size() : 0);
}

void RemoveTraces() {
  RegDeleteTreeW(HKEY_CURRENT_USER, kClassKey.c_str());
  RegDeleteTreeW(HKEY_CURRENT_USER, (std::wstring(kNameSpace) + L"\\" + Wide(kClsid)).c_str());
  RegDeleteKeyValueW(HKEY_CURRENT_USER, kHiddenIcons, Wide(kClsid).c_str());
  const std::wstring folder = Folder();
  // Without memory for its name a shortcut has another one.
  WIN32_FIND_DATAW data{};
  const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &data);
  if (search != INVALID_HANDLE_VALUE) {
    do {
      DeleteFileW((folder + L"\\" + data.cFileName).c_str());
    } while (FindNextFileW(search, &data));
    FindClose(search);
  }
}

void Prepare(Stage& stage) {
  RemoveTraces();
  SHCreateDirectory(nullptr, Folder().c_str());
  stage.names["clsid"] = kClsid;
  stage.names["folder"] = Narrow(Folder());
  stage.names["shortcut"] = Narrow(Folder()) + "\\My Drive.lnk";
  stage.names["root"] = stage.folder.Utf8();
}

CORVWinCFStatus Register(Stage& stage) {
  return CALL(CORVWinCFSyncEngineRegister, stage.names.at("root").c_str(), kClsid, kFolderId,
              "NAS1", "home", "/");
}

void PrepareRegistered(Stage& stage) {
  Prepare(stage);
  Register(stage);
}

void AddRegistryRows(std::vector<Row>& rows) {
  for (int key = 0; key < 8; ++key) {
    std::vector<std::string> once = {kCreated, kGenerated};
    once.insert(once.end(), static_cast<std::size_t>(kValuesOfKeys[key]), kClosed);
    rows.push_back({"RegCreateKeyExW",
                    {0, once, Entry(static_cast<std::size_t>(kValues - kValuesOfKeys[key]), 1)},
                    key + 1,
                    std::nullopt,
                    false});
    int refused = 0;
    for (int later = key; later < 8; ++later) {
      refused += kValuesOfKeys[later];
    }
    std::vector<std::string> all = {kCreated, kGenerated};
    all.insert(all.end(), static_cast<std::size_t>(refused), kClosed);
    rows.push_back({"RegCreateKeyExW",
                    {0, all, Entry(static_cast<std::size_t>(kValues - refused), 1)},
                    key + 1,
                    std::nullopt,
                    true});
  }
  for (int value = 1; value <= kValues; ++value) {
    rows.push_back({"RegSetValueExW",
                    {0, {kCreated, kGenerated, kUnset}, Entry(kValues - 1, 1)},
                    value,
                    std::nullopt,
                    false});
    std::vector<std::string> all = {kCreated, kGenerated};
    all.insert(all.end(), static_cast<std::size_t>(kValues - value) + 1, kUnset);
    rows.push_back({"RegSetValueExW",
                    {0, all, Entry(static_cast<std::size_t>(value - 1), 1)},
                    value,
                    std::nullopt,
                    true});
  }
}

// Looks at the entry after the call.
Scenario OfTheEntry(const char* name, void (*setUp)(Stage&), std::int64_t (*call)(Stage&),
                    Outcome success, std::vector<Row> rows,
                    std::vector<std::int64_t> otherResults) {
  Scenario scenario;
  scenario.exportName = name;
  scenario.setUp = setUp;
  scenario.call = [call](Stage& stage) {
    const auto result = call(stage);
    Look(stage);
    return result;
  };
  scenario.tearDown = [](Stage&) { RemoveTraces(); };
  scenario.success = std::move(success);
  scenario.rows = std::move(rows);
  scenario.otherResults = std::move(otherResults);
  scenario.share = 200;
  scenario.whyFewer = "the registry, the profile and the shell's links are the system's own";
  return scenario;
}

Scenario Registration() {
  const Outcome done{0, {kCreated, kGenerated}, Entry(kValues, 1)};
  const Outcome noShortcut{-1, {kNotCreated}, Entry(0, 0)};
  const Outcome noFolderName{-1, {kCreated, kNoAppData, kGenerated}, Entry(0, 1)};
  std::vector<Row> rows = {
      {"CoInitializeEx", done},
      {"SHGetFolderPathW", {-1, {kNoAppData}, Entry(0, 0)}, 1},
      {"SHGetFolderPathW",
       {-1, {kNoAppData, "wrapping-folder-composer|#|Failed to create shortcut: "}, Entry(0, 0)},
       2},
      // The shortcut's icon; without a program it has none.
      {"SHGetFolderPathW", done, 3, std::nullopt, false},
      {"SHGetFolderPathW", noFolderName, 3, std::nullopt, true},
      {"SHGetFolderPathW", noFolderName, 4},
      // The launcher: the entry has its name, but nothing to show.
      {"SHGetFolderPathW", {-1, {kCreated, kGenerated}, Entry(3, 1)}, 5},
      {"SHCreateDirectory", done, kAnyCall, ERROR_ALREADY_EXISTS},
      {"SHCreateDirectory",
       {-1, {"wrapping-folder-composer|#|Failed to create folder: {folder}19"}, Entry(0, 0)}},
      {"SetFileAttributesW",
       {0,
        {"wrapping-folder-composer|#|Failed to set file attr, ec: {code}", kCreated, kGenerated},
        Entry(kValues, 1)}},
      // A name that cannot be looked up counts as free.
      {"FindFirstFileW", done},
      {"CoCreateInstance", noShortcut},
      {"IShellLinkW::SetPath", done},
      {"IShellLinkW::SetDescription", done},
      {"IShellLinkW::SetIconLocation", done},
      {"IShellLinkW::QueryInterface", noShortcut},
      {"IPersistFile::Save", noShortcut},
  };
  AddRegistryRows(rows);
  return OfTheEntry("CORVWinCFSyncEngineRegister", Prepare,
                    [](Stage& stage) -> std::int64_t { return Register(stage); }, done, rows, {0});
}

std::vector<Row> RemovalRows(const std::vector<std::string>& before, std::size_t shortcuts) {
  const auto after = [&](std::string line) {
    std::vector<std::string> lines = before;
    lines.push_back(std::move(line));
    return lines;
  };
  const std::string undeleted = "registry-key|#|Failed to RegDeleteTree, key=";
  return {
      {"RegCreateKeyExW", {-1, after(kBadKey), Entry(kValues, shortcuts)}, 1},
      {"RegCreateKeyExW", {-1, after(kBadKey), Entry(kValuesOutsideClass, shortcuts)}, 2},
      // Deleting a value of a key that is not good says nothing.
      {"RegCreateKeyExW", {-1, before, Entry(1, shortcuts)}, 3},
      {"RegDeleteTreeW",
       {-1, after(undeleted + R"(Software\Classes\CLSID\{clsid} hr={hr})"),
        Entry(kValues, shortcuts)},
       1},
      {"RegDeleteTreeW",
       {-1, after(undeleted + Narrow(kNameSpace) + " hr={hr}"),
        Entry(kValuesOutsideClass, shortcuts)},
       2},
      {"RegDeleteValueW",
       {-1,
        after("registry-key|#|Failed to RegDeleteValue, key=" + Narrow(kHiddenIcons) +
              " value={clsid} hr={hr}"),
        Entry(1, shortcuts)}},
  };
}

Scenario Unregistration() {
  const Outcome done{0, {kResolving, kResolved}, Entry(0, 0)};
  const Outcome missed{0, {kNotFound}, Entry(kValues, 1)};
  const Outcome unresolved{0, {kResolving, kUnresolved, kNotFound}, Entry(kValues, 1)};
  std::vector<Row> rows = RemovalRows({kResolving, kResolved}, 0);
  const std::vector<Row> more = {
      {"CoInitializeEx", done},
      {"SHGetFolderPathW",
       {0, {kNoAppData, kNotListed, kNotFound}, Entry(kValues, 1)},
       1,
       std::nullopt,
       false},
      {"SHGetFolderPathW",
       {0, {kNoAppData, kNotListed, kNotFound, kNoAppData}, Entry(kValues, 1)},
       1,
       std::nullopt,
       true},
      // Whether the folder is empty is not known then: the entry stays.
      {"SHGetFolderPathW", {0, {kResolving, kResolved, kNoAppData}, Entry(kValues, 0)}, 2},
      {"FindFirstFileW", {0, {kNotListed, kNotFound}, Entry(kValues, 1)}},
      {"FindNextFileW", missed},
      {"IShellLinkW::Resolve", {0, {kResolving, kNotFound}, Entry(kValues, 1)}},
      {"IShellLinkW::GetPath", unresolved},
      {"GetLongPathNameW", unresolved},
      {"DeleteFileW",
       {0,
        {kResolving, kResolved,
         "wrapping-folder-composer|#|Failed to remove shortcut by deletefile: {shortcut}"},
        Entry(kValues, 1)}},
      {"PathIsDirectoryEmptyW", {0, {kResolving, kResolved}, Entry(kValues, 0)}},
  };
  rows.insert(rows.end(), more.begin(), more.end());
  // The first two items of a folder stand for itself and its parent, and are no shortcuts.
  for (const char* function :
       {"CoCreateInstance", "IShellLinkW::QueryInterface", "IPersistFile::Load"}) {
    for (int n = 1; n <= 3; ++n) {
      rows.push_back({function, n == 3 ? missed : done, n, std::nullopt, false});
      rows.push_back({function, missed, n, std::nullopt, true});
    }
  }
  return OfTheEntry("CORVWinCFSyncEngineUnregister", PrepareRegistered,
                    [](Stage& stage) -> std::int64_t {
                      return CALL(CORVWinCFSyncEngineUnregister, stage.names.at("root").c_str(),
                                  kClsid, kFolderId, "NAS1", "home", "/");
                    },
                    done, rows, {0});
}

Scenario FolderRemoval() {
  return OfTheEntry("CORVWinCFSyncEngineUnregisterSystemFolder", PrepareRegistered,
                    [](Stage& stage) -> std::int64_t {
                      return CALL(CORVWinCFSyncEngineUnregisterSystemFolder, kClsid);
                    },
                    {0, {}, Entry(0, 1)}, RemovalRows({}, 1), {});
}

char* guid = nullptr;

}  // namespace

std::vector<Scenario> EntryScenarios() {
  std::vector<Scenario> scenarios;
  scenarios.push_back(
      {"CORVWinCFGenerateGuid",
       [](Stage&) { guid = nullptr; },
       [](Stage& stage) -> std::int64_t {
         const auto result = CALL(CORVWinCFGenerateGuid, &guid);
         stage.state = guid == nullptr                  ? "untouched"
                       : std::string(guid).size() == 38 ? "text"
                                                        : "bad text";
         return result;
       },
       [](Stage& stage) { CALL(CORVWinCFReleaseGuid, guid); },
       {0, {}, "text"},
       {{"CoCreateGuid", {-1, {"sync-engine|#|Failed to gen uuid"}, "untouched"}},
        {"StringFromCLSID", {-1, {"sync-engine|#|Failed to convert guid"}, "untouched"}}}});
  scenarios.push_back({"CORVWinCFReleaseGuid",
                       [](Stage& stage) { CALL(CORVWinCFGenerateGuid, &guid); },
                       [](Stage& stage) -> std::int64_t {
                         CALL(CORVWinCFReleaseGuid, guid);
                         return 0;
                       },
                       {},
                       {0},
                       {},
                       0});
  scenarios.push_back(Registration());
  scenarios.push_back(Unregistration());
  scenarios.push_back(FolderRemoval());
  return scenarios;
}

}  // namespace nimbra_test
