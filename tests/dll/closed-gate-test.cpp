#include <gmock/gmock.h>
#include <windows.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "header-exports.h"
#include "tests/dll/import-call-counter.h"
#include "tests/dll/loaded-library.h"

namespace {

using nimbra_test::ImageLog;
using nimbra_test::ImportCallCounter;
using nimbra_test::LoadedLibrary;
using testing::IsEmpty;

constexpr std::int64_t kNoInterface = static_cast<std::int32_t>(0x80004002);
// Handles that lead nowhere: whoever follows one crashes.
const auto kRoot = reinterpret_cast<CORVWinCFSyncRootHandle>(0x5A5A);
const auto kDelegator = reinterpret_cast<CORVWinCFCallbackDelegatorHandle>(0x5A5A);
const auto kPlaceholder = reinterpret_cast<CORVWinCFPlaceholderHandle>(0x5A5A);
const auto kMeta = reinterpret_cast<CORVWinCFPlaceholderMetaHandle>(0x5A5A);

template <typename Output>
// NOLINTNEXTLINE(bugprone-sizeof-expression): where an output is a pointer, its own size is meant.
constexpr std::size_t kSizeOf = sizeof(Output);

// Whether an output still holds the bytes that it was filled with.
constexpr int kPoison = 0x5A;
template <typename Output>
bool Untouched(const Output& output) {
  Output poisoned;
  std::memset(&poisoned, kPoison, kSizeOf<Output>);
  return std::memcmp(&output, &poisoned, kSizeOf<Output>) == 0;
}

// Calls an export with a poisoned output; a touched output gives a result that no export has.
constexpr std::int64_t kTouched = 0x7FFFFFFFFF;
template <typename Output, typename Call>
std::int64_t WithOutput(Call call) {
  Output output;
  std::memset(&output, kPoison, kSizeOf<Output>);
  const std::int64_t result = call(&output);
  return Untouched(output) ? result : kTouched;
}

void Ignore(const CORVWinCFCallbackRecord*) {}
bool FindNoImage(const wchar_t*, wchar_t*) { return false; }
constexpr char kClsid[] = "{00000000-1111-2222-3333-444444444444}";

using Call = std::function<std::int64_t(const LoadedLibrary&)>;

struct Row {
  const char* name;
  std::int64_t expected;
  Call call;
};

// Each row calls the export of its name.
#define ROW(name, expected, ...)                      \
  {                                                   \
#name, expected, [](const LoadedLibrary& library) { \
      const auto f = NIMBRA_FUNCTION(library, name);    \
      return std::int64_t{__VA_ARGS__};                 \
    } \
  }
#define SETTER_ROW(name) ROW(name, -1, f(kDelegator, &Ignore))
#define PLACEHOLDER_ROW(name) ROW(name, -1, f(kPlaceholder))

using Identity = char[4096];

const Row kGated[] = {
    ROW(CORVWinCFGetPlatformInfo, -1, WithOutput<CORVWinCFPlatformInfo>(f)),
    ROW(CORVWinCFGetSyncRootIdentityByPath, -1,
        WithOutput<Identity>([&](void* output) { return f("C:\\x", output); })),
    ROW(CORVWinCFIsPathUnderCorvDriveSyncRoot, 0, f("C:\\x")),
    ROW(CORVWinCFSyncRootNew, -1, WithOutput<CORVWinCFSyncRootHandle>([&](auto* output) {
          return f(output, "C:\\Sync", 1);
        })),
    ROW(CORVWinCFSyncRootRegister, kNoInterface, f(kRoot, "text")),
    ROW(CORVWinCFSyncRootReregister, kNoInterface, f(kRoot, "text")),
    ROW(CORVWinCFSyncRootUnregister, kNoInterface, f(kRoot)),
    ROW(CORVWinCFSyncRootConnect, kNoInterface, f(kRoot, kDelegator)),
    ROW(CORVWinCFSyncRootDisconnect, kNoInterface, f(kRoot)),
    ROW(CORVWinCFSyncRootTransferData, kNoInterface, f(kRoot, 1, 0, "x", 0, 1, 0)),
    ROW(CORVWinCFSyncRootReportTransferProgress, kNoInterface, f(kRoot, 1, 2, 1)),
    ROW(CORVWinCFSyncRootProactiveTransferToPlaceholder, -1, f(kRoot, kPlaceholder, "C:\\x")),
    ROW(CORVWinCFSyncRootAckRename, -1, f(kRoot, 1)),
    ROW(CORVWinCFSyncRootAckDelete, -1, f(kRoot, 1, 0, 0)),
    ROW(CORVWinCFCallbackDelegatorNew, -1,
        WithOutput<CORVWinCFCallbackDelegatorHandle>(
            [&](auto* output) { return f(output, nullptr); })),
    SETTER_ROW(CORVWinCFCallbackDelegatorSetFetchCallback),
    SETTER_ROW(CORVWinCFCallbackDelegatorSetFetchCancelCallback),
    SETTER_ROW(CORVWinCFCallbackDelegatorSetDeleteCallback),
    SETTER_ROW(CORVWinCFCallbackDelegatorSetRenameCallback),
    SETTER_ROW(CORVWinCFCallbackDelegatorSetRenameCompletionCallback),
    SETTER_ROW(CORVWinCFCallbackDelegatorSetOpenCompletionCallback),
    ROW(CORVWinCFIsPlaceholder, -1, f("C:\\x")),
    ROW(CORVWinCFIsPlaceholderByFindData, -1, WithOutput<WIN32_FIND_DATAW>(f)),
    ROW(CORVWinCFIsFullyHydrated, -1, f("C:\\x")),
    ROW(CORVWinCFPlaceholderNew, -1,
        WithOutput<CORVWinCFPlaceholderHandle>([&](auto* output) { return f(output, "C:\\x"); })),
    PLACEHOLDER_ROW(CORVWinCFPlaceholderOpen),
    ROW(CORVWinCFPlaceholderCreate, -1, f(kPlaceholder, "identity", kMeta)),
    ROW(CORVWinCFPlaceholderUpdate, -1, f(kPlaceholder, "identity", kMeta)),
    ROW(CORVWinCFPlaceholderConvertToPlaceholder, -1, f(kPlaceholder, "identity")),
    PLACEHOLDER_ROW(CORVWinCFPlaceholderRevertToNormal),
    PLACEHOLDER_ROW(CORVWinCFPlaceholderIsPlaceholder),
    PLACEHOLDER_ROW(CORVWinCFPlaceholderIsFullyHydrated),
    PLACEHOLDER_ROW(CORVWinCFPlaceholderIsPinned),
    PLACEHOLDER_ROW(CORVWinCFPlaceholderIsExcluded),
    PLACEHOLDER_ROW(CORVWinCFPlaceholderIsInSync),
    ROW(CORVWinCFPlaceholderGetFileIdentity, 0, WithOutput<Identity>([&](void* output) {
          f(kPlaceholder, output);
          return std::int64_t{0};
        })),
    PLACEHOLDER_ROW(CORVWinCFPlaceholderHydrateAll),
    PLACEHOLDER_ROW(CORVWinCFPlaceholderHydrateAllAsync),
    ROW(CORVWinCFPlaceholderDehydrate, -1, f(kPlaceholder, 0, 4096)),
    PLACEHOLDER_ROW(CORVWinCFPlaceholderDehydrateAll),
    PLACEHOLDER_ROW(CORVWinCFPlaceholderPinToLocal),
    PLACEHOLDER_ROW(CORVWinCFPlaceholderUnpin),
    PLACEHOLDER_ROW(CORVWinCFPlaceholderForceUnpin),
    PLACEHOLDER_ROW(CORVWinCFPlaceholderSetInSync),
    PLACEHOLDER_ROW(CORVWinCFPlaceholderSetNotInSync),
    PLACEHOLDER_ROW(CORVWinCFPlaceholderSetExcluded),
    ROW(CORVWinCFSyncEngineRegister, -1, f("C:\\x", kClsid, 1, "name", "home", "/")),
    ROW(CORVWinCFSyncEngineUnregister, -1, f("C:\\x", kClsid, 1, "name", "home", "/")),
    ROW(CORVWinCFSyncEngineUnregisterSystemFolder, -1, f(kClsid)),
    {"CORVWinCFSetThumbRetrieverCb", 0,
     [](const LoadedLibrary& library) {
       NIMBRA_FUNCTION(library, CORVWinCFSetThumbRetrieverCb)(&FindNoImage);
       return std::int64_t{0};
     }},
    {"CORVWinCFStartShellServices", 0,
     [](const LoadedLibrary& library) {
       NIMBRA_FUNCTION(library, CORVWinCFStartShellServices)();
       return std::int64_t{0};
     }},
    ROW(CORVWinCFPlaceholderMetaNew, 0, reinterpret_cast<std::int64_t>(f(1, 2, 3, 4, 5, 0))),
};

// Converts its path before it meets the gate of the narrow export.
const Row kGatedLater[] = {
    ROW(CORVWinCFIsFullyHydratedW, -1, f(L"C:\\x")),
};

// These work whether the gate is open or not.
const Row kUngated[] = {
    ROW(CORVWinCFIsWinVersionSupportFileStreaming, 0, f()),
    ROW(CORVWinCFIsWinVersionDisableUIFileStreamingOption, 0, f()),
    ROW(CORVWinCFIsWinVersionDefaultFileStreaming, 0, f()),
    {"CORVWinCFGenerateGuid", 0,
     [](const LoadedLibrary& library) {
       char* guid = nullptr;
       const std::int64_t result = NIMBRA_FUNCTION(library, CORVWinCFGenerateGuid)(&guid);
       NIMBRA_FUNCTION(library, CORVWinCFReleaseGuid)(guid);
       return result;
     }},
    {"CORVWinCFReleaseGuid", 0,
     [](const LoadedLibrary& library) {
       NIMBRA_FUNCTION(library, CORVWinCFReleaseGuid)(nullptr);
       return std::int64_t{0};
     }},
    {"CORVWinCFSyncRootRelease", 0,
     [](const LoadedLibrary& library) {
       CORVWinCFSyncRootHandle none = nullptr;
       NIMBRA_FUNCTION(library, CORVWinCFSyncRootRelease)(&none);
       return std::int64_t{0};
     }},
    {"CORVWinCFCallbackDelegatorRelease", 0,
     [](const LoadedLibrary& library) {
       NIMBRA_FUNCTION(library, CORVWinCFCallbackDelegatorRelease)(nullptr);
       return std::int64_t{0};
     }},
    {"CORVWinCFPlaceholderRelease", 0,
     [](const LoadedLibrary& library) {
       NIMBRA_FUNCTION(library, CORVWinCFPlaceholderRelease)(nullptr);
       return std::int64_t{0};
     }},
    {"CORVWinCFPlaceholderMetaRelease", 0,
     [](const LoadedLibrary& library) {
       NIMBRA_FUNCTION(library, CORVWinCFPlaceholderMetaRelease)(nullptr);
       return std::int64_t{0};
     }},
};

class ClosedGateTest : public testing::Test {
 protected:
  LoadedLibrary library_;
  ImageLog log_{library_.Module()};
};

TEST_F(ClosedGateTest, TheRowsCoverEveryExportOnce) {
  std::multiset<std::string> rows;
  for (const Row& row : kGated) {
    rows.insert(row.name);
  }
  for (const Row& row : kGatedLater) {
    rows.insert(row.name);
  }
  for (const Row& row : kUngated) {
    rows.insert(row.name);
  }
  EXPECT_THAT(rows, testing::UnorderedElementsAreArray(nimbra_test::kHeaderExports));
}

TEST_F(ClosedGateTest, EveryExportGivesItsResultAndTouchesNothing) {
  for (const Row& row : kGated) {
    EXPECT_EQ(row.call(library_), row.expected) << row.name;
  }
  for (const Row& row : kGatedLater) {
    EXPECT_EQ(row.call(library_), row.expected) << row.name;
  }
  for (const Row& row : kUngated) {
    EXPECT_EQ(row.call(library_), row.expected) << row.name;
  }
  EXPECT_THAT(log_.Lines(), IsEmpty());
  EXPECT_EQ(GetModuleHandleW(L"cldapi.dll"), nullptr) << "the platform is not even loaded";
}

TEST_F(ClosedGateTest, NoGatedExportCallsAnythingOrAllocates) {
  ImportCallCounter calls(library_.Module());
  ASSERT_GT(calls.Watched(), 20u);
  for (const Row& row : kGated) {
    calls.Clear();
    row.call(library_);
    EXPECT_THAT(calls.Called(), IsEmpty()) << row.name;
  }
}

TEST_F(ClosedGateTest, NullArgumentsGiveTheSameResults) {
  const auto& library = library_;
  EXPECT_EQ(NIMBRA_FUNCTION(library, CORVWinCFSyncRootNew)(nullptr, nullptr, 1), -1);
  EXPECT_EQ(NIMBRA_FUNCTION(library, CORVWinCFSyncRootRegister)(nullptr, nullptr), kNoInterface);
  EXPECT_EQ(NIMBRA_FUNCTION(library, CORVWinCFSyncRootReregister)(nullptr, nullptr), kNoInterface);
  EXPECT_EQ(NIMBRA_FUNCTION(library, CORVWinCFSyncRootUnregister)(nullptr), kNoInterface);
  EXPECT_EQ(NIMBRA_FUNCTION(library, CORVWinCFSyncRootConnect)(nullptr, nullptr), kNoInterface);
  EXPECT_EQ(NIMBRA_FUNCTION(library, CORVWinCFSyncRootDisconnect)(nullptr), kNoInterface);
  EXPECT_EQ(NIMBRA_FUNCTION(library, CORVWinCFCallbackDelegatorNew)(nullptr, nullptr), -1);
  EXPECT_EQ(NIMBRA_FUNCTION(library, CORVWinCFPlaceholderNew)(nullptr, nullptr), -1);
  EXPECT_EQ(NIMBRA_FUNCTION(library, CORVWinCFGetPlatformInfo)(nullptr), -1);
  EXPECT_EQ(NIMBRA_FUNCTION(library, CORVWinCFIsPathUnderCorvDriveSyncRoot)(nullptr), 0);
  EXPECT_EQ(NIMBRA_FUNCTION(library, CORVWinCFIsPlaceholder)(nullptr), -1);
  EXPECT_EQ(NIMBRA_FUNCTION(library, CORVWinCFPlaceholderOpen)(nullptr), -1);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

}  // namespace
