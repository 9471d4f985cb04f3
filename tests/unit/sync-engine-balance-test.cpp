#include <windows.h>
// windows.h first.
#include <shlobj.h>

#include <cstdint>
#include <cwchar>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/handle-census.h"
#include "tests/support/heap-census.h"
#include "tests/unit/explorer-entry-fixture.h"

// What is left behind in the user's own registry and folders: nothing here is redirected.
namespace nimbra_test {
namespace {

using testing::ElementsAreArray;
using testing::IsEmpty;

std::wstring ShellFolder(int folder) {
  wchar_t path[MAX_PATH] = {};
  if (SHGetFolderPathW(nullptr, folder, nullptr, SHGFP_TYPE_CURRENT, path) != S_OK) {
    throw std::runtime_error("a shell folder is missing");
  }
  return path;
}

// The client's folders in the user's local application data: those that were not there are removed
// again.
class ClientFolders {
 public:
  explicit ClientFolders(std::uint64_t number) {
    std::wstring path = ShellFolder(CSIDL_LOCAL_APPDATA);
    for (const std::wstring& name :
         {std::wstring(L"CorvaneDrive"), std::wstring(L"SystemFolders"), std::to_wstring(number)}) {
      path += L"\\" + name;
      if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) {
        made_.push_back(path);
      }
    }
    last_ = path;
  }
  ~ClientFolders() {
    for (; !made_.empty(); made_.pop_back()) {
      RemoveDirectoryW(made_.back().c_str());
    }
  }
  ClientFolders(const ClientFolders&) = delete;
  ClientFolders& operator=(const ClientFolders&) = delete;

  const std::wstring& Last() const { return last_; }
  const std::vector<std::wstring>& Made() const { return made_; }

 private:
  std::wstring last_;
  std::vector<std::wstring> made_;
};

// 200 unless the environment says otherwise: NIMBRA_TEST_ROUNDS=10000 for the long run.
int Rounds() {
  wchar_t text[16] = {};
  const DWORD length = GetEnvironmentVariableW(L"NIMBRA_TEST_ROUNDS", text, 16);
  const int rounds =
      length > 0 && length < 16 ? static_cast<int>(std::wcstol(text, nullptr, 10)) : 200;
  if (rounds <= 0) {
    throw std::runtime_error("NIMBRA_TEST_ROUNDS is not a number of rounds");
  }
  return rounds;
}

class EntryBalanceTest : public testing::Test {
 protected:
  EntryBalanceTest() {
    entry_.clsid = clsid_;
    entry_.systemFolder = 990000000000u + GetCurrentProcessId();
    entry_.root = root_.Utf8();
    entry_.remotePath = "/balance";
    folders_.emplace(entry_.systemFolder);
  }

  const WindowsBuild windows_{kUsualBuild};
  const ComApartment com_{COINIT_MULTITHREADED};
  const EntryParents parents_;
  const std::string clsid_ = NextClsid();
  const EntryKeys keys_{clsid_};
  const TempFolder root_;
  EntryArguments entry_;
  std::optional<ClientFolders> folders_;
};

TEST_F(EntryBalanceTest, OfAnEntryStayItsFolderAndAnEmptyClassKey) {
  const std::wstring appData = ShellFolder(CSIDL_LOCAL_APPDATA);
  const std::wstring all = appData.substr(0, appData.rfind(L'\\'));
  const Snapshot registry = RegistrySnapshot();
  const Snapshot files = FolderSnapshot(all);

  ASSERT_EQ(Register(entry_), 0);
  EXPECT_GT(Changes(registry, RegistrySnapshot()).size(), 15u);
  EXPECT_EQ(Changes(files, FolderSnapshot(all)).size(), folders_->Made().size() + 1);
  ASSERT_EQ(Unregister(entry_), 0);

  EXPECT_THAT(Changes(registry, RegistrySnapshot()),
              ElementsAreArray({R"(+ Software\Classes\CLSID\)" + clsid_}));
  std::vector<std::string> expected;
  for (const std::wstring& folder : folders_->Made()) {
    expected.push_back("+ " + Narrow(folder.substr(all.size() + 1)));
  }
  EXPECT_EQ(Changes(files, FolderSnapshot(all)), expected);
  const DWORD attributes = GetFileAttributesW(folders_->Last().c_str());
  EXPECT_NE(attributes & FILE_ATTRIBUTE_HIDDEN, 0u);
  EXPECT_NE(attributes & FILE_ATTRIBUTE_SYSTEM, 0u);
  EXPECT_THAT(FolderSnapshot(folders_->Last()), IsEmpty());
}

TEST_F(EntryBalanceTest, ManyRoundsLeaveNoMoreThanOne) {
  const auto round = [this] {
    ASSERT_EQ(Register(entry_), 0);
    ASSERT_EQ(Unregister(entry_), 0);
  };
  // The system's own first uses.
  for (int i = 0; i < 20; ++i) {
    round();
  }
  const Snapshot registry = RegistrySnapshot();
  const Snapshot files = FolderSnapshot(ShellFolder(CSIDL_LOCAL_APPDATA));
  const std::size_t handles = OpenHandleCount();
  const std::size_t blocks = BusyHeapBlocks();

  const int rounds = Rounds();
  for (int i = 0; i < rounds; ++i) {
    round();
  }

  EXPECT_EQ(BusyHeapBlocks(), blocks);
  EXPECT_EQ(OpenHandleCount(), handles);
  EXPECT_THAT(Changes(registry, RegistrySnapshot()), IsEmpty());
  EXPECT_THAT(Changes(files, FolderSnapshot(ShellFolder(CSIDL_LOCAL_APPDATA))), IsEmpty());
  RecordProperty("rounds", rounds);
}

TEST_F(EntryBalanceTest, ManyGuidsLeaveNothing) {
  const auto round = [] {
    char* text = nullptr;
    ASSERT_EQ(CORVWinCFGenerateGuid(&text), 0);
    CORVWinCFReleaseGuid(text);
  };
  for (int i = 0; i < 20; ++i) {
    round();
  }
  const std::size_t handles = OpenHandleCount();
  const std::size_t blocks = BusyHeapBlocks();
  const int rounds = Rounds();
  for (int i = 0; i < rounds; ++i) {
    round();
  }
  EXPECT_EQ(BusyHeapBlocks(), blocks);
  EXPECT_EQ(OpenHandleCount(), handles);
}

}  // namespace
}  // namespace nimbra_test
