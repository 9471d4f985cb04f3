// What the library adds to the registry, the shell's links, the imaging component and the debugger
// output: its functions beside the same calls of Windows with ready-made arguments.

#include "bench/harness/bare-shell.h"
// Includes windows.h in the right way first.
#include <shlobj.h>
#include <wrl/client.h>

#include <algorithm>
#include <cstdint>
#include <cwchar>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/harness/families.h"
#include "bench/harness/null-cloud.h"
#include "bench/harness/report.h"
#include "common/debug-log.h"
#include "nimbra/nimbra.h"
#include "tests/support/com-apartment.h"
#include "tests/support/image-files.h"
#include "tests/support/sync-root-handles.h"
#include "tests/support/temp-folder.h"
#include "win-cf/thumbnail-provider.h"
#include "win-cf/wrapping-folder-composer.h"

namespace nimbra_bench {
namespace {

using corvdrive::cloud_filter::WrappingFolderComposer;
using Microsoft::WRL::ComPtr;
using nimbra_test::TempFolder;
using nimbra_test::Wide;

constexpr char kClsid[] = "{8E3C3A5C-55D7-4B7E-9C35-0B1D6F2A7E10}";
constexpr char kOtherClsid[] = "{8E3C3A5C-55D7-4B7E-9C35-0B1D6F2A7E11}";
// The folders of shortcuts that the library and the bare calls work in.
constexpr std::uint64_t kFolderId = 910'000'001;
constexpr std::uint64_t kOtherFolderId = 910'000'002;

// For looking through a folder once.
constexpr double kMostNanoseconds = 6e9;

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

void MeasureRegistration(const Settings& settings) {
  const NullCloud cloud;
  const nimbra_test::SyncRoot root;
  const BareRootDescription bare;
  const Effort effort = settings.Long(9, 8);
  const auto registerRoot = [&root](auto operation) {
    Require(operation(root.Get(), "bench") == S_OK, "registering a sync root");
  };
  Write(MakeRow("registering a sync root", "SyncRootRegister + SyncRootUnregister",
                Compare(effort, Repeat([&bare] {
                          bare.Write();
                          bare.Delete();
                        }),
                        Repeat([&] {
                          registerRoot(CORVWinCFSyncRootRegister);
                          CORVWinCFSyncRootUnregister(root.Get());
                        })),
                {"CORVWinCFSyncRootRegister", "CORVWinCFSyncRootUnregister"}));
  Write(MakeRow("registering a sync root", "SyncRootReregister",
                Compare(effort, Repeat([&bare] { bare.Write(); }),
                        Repeat([&] { registerRoot(CORVWinCFSyncRootReregister); })),
                {"CORVWinCFSyncRootReregister"}));
  CORVWinCFSyncRootUnregister(root.Get());
  bare.Delete();
}

// The bare calls of an entry's whole life.
void LiveBareEntry(const std::wstring& folder, const std::wstring& target, bool isSearched) {
  const std::wstring shortcut = folder + L"\\My Drive.lnk";
  const std::wstring clsid = Wide(kOtherClsid);
  SHCreateDirectory(nullptr, folder.c_str());
  SetFileAttributesW(folder.c_str(), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
  BareSaveShortcut(shortcut, target);
  BareWriteEntry(clsid, folder);
  if (isSearched) {
    BareSearchFolder(folder);
  }
  DeleteFileW(shortcut.c_str());
  BareDeleteEntry(clsid);
}

void MeasureEntry(const Settings& settings) {
  const TempFolder targets;
  const std::string target = targets.MakeFolder("Root");
  const ShortcutFolder folder(kFolderId);
  const ShortcutFolder other(kOtherFolderId);
  const Effort effort = settings.Long(9, 4);
  const auto enter = [&target] {
    Require(
        CORVWinCFSyncEngineRegister(target.c_str(), kClsid, kFolderId, "bench", "home", "/") == 0,
        "registering an entry");
  };
  const auto bare = [&](bool isSearched) {
    return Repeat([&, isSearched] { LiveBareEntry(other.Path(), Wide(target), isSearched); });
  };
  Write(MakeRow("the Explorer entry", "SyncEngineRegister + SyncEngineUnregister",
                Compare(effort, bare(true), Repeat([&] {
                          enter();
                          CORVWinCFSyncEngineUnregister(target.c_str(), kClsid, kFolderId, "bench",
                                                        "home", "/");
                        })),
                {"CORVWinCFSyncEngineRegister", "CORVWinCFSyncEngineUnregister"}));
  Write(MakeRow("the Explorer entry", "SyncEngineRegister + SyncEngineUnregisterSystemFolder",
                Compare(effort, bare(false), Repeat([&] {
                          enter();
                          CORVWinCFSyncEngineUnregisterSystemFolder(kClsid);
                          DeleteFileW((folder.Path() + L"\\My Drive.lnk").c_str());
                        })),
                {"CORVWinCFSyncEngineUnregisterSystemFolder"}));
}

// Looking for a root that has no shortcut: all are resolved.
void MeasureSearch(const Settings& settings) {
  const TempFolder targets;
  const std::string target = targets.MakeFolder("Root");
  const ShortcutFolder folder(kFolderId);
  const std::vector<int> counts = settings.isQuick ? std::vector{10} : std::vector{10, 100, 1000};
  int made = 0;
  double perShortcut = 0;
  for (int count : counts) {
    if (perShortcut * count > kMostNanoseconds) {
      // A slow machine looks through fewer; the row says how many.
      count = std::max(made + 1, static_cast<int>(kMostNanoseconds / perShortcut) / 50 * 50);
    }
    for (; made < count; ++made) {
      Require(folder.Composer("/share/" + std::to_string(made)).CreateShortcut(target),
              "a shortcut");
    }
    const WrappingFolderComposer composer = folder.Composer("/");
    Comparison times =
        Compare(settings.Long(count > 100  ? 1
                              : count > 10 ? 3
                                           : 7),
                Repeat([&] { BareSearchFolder(folder.Path()); }),
                Repeat([&] { static_cast<void>(composer.RemoveShortcut("C:\\no such root")); }));
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
    Effort effort = settings.Long(9, side > 256 ? 4 : 32);
    const Comparison times = Compare(effort, Repeat([] { DeleteObject(BareDecode(imagePath)); }),
                                     Repeat([&] { MakeThumbnail(item.Get()); }));
    Row row = MakeRow("thumbnails", "PNG, " + std::to_string(side) + " x " + std::to_string(side),
                      times, {});
    row.more = {{"perSecond", 1e9 / times.subject}};
    Write(row);
  }
}

void MeasureLog(const Settings& settings) {
  const std::string path = R"(C:\Users\someone\Drive\Documents\Quarterly report.docx)";
  const Comparison times = Compare(
      settings.Short(), Repeat([] {
        OutputDebugStringW(
            L"lib\\cloud-filter\\win-cf\\placeholder (464) | Failed call on "
            L"CreateFile on path C:\\Users\\someone\\Drive\\Documents\\"
            L"Quarterly report.docx, ec: 32\r\n");
      }),
      Repeat([&path] {
        corvdrive::cloud_filter::Log(R"(lib\cloud-filter\win-cf\placeholder)", 464,
                                     "Failed call on CreateFile on path ", path, ", ec: ", 32L);
      }));
  Write(MakeRow("the log", "one line", times, {}));
}

// Each call leaves a thread: so few of them.
void MeasureServices(const Settings& settings) {
  const auto bare = [] {
    OutputDebugStringW(L"bench (1) | a line about the services\r\n");
    std::thread([] { Sleep(INFINITE); }).detach();
  };
  Write(MakeRow(
      "thumbnails", "StartShellServices",
      Compare(settings.Long(5), Repeat(bare), Repeat([] { CORVWinCFStartShellServices(); })),
      {"CORVWinCFStartShellServices"}));
}

}  // namespace

void MeasureShell(const Settings& settings) {
  const nimbra_test::ComApartment apartment(COINIT_MULTITHREADED);
  MeasureRegistration(settings);
  MeasureEntry(settings);
  MeasureSearch(settings);
  MeasureThumbnails(settings);
  MeasureLog(settings);
  MeasureServices(settings);
}

}  // namespace nimbra_bench
