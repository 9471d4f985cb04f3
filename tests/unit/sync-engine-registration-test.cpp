#include <windows.h>

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/registry-watch.h"
#include "tests/support/shortcut-file.h"
#include "tests/unit/explorer-entry-fixture.h"

namespace nimbra_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr wchar_t kLauncher[] = LR"(C:\Program Files (x86)\Corvane\CorvaneDrive\bin\launcher.exe)";
constexpr char kExplorer[] = R"(Software\Microsoft\Windows\CurrentVersion\Explorer\)";

// One value of an entry, in the order of writing; the key is opened anew where it changes.
struct ValueRow {
  std::string key;
  std::string name;
  StoredValue value;
};

class EntryRegistrationTest : public ExplorerEntryFixture {
 protected:
  std::string ClassPath() const { return R"(Software\Classes\CLSID\)" + clsid_; }

  // All that a registration writes.
  std::vector<ValueRow> Values(const std::wstring& displayName) const {
    const auto text = [](std::wstring_view value) { return StoredText(REG_EXPAND_SZ, value); };
    const std::string bag = ClassPath() + R"(\Instance\InitPropertyBag)";
    const std::string folder = ClassPath() + R"(\ShellFolder)";
    return {
        {ClassPath(), "", text(L"Corvane Drive - " + displayName)},
        {ClassPath(), "System.IsPinnedToNameSpaceTree", StoredNumber(1)},
        {ClassPath(), "SortOrderIndex", StoredNumber(66)},
        {ClassPath() + R"(\DefaultIcon)", "", text(std::wstring(kLauncher) + L", 0")},
        {ClassPath() + R"(\InProcServer32)", "", text(LR"(%SystemRoot%\system32\shell32.dll)")},
        {ClassPath() + R"(\Instance)", "CLSID", text(L"{0E5AAE11-A475-4c5b-AB00-C66DE400274E}")},
        {bag, "Attributes", StoredNumber(17)},
        {bag, "TargetFolderPath", text(Wide(FolderPath()))},
        {folder, "FolderValueFlags", StoredNumber(40)},
        {folder, "Attributes", StoredNumber(4034920525)},
        {kExplorer + (R"(Desktop\NameSpace\)" + clsid_), "", text(L"Corvane Drive-" + displayName)},
        {std::string(kExplorer) + R"(HideDesktopIcons\NewStartPanel)", clsid_, StoredNumber(1)},
    };
  }

  // The registry calls that write some values, as text.
  static std::vector<std::string> CallsFor(const std::vector<ValueRow>& rows) {
    std::vector<std::string> calls;
    std::string open;
    for (const ValueRow& row : rows) {
      if (row.key != open) {
        if (!open.empty()) {
          calls.emplace_back("close");
        }
        open = row.key;
        calls.push_back("open HKCU " + open);
      }
      calls.push_back("set " + row.name + " = " + testing::PrintToString(row.value));
    }
    calls.emplace_back("close");
    return calls;
  }
  static std::vector<std::string> CallsSeen(const RegistryWatch& registry) {
    std::vector<std::string> calls;
    for (const RegistryCall& call : registry.Calls()) {
      switch (call.function) {
        case RegistryFunction::CreateKey:
          calls.push_back((call.key == HKEY_CURRENT_USER ? "open HKCU " : "open elsewhere ") +
                          Narrow(call.name.value_or(L"(null)")));
          break;
        case RegistryFunction::SetValue:
          calls.push_back("set " + Narrow(call.name.value_or(L"(null)")) + " = " +
                          testing::PrintToString(StoredValue{call.type, call.data}));
          break;
        case RegistryFunction::CloseKey:
          calls.emplace_back("close");
          break;
        default:
          calls.emplace_back("delete");
      }
    }
    return calls;
  }

  static std::optional<StoredValue> Stored(const ValueRow& row) {
    const std::wstring key = Wide(row.key);
    const std::wstring name = Wide(row.name);
    StoredValue value;
    DWORD size = 1024;
    value.bytes.resize(size);
    if (RegGetValueW(HKEY_CURRENT_USER, key.c_str(), name.c_str(), RRF_RT_ANY | RRF_NOEXPAND,
                     &value.type, value.bytes.data(), &size) != ERROR_SUCCESS) {
      return std::nullopt;
    }
    value.bytes.resize(size);
    return value;
  }
  void ExpectStored(const std::vector<ValueRow>& rows) {
    for (const ValueRow& row : rows) {
      EXPECT_EQ(Stored(row), row.value) << row.key << " : " << row.name;
    }
  }

  // What the registry holds in addition afterwards.
  std::vector<std::string> ExpectedChanges(const std::vector<ValueRow>& rows) const {
    std::vector<std::string> changes;
    for (const ValueRow& row : rows) {
      if (row.key.find(clsid_) != std::string::npos) {
        changes.push_back("+ " + row.key);
      }
      changes.push_back("+ " + row.key + "|" + row.name);
    }
    std::sort(changes.begin(), changes.end());
    changes.erase(std::unique(changes.begin(), changes.end()), changes.end());
    return changes;
  }
};

TEST_F(EntryRegistrationTest, WritesTheEntrysValuesAndNothingElse) {
  const Snapshot before = RegistrySnapshot();

  EXPECT_EQ(Register(Entry()), 0);

  ExpectStored(Values(L"NAS1"));
  EXPECT_EQ(Changes(before, RegistrySnapshot()), ExpectedChanges(Values(L"NAS1")));
}

TEST_F(EntryRegistrationTest, WritesInOrderWithOneOpeningForEachKey) {
  const RegistryWatch registry;

  EXPECT_EQ(Register(Entry()), 0);

  EXPECT_EQ(CallsSeen(registry), CallsFor(Values(L"NAS1")));
  EXPECT_EQ(registry.StillOpen(), 0);
  for (const RegistryCall& call : registry.CallsOf(RegistryFunction::CreateKey)) {
    EXPECT_EQ(call.access, 0x2010Fu);
    EXPECT_EQ(call.options, 0u);
  }
}

TEST_F(EntryRegistrationTest, MakesTheFolderAndTheShortcutFirst) {
  std::vector<bool> shortcutPresent;
  const ImportDouble<"RegCreateKeyExW", decltype(&::RegCreateKeyExW)> create(
      [&](auto original, auto... arguments) {
        shortcutPresent.push_back(IsFile(ShortcutPath("My Drive.lnk")));
        return original(arguments...);
      });

  EXPECT_EQ(Register(Entry()), 0);

  EXPECT_EQ(shortcutPresent, std::vector<bool>(8, true));
  EXPECT_THAT(FolderContent(), ElementsAre("My Drive.lnk"));
  const Shortcut shortcut = ReadShortcut(ShortcutPath("My Drive.lnk"));
  EXPECT_EQ(shortcut.target, Entry().root);
  EXPECT_EQ(shortcut.icon, UiProgram());
}

TEST_F(EntryRegistrationTest, LogsTheShortcutAndTheClassIdentifier) {
  EXPECT_EQ(Register(Entry()), 0);
  EXPECT_THAT(log_.Lines(),
              ElementsAre(IsLogLine(kWrappingFolderSource,
                                    "Success to create shortcut: " + ShortcutPath("My Drive.lnk")),
                          IsLogLine(kSyncEngineSource, "Generated clsid: " + clsid_)));
}

TEST_F(EntryRegistrationTest, AnEmptyDisplayNameLeavesTheSeparators) {
  EntryArguments entry = Entry();
  entry.displayName = "";
  EXPECT_EQ(Register(entry), 0);
  EXPECT_EQ(keys_.classKey.Value(L"", L""), StoredText(REG_EXPAND_SZ, L"Corvane Drive - "));
  EXPECT_EQ(keys_.nameSpaceKey.Value(L"", L""), StoredText(REG_EXPAND_SZ, L"Corvane Drive-"));
}

TEST_F(EntryRegistrationTest, NonAsciiTextsStayWhole) {
  EntryArguments entry = Entry();
  entry.displayName =
      "Gr\xC3\xBC\xC3\x9F"
      "e \xE6\x97\xA5 \xF0\x9F\x98\x80 %PATH%";
  const std::string folder = appData_.MakeFolder("Zo\xC3\xAB \xE6\x97\xA5");
  folders_.Set(CSIDL_LOCAL_APPDATA, Wide(folder));

  EXPECT_EQ(Register(entry), 0);

  EXPECT_EQ(keys_.classKey.Value(L"", L""),
            StoredText(REG_EXPAND_SZ, L"Corvane Drive - " + Wide(entry.displayName)));
  EXPECT_EQ(keys_.nameSpaceKey.Value(L"", L""),
            StoredText(REG_EXPAND_SZ, L"Corvane Drive-" + Wide(entry.displayName)));
  EXPECT_EQ(keys_.classKey.Value(LR"(Instance\InitPropertyBag)", L"TargetFolderPath"),
            StoredText(REG_EXPAND_SZ, Wide(folder) + LR"(\CorvaneDrive\SystemFolders\3)"));
}

TEST_F(EntryRegistrationTest, ASecondTimeOverwritesTheValuesAndAddsAShortcut) {
  EXPECT_EQ(Register(Entry()), 0);
  const Snapshot before = RegistrySnapshot();
  EXPECT_EQ(Register(Entry()), 0);
  EXPECT_THAT(Changes(before, RegistrySnapshot()), IsEmpty());
  EXPECT_THAT(FolderContent(), ElementsAre("My Drive(1).lnk", "My Drive.lnk"));

  EntryArguments renamed = Entry();
  renamed.displayName = "NAS2";
  EXPECT_EQ(Register(renamed), 0);
  ExpectStored(Values(L"NAS2"));
}

TEST_F(EntryRegistrationTest, ForeignValuesInTheKeysStay) {
  keys_.classKey.SetNumber(L"Instance", L"theirs", 7);
  keys_.classKey.SetNumber(L"", L"SortOrderIndex", 1);
  EXPECT_EQ(Register(Entry()), 0);
  EXPECT_EQ(keys_.classKey.Value(L"Instance", L"theirs"), StoredNumber(7));
  EXPECT_EQ(keys_.classKey.Value(L"", L"SortOrderIndex"), StoredNumber(66));
}

// Nothing about the entry checks what the text is, but that it names a key of its own.
TEST_F(EntryRegistrationTest, TheClassIdentifierIsUsedAsItIs) {
  EntryArguments entry = Entry();
  entry.clsid = "not a {guid}/" + std::to_string(GetCurrentProcessId());
  const EntryKeys keys(entry.clsid);
  EXPECT_EQ(Register(entry), 0);
  EXPECT_TRUE(keys.classKey.Exists(L"ShellFolder"));
  EXPECT_TRUE(keys.nameSpaceKey.Exists());
  EXPECT_TRUE(keys.IsHidden());
}

TEST_F(EntryRegistrationTest, WithoutADataFolderNothingIsDone) {
  folders_.Remove(CSIDL_LOCAL_APPDATA);
  const RegistryWatch registry;

  EXPECT_EQ(Register(Entry()), -1);

  EXPECT_THAT(registry.Calls(), IsEmpty());
  EXPECT_THAT(log_.Lines(), ElementsAre(IsLogLine(kWrappingFolderSource,
                                                  "Failed to get corvane drive appdata path")));
}

// The folder vanishes between the shortcut and the registry's part.
TEST_F(EntryRegistrationTest, WithoutAWrappingFolderPathNothingIsWritten) {
  const RegistryWatch registry;
  const ImportDouble<"CoCreateInstance", decltype(&::CoCreateInstance)> create(
      [&](auto original, REFCLSID id, LPUNKNOWN outer, DWORD context, REFIID iid, LPVOID* object) {
        folders_.Remove(CSIDL_LOCAL_APPDATA);
        return original(id, outer, context, iid, object);
      });

  EXPECT_EQ(Register(Entry()), -1);

  EXPECT_THAT(registry.Calls(), IsEmpty());
  EXPECT_THAT(
      log_.Lines(),
      ElementsAre(IsLogLine(kWrappingFolderSource,
                            "Success to create shortcut: " + ShortcutPath("My Drive.lnk")),
                  IsLogLine(kWrappingFolderSource, "Failed to get corvane drive appdata path"),
                  IsLogLine(kSyncEngineSource, "Generated clsid: " + clsid_)));
}

TEST_F(EntryRegistrationTest, WithoutALauncherOnlyTheNamesAreWritten) {
  folders_.Remove(CSIDL_PROGRAM_FILESX86);
  folders_.Set(CSIDL_PROGRAM_FILES, L"C:\\Program Files");
  const Snapshot before = RegistrySnapshot();

  EXPECT_EQ(Register(Entry()), -1);

  auto names = Values(L"NAS1");
  names.resize(3);
  ExpectStored(names);
  EXPECT_EQ(Changes(before, RegistrySnapshot()), ExpectedChanges(names));
  EXPECT_THAT(FolderContent(), ElementsAre("My Drive.lnk"));
  EXPECT_THAT(log_.Lines(),
              ElementsAre(testing::_, IsLogLine(kSyncEngineSource, "Generated clsid: " + clsid_)));
}

TEST_F(EntryRegistrationTest, AFolderThatCannotBeMadeEndsTheRegistration) {
  ImportDouble<"SHCreateDirectory", decltype(&::SHCreateDirectory)> create;
  create.FailCall(1, ERROR_PATH_NOT_FOUND, ERROR_PATH_NOT_FOUND);
  const ImportDouble<"CoCreateInstance", decltype(&::CoCreateInstance)> link;
  const RegistryWatch registry;

  EXPECT_EQ(Register(Entry()), -1);

  EXPECT_EQ(link.Count(), 0);
  EXPECT_THAT(registry.Calls(), IsEmpty());
  EXPECT_THAT(log_.Lines(),
              ElementsAre(IsLogLine(kWrappingFolderSource,
                                    "Failed to create folder: " + FolderPath() + "3")));
}

TEST_F(EntryRegistrationTest, AShortcutThatCannotBeMadeEndsTheRegistration) {
  ImportDouble<"CoCreateInstance", decltype(&::CoCreateInstance)> link;
  link.FailCall(1, E_OUTOFMEMORY, ERROR_SUCCESS);
  const RegistryWatch registry;

  EXPECT_EQ(Register(Entry()), -1);

  EXPECT_THAT(registry.Calls(), IsEmpty());
  EXPECT_THAT(log_.Lines(),
              ElementsAre(IsLogLine(kWrappingFolderSource,
                                    "Failed to create shortcut: " + ShortcutPath("My Drive.lnk"))));
}

TEST_F(EntryRegistrationTest, ARefusedWriteIsLoggedAndAllOthersAreMade) {
  const auto rows = Values(L"NAS1");
  for (std::size_t refused = 0; refused < rows.size(); ++refused) {
    SCOPED_TRACE(rows[refused].key + " : " + rows[refused].name);
    EntryArguments entry = Entry();
    const EntryKeys cleared(entry.clsid);
    log_.Clear();
    {
      RegistryWatch registry;
      registry.FailCall(RegistryFunction::SetValue, static_cast<int>(refused) + 1,
                        ERROR_ACCESS_DENIED);
      EXPECT_EQ(Register(entry), 0);
      EXPECT_EQ(CallsSeen(registry), CallsFor(rows));
      EXPECT_EQ(registry.StillOpen(), 0);
    }
    for (std::size_t i = 0; i < rows.size(); ++i) {
      EXPECT_EQ(Stored(rows[i]), i == refused ? std::nullopt : std::optional(rows[i].value)) << i;
    }
    EXPECT_THAT(log_.Lines(), ElementsAre(testing::_, testing::_,
                                          IsLogLine(kRegistryKeySource, "Failed to set value")));
  }
}

TEST_F(EntryRegistrationTest, AKeyThatCannotBeOpenedIsLoggedForEachOfItsValues) {
  const auto rows = Values(L"NAS1");
  int opening = 0;
  for (std::size_t first = 0; first < rows.size();) {
    SCOPED_TRACE(rows[first].key);
    ++opening;
    const EntryKeys cleared(clsid_);
    log_.Clear();
    RegistryWatch registry;
    registry.FailCall(RegistryFunction::CreateKey, opening, ERROR_ACCESS_DENIED);
    EXPECT_EQ(Register(Entry()), 0);
    EXPECT_EQ(registry.StillOpen(), 0);
    std::vector<std::string> messages;
    for (const std::string& line : log_.Lines()) {
      if (line.starts_with(kRegistryKeySource)) {
        EXPECT_THAT(line, IsLogLine(kRegistryKeySource, "registry not good"));
        messages.push_back(line);
      }
    }
    std::size_t values = 0;
    for (const ValueRow& row : rows) {
      const bool lost = row.key == rows[first].key;
      values += lost ? 1u : 0u;
      EXPECT_EQ(Stored(row), lost ? std::nullopt : std::optional(row.value)) << row.name;
    }
    EXPECT_EQ(messages.size(), values);
    first += values;
  }
  EXPECT_EQ(opening, 8);
}

}  // namespace
}  // namespace nimbra_test
