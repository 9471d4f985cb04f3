#include <windows.h>
// windows.h first.
#include <sddl.h>
#include <shlobj.h>
#include <shlwapi.h>

#include <cwchar>
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "nimbra/nimbra.h"
#include "tests/support/heap-watch.h"
#include "tests/support/image-files.h"
#include "tests/support/import-double.h"
#include "tests/support/shortcut-file.h"
#include "tests/unit/explorer-entry-fixture.h"
#include "tests/unit/registration-fixture.h"
#include "tests/unit/thumbnail-file-fixture.h"

// What the work with the shell, the registry and the imaging component costs beside what these take
// themselves. The numbers do not hang on the machine.

namespace nimbra_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Counts = std::map<std::string, int>;

template <FixedText Name, typename Function>
class Counted : public ImportDouble<Name, Function> {
 public:
  using ImportDouble<Name, Function>::ImportDouble;
  void AddTo(Counts& counts) const {
    if (this->Count() != 0) {
      counts[Name.text] = this->Count();
    }
  }
};

// How often the library called what it calls of Windows for the shell; memory, the log and the
// conversion of texts are counted by themselves. One at a time.
class WindowsCalls {
 public:
  WindowsCalls()
      : folders_([this](auto original, HWND window, int folder, HANDLE token, DWORD flags,
                        LPWSTR path) -> HRESULT {
          if (folder != CSIDL_LOCAL_APPDATA || appData_.empty()) {
            return original(window, folder, token, flags, path);
          }
          std::wmemcpy(path, appData_.c_str(), appData_.size() + 1);
          return S_OK;
        }) {}
  // With another folder for the user's data.
  explicit WindowsCalls(std::wstring appData) : WindowsCalls() { appData_ = std::move(appData); }

  Counts Get() const {
    Counts counts;
    folders_.AddTo(counts);
    std::apply([&counts](const auto&... counted) { (counted.AddTo(counts), ...); }, others_);
    return counts;
  }

 private:
  std::wstring appData_;
  Counted<"SHGetFolderPathW", decltype(&::SHGetFolderPathW)> folders_;
  std::tuple<Counted<"CoCreateGuid", decltype(&::CoCreateGuid)>,
             Counted<"CoCreateInstance", decltype(&::CoCreateInstance)>,
             Counted<"CoInitializeEx", decltype(&::CoInitializeEx)>,
             Counted<"ConvertSidToStringSidW", decltype(&::ConvertSidToStringSidW)>,
             Counted<"CreateFileW", decltype(&::CreateFileW)>,
             Counted<"DeleteFileW", decltype(&::DeleteFileW)>,
             Counted<"FindFirstFileW", decltype(&::FindFirstFileW)>,
             Counted<"FindNextFileW", decltype(&::FindNextFileW)>,
             Counted<"GetLongPathNameW", decltype(&::GetLongPathNameW)>,
             Counted<"LookupAccountNameW", decltype(&::LookupAccountNameW)>,
             Counted<"PathIsDirectoryEmptyW", decltype(&::PathIsDirectoryEmptyW)>,
             Counted<"RegCloseKey", decltype(&::RegCloseKey)>,
             Counted<"RegCreateKeyExW", decltype(&::RegCreateKeyExW)>,
             Counted<"RegDeleteTreeW", decltype(&::RegDeleteTreeW)>,
             Counted<"RegDeleteValueW", decltype(&::RegDeleteValueW)>,
             Counted<"RegSetValueExW", decltype(&::RegSetValueExW)>,
             Counted<"SHCreateDirectory", decltype(&::SHCreateDirectory)>,
             Counted<"SHCreateStreamOnFileW", decltype(&::SHCreateStreamOnFileW)>,
             Counted<"SetFileAttributesW", decltype(&::SetFileAttributesW)>,
             Counted<"StringFromCLSID", decltype(&::StringFromCLSID)>>
      others_;
};

// What one operation took.
struct Cost {
  int allocations = -1;
  std::size_t largestAllocation = 0;
  // Of texts, in either direction.
  int conversions = -1;
};

template <typename Operation>
Cost CostOf(Operation operation) {
  const ImportDouble<"MultiByteToWideChar", decltype(&::MultiByteToWideChar)> toWide;
  const ImportDouble<"WideCharToMultiByte", decltype(&::WideCharToMultiByte)> toNarrow;
  const HeapWatch heap;
  operation();
  return {heap.Allocations(), heap.LargestAllocation(), toWide.Count() + toNarrow.Count()};
}

class EntryCostTest : public NimbraTest {
 public:
  EntryCostTest() {
    entry_.clsid = clsid_;
    entry_.root = root_;
    entry_.remotePath = "/Pictures";
  }

  void Enter() const { EXPECT_EQ(Register(entry_), 0); }
  void Remove() const { EXPECT_EQ(Unregister(entry_), 0); }
  void RemoveEntryAlone() const {
    EXPECT_EQ(CORVWinCFSyncEngineUnregisterSystemFolder(clsid_.c_str()), 0);
  }
  // Registers another root in the same folder.
  void EnterOther(int number) const {
    EntryArguments other = entry_;
    other.root = "C:\\windows";
    other.remotePath = "/" + std::to_string(number);
    EXPECT_EQ(Register(other), 0);
  }

 protected:
  const ComApartment com_{COINIT_MULTITHREADED};
  const TempFolder appData_;
  const std::string root_ = appData_.MakeFolder("Root");
  const EntryParents parents_;
  const std::string clsid_ = NextClsid();
  const EntryKeys keys_{clsid_};
  EntryArguments entry_;
  const WindowsCalls calls_{appData_.Path()};
};

struct EntryRow {
  const char* name;
  std::function<void(const EntryCostTest&)> prepare;
  std::function<void(const EntryCostTest&)> run;
  Counts calls;
  int lines;
  int mostConversions;
  int mostAllocations;
};

void PrintTo(const EntryRow& row, std::ostream* out) { *out << row.name; }

using Test = const EntryCostTest&;

// NOLINTNEXTLINE(readability-function-size): a table.
std::vector<EntryRow> EntryRows() {
  return {
      {"Register",
       [](Test) {},
       [](Test test) { test.Enter(); },
       // The folders: to make the one for the shortcuts, to name the shortcut, to name its icon,
       // to write both into the registry.
       {{"CoCreateInstance", 1},
        {"CoInitializeEx", 1},
        {"FindFirstFileW", 1},
        {"RegCloseKey", 8},
        {"RegCreateKeyExW", 8},
        {"RegSetValueExW", 12},
        {"SHCreateDirectory", 1},
        {"SHGetFolderPathW", 5},
        {"SetFileAttributesW", 1}},
       2,
       48,
       80},
      {"UnregisterTheLastRoot",
       [](Test test) { test.Enter(); },
       [](Test test) { test.Remove(); },
       // Two of the links are for the folder's "." and "..".
       {{"CoCreateInstance", 3},
        {"CoInitializeEx", 1},
        {"DeleteFileW", 1},
        {"FindFirstFileW", 1},
        {"FindNextFileW", 2},
        {"GetLongPathNameW", 1},
        {"PathIsDirectoryEmptyW", 1},
        {"RegCloseKey", 3},
        {"RegCreateKeyExW", 3},
        {"RegDeleteTreeW", 2},
        {"RegDeleteValueW", 1},
        {"SHGetFolderPathW", 2}},
       2,
       21,
       40},
      // Ten others come before it: each is one link, which is resolved once.
      {"UnregisterOneOfElevenRoots",
       [](Test test) {
         for (int i = 0; i < 10; ++i) {
           test.EnterOther(i);
         }
         test.Enter();
       },
       [](Test test) { test.Remove(); },
       {{"CoCreateInstance", 13},
        {"CoInitializeEx", 1},
        {"DeleteFileW", 1},
        {"FindFirstFileW", 1},
        {"FindNextFileW", 12},
        {"GetLongPathNameW", 11},
        {"PathIsDirectoryEmptyW", 1},
        {"SHGetFolderPathW", 2}},
       22,
       76,
       92},
      {"UnregisterSystemFolder",
       [](Test test) { test.Enter(); },
       [](Test test) { test.RemoveEntryAlone(); },
       {{"RegCloseKey", 3}, {"RegCreateKeyExW", 3}, {"RegDeleteTreeW", 2}, {"RegDeleteValueW", 1}},
       0,
       5,
       10}};
}

class EntryCostRowTest : public EntryCostTest, public testing::WithParamInterface<EntryRow> {};

Counts Difference(Counts counts, const Counts& before) {
  for (const auto& [name, count] : before) {
    if ((counts[name] -= count) == 0) {
      counts.erase(name);
    }
  }
  return counts;
}

TEST_P(EntryCostRowTest, MakesTheCallsItIsForAndFewElse) {
  GetParam().prepare(*this);
  const Counts before = calls_.Get();
  log_.Clear();
  const Cost cost = CostOf([this] { GetParam().run(*this); });
  EXPECT_EQ(Difference(calls_.Get(), before), GetParam().calls);
  EXPECT_EQ(log_.Lines().size(), static_cast<std::size_t>(GetParam().lines));
  EXPECT_LE(cost.conversions, GetParam().mostConversions);
  EXPECT_LE(cost.allocations, GetParam().mostAllocations);
}

INSTANTIATE_TEST_SUITE_P(Entry, EntryCostRowTest, testing::ValuesIn(EntryRows()),
                         testing::PrintToStringParamName());

class GuidCostTest : public NimbraTest {};

TEST_F(GuidCostTest, OneIsMadeByTwoCallsAndConvertedOnce) {
  const WindowsCalls calls;
  const Cost cost = CostOf([] {
    char* text = nullptr;
    EXPECT_EQ(CORVWinCFGenerateGuid(&text), 0);
    CORVWinCFReleaseGuid(text);
  });
  EXPECT_EQ(calls.Get(), (Counts{{"CoCreateGuid", 1}, {"StringFromCLSID", 1}}));
  // Once for the length, once for the text.
  EXPECT_EQ(cost.conversions, 2);
  EXPECT_LE(cost.allocations, 2);
}

class RegistrationCostTest : public RegistrationFixture {};

TEST_F(RegistrationCostTest, ADescriptionIsTwoKeysAndFiveValues) {
  const WindowsCalls calls;
  const Cost cost = CostOf([this] { EXPECT_EQ(Register(), S_OK); });
  EXPECT_EQ(calls.Get(), (Counts{{"ConvertSidToStringSidW", 1},
                                 {"LookupAccountNameW", 2},
                                 {"RegCloseKey", 2},
                                 {"RegCreateKeyExW", 2},
                                 {"RegSetValueExW", 5},
                                 {"SHGetFolderPathW", 1}}));
  EXPECT_THAT(cloud_.CallNames(), ElementsAre("CfRegisterSyncRoot"));
  EXPECT_EQ(log_.Lines().size(), 2u);
  EXPECT_LE(cost.conversions, 21);
  EXPECT_LE(cost.allocations, 21);
}

TEST_F(RegistrationCostTest, ADescriptionIsDeletedThroughTheKeyAboveIt) {
  ASSERT_EQ(Register(), S_OK);
  cloud_.Clear();
  log_.Clear();
  const WindowsCalls calls;
  const Cost cost = CostOf([this] { EXPECT_EQ(CORVWinCFSyncRootUnregister(root_.Get()), S_OK); });
  EXPECT_EQ(calls.Get(), (Counts{{"ConvertSidToStringSidW", 1},
                                 {"LookupAccountNameW", 2},
                                 {"RegCloseKey", 1},
                                 {"RegCreateKeyExW", 1},
                                 {"RegDeleteTreeW", 1}}));
  EXPECT_THAT(cloud_.CallNames(), ElementsAre("CfUnregisterSyncRoot"));
  EXPECT_THAT(log_.Lines(), IsEmpty());
  EXPECT_LE(cost.conversions, 6);
  EXPECT_LE(cost.allocations, 9);
}

struct ImageRow {
  const char* name;
  std::string (*file)(const Picture& picture);
};

void PrintTo(const ImageRow& row, std::ostream* out) { *out << row.name; }

const ImageRow kImageRows[] = {
    {"InTheBitmapsFormat", PngFileWithAlpha},
    {"ToBeConverted", [](const Picture& picture) { return PngFile(picture, 8); }},
};

class ThumbnailCostTest : public ThumbnailFileTest, public testing::WithParamInterface<ImageRow> {};

// That they are copied by one call of the imaging component, straight into the bitmap, is in
// ThumbnailImagingTest.
TEST_P(ThumbnailCostTest, TheImageIsOpenedOnceAndNothingButTheBitmapHoldsItsPixels) {
  const Picture picture = MakePicture(
      600, 400, [](std::uint32_t x, std::uint32_t y) { return 0xFF000000U | x << 8 | y % 256; });
  const Retriever retriever(Wide(folder_.WriteFile("x.png", GetParam().file(picture))));
  BitmapOwner(Ask(*Initialized()).bitmap).Delete();  // What is made once per process is made now.
  const auto provider = NewProvider();
  const std::size_t sections = bitmaps_.Sections().size();
  const WindowsCalls calls;
  log_.Clear();
  Thumbnail thumbnail{};
  const Cost cost = CostOf([&] {
    EXPECT_EQ(provider->Initialize(&item_, 0), S_OK);
    thumbnail = Ask(*provider);
  });
  const BitmapOwner bitmap(thumbnail.bitmap);
  EXPECT_EQ(PixelsOf(bitmap.Get()), picture);
  EXPECT_EQ(calls.Get(), (Counts{{"CoCreateInstance", 1}, {"SHCreateStreamOnFileW", 1}}));
  EXPECT_EQ(bitmaps_.Sections().size(), sections + 1);
  EXPECT_EQ(log_.Lines().size(), 2u);
  // Each line's path becomes UTF-8, and the line UTF-16.
  EXPECT_EQ(cost.conversions, 6);
  EXPECT_LE(cost.allocations, 4);
  EXPECT_LT(cost.largestAllocation, 1000u) << "no pixels";
}

INSTANTIATE_TEST_SUITE_P(Images, ThumbnailCostTest, testing::ValuesIn(kImageRows),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace nimbra_test
