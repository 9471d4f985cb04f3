#include <windows.h>
// windows.h first.
#include <shlobj.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <ostream>
#include <string>

#include "nimbra/nimbra.h"
#include "tests/support/file-watch.h"
#include "tests/support/heap-watch.h"
#include "tests/support/nimbra-test.h"
#include "tests/support/raw-bytes.h"
#include "tests/support/registry-watch.h"

namespace nimbra_test {
namespace {

struct BuildRow {
  DWORD major;
  DWORD minor;
  DWORD build;
  bool supports;
  bool hidesOption;
  bool isDefault;
};

void PrintTo(const BuildRow& row, std::ostream* out) {
  *out << "Windows" << row.major << '_' << row.minor << '_' << row.build;
}

class VersionFlagTest : public testing::TestWithParam<BuildRow> {};

TEST_P(VersionFlagTest, FlagsFollowTheWindowsVersion) {
  const BuildRow& row = GetParam();
  const WindowsBuild windows(row.major, row.minor, row.build);

  EXPECT_EQ(CORVWinCFIsWinVersionSupportFileStreaming(), row.supports);
  EXPECT_EQ(CORVWinCFIsWinVersionDisableUIFileStreamingOption(), row.hidesOption);
  EXPECT_EQ(CORVWinCFIsWinVersionDefaultFileStreaming(), row.isDefault);
}

INSTANTIATE_TEST_SUITE_P(
    Windows, VersionFlagTest,
    testing::Values(
        BuildRow{6, 1, 7601, false, false, false}, BuildRow{6, 2, 9200, false, false, false},
        BuildRow{6, 3, 17763, false, false, false}, BuildRow{10, 0, 0, false, false, false},
        BuildRow{10, 0, 10240, false, false, false}, BuildRow{10, 0, 16299, false, false, false},
        BuildRow{10, 0, 17133, false, false, false}, BuildRow{10, 0, 17134, true, true, false},
        BuildRow{10, 0, 17135, true, false, false}, BuildRow{10, 0, 17762, true, false, false},
        BuildRow{10, 0, 17763, true, false, true}, BuildRow{10, 0, 17764, true, false, true},
        BuildRow{10, 0, 19045, true, false, true}, BuildRow{10, 0, 22631, true, false, true}),
    testing::PrintToStringParamName());

TEST(VersionQueryTest, AsksForTheThreeVersionsWithTheDocumentedConditions) {
  const WindowsBuild windows(kUsualBuild);
  const auto mask = [](BYTE condition) {
    DWORDLONG conditions = 0;
    conditions = VerSetConditionMask(conditions, VER_MAJORVERSION, condition);
    conditions = VerSetConditionMask(conditions, VER_MINORVERSION, condition);
    return VerSetConditionMask(conditions, VER_BUILDNUMBER, condition);
  };
  struct {
    DWORD build;
    BYTE condition;
  } const expected[] = {{17134, VER_GREATER_EQUAL}, {17134, VER_EQUAL}, {17763, VER_GREATER_EQUAL}};

  ASSERT_EQ(windows.Queries().size(), 3u);
  for (std::size_t i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    const WindowsBuild::Query& query = windows.Queries()[i];
    OSVERSIONINFOEXW version{};
    version.dwOSVersionInfoSize = 284;
    version.dwMajorVersion = 10;
    version.dwBuildNumber = expected[i].build;
    EXPECT_EQ(RawBytes(query.version), RawBytes(version));
    EXPECT_EQ(query.typeMask, 7u);
    EXPECT_EQ(query.conditionMask, mask(expected[i].condition));
  }
}

TEST(VersionQueryTest, ReadingTheFlagsAsksWindowsNothing) {
  WindowsBuild windows(kUsualBuild);
  const std::size_t before = windows.Queries().size();

  CORVWinCFIsWinVersionSupportFileStreaming();
  CORVWinCFIsWinVersionDisableUIFileStreamingOption();
  CORVWinCFIsWinVersionDefaultFileStreaming();

  EXPECT_EQ(windows.Queries().size(), before);
}

// What a gated export may write to. Handles are addresses that nobody can read.
struct Arguments {
  template <typename Handle>
  Handle Unreadable() const {
    return reinterpret_cast<Handle>(static_cast<std::uintptr_t>(0x10));
  }
  template <typename Handle>
  Handle* Output() {
    return reinterpret_cast<Handle*>(poison.data());
  }
  const char* Text() const { return Unreadable<const char*>(); }

  alignas(16) std::array<unsigned char, 256> poison;
};

struct ClosedRow {
  const char* name;
  std::int64_t result;
  std::function<std::int64_t(Arguments&)> call;
};

void PrintTo(const ClosedRow& row, std::ostream* out) { *out << row.name; }

constexpr std::int64_t kNoInterface = static_cast<std::int32_t>(0x80004002);
// Stands for "no result" in the table.
constexpr std::int64_t kNothing = 0;

using SyncRootHandle = CORVWinCFSyncRootHandle;
using DelegatorHandle = CORVWinCFCallbackDelegatorHandle;
using PlaceholderHandle = CORVWinCFPlaceholderHandle;
using MetaHandle = CORVWinCFPlaceholderMetaHandle;

void NeverCalled(const CORVWinCFCallbackRecord*) { ADD_FAILURE() << "called"; }

#define NIMBRA_CLOSED(export, result, ...)                                             \
  ClosedRow {                                                                          \
#export, result, [](Arguments & a) -> std::int64_t { return export(__VA_ARGS__); } \
  }
#define NIMBRA_CLOSED_SYNC_ROOT(export, result, ...) \
  NIMBRA_CLOSED(export, result, a.Unreadable<SyncRootHandle>() __VA_OPT__(, ) __VA_ARGS__)
#define NIMBRA_CLOSED_SETTER(export) \
  NIMBRA_CLOSED(export, -1, a.Unreadable<DelegatorHandle>(), &NeverCalled)
#define NIMBRA_CLOSED_PLACEHOLDER(export, ...) \
  NIMBRA_CLOSED(export, -1, a.Unreadable<PlaceholderHandle>() __VA_OPT__(, ) __VA_ARGS__)

const ClosedRow kClosedRows[] = {
    NIMBRA_CLOSED(CORVWinCFGetPlatformInfo, -1, a.Output<CORVWinCFPlatformInfo>()),
    NIMBRA_CLOSED(CORVWinCFGetSyncRootIdentityByPath, -1, a.Text(), a.Output<char>()),
    NIMBRA_CLOSED(CORVWinCFIsPathUnderCorvDriveSyncRoot, 0, a.Text()),
    NIMBRA_CLOSED(CORVWinCFSyncEngineRegister, -1, a.Text(), a.Text(), 3, a.Text(), a.Text(),
                  a.Text()),
    NIMBRA_CLOSED(CORVWinCFSyncEngineUnregister, -1, a.Text(), a.Text(), 3, a.Text(), a.Text(),
                  a.Text()),
    NIMBRA_CLOSED(CORVWinCFSyncEngineUnregisterSystemFolder, -1, a.Text()),
    NIMBRA_CLOSED(CORVWinCFSyncRootNew, -1, a.Output<SyncRootHandle>(), a.Text(), 1),
    NIMBRA_CLOSED_SYNC_ROOT(CORVWinCFSyncRootRegister, kNoInterface, a.Text()),
    NIMBRA_CLOSED_SYNC_ROOT(CORVWinCFSyncRootReregister, kNoInterface, a.Text()),
    NIMBRA_CLOSED_SYNC_ROOT(CORVWinCFSyncRootUnregister, kNoInterface),
    NIMBRA_CLOSED_SYNC_ROOT(CORVWinCFSyncRootConnect, kNoInterface,
                            a.Unreadable<DelegatorHandle>()),
    NIMBRA_CLOSED_SYNC_ROOT(CORVWinCFSyncRootDisconnect, kNoInterface),
    NIMBRA_CLOSED_SYNC_ROOT(CORVWinCFSyncRootTransferData, kNoInterface, 1, 2, a.Text(), 0, 4096,
                            0),
    NIMBRA_CLOSED_SYNC_ROOT(CORVWinCFSyncRootReportTransferProgress, kNoInterface, 1, 2, 3),
    NIMBRA_CLOSED_SYNC_ROOT(CORVWinCFSyncRootProactiveTransferToPlaceholder, -1,
                            a.Unreadable<PlaceholderHandle>(), a.Text()),
    NIMBRA_CLOSED_SYNC_ROOT(CORVWinCFSyncRootAckRename, -1, 1),
    NIMBRA_CLOSED_SYNC_ROOT(CORVWinCFSyncRootAckDelete, -1, 1, 2, 0),
    NIMBRA_CLOSED(CORVWinCFCallbackDelegatorNew, -1, a.Output<DelegatorHandle>(), nullptr),
    NIMBRA_CLOSED_SETTER(CORVWinCFCallbackDelegatorSetFetchCallback),
    NIMBRA_CLOSED_SETTER(CORVWinCFCallbackDelegatorSetFetchCancelCallback),
    NIMBRA_CLOSED_SETTER(CORVWinCFCallbackDelegatorSetDeleteCallback),
    NIMBRA_CLOSED_SETTER(CORVWinCFCallbackDelegatorSetRenameCallback),
    NIMBRA_CLOSED_SETTER(CORVWinCFCallbackDelegatorSetRenameCompletionCallback),
    NIMBRA_CLOSED_SETTER(CORVWinCFCallbackDelegatorSetOpenCompletionCallback),
    NIMBRA_CLOSED(CORVWinCFIsPlaceholder, -1, a.Text()),
    NIMBRA_CLOSED(CORVWinCFIsPlaceholderByFindData, -1, a.Unreadable<const WIN32_FIND_DATAW*>()),
    NIMBRA_CLOSED(CORVWinCFIsFullyHydrated, -1, a.Text()),
    NIMBRA_CLOSED(CORVWinCFPlaceholderNew, -1, a.Output<PlaceholderHandle>(), a.Text()),
    NIMBRA_CLOSED_PLACEHOLDER(CORVWinCFPlaceholderOpen),
    NIMBRA_CLOSED_PLACEHOLDER(CORVWinCFPlaceholderCreate, a.Text(), a.Unreadable<MetaHandle>()),
    NIMBRA_CLOSED_PLACEHOLDER(CORVWinCFPlaceholderUpdate, a.Text(), a.Unreadable<MetaHandle>()),
    NIMBRA_CLOSED_PLACEHOLDER(CORVWinCFPlaceholderConvertToPlaceholder, a.Text()),
    NIMBRA_CLOSED_PLACEHOLDER(CORVWinCFPlaceholderRevertToNormal),
    NIMBRA_CLOSED_PLACEHOLDER(CORVWinCFPlaceholderIsPlaceholder),
    NIMBRA_CLOSED_PLACEHOLDER(CORVWinCFPlaceholderIsFullyHydrated),
    NIMBRA_CLOSED_PLACEHOLDER(CORVWinCFPlaceholderIsPinned),
    NIMBRA_CLOSED_PLACEHOLDER(CORVWinCFPlaceholderIsExcluded),
    NIMBRA_CLOSED_PLACEHOLDER(CORVWinCFPlaceholderIsInSync),
    {"CORVWinCFPlaceholderGetFileIdentity", kNothing,
     [](Arguments& a) -> std::int64_t {
       CORVWinCFPlaceholderGetFileIdentity(a.Unreadable<PlaceholderHandle>(), a.Output<char>());
       return kNothing;
     }},
    NIMBRA_CLOSED_PLACEHOLDER(CORVWinCFPlaceholderHydrateAll),
    NIMBRA_CLOSED_PLACEHOLDER(CORVWinCFPlaceholderHydrateAllAsync),
    NIMBRA_CLOSED_PLACEHOLDER(CORVWinCFPlaceholderDehydrate, 0, 4096),
    NIMBRA_CLOSED_PLACEHOLDER(CORVWinCFPlaceholderDehydrateAll),
    NIMBRA_CLOSED_PLACEHOLDER(CORVWinCFPlaceholderPinToLocal),
    NIMBRA_CLOSED_PLACEHOLDER(CORVWinCFPlaceholderUnpin),
    NIMBRA_CLOSED_PLACEHOLDER(CORVWinCFPlaceholderForceUnpin),
    NIMBRA_CLOSED_PLACEHOLDER(CORVWinCFPlaceholderSetInSync),
    NIMBRA_CLOSED_PLACEHOLDER(CORVWinCFPlaceholderSetNotInSync),
    NIMBRA_CLOSED_PLACEHOLDER(CORVWinCFPlaceholderSetExcluded),
    {"CORVWinCFPlaceholderMetaNew", kNothing,
     [](Arguments&) -> std::int64_t {
       return reinterpret_cast<std::intptr_t>(CORVWinCFPlaceholderMetaNew(1, 2, 3, 4, 5, 1));
     }},
};

class ClosedGateTest : public NimbraTest, public testing::WithParamInterface<ClosedRow> {};

TEST_P(ClosedGateTest, ExportDoesNothingAndGivesItsClosedResult) {
  windows_.Become(kBuildWithoutStreaming);
  Arguments arguments;
  arguments.poison.fill(0xCC);
  const auto poison = arguments.poison;
  std::int64_t result = 0;
  int allocations = 0;
  const FileWatch files;
  {
    const HeapWatch heap;
    result = GetParam().call(arguments);
    allocations = heap.Allocations();
  }

  EXPECT_EQ(result, GetParam().result);
  EXPECT_EQ(arguments.poison, poison);
  EXPECT_EQ(allocations, 0);
  EXPECT_THAT(cloud_.Calls(), testing::IsEmpty());
  EXPECT_THAT(files.Openings(), testing::IsEmpty());
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Every, ClosedGateTest, testing::ValuesIn(kClosedRows),
                         [](const auto& row) { return std::string(row.param.name).substr(9); });

class ClosedGateDetailTest : public NimbraTest {};

TEST_F(ClosedGateDetailTest, WidePathQueryFollowsTheNarrowOnesGate) {
  windows_.Become(kBuildWithoutStreaming);
  const FileWatch files;

  EXPECT_EQ(CORVWinCFIsFullyHydratedW(L"C:\\Sync\\file.txt"), -1);

  EXPECT_THAT(files.Openings(), testing::IsEmpty());
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(ClosedGateDetailTest, GateComesBeforeTheNullHandleCheck) {
  windows_.Become(kBuildWithoutStreaming);
  const auto noInterface = static_cast<HRESULT>(0x80004002);

  EXPECT_EQ(CORVWinCFSyncRootRegister(nullptr, "text"), noInterface);
  EXPECT_EQ(CORVWinCFSyncRootReregister(nullptr, "text"), noInterface);
  EXPECT_EQ(CORVWinCFSyncRootUnregister(nullptr), noInterface);
  EXPECT_EQ(CORVWinCFSyncRootConnect(nullptr, nullptr), noInterface);
  EXPECT_EQ(CORVWinCFSyncRootDisconnect(nullptr), noInterface);
  EXPECT_EQ(CORVWinCFSyncRootTransferData(nullptr, 0, 0, nullptr, 0, 0, 0), noInterface);
  EXPECT_EQ(CORVWinCFSyncRootReportTransferProgress(nullptr, 0, 0, 0), noInterface);
}

TEST_F(ClosedGateDetailTest, ReleasesWorkWhateverTheWindows) {
  CORVWinCFPlaceholderHandle placeholder = nullptr;
  ASSERT_EQ(CORVWinCFPlaceholderNew(&placeholder, "C:/Sync/file.txt"), 0);
  CORVWinCFPlaceholderMetaHandle meta = CORVWinCFPlaceholderMetaNew(1, 2, 3, 4, 5, 0);
  ASSERT_NE(meta, nullptr);
  windows_.Become(kBuildWithoutStreaming);
  ASSERT_TRUE(HeapWatch::IsAllocated(placeholder));
  ASSERT_TRUE(HeapWatch::IsAllocated(meta));

  const HeapWatch heap;
  CORVWinCFPlaceholderRelease(placeholder);
  CORVWinCFPlaceholderMetaRelease(meta);

  EXPECT_TRUE(HeapWatch::WasFreed(placeholder));
  EXPECT_TRUE(HeapWatch::WasFreed(meta));
}

// A text can be made and given back on any Windows.
TEST_F(ClosedGateDetailTest, GuidsHaveNoGate) {
  windows_.Become(kBuildWithoutStreaming);
  char* guid = nullptr;
  EXPECT_EQ(CORVWinCFGenerateGuid(&guid), 0);
  ASSERT_NE(guid, nullptr);
  EXPECT_EQ(std::strlen(guid), 38u);
  CORVWinCFReleaseGuid(guid);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(ClosedGateDetailTest, TheExplorerEntrysExportsReachNeitherComNorTheRegistry) {
  windows_.Become(kBuildWithoutStreaming);
  const RegistryWatch registry;
  const ImportDouble<"CoInitializeEx", decltype(&::CoInitializeEx)> com;
  const ImportDouble<"SHGetFolderPathW", decltype(&::SHGetFolderPathW)> folders;
  const char* clsid = "{7B1D0E52-0000-4F08-9C61-000000000000}";

  EXPECT_EQ(CORVWinCFSyncEngineRegister("C:\\Sync", clsid, 3, "NAS1", "home", "/"), -1);
  EXPECT_EQ(CORVWinCFSyncEngineUnregister("C:\\Sync", clsid, 3, "NAS1", "home", "/"), -1);
  EXPECT_EQ(CORVWinCFSyncEngineUnregisterSystemFolder(clsid), -1);

  EXPECT_THAT(registry.Calls(), testing::IsEmpty());
  EXPECT_EQ(com.Count(), 0);
  EXPECT_EQ(folders.Count(), 0);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

class NullHandleTest : public NimbraTest {};

TEST_F(NullHandleTest, AcknowledgementsAndSettersRefuseANullHandle) {
  EXPECT_EQ(CORVWinCFSyncRootAckRename(nullptr, 1), -1);
  EXPECT_EQ(CORVWinCFSyncRootAckDelete(nullptr, 1, 0, 0), -1);
  EXPECT_EQ(CORVWinCFCallbackDelegatorSetFetchCallback(nullptr, &NeverCalled), -1);
  EXPECT_THAT(cloud_.Calls(), testing::IsEmpty());
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(NullHandleTest, PlaceholderReleaseIgnoresNull) {
  CORVWinCFPlaceholderRelease(nullptr);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

using PlaceholderExport = CORVWinCFStatus (*)(CORVWinCFPlaceholderHandle);

TEST_F(NullHandleTest, PlaceholderExportsRefuseANullHandleWithoutAskingThePlatform) {
  for (const PlaceholderExport call :
       {&CORVWinCFPlaceholderOpen, &CORVWinCFPlaceholderRevertToNormal,
        &CORVWinCFPlaceholderIsPlaceholder, &CORVWinCFPlaceholderIsFullyHydrated,
        &CORVWinCFPlaceholderIsPinned, &CORVWinCFPlaceholderIsExcluded,
        &CORVWinCFPlaceholderIsInSync, &CORVWinCFPlaceholderHydrateAll,
        &CORVWinCFPlaceholderHydrateAllAsync, &CORVWinCFPlaceholderDehydrateAll,
        &CORVWinCFPlaceholderPinToLocal, &CORVWinCFPlaceholderUnpin,
        &CORVWinCFPlaceholderForceUnpin, &CORVWinCFPlaceholderSetInSync,
        &CORVWinCFPlaceholderSetNotInSync, &CORVWinCFPlaceholderSetExcluded}) {
    EXPECT_EQ(call(nullptr), -1);
  }
  EXPECT_EQ(CORVWinCFPlaceholderDehydrate(nullptr, 0, 1), -1);
  EXPECT_EQ(CORVWinCFPlaceholderUpdate(nullptr, "id", nullptr), -1);
  EXPECT_EQ(CORVWinCFPlaceholderConvertToPlaceholder(nullptr, "id"), -1);
  CORVWinCFPlaceholderMetaHandle meta = CORVWinCFPlaceholderMetaNew(0, 0, 0, 0, 0, 0);
  EXPECT_EQ(CORVWinCFPlaceholderCreate(nullptr, "id", meta), -1);
  CORVWinCFPlaceholderMetaRelease(meta);
  char buffer[16];
  std::memset(buffer, 0x5A, sizeof(buffer));
  CORVWinCFPlaceholderGetFileIdentity(nullptr, buffer);
  EXPECT_EQ(std::string(buffer, sizeof(buffer)), std::string(sizeof(buffer), 0x5A));
  EXPECT_THAT(cloud_.Calls(), testing::IsEmpty());
}

class NullTextTest : public NimbraTest {};

TEST_F(NullTextTest, IsAFailureWithoutAskingThePlatform) {
  char identity[4] = {};
  EXPECT_EQ(CORVWinCFGetSyncRootIdentityByPath(nullptr, identity), -1);
  EXPECT_EQ(CORVWinCFIsPathUnderCorvDriveSyncRoot(nullptr), 0);
  EXPECT_EQ(CORVWinCFIsPlaceholder(nullptr), -1);
  EXPECT_EQ(CORVWinCFIsPlaceholderByFindData(nullptr), -1);
  EXPECT_EQ(CORVWinCFIsFullyHydrated(nullptr), -1);
  EXPECT_EQ(CORVWinCFIsFullyHydratedW(nullptr), -1);
  EXPECT_EQ(CORVWinCFPlaceholderNew(nullptr, "C:/Sync/file.txt"), -1);
  CORVWinCFPlaceholderHandle handle = nullptr;
  EXPECT_EQ(CORVWinCFPlaceholderNew(&handle, nullptr), -1);
  EXPECT_EQ(handle, nullptr);
  ASSERT_EQ(CORVWinCFPlaceholderNew(&handle, "C:/Sync/file.txt"), 0);
  CORVWinCFPlaceholderMetaHandle meta = CORVWinCFPlaceholderMetaNew(0, 0, 0, 0, 0, 0);
  EXPECT_EQ(CORVWinCFPlaceholderCreate(handle, nullptr, meta), -1);
  EXPECT_EQ(CORVWinCFPlaceholderUpdate(handle, nullptr, meta), -1);
  EXPECT_EQ(CORVWinCFPlaceholderConvertToPlaceholder(handle, nullptr), -1);
  CORVWinCFPlaceholderMetaRelease(meta);
  CORVWinCFPlaceholderRelease(handle);
  EXPECT_THAT(cloud_.Calls(), testing::IsEmpty());
}

}  // namespace
}  // namespace nimbra_test
