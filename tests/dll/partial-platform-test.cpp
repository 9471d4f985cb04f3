#include <gmock/gmock.h>
#include <windows.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tests/dll/loaded-library.h"
#include "tests/dll/platform-failures.h"
#include "tests/support/import-hooks.h"

namespace {

using nimbra_test::ClientObjects;
using nimbra_test::ImageLog;
using nimbra_test::LoadedLibrary;
using nimbra_test::ScopedImportHook;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr HRESULT kProcedureNotFound = static_cast<HRESULT>(0x8007007F);

// Beside this program lies a cldapi.dll that has the platform's information, connecting and
// disconnecting, and nothing else.
class PartialPlatformTest : public testing::Test {
 protected:
  std::vector<unsigned> PlatformNumbers() {
    CORVWinCFPlatformInfo info{1, 2, 3};
    EXPECT_EQ(NIMBRA_FUNCTION(library_, CORVWinCFGetPlatformInfo)(&info), 0);
    return {info.buildNumber, info.revisionNumber, info.integrationNumber};
  }

  LoadedLibrary library_;
  ImageLog log_{library_.Module()};
};

TEST_F(PartialPlatformTest, WhatItHasIsUsed) {
  EXPECT_THAT(PlatformNumbers(), ElementsAre(11u, 22u, 33u));
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(PartialPlatformTest, EveryFunctionThatItLacksFailsAsDocumented) {
  const ClientObjects objects(library_);
  nimbra_test::ExpectPlatformFailures(
      objects, nimbra_test::PlatformCalls(objects, kProcedureNotFound), log_);
  EXPECT_THAT(PlatformNumbers(), ElementsAre(11u, 22u, 33u)) << "the rest works on";
}

// How the library loads the platform: the arguments of each attempt.
struct Attempt {
  std::wstring name;
  HANDLE file;
  DWORD flags;
};
std::vector<Attempt> attempts;
bool refuseAttempts = false;

HMODULE WINAPI CountingLoad(LPCWSTR name, HANDLE file, DWORD flags) {
  attempts.push_back({name, file, flags});
  if (refuseAttempts) {
    SetLastError(ERROR_MOD_NOT_FOUND);
    return nullptr;
  }
  return LoadLibraryExW(name, file, flags);
}

class PlatformLoadingTest : public PartialPlatformTest {
 protected:
  void SetUp() override {
    attempts.clear();
    refuseAttempts = false;
  }

  ScopedImportHook load_{library_.Module(), "LoadLibraryExW",
                         reinterpret_cast<void*>(&CountingLoad)};
};

TEST_F(PlatformLoadingTest, HappensOnceOnFirstUseFromTheDefaultFolders) {
  EXPECT_THAT(attempts, IsEmpty());
  for (int i = 0; i < 3; ++i) {
    EXPECT_THAT(PlatformNumbers(), ElementsAre(11u, 22u, 33u));
  }
  ASSERT_EQ(attempts.size(), 1u);
  EXPECT_EQ(attempts[0].name, L"cldapi.dll");
  EXPECT_EQ(attempts[0].file, nullptr);
  EXPECT_EQ(attempts[0].flags, static_cast<DWORD>(LOAD_LIBRARY_SEARCH_DEFAULT_DIRS));
}

TEST_F(PlatformLoadingTest, IsTriedAgainAfterAFailure) {
  refuseAttempts = true;
  EXPECT_THAT(PlatformNumbers(), ElementsAre(0u, 0u, 0u));
  EXPECT_THAT(PlatformNumbers(), ElementsAre(0u, 0u, 0u));
  EXPECT_EQ(attempts.size(), 2u);
  refuseAttempts = false;
  EXPECT_THAT(PlatformNumbers(), ElementsAre(11u, 22u, 33u));
  EXPECT_EQ(attempts.size(), 3u);
}

// One use of the platform by each of many threads that start together.
TEST_F(PartialPlatformTest, FirstUsesOnManyThreadsAtOnceAllSucceed) {
  constexpr int kThreads = 16;
  const auto query = NIMBRA_FUNCTION(library_, CORVWinCFGetPlatformInfo);
  std::atomic<bool> go{false};
  std::atomic<int> right{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      while (!go) {
        std::this_thread::yield();
      }
      CORVWinCFPlatformInfo info{};
      right += query(&info) == 0 && info.buildNumber == 11 && info.integrationNumber == 33 ? 1 : 0;
    });
  }
  go = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(right, kThreads);
}

std::vector<std::string> fetched;

void Fetched(const CORVWinCFCallbackRecord* record) { fetched.emplace_back(record->fullPath); }

// The platform holds addresses in a connected library, so that it must stay. Runs in a process of
// its own: whatever follows would meet the same image.
TEST(PinningTest, AConnectedLibraryStaysWhenItIsFreed) {
  LoadedLibrary library;
  CORVWinCFSyncRootHandle root = nullptr;
  CORVWinCFCallbackDelegatorHandle delegator = nullptr;
  ASSERT_EQ(NIMBRA_FUNCTION(library, CORVWinCFSyncRootNew)(&root, "C:\\Sync", 12), 0);
  ASSERT_EQ(NIMBRA_FUNCTION(library, CORVWinCFCallbackDelegatorNew)(&delegator, nullptr), 0);
  ASSERT_EQ(
      NIMBRA_FUNCTION(library, CORVWinCFCallbackDelegatorSetFetchCallback)(delegator, Fetched), 0);
  ASSERT_EQ(NIMBRA_FUNCTION(library, CORVWinCFSyncRootConnect)(root, delegator), S_OK);
  const auto disconnect = NIMBRA_FUNCTION(library, CORVWinCFSyncRootDisconnect);
  const HMODULE module = library.Module();

  library.Free();
  FreeLibrary(module);
  FreeLibrary(module);

  ASSERT_TRUE(LoadedLibrary::IsLoaded());
  const auto playFetch = reinterpret_cast<void(WINAPI*)()>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"cldapi.dll"), "PartialPlayFetch")));
  ASSERT_NE(playFetch, nullptr);
  playFetch();
  EXPECT_THAT(fetched, ElementsAre("C:\\file"));
  EXPECT_EQ(disconnect(root), S_OK);
}

}  // namespace
