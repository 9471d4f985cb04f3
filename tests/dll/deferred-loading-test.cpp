#include <gmock/gmock.h>
#include <windows.h>

#include <thumbcache.h>
#include <unknwn.h>

#include <atomic>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "tests/dll/loaded-library.h"
#include "tests/support/import-hooks.h"
#include "tests/support/temp-folder.h"

namespace {

using nimbra_test::ImageLog;
using nimbra_test::LoadedLibrary;
using nimbra_test::Narrow;
using nimbra_test::ScopedImportHook;
using testing::ElementsAre;
using testing::IsEmpty;

struct Load {
  std::string name;
  HANDLE file;
  DWORD flags;
};

// What the library loads, and as often gives back; refuses it on demand.
std::mutex mutex;
std::vector<Load> loads;
std::vector<HMODULE> given;
std::vector<HMODULE> returned;
DWORD refusal = ERROR_SUCCESS;
const char* missingFunction = "";
// Done once inside of a load.
std::function<void()> meanwhile;

HMODULE WINAPI TakeLoad(LPCWSTR name, HANDLE file, DWORD flags) {
  if (const auto task = std::exchange(meanwhile, nullptr)) {
    task();
  }
  const std::lock_guard lock(mutex);
  loads.push_back({Narrow(name), file, flags});
  if (refusal != ERROR_SUCCESS) {
    SetLastError(refusal);
    return nullptr;
  }
  const HMODULE module = LoadLibraryExW(name, file, flags);
  given.push_back(module);
  return module;
}

BOOL WINAPI TakeReturn(HMODULE module) {
  const std::lock_guard lock(mutex);
  returned.push_back(module);
  return FreeLibrary(module);
}

FARPROC WINAPI TakeLookUp(HMODULE module, LPCSTR name) {
  if (std::string_view(name) == missingFunction) {
    SetLastError(ERROR_PROC_NOT_FOUND);
    return nullptr;
  }
  return GetProcAddress(module, name);
}

// Takes a function out of ole32.dll.
bool MakesGuid(const LoadedLibrary& library) {
  char* text = nullptr;
  const bool isMade = NIMBRA_FUNCTION(library, CORVWinCFGenerateGuid)(&text) == 0;
  EXPECT_EQ(text != nullptr, isMade);
  NIMBRA_FUNCTION(library, CORVWinCFReleaseGuid)(text);
  return isMade;
}

// DLLs of the system that the library loads when it first calls one of their functions.
class DeferredLoadingTest : public testing::Test {
 protected:
  DeferredLoadingTest() {
    loads.clear();
    given.clear();
    returned.clear();
    refusal = ERROR_SUCCESS;
    missingFunction = "";
  }

  bool MakesGuid() const { return ::MakesGuid(library_); }

  LoadedLibrary library_;
  ImageLog log_{library_.Module()};
  ScopedImportHook load_{library_.Module(), "LoadLibraryExW", reinterpret_cast<void*>(&TakeLoad)};
  ScopedImportHook free_{library_.Module(), "FreeLibrary", reinterpret_cast<void*>(&TakeReturn)};
  ScopedImportHook lookUp_{library_.Module(), "GetProcAddress",
                           reinterpret_cast<void*>(&TakeLookUp)};
};

TEST_F(DeferredLoadingTest, HappensOnceOnFirstUseFromTheSystemsFolder) {
  EXPECT_THAT(loads, IsEmpty());
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(MakesGuid());
  }
  ASSERT_EQ(loads.size(), 1u);
  EXPECT_EQ(loads[0].name, "ole32.dll");
  EXPECT_EQ(loads[0].file, nullptr);
  EXPECT_EQ(loads[0].flags, static_cast<DWORD>(LOAD_LIBRARY_SEARCH_SYSTEM32));
  EXPECT_THAT(returned, IsEmpty());
}

TEST_F(DeferredLoadingTest, AFailureIsThatOfTheOperationAndIsTriedAgain) {
  for (const DWORD error : std::initializer_list<DWORD>{ERROR_NOT_ENOUGH_MEMORY,
                                                        ERROR_MOD_NOT_FOUND, ERROR_ACCESS_DENIED}) {
    SCOPED_TRACE(error);
    refusal = error;
    log_.Clear();
    EXPECT_FALSE(MakesGuid());
    EXPECT_THAT(log_.Messages(), ElementsAre("Failed to gen uuid"));
  }
  EXPECT_EQ(loads.size(), 3u);
  refusal = ERROR_SUCCESS;
  log_.Clear();
  EXPECT_TRUE(MakesGuid());
  EXPECT_THAT(log_.Messages(), IsEmpty());
}

// What one function made could not be given back otherwise.
TEST_F(DeferredLoadingTest, ADllWithoutOneOfTheFunctionsIsOfNoUse) {
  for (const char* function : {"CoTaskMemFree", "CoCreateGuid", "StringFromCLSID"}) {
    SCOPED_TRACE(function);
    missingFunction = function;
    log_.Clear();
    EXPECT_FALSE(MakesGuid());
    EXPECT_THAT(log_.Messages(), ElementsAre("Failed to gen uuid"));
  }
  EXPECT_EQ(given.size(), 3u);
  EXPECT_EQ(returned, given);
  missingFunction = "";
  EXPECT_TRUE(MakesGuid());
}

TEST_F(DeferredLoadingTest, FirstUsesOnManyThreadsAtOnceAllSucceedAndKeepOneReference) {
  constexpr int kThreads = 16;
  std::atomic<bool> go{false};
  std::atomic<int> made{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      while (!go) {
        std::this_thread::yield();
      }
      made += MakesGuid() ? 1 : 0;
    });
  }
  go = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(made, kThreads);
  EXPECT_EQ(returned.size() + 1, given.size());
}

// As a thread finds it that another one has overtaken.
TEST_F(DeferredLoadingTest, WhoeverComesSecondGivesItsReferenceBack) {
  meanwhile = [this] { EXPECT_TRUE(MakesGuid()); };
  EXPECT_TRUE(MakesGuid());
  EXPECT_EQ(given.size(), 2u);
  EXPECT_EQ(returned.size(), 1u);
}

TEST_F(DeferredLoadingTest, AFailureDoesNotMatterWhenAnotherThreadHasSucceededMeanwhile) {
  meanwhile = [this] {
    EXPECT_TRUE(MakesGuid());
    refusal = ERROR_NOT_ENOUGH_MEMORY;
  };
  EXPECT_TRUE(MakesGuid());
  EXPECT_EQ(given.size(), 1u);
  EXPECT_THAT(returned, IsEmpty());
}

DWORD errorAtCall = 0;

HRESULT WINAPI FailGuid(GUID*) {
  errorAtCall = GetLastError();
  return E_FAIL;
}

FARPROC WINAPI FindFailingGuid(HMODULE module, LPCSTR name) {
  const FARPROC found = GetProcAddress(module, name);
  SetLastError(ERROR_INVALID_DATA);
  if (std::string_view(name) != "CoCreateGuid") {
    return found;
  }
  return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&FailGuid));
}

// A function may leave the last error as it was before, and whoever called it reads that then.
TEST(DeferredErrorTest, TheLastErrorIsTheCallersWhenAFunctionIsCalledForTheFirstTime) {
  const LoadedLibrary library;
  const ScopedImportHook lookUp(library.Module(), "GetProcAddress",
                                reinterpret_cast<void*>(&FindFailingGuid));
  char* text = nullptr;
  SetLastError(0x5EED);
  EXPECT_EQ(NIMBRA_FUNCTION(library, CORVWinCFGenerateGuid)(&text), -1);
  EXPECT_EQ(errorAtCall, 0x5EEDu);
}

// A COM that only tells what is registered with it.
IClassFactory* registered = nullptr;
std::atomic<bool> isServing{false};

HRESULT WINAPI TakeClass(REFCLSID, IUnknown* factory, DWORD, DWORD, DWORD*) {
  registered = static_cast<IClassFactory*>(factory);
  return S_OK;
}

HRESULT WINAPI Serve(DWORD, DWORD, ULONG, HANDLE*, DWORD*) {
  isServing = true;
  Sleep(INFINITE);
  return S_OK;
}

FARPROC WINAPI FindOwnCom(HMODULE module, LPCSTR name) {
  const std::string_view function = name;
  void* const own = function == "CoRegisterClassObject"      ? reinterpret_cast<void*>(&TakeClass)
                    : function == "CoWaitForMultipleHandles" ? reinterpret_cast<void*>(&Serve)
                                                             : nullptr;
  return own != nullptr ? reinterpret_cast<FARPROC>(own) : GetProcAddress(module, name);
}

// The thread that serves stays for good, and the library with it: in a process of its own.
TEST(DeferredClassTest, AQuestionThatCannotBeAnsweredFailsAndGivesNoObject) {
  const LoadedLibrary library;
  const ScopedImportHook lookUp(library.Module(), "GetProcAddress",
                                reinterpret_cast<void*>(&FindOwnCom));
  const ScopedImportHook load(library.Module(), "LoadLibraryExW",
                              reinterpret_cast<void*>(&TakeLoad));
  NIMBRA_FUNCTION(library, CORVWinCFStartShellServices)();
  while (!isServing) {
    std::this_thread::yield();
  }
  ASSERT_NE(registered, nullptr);
  const auto create = [](void** object) {
    return registered->CreateInstance(nullptr, __uuidof(IThumbnailProvider), object);
  };
  refusal = ERROR_NOT_ENOUGH_MEMORY;
  void* object = &object;
  EXPECT_EQ(create(&object), static_cast<HRESULT>(0x80070008));
  EXPECT_EQ(object, nullptr);
  EXPECT_EQ(loads.back().name, "shlwapi.dll");
  refusal = ERROR_SUCCESS;
  EXPECT_EQ(create(&object), S_OK);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(static_cast<IUnknown*>(object)->Release(), 0u);
}

TEST(DeferredUnloadingTest, ALibraryThatHasLoadedOneCanBeUnloadedAndLoadedAgain) {
  for (int i = 0; i < 5; ++i) {
    LoadedLibrary library;
    EXPECT_TRUE(MakesGuid(library));
    library.Free();
    EXPECT_FALSE(LoadedLibrary::IsLoaded());
  }
}

}  // namespace
