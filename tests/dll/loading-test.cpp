#include <gmock/gmock.h>
#include <windows.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/dll/loaded-library.h"
#include "tests/dll/options.h"
#include "tests/dll/platform-failures.h"

namespace {

using nimbra_test::LoadedLibrary;
using nimbra_test::ScopedImportHook;
using nimbra_test::TestOptions;
using testing::ElementsAre;
using testing::IsEmpty;

// The system's number, which no manifest changes.
DWORD SystemBuild() {
  using GetVersion = LONG(WINAPI*)(RTL_OSVERSIONINFOW*);
  const auto getVersion = reinterpret_cast<GetVersion>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion")));
  RTL_OSVERSIONINFOW version{};
  version.dwOSVersionInfoSize = sizeof version;
  getVersion(&version);
  return version.dwBuildNumber;
}

TEST(VersionFlagsTest, TellTheWindowsThatTheLibraryWasLoadedOn) {
  ASSERT_EQ(TestOptions().flags.size(), 3u) << "give --flags=<three digits>";
  ASSERT_EQ(SystemBuild(), TestOptions().build) << "not the Windows that this test is for";
  const LoadedLibrary library;
  std::wstring flags;
  for (const auto query :
       {NIMBRA_FUNCTION(library, CORVWinCFIsWinVersionSupportFileStreaming),
        NIMBRA_FUNCTION(library, CORVWinCFIsWinVersionDisableUIFileStreamingOption),
        NIMBRA_FUNCTION(library, CORVWinCFIsWinVersionDefaultFileStreaming)}) {
    flags += query() ? L'1' : L'0';
  }
  EXPECT_EQ(flags, TestOptions().flags);
}

// Loads the library and tells what its entry point calls meanwhile. The loader announces an image
// after its imports were resolved and before its entry point runs: the moment to set the hooks.
class EntryPointWatch {
 public:
  EntryPointWatch() {
    current_ = this;
    void* cookie = nullptr;
    Function<RegisterNotification>("LdrRegisterDllNotification")(0, &EntryPointWatch::Announced,
                                                                 nullptr, &cookie);
    library_ = std::make_unique<LoadedLibrary>();
    Function<UnregisterNotification>("LdrUnregisterDllNotification")(cookie);
  }
  ~EntryPointWatch() { current_ = nullptr; }
  EntryPointWatch(const EntryPointWatch&) = delete;
  EntryPointWatch& operator=(const EntryPointWatch&) = delete;

  HMODULE Module() const { return library_->Module(); }

  // The functions called, in order, and the module handles given to DisableThreadLibraryCalls.
  std::vector<std::string> calls;
  std::vector<HMODULE> modules;
  std::vector<OSVERSIONINFOEXW> versions;
  std::vector<DWORD> typeMasks;
  std::vector<DWORDLONG> conditions;

 private:
  struct UnicodeString {
    USHORT length;
    USHORT maximumLength;
    PWSTR buffer;
  };
  struct Notification {
    ULONG flags;
    const UnicodeString* fullName;
    const UnicodeString* baseName;
    void* base;
    ULONG size;
  };
  using Callback = void(CALLBACK*)(ULONG, const Notification*, void*);
  using RegisterNotification = LONG(NTAPI*)(ULONG, Callback, void*, void**);
  using UnregisterNotification = LONG(NTAPI*)(void*);
  static constexpr ULONG kLoaded = 1;

  template <typename Type>
  static Type Function(const char* name) {
    return reinterpret_cast<Type>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), name)));
  }

  static void CALLBACK Announced(ULONG reason, const Notification* notification, void*) {
    const std::wstring name(notification->baseName->buffer, notification->baseName->length / 2u);
    if (reason != kLoaded || _wcsicmp(name.c_str(), L"Nimbra.dll") != 0) {
      return;
    }
    const auto module = static_cast<HMODULE>(notification->base);
    current_->disable_ = std::make_unique<ScopedImportHook>(
        module, "DisableThreadLibraryCalls", reinterpret_cast<void*>(&EntryPointWatch::Disable));
    current_->verify_ = std::make_unique<ScopedImportHook>(
        module, "VerifyVersionInfoW", reinterpret_cast<void*>(&EntryPointWatch::Verify));
  }

  static BOOL WINAPI Disable(HMODULE module) {
    current_->calls.emplace_back("DisableThreadLibraryCalls");
    current_->modules.push_back(module);
    return DisableThreadLibraryCalls(module);
  }

  static BOOL WINAPI Verify(OSVERSIONINFOEXW* version, DWORD typeMask, DWORDLONG condition) {
    current_->calls.emplace_back("VerifyVersionInfoW");
    current_->versions.push_back(*version);
    current_->typeMasks.push_back(typeMask);
    current_->conditions.push_back(condition);
    return VerifyVersionInfoW(version, typeMask, condition);
  }

  static EntryPointWatch* current_;
  // The hooks lie in the library: they go first.
  std::unique_ptr<LoadedLibrary> library_;
  std::unique_ptr<ScopedImportHook> disable_;
  std::unique_ptr<ScopedImportHook> verify_;
};

EntryPointWatch* EntryPointWatch::current_ = nullptr;

TEST(EntryPointTest, TurnsThreadNotificationsOffBeforeItComputesTheFlags) {
  const EntryPointWatch watch;
  EXPECT_THAT(watch.calls, ElementsAre("DisableThreadLibraryCalls", "VerifyVersionInfoW",
                                       "VerifyVersionInfoW", "VerifyVersionInfoW"));
  EXPECT_THAT(watch.modules, ElementsAre(watch.Module()));
}

TEST(EntryPointTest, AsksForItsBuildsInOrder) {
  const EntryPointWatch watch;

  ASSERT_EQ(watch.versions.size(), 3u);
  const DWORD builds[] = {17134, 17134, 17763};
  for (std::size_t i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(watch.versions[i].dwOSVersionInfoSize, 284u);
    EXPECT_EQ(watch.versions[i].dwMajorVersion, 10u);
    EXPECT_EQ(watch.versions[i].dwMinorVersion, 0u);
    EXPECT_EQ(watch.versions[i].dwBuildNumber, builds[i]);
    EXPECT_EQ(watch.typeMasks[i], 7u);
    const BYTE condition = i == 1 ? VER_EQUAL : VER_GREATER_EQUAL;
    DWORDLONG mask = 0;
    for (const DWORD type :
         std::initializer_list<DWORD>{VER_MAJORVERSION, VER_MINORVERSION, VER_BUILDNUMBER}) {
      mask = VerSetConditionMask(mask, type, condition);
    }
    EXPECT_EQ(watch.conditions[i], mask);
  }
}

TEST(EntryPointTest, DoesNothingWhenThreadsComeAndGo) {
  EntryPointWatch watch;
  const nimbra_test::ImageLog log(watch.Module());
  watch.calls.clear();
  std::thread([] {}).join();
  EXPECT_THAT(watch.calls, IsEmpty());
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(UnloadingTest, AnUnusedLibraryIsReallyUnloaded) {
  {
    const LoadedLibrary library;
    EXPECT_TRUE(LoadedLibrary::IsLoaded());
  }
  EXPECT_FALSE(LoadedLibrary::IsLoaded());
}

TEST(UnloadingTest, CanBeLoadedAndUnloadedAgainAndAgain) {
  for (int i = 0; i < 20; ++i) {
    LoadedLibrary library;
    CORVWinCFPlatformInfo info{};
    NIMBRA_FUNCTION(library, CORVWinCFGetPlatformInfo)(&info);
    CORVWinCFPlaceholderHandle placeholder = nullptr;
    ASSERT_EQ(NIMBRA_FUNCTION(library, CORVWinCFPlaceholderNew)(&placeholder, "C:/x"), 0);
    NIMBRA_FUNCTION(library, CORVWinCFPlaceholderRelease)(placeholder);
    library.Free();
    EXPECT_FALSE(LoadedLibrary::IsLoaded());
  }
}

// Only a connection gives the platform addresses in the library.
TEST(UnloadingTest, AFailedConnectionDoesNotKeepTheLibrary) {
  LoadedLibrary library;
  CORVWinCFSyncRootHandle root = nullptr;
  CORVWinCFCallbackDelegatorHandle delegator = nullptr;
  ASSERT_EQ(NIMBRA_FUNCTION(library, CORVWinCFSyncRootNew)(&root, "C:\\Sync", 1), 0);
  ASSERT_EQ(NIMBRA_FUNCTION(library, CORVWinCFCallbackDelegatorNew)(&delegator, nullptr), 0);
  EXPECT_LT(NIMBRA_FUNCTION(library, CORVWinCFSyncRootConnect)(root, delegator), 0);
  NIMBRA_FUNCTION(library, CORVWinCFCallbackDelegatorRelease)(delegator);
  NIMBRA_FUNCTION(library, CORVWinCFSyncRootRelease)(&root);
  library.Free();
  EXPECT_FALSE(LoadedLibrary::IsLoaded());
}

// A platform that gives transfer keys, and nothing else: a transfer takes a buffer then.
HMODULE WINAPI GiveSomeModule(LPCWSTR, HANDLE, DWORD) { return GetModuleHandleW(nullptr); }

HRESULT WINAPI GiveKey(HANDLE, LARGE_INTEGER* key) {
  key->QuadPart = 1;
  return S_OK;
}

FARPROC WINAPI FindGiveKey(HMODULE, LPCSTR name) {
  return std::string(name) == "CfGetTransferKey"
             ? reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&GiveKey))
             : nullptr;
}

void* transferBuffer = nullptr;

LPVOID WINAPI KeepAddress(LPVOID at, SIZE_T size, DWORD type, DWORD protection) {
  transferBuffer = VirtualAlloc(at, size, type, protection);
  return transferBuffer;
}

TEST(UnloadingTest, TheBufferThatIsKeptForTransfersGoesWithTheLibrary) {
  LoadedLibrary library;
  {
    const ScopedImportHook load(library.Module(), "LoadLibraryExW",
                                reinterpret_cast<void*>(&GiveSomeModule));
    const ScopedImportHook find(library.Module(), "GetProcAddress",
                                reinterpret_cast<void*>(&FindGiveKey));
    const ScopedImportHook pages(library.Module(), "VirtualAlloc",
                                 reinterpret_cast<void*>(&KeepAddress));
    const nimbra_test::ClientObjects objects(library);
    // The first chunk is refused.
    EXPECT_EQ(NIMBRA_FUNCTION(library, CORVWinCFSyncRootProactiveTransferToPlaceholder)(
                  objects.root, objects.placeholder, objects.file.c_str()),
              -1);
  }
  ASSERT_NE(transferBuffer, nullptr);
  MEMORY_BASIC_INFORMATION facts{};
  VirtualQuery(transferBuffer, &facts, sizeof facts);
  EXPECT_EQ(facts.State, static_cast<DWORD>(MEM_COMMIT));
  library.Free();
  EXPECT_FALSE(LoadedLibrary::IsLoaded());
  VirtualQuery(transferBuffer, &facts, sizeof facts);
  EXPECT_EQ(facts.State, static_cast<DWORD>(MEM_FREE));
}

}  // namespace
