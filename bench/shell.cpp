// What the library adds to the registry, the shell's links, the imaging component and the debugger
// output: its functions beside the same calls of Windows with ready-made arguments.

#include "bench/harness/bare-shell.h"
// Includes windows.h in the right way first.
#include <shlobj.h>
#include <wrl/client.h>

#include <algorithm>
#include <cstdint>
#include <cwchar>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/harness/families.h"
#include "bench/harness/null-cloud.h"
#include "bench/harness/report.h"
#include "common/debug-log.h"
#include "common/owners.h"
#include "nimbra/nimbra.h"
#include "tests/support/com-apartment.h"
#include "tests/support/image-files.h"
#include "tests/support/import-hooks.h"
#include "tests/support/sync-root-handles.h"
#include "tests/support/temp-folder.h"
#include "win-cf/thumbnail-provider.h"
#include "win-cf/wrapping-folder-composer.h"

namespace nimbra_bench {
namespace {

using corvdrive::cloud_filter::UniqueFile;
using corvdrive::cloud_filter::WrappingFolderComposer;
using Microsoft::WRL::ComPtr;
using nimbra_test::ScopedImportHook;
using nimbra_test::TempFolder;
using nimbra_test::Wide;

constexpr char kClsid[] = "{8E3C3A5C-55D7-4B7E-9C35-0B1D6F2A7E10}";
constexpr char kOtherClsid[] = "{8E3C3A5C-55D7-4B7E-9C35-0B1D6F2A7E11}";
// The folders of shortcuts that the library and the bare calls work in.
constexpr std::uint64_t kFolderId = 910'000'001;
constexpr std::uint64_t kOtherFolderId = 910'000'002;

// For looking through the largest folder once, and for all rounds of that.
constexpr double kMostNanoseconds = 2e9;
constexpr double kMostNanosecondsOfRounds = 10e9;

void Require(bool succeeded, const char* what) {
  if (!succeeded) {
    throw std::runtime_error(std::string("failed: ") + what);
  }
}

Row MakeRow(std::string group, std::string name, const Comparison& times,
            std::vector<std::string> functions) {
  Row row;
  row.family = "shell";
  row.group = std::move(group);
  row.name = std::move(name);
  row.times = times;
  row.functions = std::move(functions);
  return row;
}

// Deletes a folder of shortcuts.
void DeleteFolder(const std::wstring& folder) {
  WIN32_FIND_DATAW data;
  HANDLE search = FindFirstFileW((folder + L"\\*.lnk").c_str(), &data);
  if (search != INVALID_HANDLE_VALUE) {
    do {
      DeleteFileW((folder + L"\\" + data.cFileName).c_str());
    } while (FindNextFileW(search, &data));
    FindClose(search);
  }
  RemoveDirectoryW(folder.c_str());
}

// One of the library's folders of shortcuts, removed with all it holds.
class ShortcutFolder {
 public:
  explicit ShortcutFolder(std::uint64_t number)
      : number_(number), path_(Wide(Composer("/").GetWrappingFolderPath())) {
    Require(Composer("/").CreateFolder(), "a folder of shortcuts");
  }
  ~ShortcutFolder() { DeleteFolder(path_); }
  ShortcutFolder(const ShortcutFolder&) = delete;
  ShortcutFolder& operator=(const ShortcutFolder&) = delete;

  [[nodiscard]] WrappingFolderComposer Composer(const std::string& remotePath) const {
    return {number_, "bench", "home", remotePath};
  }
  [[nodiscard]] const std::wstring& Path() const { return path_; }

 private:
  std::uint64_t number_;
  std::wstring path_;
};

// Times each operation by itself and takes, for all of them, the time that a quarter keeps below:
// what else runs on the machine interrupts the others. The step after an operation is not timed.
template <typename Operation, typename After>
Batch Undisturbed(Operation operation, After after) {
  return [operation = std::move(operation), after = std::move(after)](std::size_t times) {
    std::vector<double> took(times);
    for (double& time : took) {
      const auto begun = Clock::now();
      operation();
      time = NanosecondsSince(begun);
      after();
    }
    std::sort(took.begin(), took.end());
    return took[times / 4] * static_cast<double>(times);
  };
}

template <typename Operation>
Batch Undisturbed(Operation operation) {
  return Undisturbed(std::move(operation), [] {});
}

// Fewer shortcuts where looking through so many would take too long.
int FewerWhenSlow(int count, double perShortcut) {
  const bool isSlow = perShortcut * count > kMostNanoseconds;
  return isSlow ? std::max(50, static_cast<int>(kMostNanoseconds / perShortcut) / 50 * 50) : count;
}

// How often that can be done beside the baseline, which runs twice.
std::size_t RoundsWithin(double nanoseconds) {
  return std::clamp(static_cast<std::size_t>(kMostNanosecondsOfRounds / 3 / nanoseconds),
                    std::size_t{3}, std::size_t{9});
}

void MeasureRegistration(const Settings& settings) {
  const NullCloud cloud;
  const nimbra_test::SyncRoot root;
  const BareRootDescription bare;
  const Effort effort = settings.Long(15, 16);
  const auto registerRoot = [&root](auto operation) {
    Require(operation(root.Get(), "bench") == S_OK, "registering a sync root");
  };
  Write(MakeRow("registering a sync root", "SyncRootRegister + SyncRootUnregister",
                Compare(effort, Undisturbed([&bare] {
                          bare.Write();
                          bare.Delete();
                        }),
                        Undisturbed([&] {
                          registerRoot(CORVWinCFSyncRootRegister);
                          CORVWinCFSyncRootUnregister(root.Get());
                        })),
                {"CORVWinCFSyncRootRegister", "CORVWinCFSyncRootUnregister"}));
  Write(MakeRow("registering a sync root", "SyncRootReregister",
                Compare(effort, Undisturbed([&bare] { bare.Write(); }),
                        Undisturbed([&] { registerRoot(CORVWinCFSyncRootReregister); })),
                {"CORVWinCFSyncRootReregister"}));
  CORVWinCFSyncRootUnregister(root.Get());
  bare.Delete();
}

// While one lives, saving a shortcut starts no other program. Wine's shell starts one, which looks
// whether the shortcut belongs into a menu; that is many times what all else takes here, and
// Windows has nothing like it.
class NoMenuBuilder {
 public:
  NoMenuBuilder() {
    try {
      hook_.emplace(GetModuleHandleW(L"shell32.dll"), "CreateProcessW",
                    reinterpret_cast<void*>(&Refuse));
    } catch (const std::runtime_error&) {
      // A shell that does not start programs in this way: none is kept from doing so.
      hook_.reset();
    }
  }

 private:
  static BOOL WINAPI Refuse(LPCWSTR, LPWSTR, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL,
                            DWORD, LPVOID, LPCWSTR, LPSTARTUPINFOW, LPPROCESS_INFORMATION) {
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
  }

  std::optional<ScopedImportHook> hook_;
};

void MeasureEntry(const Settings& settings) {
  const NoMenuBuilder noMenuBuilder;
  const TempFolder targets;
  const std::string target = targets.MakeFolder("Root");
  const ShortcutFolder folder(kFolderId);
  const ShortcutFolder other(kOtherFolderId);
  const BareEntry bare(Wide(kOtherClsid), other.Path(), Wide(target));
  const Effort effort = settings.Long(5, 14);
  const auto enter = [&target] {
    Require(
        CORVWinCFSyncEngineRegister(target.c_str(), kClsid, kFolderId, "bench", "home", "/") == 0,
        "registering an entry");
  };
  Write(MakeRow("the Explorer entry", "SyncEngineRegister + SyncEngineUnregister",
                Compare(effort, Undisturbed([&] {
                          bare.Register();
                          bare.Unregister();
                        }),
                        Undisturbed([&] {
                          enter();
                          CORVWinCFSyncEngineUnregister(target.c_str(), kClsid, kFolderId, "bench",
                                                        "home", "/");
                        })),
                {"CORVWinCFSyncEngineRegister", "CORVWinCFSyncEngineUnregister"}));
  Write(MakeRow("the Explorer entry", "SyncEngineRegister + SyncEngineUnregisterSystemFolder",
                Compare(effort, Undisturbed([&] {
                          bare.Register();
                          bare.DeleteKeys();
                          DeleteFileW(bare.Shortcut().c_str());
                        }),
                        Undisturbed([&] {
                          enter();
                          CORVWinCFSyncEngineUnregisterSystemFolder(kClsid);
                          DeleteFileW((folder.Path() + L"\\My Drive.lnk").c_str());
                        })),
                {"CORVWinCFSyncEngineUnregisterSystemFolder"}));
}

// Copies of one shortcut: saving each would take far longer than all that is measured here.
void MakeShortcuts(const std::wstring& folder, int from, int to) {
  for (int i = from; i < to; ++i) {
    const std::wstring copy = folder + L"\\" + std::to_wstring(i) + L".lnk";
    Require(CopyFileW((folder + L"\\0.lnk").c_str(), copy.c_str(), TRUE) != 0, "a shortcut");
  }
}

// Looking for a root that has no shortcut: all are resolved. Their target's path is short, as what
// Windows takes for a path grows with it.
void MeasureSearch(const Settings& settings) {
  const ShortcutFolder folder(kFolderId);
  Require(folder.Composer("/share/0").CreateShortcut("C:\\windows"), "a shortcut");
  const WrappingFolderComposer composer = folder.Composer("/");
  const std::vector<int> counts = settings.isQuick ? std::vector{10} : std::vector{10, 100, 1000};
  int made = 1;
  double perShortcut = 0;
  for (int count : counts) {
    count = std::max(made + 1, FewerWhenSlow(count, perShortcut));
    MakeShortcuts(folder.Path(), made, count);
    made = count;
    const Effort effort = count > 100 ? settings.Long(RoundsWithin(perShortcut * count))
                                      : settings.Long(5, count > 10 ? 1 : 10);
    const Comparison times =
        Compare(effort, Undisturbed([&] { BareFindShortcut(folder.Path(), L"C:\\no such root"); }),
                Undisturbed([&] { composer.RemoveShortcut("C:\\no such root"); }));
    Row row = MakeRow("finding a shortcut among", std::to_string(count), times, {});
    perShortcut = times.subject / count;
    row.more = {{"perShortcut", perShortcut}};
    Write(row);
  }
}

std::wstring imagePath;

bool FindImage(const wchar_t*, wchar_t* path) {
  std::wcscpy(path, imagePath.c_str());
  return true;
}

// As the shell asks for it: a new object for each item.
void MakeThumbnail(IShellItem* item) {
  auto* const provider = new WinCFThumbnailProvider;
  HBITMAP bitmap = nullptr;
  WTS_ALPHATYPE alpha{};
  const bool succeeded = SUCCEEDED(provider->Initialize(item, STGM_READ)) &&
                         SUCCEEDED(provider->GetThumbnail(256, &bitmap, &alpha));
  provider->Release();
  DeleteObject(bitmap);
  Require(succeeded, "a thumbnail");
}

void MeasureThumbnails(const Settings& settings) {
  const TempFolder folder;
  ComPtr<IShellItem> item;
  const std::wstring itemPath = Wide(folder.WriteFile("item.txt", "content"));
  Require(SUCCEEDED(SHCreateItemFromParsingName(itemPath.c_str(), nullptr,
                                                IID_PPV_ARGS(item.GetAddressOf()))),
          "a shell item");
  CORVWinCFSetThumbRetrieverCb(FindImage);
  for (const std::uint32_t side : {64U, 256U, 1024U}) {
    const auto picture = nimbra_test::MakePicture(side, side, [](std::uint32_t x, std::uint32_t y) {
      return 0xFF000000U | (x * 77 + y) << 8 | (x ^ y);
    });
    imagePath = Wide(folder.WriteFile("image.png", nimbra_test::PngFileWithAlpha(picture)));
    const std::vector<Comparison> times =
        Compare(settings.Long(15, side > 256 ? 4 : 16),
                Undisturbed([&] { DeleteObject(BareThumbnail(item.Get(), imagePath)); }),
                {Undisturbed([&] { MakeThumbnail(item.Get()); }),
                 Undisturbed([] { DeleteObject(BareDecode(imagePath)); })});
    const std::string name = "PNG, " + std::to_string(side) + " x " + std::to_string(side);
    Row row = MakeRow("thumbnails", name, times[0], {});
    row.more = {{"perSecond", 1e9 / times[0].subject}};
    Write(row);
    Write(MakeRow("thumbnails", name + ", bare: imaging alone", times[1], {}));
  }
}

void MeasureLog(const Settings& settings) {
  const std::string path = R"(C:\Users\someone\Drive\Documents\Quarterly report.docx)";
  const Comparison times = Compare(
      settings.Long(15, 100), Undisturbed([] {
        OutputDebugStringW(
            L"lib\\cloud-filter\\win-cf\\placeholder (464) | Failed call on "
            L"CreateFile on path C:\\Users\\someone\\Drive\\Documents\\"
            L"Quarterly report.docx, ec: 32\r\n");
      }),
      Undisturbed([&path] {
        corvdrive::cloud_filter::Log(R"(lib\cloud-filter\win-cf\placeholder)", 464,
                                     "Failed call on CreateFile on path ", path, ", ec: ", 32L);
      }));
  Write(MakeRow("the log", "one line", times, {}));
}

void MeasureGuids(const Settings& settings) {
  const Comparison times = Compare(settings.Short(), Repeat(BareGuid), Repeat([] {
                                     char* guid = nullptr;
                                     CORVWinCFGenerateGuid(&guid);
                                     CORVWinCFReleaseGuid(guid);
                                   }));
  Row row = MakeRow("the Explorer entry", "GenerateGuid + ReleaseGuid", times, {});
  row.more = {{"perSecond", 1e9 / times.subject}};
  Write(row);
}

// While one lives, the services' thread does not wait for calls but ends, and no class object is
// registered: otherwise each start would leave a thread that takes part in all that is measured
// after it.
class EndingServices {
 public:
  // Times the starts alone: the next comes when the thread of the last has ended.
  static Batch Start(void (*start)()) {
    return Undisturbed(start, [] {
      WaitForSingleObject(atItsEnd.Get(), INFINITE);
      WaitForSingleObject(thread.Get(), INFINITE);
      thread.Reset();
    });
  }

 private:
  static HRESULT WINAPI Register(REFCLSID, LPUNKNOWN, DWORD, DWORD, LPDWORD) { return S_OK; }
  static HRESULT WINAPI Wait(DWORD, DWORD, ULONG, LPHANDLE event, LPDWORD) {
    CloseHandle(*event);
    HANDLE own = nullptr;
    DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &own, SYNCHRONIZE,
                    FALSE, 0);
    thread.Reset(own);
    SetEvent(atItsEnd.Get());
    return E_FAIL;
  }

  static inline const UniqueFile atItsEnd{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
  static inline UniqueFile thread;
  ScopedImportHook register_{"CoRegisterClassObject", reinterpret_cast<void*>(&Register)};
  ScopedImportHook wait_{"CoWaitForMultipleHandles", reinterpret_cast<void*>(&Wait)};
};

void MeasureServices(const Settings& settings) {
  const EndingServices services;
  Write(MakeRow("thumbnails", "StartShellServices, until its thread runs",
                Compare(settings.Long(9, 100), EndingServices::Start(BareStartServices),
                        EndingServices::Start(CORVWinCFStartShellServices)),
                {"CORVWinCFStartShellServices"}));
}

}  // namespace

void MeasureShell(const Settings& settings) {
  const nimbra_test::ComApartment apartment(COINIT_MULTITHREADED);
  MeasureRegistration(settings);
  MeasureEntry(settings);
  MeasureGuids(settings);
  MeasureSearch(settings);
  MeasureThumbnails(settings);
  MeasureServices(settings);
  MeasureLog(settings);
}

}  // namespace nimbra_bench
