#include "win-cf/sync-root.h"

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <locale>
#include <string>
#include <type_traits>
#include <vector>

#include "nimbra/nimbra.h"
#include "tests/support/heap-watch.h"
#include "tests/support/import-double.h"
#include "tests/support/nimbra-test.h"
#include "tests/support/sync-root-handles.h"

namespace {

using corvdrive::cloud_filter::SyncRootBase;
using corvdrive::cloud_filter::SyncRootWinCF;
using nimbra_test::CloudFunction;
using nimbra_test::HeapWatch;
using nimbra_test::kAccessDenied;
using nimbra_test::SyncRoot;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string kPrefix = "Corvane.Drive.FileStreaming.session.";

using GetUserNameDouble = nimbra_test::ImportDouble<"GetUserNameW", decltype(&::GetUserNameW)>;
using LookupDouble =
    nimbra_test::ImportDouble<"LookupAccountNameW", decltype(&::LookupAccountNameW)>;

// A thousands separator in the program's locale must not reach a number of ours.
struct Grouping : std::numpunct<char> {
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

class GroupingLocale {
 public:
  GroupingLocale() : previous_(std::locale::global(std::locale(std::locale(), new Grouping))) {}
  ~GroupingLocale() { std::locale::global(previous_); }
  GroupingLocale(const GroupingLocale&) = delete;
  GroupingLocale& operator=(const GroupingLocale&) = delete;

 private:
  std::locale previous_;
};

class SyncRootTest : public nimbra_test::NimbraTest {
 protected:
  // The cell behind a handle begins with the object's address.
  static void* ObjectBehind(CORVWinCFSyncRootHandle handle) {
    void* object = nullptr;
    std::memcpy(&object, handle, sizeof object);
    return object;
  }

  static const SyncRootWinCF& Root(CORVWinCFSyncRootHandle handle) {
    return *static_cast<const SyncRootWinCF*>(ObjectBehind(handle));
  }
};

// Where a virtual operation stands in the table, in slots of the compiler's own layout.
template <typename Member>
std::ptrdiff_t Slot(Member member) {
  std::ptrdiff_t offset = 0;
  static_assert(sizeof member >= sizeof offset);
  std::memcpy(&offset, &member, sizeof offset);
  return offset;
}

#if !defined(_MSC_VER)
TEST(SyncRootClassTest, HasItsVirtualOperationsInTheirOrder) {
  const auto slot = static_cast<std::ptrdiff_t>(sizeof(void*));
  const auto first = Slot(&SyncRootBase::Disconnect);
  EXPECT_EQ(Slot(&SyncRootBase::Register), first + slot);
  EXPECT_EQ(Slot(&SyncRootBase::Reregister), first + 2 * slot);
  EXPECT_EQ(Slot(&SyncRootBase::Unregister), first + 3 * slot);
  EXPECT_EQ(Slot(&SyncRootBase::TransferData), first + 4 * slot);
}
#endif

TEST(SyncRootClassTest, IsAnAbstractBaseAndAClassThatFillsEverySlot) {
  static_assert(std::is_abstract_v<SyncRootBase>);
  static_assert(std::has_virtual_destructor_v<SyncRootBase>);
  static_assert(std::is_base_of_v<SyncRootBase, SyncRootWinCF>);
  static_assert(!std::is_abstract_v<SyncRootWinCF>);
  // The table pointer, three strings and the connection key: no state besides.
  EXPECT_EQ(sizeof(SyncRootWinCF),
            sizeof(void*) + 3 * sizeof(std::string) + sizeof(CF_CONNECTION_KEY));
}

struct SessionRow {
  std::uint64_t session;
  const char* digits;
};

TEST_F(SyncRootTest, IdentityIsThePrefixFollowedByTheSessionInDecimal) {
  const SessionRow rows[] = {
      {0, "0"},
      {1, "1"},
      {42, "42"},
      {1234567, "1234567"},
      {2147483647, "2147483647"},
      {2147483648, "2147483648"},
      {9223372036854775808u, "9223372036854775808"},
      {18446744073709551615u, "18446744073709551615"},
  };
  const GroupingLocale locale;
  for (const SessionRow& row : rows) {
    SCOPED_TRACE(row.digits);
    const SyncRoot root("C:\\Sync", row.session);
    EXPECT_EQ(Root(root.Get()).Identity(), kPrefix + row.digits);
  }
}

TEST_F(SyncRootTest, TwoRootsOfOneSessionCarryTheSameIdentity) {
  const SyncRoot first("C:\\First", 42);
  const SyncRoot second("C:\\Second", 42);
  EXPECT_NE(first.Get(), second.Get());
  EXPECT_EQ(Root(first.Get()).Identity(), Root(second.Get()).Identity());
}

TEST_F(SyncRootTest, KeepsACopyOfThePathAsGiven) {
  const std::vector<std::string> paths = {
      "",
      "C:\\Sync",
      "C:/Sync/with/slashes",
      "relative",
      R"(\\server\share\trailing\)",
      // NOLINTNEXTLINE(bugprone-suspicious-missing-comma): the escape would take the "e" in.
      "C:\\Gr\xC3\xBC\xC3\x9F"
      "e \xE6\x97\xA5 \xF0\x9F\x98\x80",
      std::string(32767, 'p'),
  };
  for (const std::string& path : paths) {
    SCOPED_TRACE(path.substr(0, 40));
    std::string callers = path;
    CORVWinCFSyncRootHandle handle = nullptr;
    ASSERT_EQ(CORVWinCFSyncRootNew(&handle, callers.c_str(), 1), 0);
    std::fill(callers.begin(), callers.end(), '!');
    EXPECT_EQ(Root(handle).Path(), path);
    CORVWinCFSyncRootRelease(&handle);
  }
}

TEST_F(SyncRootTest, AsksForTheUserNameWithTwiceTheBufferSize) {
  bool zeroed = false;
  DWORD size = 0;
  const GetUserNameDouble userName(
      [&](GetUserNameDouble::Function original, LPWSTR buffer, LPDWORD length) {
        size = *length;
        zeroed = std::all_of(buffer, buffer + 257, [](wchar_t c) { return c == L'\0'; });
        return original(buffer, length);
      });

  const SyncRoot root;

  EXPECT_EQ(userName.Count(), 1);
  EXPECT_EQ(size, 514u);
  EXPECT_TRUE(zeroed);
}

// The account that the root looks up to find its user's SID.
std::wstring AccountOf(const SyncRoot& root) {
  std::wstring account = L"(never looked up)";
  const LookupDouble lookup([&](LookupDouble::Function, LPCWSTR, LPCWSTR name, PSID, LPDWORD,
                                LPWSTR, LPDWORD, PSID_NAME_USE) {
    account = name;
    SetLastError(ERROR_NONE_MAPPED);
    return FALSE;
  });
  CORVWinCFSyncRootUnregister(root.Get());
  return account;
}

TEST_F(SyncRootTest, KeepsTheNameOfTheUser) {
  for (const std::wstring& name :
       {std::wstring(L"me"), std::wstring(L"J\u00F6rg \u65E5\u672C \U0001F600"),
        std::wstring(256, L'\u65E5')}) {
    const GetUserNameDouble userName(
        [&](GetUserNameDouble::Function, LPWSTR buffer, LPDWORD length) {
          std::copy(name.begin(), name.end(), buffer);
          *length = static_cast<DWORD>(name.size() + 1);
          return TRUE;
        });
    const SyncRoot root;
    EXPECT_EQ(AccountOf(root), name);
  }
}

TEST_F(SyncRootTest, AUserNameThatCannotBeHadIsEmptyAndSilent) {
  const GetUserNameDouble userName([](GetUserNameDouble::Function, LPWSTR buffer, LPDWORD) {
    std::wcscpy(buffer, L"leftover");
    SetLastError(ERROR_NONE_MAPPED);
    return FALSE;
  });
  const SyncRoot root;
  EXPECT_THAT(log_.Lines(), IsEmpty());
  EXPECT_EQ(AccountOf(root), L"");
}

TEST_F(SyncRootTest, NewTellsThePlatformNothing) {
  const SyncRoot root;
  EXPECT_THAT(cloud_.CallNames(), IsEmpty());
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(SyncRootTest, NewBehindAClosedGateDoesNothing) {
  windows_.Become(nimbra_test::kBuildWithoutStreaming);
  const GetUserNameDouble userName;
  auto* const poison = reinterpret_cast<CORVWinCFSyncRootHandle>(0x5A5A);
  CORVWinCFSyncRootHandle handle = poison;
  int result = 0;
  int allocations = 0;
  {
    const HeapWatch heap;
    result = CORVWinCFSyncRootNew(&handle, "C:\\Sync", 1);
    allocations = heap.Allocations();
  }
  EXPECT_EQ(result, -1);
  EXPECT_EQ(handle, poison);
  EXPECT_EQ(allocations, 0);
  EXPECT_EQ(userName.Count(), 0);
}

TEST_F(SyncRootTest, NewThatRunsOutOfMemoryFailsAndLeavesTheOutput) {
  auto* const poison = reinterpret_cast<CORVWinCFSyncRootHandle>(0x5A5A);
  const std::string path(100, 'p');
  for (const bool persistent : {false, true}) {
    SCOPED_TRACE(persistent ? "every allocation from one on" : "one allocation");
    const int refused = nimbra_test::ForEachFailingAllocation(
        [&](auto&& watched, const bool& failed) {
          CORVWinCFSyncRootHandle handle = poison;
          int result = 0;
          watched([&] { result = CORVWinCFSyncRootNew(&handle, path.c_str(), UINT64_MAX); });
          if (result == 0) {
            EXPECT_NE(handle, poison);
            CORVWinCFSyncRootRelease(&handle);
          } else {
            EXPECT_TRUE(failed);
            EXPECT_EQ(result, -1);
            EXPECT_EQ(handle, poison);
          }
        },
        persistent);
    EXPECT_GE(refused, 2) << "the object and the cell at least";
  }
}

TEST_F(SyncRootTest, NewThatRunsOutOfMemoryKeepsNoBlock) {
  const std::string path(100, 'p');
  for (int n = 1; n <= 100; ++n) {
    CORVWinCFSyncRootHandle handle = nullptr;
    int result = 0;
    int live = 0;
    bool failed = false;
    {
      HeapWatch heap;
      heap.FailAllocation(n);
      result = CORVWinCFSyncRootNew(&handle, path.c_str(), 1);
      failed = heap.Failed();
      heap.StopFailing();
      live = heap.LiveBlocks();
    }
    if (!failed) {
      CORVWinCFSyncRootRelease(&handle);
      return;
    }
    if (result != 0) {
      EXPECT_EQ(live, 0) << "allocation " << n;
    }
  }
  FAIL() << "no run without a failure";
}

TEST_F(SyncRootTest, ReleaseFreesTheCellOnlyAndTheObjectLivesOn) {
  std::size_t cellSize = 0;
  bool cellFreed = false;
  bool objectFreed = true;
  bool objectAllocated = false;
  {
    const HeapWatch heap;
    CORVWinCFSyncRootHandle handle = nullptr;
    ASSERT_EQ(CORVWinCFSyncRootNew(&handle, "C:\\Sync", 1), 0);
    const void* const cell = handle;
    const void* const object = ObjectBehind(handle);
    cellSize = HeapWatch::BlockSize(cell);
    CORVWinCFSyncRootRelease(&handle);
    cellFreed = HeapWatch::WasFreed(cell);
    objectFreed = HeapWatch::WasFreed(object);
    objectAllocated = HeapWatch::IsAllocated(object);
  }
  EXPECT_EQ(cellSize, 16u);
  EXPECT_TRUE(cellFreed);
  EXPECT_FALSE(objectFreed);
  EXPECT_TRUE(objectAllocated);
}

TEST_F(SyncRootTest, ReleaseDoesNotDisconnect) {
  CORVWinCFSyncRootHandle handle = nullptr;
  ASSERT_EQ(CORVWinCFSyncRootNew(&handle, "C:\\Sync", 1), 0);
  const nimbra_test::Delegator delegator;
  ASSERT_EQ(CORVWinCFSyncRootConnect(handle, delegator.Get()), S_OK);
  cloud_.Clear();
  CORVWinCFSyncRootRelease(&handle);
  EXPECT_THAT(cloud_.CallNames(), IsEmpty());
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(SyncRootTest, ReleaseWorksBehindAClosedGate) {
  CORVWinCFSyncRootHandle handle = nullptr;
  ASSERT_EQ(CORVWinCFSyncRootNew(&handle, "C:\\Sync", 1), 0);
  windows_.Become(nimbra_test::kBuildWithoutStreaming);
  bool freed = false;
  {
    const HeapWatch heap;
    const void* const cell = handle;
    CORVWinCFSyncRootRelease(&handle);
    freed = HeapWatch::WasFreed(cell);
  }
  EXPECT_TRUE(freed);
}

TEST_F(SyncRootTest, ReleaseOfAnEmptyHandleVariableFreesNothing) {
  CORVWinCFSyncRootHandle handle = nullptr;
  int live = 0;
  {
    const HeapWatch heap;
    CORVWinCFSyncRootRelease(&handle);
    live = heap.LiveBlocks();
  }
  EXPECT_EQ(live, 0);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

// Each export that takes a sync root handle and tests it.
struct HandleExport {
  const char* name;
  std::int32_t (*call)(CORVWinCFSyncRootHandle);
  std::int32_t closedGate;
  std::int32_t nullHandle;
};

constexpr HandleExport kHandleExports[] = {
    {"Register", [](CORVWinCFSyncRootHandle h) { return CORVWinCFSyncRootRegister(h, "t"); },
     E_NOINTERFACE, E_POINTER},
    {"Reregister", [](CORVWinCFSyncRootHandle h) { return CORVWinCFSyncRootReregister(h, "t"); },
     E_NOINTERFACE, E_POINTER},
    {"Unregister", [](CORVWinCFSyncRootHandle h) { return CORVWinCFSyncRootUnregister(h); },
     E_NOINTERFACE, E_POINTER},
    {"Disconnect", [](CORVWinCFSyncRootHandle h) { return CORVWinCFSyncRootDisconnect(h); },
     E_NOINTERFACE, E_POINTER},
    {"TransferData",
     [](CORVWinCFSyncRootHandle h) {
       return CORVWinCFSyncRootTransferData(h, 1, 0, nullptr, 0, 0, 0);
     },
     E_NOINTERFACE, E_POINTER},
    {"ReportTransferProgress",
     [](CORVWinCFSyncRootHandle h) { return CORVWinCFSyncRootReportTransferProgress(h, 1, 2, 1); },
     E_NOINTERFACE, E_POINTER},
    {"AckRename", [](CORVWinCFSyncRootHandle h) { return CORVWinCFSyncRootAckRename(h, 1); }, -1,
     -1},
    {"AckDelete", [](CORVWinCFSyncRootHandle h) { return CORVWinCFSyncRootAckDelete(h, 1, 0, 0); },
     -1, -1},
};

TEST_F(SyncRootTest, AClosedGateIsToldBeforeANullHandle) {
  const SyncRoot root;
  windows_.Become(nimbra_test::kBuildWithoutStreaming);
  for (const HandleExport& row : kHandleExports) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(row.call(nullptr), row.closedGate);
    EXPECT_EQ(row.call(root.Get()), row.closedGate);
  }
  EXPECT_THAT(cloud_.CallNames(), IsEmpty());
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(SyncRootTest, ANullHandleIsRefusedWithoutTellingThePlatform) {
  for (const HandleExport& row : kHandleExports) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(row.call(nullptr), row.nullHandle);
  }
  EXPECT_THAT(cloud_.CallNames(), IsEmpty());
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

// Nothing in the object records what was done before: every call reaches the platform, whose
// result decides.
TEST_F(SyncRootTest, AnyOrderOfCallsReachesThePlatform) {
  const SyncRoot root;
  cloud_.Always(CloudFunction::UnregisterSyncRoot, kAccessDenied);
  cloud_.Always(CloudFunction::DisconnectSyncRoot, kAccessDenied);
  cloud_.Always(CloudFunction::Execute, kAccessDenied);

  EXPECT_EQ(CORVWinCFSyncRootUnregister(root.Get()), kAccessDenied);
  EXPECT_EQ(CORVWinCFSyncRootDisconnect(root.Get()), kAccessDenied);
  EXPECT_EQ(CORVWinCFSyncRootTransferData(root.Get(), 1, 0, "", 0, 0, 0), kAccessDenied);

  EXPECT_THAT(cloud_.CallNames(),
              ElementsAre("CfUnregisterSyncRoot", "CfDisconnectSyncRoot", "CfExecute"));
}

}  // namespace
