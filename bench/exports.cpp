// What each export adds to the platform: a call of it on a platform that does nothing, beside the
// same calls of the platform (and of Windows) with ready-made arguments.

#include <windows.h>

#include <objbase.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "bench/harness/allocations.h"
#include "bench/harness/families.h"
#include "bench/harness/null-cloud.h"
#include "bench/harness/report.h"
#include "nimbra/nimbra.h"
#include "tests/support/sync-root-handles.h"
#include "tests/support/temp-folder.h"

namespace nimbra_bench {
namespace {

using corvdrive::cloud_filter::CldApi;
using corvdrive::cloud_filter::Cloud;
using nimbra_test::TempFolder;

constexpr std::size_t kIdentityBuffer = 65536;
constexpr std::size_t kInfoBuffer = 4160;
// Of those that leave an object behind for the life of the process.
constexpr std::size_t kFewTimes = 2000;

// What exports without a platform call stand beside.
void Nothing() {
  static void (*volatile const function)() = [] {};
  function();
}

void OnFetch(const CORVWinCFCallbackRecord*) {}

bool FindImage(const wchar_t*, wchar_t*) { return false; }

LARGE_INTEGER Large(std::int64_t value) {
  LARGE_INTEGER large{};
  large.QuadPart = value;
  return large;
}

// Arguments that are ready before anything is timed.
struct Arguments {
  TempFolder folder;
  std::string path = folder.WriteFile("item.txt", "content");
  std::string slashPath = folder.ItemWithSlashes("item.txt");
  std::wstring widePath = nimbra_test::Wide(path);
  nimbra_test::SyncRoot root;
  nimbra_test::Delegator delegator;
  nimbra_test::Placeholder placeholder{slashPath};
  CORVWinCFPlaceholderMetaHandle meta = CORVWinCFPlaceholderMetaNew(1, 2, 3, 4, 5, 0);
  HANDLE file = OpenItem();
  const CldApi& platform = Cloud();

  std::array<std::byte, kIdentityBuffer> identity{};
  std::array<std::byte, kInfoBuffer> info{};
  WIN32_FIND_DATAW found{};
  CF_OPERATION_INFO operation{};
  CF_OPERATION_PARAMETERS parameters{};
  CF_PLACEHOLDER_CREATE_INFO entry{};
  CF_FS_METADATA metadata{};
  CF_CONNECTION_KEY key{};
  OVERLAPPED overlapped{};
  std::string blob = "identity of the item";

  Arguments() {
    CORVWinCFPlaceholderOpen(placeholder.Get());
    operation.StructSize = sizeof operation;
    entry.RelativeFileName = L"item.txt";
    entry.FileIdentity = blob.data();
    entry.FileIdentityLength = static_cast<DWORD>(blob.size());
  }
  ~Arguments() {
    CORVWinCFPlaceholderMetaRelease(meta);
    CloseHandle(file);
  }
  Arguments(const Arguments&) = delete;
  Arguments& operator=(const Arguments&) = delete;

  [[nodiscard]] HANDLE OpenItem() const {
    return CreateFileW(widePath.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                       nullptr, OPEN_EXISTING,
                       FILE_FLAG_OVERLAPPED | FILE_FLAG_BACKUP_SEMANTICS |
                           FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_OPEN_NO_RECALL,
                       nullptr);
  }
  // What the platform tells of an item, as the library asks for it.
  void AskInfo(HANDLE item) {
    DWORD length = 0;
    platform.CfGetPlaceholderInfo(item, CF_PLACEHOLDER_INFO_STANDARD, info.data(), kInfoBuffer,
                                  &length);
  }
};

void AskSize(HANDLE item) {
  LARGE_INTEGER size{};
  GetFileSizeEx(item, &size);
}

// Measures exports and writes their rows.
class ExportBench {
 public:
  explicit ExportBench(Settings settings) : settings_(std::move(settings)) {}

  // `functions` are called once in each operation, `direct` is what they stand beside.
  template <typename Direct, typename Export>
  void Add(std::vector<std::string> functions, Direct direct, Export exported,
           std::size_t mostTimes = 1'000'000) {
    Effort effort = settings_.Short();
    effort.mostTimes = std::min(effort.mostTimes, mostTimes);
    Row row;
    row.family = "exports";
    row.group = group_;
    row.name = Name(functions);
    row.times = Compare(effort, Repeat(direct), Repeat(exported));
    row.allocations = AllocationsOf(exported);
    row.baselineAllocations = AllocationsOf(direct);
    row.functions = std::move(functions);
    Write(row);
  }

  void BeginGroup(std::string name) { group_ = std::move(name); }

 private:
  static std::string Name(const std::vector<std::string>& functions) {
    std::string name;
    for (const std::string& function : functions) {
      constexpr std::size_t kPrefix = sizeof "CORVWinCF" - 1;
      name += (name.empty() ? "" : " + ") + function.substr(kPrefix);
    }
    return name;
  }

  Settings settings_;
  std::string group_;
};

void AddPlatform(ExportBench& bench, Arguments& a) {
  bench.BeginGroup("platform and version");
  bench.Add({"CORVWinCFIsWinVersionSupportFileStreaming"}, Nothing,
            [] { CORVWinCFIsWinVersionSupportFileStreaming(); });
  bench.Add({"CORVWinCFIsWinVersionDisableUIFileStreamingOption"}, Nothing,
            [] { CORVWinCFIsWinVersionDisableUIFileStreamingOption(); });
  bench.Add({"CORVWinCFIsWinVersionDefaultFileStreaming"}, Nothing,
            [] { CORVWinCFIsWinVersionDefaultFileStreaming(); });
  bench.Add(
      {"CORVWinCFGetPlatformInfo"},
      [&a] {
        CF_PLATFORM_INFO info{};
        a.platform.CfGetPlatformInfo(&info);
      },
      [] {
        CORVWinCFPlatformInfo info{};
        CORVWinCFGetPlatformInfo(&info);
      });
  bench.Add(
      {"CORVWinCFGetSyncRootIdentityByPath"},
      [&a] {
        DWORD length = 0;
        a.platform.CfGetSyncRootInfoByPath(a.widePath.c_str(), CF_SYNC_ROOT_INFO_STANDARD,
                                           a.identity.data(), kIdentityBuffer, &length);
      },
      [&a] { CORVWinCFGetSyncRootIdentityByPath(a.path.c_str(), a.identity.data()); });
  bench.Add(
      {"CORVWinCFIsPathUnderCorvDriveSyncRoot"},
      [&a] {
        DWORD length = 0;
        a.platform.CfGetSyncRootInfoByPath(a.widePath.c_str(), CF_SYNC_ROOT_INFO_PROVIDER,
                                           a.identity.data(), sizeof(CF_SYNC_ROOT_PROVIDER_INFO),
                                           &length);
        OutputDebugStringW(
            L"lib\\cloud-filter\\nimbra-host\\nimbra\\nimbra (57) | "
            L"ProviderName of C:\\users\\user\\item.txt is: \r\n");
      },
      [&a] { CORVWinCFIsPathUnderCorvDriveSyncRoot(a.path.c_str()); });
}

void AddRoots(ExportBench& bench, Arguments& a) {
  bench.BeginGroup("sync roots");
  bench.Add(
      {"CORVWinCFSyncRootNew", "CORVWinCFSyncRootRelease"},
      [] {
        std::array<wchar_t, 257> name{};
        auto length = static_cast<DWORD>(name.size());
        GetUserNameW(name.data(), &length);
      },
      [&a] {
        CORVWinCFSyncRootHandle handle = nullptr;
        CORVWinCFSyncRootNew(&handle, a.path.c_str(), 12);
        CORVWinCFSyncRootRelease(&handle);
      },
      kFewTimes);
  bench.Add(
      {"CORVWinCFSyncRootConnect"},
      [&a] {
        static const CF_CALLBACK_REGISTRATION table[] = {{CF_CALLBACK_TYPE_NONE, nullptr}};
        a.platform.CfConnectSyncRoot(a.widePath.c_str(), table, nullptr, CF_CONNECT_FLAG_NONE,
                                     &a.key);
      },
      [&a] { CORVWinCFSyncRootConnect(a.root.Get(), a.delegator.Get()); });
  bench.Add(
      {"CORVWinCFSyncRootDisconnect"}, [&a] { a.platform.CfDisconnectSyncRoot(a.key); },
      [&a] { CORVWinCFSyncRootDisconnect(a.root.Get()); });
}

void AddTransfers(ExportBench& bench, Arguments& a) {
  bench.BeginGroup("transfers and answers");
  const auto execute = [&a](CF_OPERATION_TYPE type) {
    return [&a, type] {
      a.operation.Type = type;
      a.platform.CfExecute(&a.operation, &a.parameters);
    };
  };
  bench.Add({"CORVWinCFSyncRootTransferData"}, execute(CF_OPERATION_TYPE_TRANSFER_DATA), [&a] {
    CORVWinCFSyncRootTransferData(a.root.Get(), 7, 0, a.info.data(), 0, kInfoBuffer, 0);
  });
  bench.Add(
      {"CORVWinCFSyncRootReportTransferProgress"},
      [&a] { a.platform.CfReportProviderProgress(a.key, Large(7), Large(100), Large(10)); },
      [&a] { CORVWinCFSyncRootReportTransferProgress(a.root.Get(), 7, 100, 10); });
  bench.Add({"CORVWinCFSyncRootAckRename"}, execute(CF_OPERATION_TYPE_ACK_RENAME),
            [&a] { CORVWinCFSyncRootAckRename(a.root.Get(), 7); });
  bench.Add({"CORVWinCFSyncRootAckDelete"}, execute(CF_OPERATION_TYPE_ACK_DELETE),
            [&a] { CORVWinCFSyncRootAckDelete(a.root.Get(), 7, 0, 0); });
}

void AddDelegators(ExportBench& bench, Arguments& a) {
  bench.BeginGroup("delegators");
  bench.Add(
      {"CORVWinCFCallbackDelegatorNew", "CORVWinCFCallbackDelegatorRelease"}, Nothing,
      [] {
        CORVWinCFCallbackDelegatorHandle handle = nullptr;
        CORVWinCFCallbackDelegatorNew(&handle, nullptr);
        CORVWinCFCallbackDelegatorRelease(handle);
      },
      kFewTimes);
  using Setter = decltype(&CORVWinCFCallbackDelegatorSetFetchCallback);
  const std::pair<const char*, Setter> setters[] = {
      {"CORVWinCFCallbackDelegatorSetFetchCallback", CORVWinCFCallbackDelegatorSetFetchCallback},
      {"CORVWinCFCallbackDelegatorSetFetchCancelCallback",
       CORVWinCFCallbackDelegatorSetFetchCancelCallback},
      {"CORVWinCFCallbackDelegatorSetDeleteCallback", CORVWinCFCallbackDelegatorSetDeleteCallback},
      {"CORVWinCFCallbackDelegatorSetRenameCallback", CORVWinCFCallbackDelegatorSetRenameCallback},
      {"CORVWinCFCallbackDelegatorSetRenameCompletionCallback",
       CORVWinCFCallbackDelegatorSetRenameCompletionCallback},
      {"CORVWinCFCallbackDelegatorSetOpenCompletionCallback",
       CORVWinCFCallbackDelegatorSetOpenCompletionCallback}};
  for (const auto& [name, setter] : setters) {
    const Setter set = setter;
    bench.Add({name}, Nothing, [&a, set] { set(a.delegator.Get(), OnFetch); });
  }
}

void AddPathQuestions(ExportBench& bench, Arguments& a) {
  bench.BeginGroup("questions about a path");
  const auto askHydrated = [&a] {
    const HANDLE item = a.OpenItem();
    AskSize(item);
    a.AskInfo(item);
    CloseHandle(item);
  };
  bench.Add(
      {"CORVWinCFIsPlaceholder"},
      [&a] {
        const HANDLE item = a.OpenItem();
        a.AskInfo(item);
        CloseHandle(item);
      },
      [&a] { CORVWinCFIsPlaceholder(a.path.c_str()); });
  bench.Add(
      {"CORVWinCFIsPlaceholderByFindData"},
      [&a] { a.platform.CfGetPlaceholderStateFromFindData(&a.found); },
      [&a] { CORVWinCFIsPlaceholderByFindData(&a.found); });
  bench.Add({"CORVWinCFIsFullyHydrated"}, askHydrated,
            [&a] { CORVWinCFIsFullyHydrated(a.path.c_str()); });
  bench.Add({"CORVWinCFIsFullyHydratedW"}, askHydrated,
            [&a] { CORVWinCFIsFullyHydratedW(a.widePath.c_str()); });
}

void AddPlaceholderLife(ExportBench& bench, Arguments& a) {
  bench.BeginGroup("placeholders: making and changing");
  bench.Add({"CORVWinCFPlaceholderNew", "CORVWinCFPlaceholderRelease"}, Nothing, [&a] {
    CORVWinCFPlaceholderHandle handle = nullptr;
    CORVWinCFPlaceholderNew(&handle, a.slashPath.c_str());
    CORVWinCFPlaceholderRelease(handle);
  });
  bench.Add(
      {"CORVWinCFPlaceholderOpen"}, [&a] { CloseHandle(a.OpenItem()); },
      [&a] { CORVWinCFPlaceholderOpen(a.placeholder.Get()); });
  bench.Add(
      {"CORVWinCFPlaceholderCreate"},
      [&a] {
        a.platform.CfCreatePlaceholders(a.widePath.c_str(), &a.entry, 1, CF_CREATE_FLAG_NONE,
                                        nullptr);
        const HANDLE item = a.OpenItem();
        a.AskInfo(item);
        CloseHandle(item);
      },
      [&a] { CORVWinCFPlaceholderCreate(a.placeholder.Get(), a.blob.c_str(), a.meta); });
  // Creating has closed the object.
  CORVWinCFPlaceholderOpen(a.placeholder.Get());
  bench.Add(
      {"CORVWinCFPlaceholderUpdate"},
      [&a] {
        a.AskInfo(a.file);
        a.platform.CfUpdatePlaceholder(a.file, &a.metadata, a.blob.data(),
                                       static_cast<DWORD>(a.blob.size()), nullptr, 0,
                                       CF_UPDATE_FLAG_MARK_IN_SYNC, nullptr, nullptr);
      },
      [&a] { CORVWinCFPlaceholderUpdate(a.placeholder.Get(), a.blob.c_str(), a.meta); });
  bench.Add(
      {"CORVWinCFPlaceholderConvertToPlaceholder"},
      [&a] {
        a.platform.CfConvertToPlaceholder(a.file, a.blob.data(), static_cast<DWORD>(a.blob.size()),
                                          CF_CONVERT_FLAG_MARK_IN_SYNC, nullptr, nullptr);
        a.platform.CfSetPinState(a.file, CF_PIN_STATE_INHERIT, CF_SET_PIN_FLAG_RECURSE, nullptr);
      },
      [&a] { CORVWinCFPlaceholderConvertToPlaceholder(a.placeholder.Get(), a.blob.c_str()); });
  bench.Add(
      {"CORVWinCFPlaceholderRevertToNormal"},
      [&a] { a.platform.CfRevertPlaceholder(a.file, CF_REVERT_FLAG_NONE, nullptr); },
      [&a] { CORVWinCFPlaceholderRevertToNormal(a.placeholder.Get()); });
  bench.Add({"CORVWinCFPlaceholderMetaNew", "CORVWinCFPlaceholderMetaRelease"}, Nothing,
            [] { CORVWinCFPlaceholderMetaRelease(CORVWinCFPlaceholderMetaNew(1, 2, 3, 4, 5, 0)); });
}

void AddPlaceholderQuestions(ExportBench& bench, Arguments& a) {
  bench.BeginGroup("placeholders: questions");
  const auto askInfo = [&a] { a.AskInfo(a.file); };
  const auto ask = [&](const char* name, decltype(&CORVWinCFPlaceholderIsPinned) question) {
    bench.Add({name}, askInfo, [&a, question] { question(a.placeholder.Get()); });
  };
  ask("CORVWinCFPlaceholderIsPlaceholder", CORVWinCFPlaceholderIsPlaceholder);
  ask("CORVWinCFPlaceholderIsPinned", CORVWinCFPlaceholderIsPinned);
  ask("CORVWinCFPlaceholderIsExcluded", CORVWinCFPlaceholderIsExcluded);
  ask("CORVWinCFPlaceholderIsInSync", CORVWinCFPlaceholderIsInSync);
  bench.Add(
      {"CORVWinCFPlaceholderIsFullyHydrated"},
      [&a] {
        AskSize(a.file);
        a.AskInfo(a.file);
      },
      [&a] { CORVWinCFPlaceholderIsFullyHydrated(a.placeholder.Get()); });
  bench.Add({"CORVWinCFPlaceholderGetFileIdentity"}, askInfo,
            [&a] { CORVWinCFPlaceholderGetFileIdentity(a.placeholder.Get(), a.identity.data()); });
}

void AddHydration(ExportBench& bench, Arguments& a) {
  bench.BeginGroup("placeholders: hydration");
  const auto hydrate = [&a](OVERLAPPED* record) {
    return [&a, record] {
      AskSize(a.file);
      a.platform.CfHydratePlaceholder(a.file, Large(0), Large(7), CF_HYDRATE_FLAG_NONE, record);
    };
  };
  bench.Add({"CORVWinCFPlaceholderHydrateAll"}, hydrate(nullptr),
            [&a] { CORVWinCFPlaceholderHydrateAll(a.placeholder.Get()); });
  bench.Add({"CORVWinCFPlaceholderHydrateAllAsync"}, hydrate(&a.overlapped),
            [&a] { CORVWinCFPlaceholderHydrateAllAsync(a.placeholder.Get()); });
  bench.Add(
      {"CORVWinCFPlaceholderDehydrate"},
      [&a] {
        a.platform.CfReferenceProtectedHandle(a.file);
        a.platform.CfDehydratePlaceholder(a.platform.CfGetWin32HandleFromProtectedHandle(a.file),
                                          Large(0), Large(-1), CF_DEHYDRATE_FLAG_NONE,
                                          &a.overlapped);
        DWORD transferred = 0;
        GetOverlappedResult(a.file, &a.overlapped, &transferred, TRUE);
        a.platform.CfReleaseProtectedHandle(a.file);
      },
      [&a] { CORVWinCFPlaceholderDehydrate(a.placeholder.Get(), 0, -1); });
  bench.Add(
      {"CORVWinCFPlaceholderDehydrateAll"},
      [&a] {
        a.platform.CfUpdatePlaceholder(a.file, nullptr, nullptr, 0, nullptr, 0,
                                       CF_UPDATE_FLAG_DEHYDRATE, nullptr, nullptr);
      },
      [&a] { CORVWinCFPlaceholderDehydrateAll(a.placeholder.Get()); });
}

void AddPins(ExportBench& bench, Arguments& a) {
  bench.BeginGroup("placeholders: states");
  const auto set = [&](const char* name, CF_PIN_STATE state,
                       decltype(&CORVWinCFPlaceholderUnpin) operation) {
    bench.Add(
        {name},
        [&a, state] { a.platform.CfSetPinState(a.file, state, CF_SET_PIN_FLAG_RECURSE, nullptr); },
        [&a, operation] { operation(a.placeholder.Get()); });
  };
  set("CORVWinCFPlaceholderPinToLocal", CF_PIN_STATE_PINNED, CORVWinCFPlaceholderPinToLocal);
  set("CORVWinCFPlaceholderUnpin", CF_PIN_STATE_INHERIT, CORVWinCFPlaceholderUnpin);
  set("CORVWinCFPlaceholderForceUnpin", CF_PIN_STATE_UNSPECIFIED, CORVWinCFPlaceholderForceUnpin);
  set("CORVWinCFPlaceholderSetExcluded", CF_PIN_STATE_EXCLUDED, CORVWinCFPlaceholderSetExcluded);
  const auto mark = [&](const char* name, CF_IN_SYNC_STATE state,
                        decltype(&CORVWinCFPlaceholderSetInSync) operation) {
    bench.Add(
        {name},
        [&a, state] {
          a.platform.CfSetInSyncState(a.file, state, CF_SET_IN_SYNC_FLAG_NONE, nullptr);
        },
        [&a, operation] { operation(a.placeholder.Get()); });
  };
  mark("CORVWinCFPlaceholderSetInSync", CF_IN_SYNC_STATE_IN_SYNC, CORVWinCFPlaceholderSetInSync);
  mark("CORVWinCFPlaceholderSetNotInSync", CF_IN_SYNC_STATE_NOT_IN_SYNC,
       CORVWinCFPlaceholderSetNotInSync);
}

void AddShell(ExportBench& bench) {
  bench.BeginGroup("the shell");
  bench.Add({"CORVWinCFSetThumbRetrieverCb"}, Nothing,
            [] { CORVWinCFSetThumbRetrieverCb(FindImage); });
  bench.Add(
      {"CORVWinCFGenerateGuid", "CORVWinCFReleaseGuid"},
      [] {
        GUID guid;
        CoCreateGuid(&guid);
        wchar_t* text = nullptr;
        StringFromCLSID(guid, &text);
        CoTaskMemFree(text);
      },
      [] {
        char* guid = nullptr;
        CORVWinCFGenerateGuid(&guid);
        CORVWinCFReleaseGuid(guid);
      });
}

}  // namespace

void MeasureExports(const Settings& settings) {
  const NullCloud cloud;
  Arguments arguments;
  ExportBench bench(settings);
  AddPlatform(bench, arguments);
  AddRoots(bench, arguments);
  AddTransfers(bench, arguments);
  AddDelegators(bench, arguments);
  AddPathQuestions(bench, arguments);
  AddPlaceholderLife(bench, arguments);
  AddPlaceholderQuestions(bench, arguments);
  AddHydration(bench, arguments);
  AddPins(bench, arguments);
  AddShell(bench);
}

}  // namespace nimbra_bench
