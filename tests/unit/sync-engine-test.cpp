#include "win-cf/sync-engine.h"

#include <windows.h>
// windows.h first.
#include <objbase.h>

#include <algorithm>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "tests/support/heap-watch.h"
#include "tests/support/registry-watch.h"
#include "tests/support/shortcut-file.h"
#include "tests/support/threads.h"
#include "tests/support/virtual-slot.h"
#include "tests/unit/explorer-entry-fixture.h"

namespace nimbra_test {
namespace {

using corvdrive::cloud_filter::SyncEngineBase;
using corvdrive::cloud_filter::SyncEngineWinCF;
using corvdrive::cloud_filter::WrappingFolderComposer;
using testing::ElementsAre;
using testing::IsEmpty;

using InitialiseDouble = ImportDouble<"CoInitializeEx", decltype(&::CoInitializeEx)>;
using UninitialiseDouble = ImportDouble<"CoUninitialize", decltype(&::CoUninitialize)>;

TEST(SyncEngineClassTest, IsAnAbstractBaseAndAClassThatFillsEverySlot) {
  static_assert(std::is_abstract_v<SyncEngineBase>);
  static_assert(std::has_virtual_destructor_v<SyncEngineBase>);
  static_assert(std::is_base_of_v<SyncEngineBase, SyncEngineWinCF>);
  static_assert(!std::is_abstract_v<SyncEngineWinCF>);
  EXPECT_EQ(sizeof(SyncEngineBase), sizeof(void*)) << "no data";
  // The table pointer, two strings and the composer by value.
  EXPECT_EQ(sizeof(SyncEngineWinCF),
            sizeof(void*) + 2 * sizeof(std::string) + sizeof(WrappingFolderComposer));
}

#if !defined(_MSC_VER)
TEST(SyncEngineClassTest, HasItsVirtualOperationsInTheirOrder) {
  EXPECT_EQ(VirtualSlot(&SyncEngineBase::Register), 2) << "behind both forms of the destructor";
  EXPECT_EQ(VirtualSlot(&SyncEngineBase::Unregister), 3);
}
#endif

// Whether the thread is in the apartment that COM gives to those who ask for none.
bool IsInMultithreadedApartment() {
  const HRESULT result = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  if (SUCCEEDED(result)) {
    CoUninitialize();
  }
  return result == S_FALSE;
}

class SyncEngineComTest : public ExplorerEntryFixture {
 protected:
  // Runs `body` on a new thread, which is in no apartment.
  template <typename Body>
  static void OnNewThread(Body body) {
    std::jthread thread(body);
  }
};

TEST_F(SyncEngineComTest, RegisteringAndUnregisteringInitialiseTheThreadAndLeaveItSo) {
  for (const auto call : {&Register, &Unregister}) {
    OnNewThread([&] {
      const InitialiseDouble initialise;
      const UninitialiseDouble uninitialise;
      EXPECT_EQ(call(Entry()), 0);
      EXPECT_THAT(initialise.Calls(),
                  ElementsAre(std::tuple<LPVOID, DWORD>(nullptr, COINIT_MULTITHREADED)));
      EXPECT_EQ(uninitialise.Count(), 0);
    });
  }
  OnNewThread([&] {
    EXPECT_EQ(Register(Entry()), 0);
    EXPECT_TRUE(IsInMultithreadedApartment());
  });
}

TEST_F(SyncEngineComTest, TheInitialisationComesBeforeAllThatNeedsIt) {
  for (const auto call : {&Register, &Unregister}) {
    const InitialiseDouble initialise;
    const ImportDouble<"CoCreateInstance", decltype(&::CoCreateInstance)> create(
        [&](auto original, auto... arguments) {
          EXPECT_EQ(initialise.Count(), 1);
          return original(arguments...);
        });
    EXPECT_EQ(call(Entry()), 0);
    EXPECT_GT(create.Count(), 0);
  }
}

TEST_F(SyncEngineComTest, AThreadOfASinglethreadedApartmentWorksAndStaysThere) {
  const std::string root = appData_.MakeFolder("Root");
  OnNewThread([&] {
    const ComApartment apartment(COINIT_APARTMENTTHREADED);
    EXPECT_EQ(Register(Entry(root, "/a")), 0);
    EXPECT_THAT(FolderContent(), ElementsAre("a.lnk"));
    EXPECT_EQ(Unregister(Entry(root, "/a")), 0);
    EXPECT_THAT(FolderContent(), IsEmpty());
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), RPC_E_CHANGED_MODE);
  });
}

TEST_F(SyncEngineComTest, WhatTheInitialisationGivesIsIgnored) {
  for (const HRESULT result : {S_FALSE, RPC_E_CHANGED_MODE, E_OUTOFMEMORY}) {
    const InitialiseDouble initialise([result](auto, LPVOID, DWORD) { return result; });
    EXPECT_EQ(Register(Entry()), 0);
    EXPECT_EQ(initialise.Count(), 1);
  }
}

TEST_F(SyncEngineComTest, RemovingTheEntryAloneNeedsNoCom) {
  ASSERT_EQ(Register(Entry()), 0);
  const InitialiseDouble initialise;
  EXPECT_EQ(CORVWinCFSyncEngineUnregisterSystemFolder(clsid_.c_str()), 0);
  EXPECT_EQ(initialise.Count(), 0);
}

// What an export must not have done when it refuses its arguments.
class RefusalTest : public ExplorerEntryFixture {
 protected:
  template <typename Call>
  void ExpectRefused(Call call) {
    const Snapshot registry = RegistrySnapshot();
    const Snapshot files = FolderSnapshot(appData_.Path());
    const RegistryWatch writes;
    const InitialiseDouble initialise;
    const ImportDouble<"CoCreateInstance", decltype(&::CoCreateInstance)> link;
    EXPECT_EQ(call(), -1);
    EXPECT_THAT(writes.Calls(), IsEmpty());
    EXPECT_EQ(initialise.Count(), 0);
    EXPECT_EQ(link.Count(), 0);
    EXPECT_THAT(log_.Lines(), IsEmpty());
    EXPECT_THAT(Changes(files, FolderSnapshot(appData_.Path())), IsEmpty());
    EXPECT_THAT(Changes(registry, RegistrySnapshot()), IsEmpty());
  }
};

// Such a text would name the keys of other programs: the list of all classes, or a class's inside.
TEST_F(RefusalTest, AClassIdentifierThatNamesOthersKeysIsRefused) {
  const EntryKeys neighbour(NextClsid());
  neighbour.classKey.SetNumber(L"Instance", L"theirs", 1);
  const std::string inside = Narrow(neighbour.classKey.Path()).substr(sizeof kClasses / 2);
  for (const std::string& clsid : {std::string(), std::string("\\"), inside + "\\Instance",
                                   inside + "\\", "\\" + inside, std::string("..\\x")}) {
    SCOPED_TRACE(clsid);
    EntryArguments entry = Entry();
    entry.clsid = clsid;
    ExpectRefused([&] { return Register(entry); });
    ExpectRefused([&] { return Unregister(entry); });
    ExpectRefused([&] { return CORVWinCFSyncEngineUnregisterSystemFolder(clsid.c_str()); });
  }
  EXPECT_EQ(neighbour.classKey.Value(L"Instance", L"theirs"), StoredNumber(1));
}

TEST_F(RefusalTest, ANullTextIsRefused) {
  for (const auto call : {&CORVWinCFSyncEngineRegister, &CORVWinCFSyncEngineUnregister}) {
    for (int null = 0; null < 5; ++null) {
      SCOPED_TRACE(null);
      const auto text = [null](int index, const char* given) {
        return index == null ? nullptr : given;
      };
      ExpectRefused([&] {
        return call(text(0, "C:\\Sync"), text(1, clsid_.c_str()), 3, text(2, "NAS1"),
                    text(3, "home"), text(4, "/"));
      });
    }
  }
  ExpectRefused([] { return CORVWinCFSyncEngineUnregisterSystemFolder(nullptr); });
}

// A text that could not be converted for want of memory is empty, so that a call may still end
// well, with a line of the log or one of the entry's texts missing.
class SyncEngineMemoryTest : public ExplorerEntryFixture {
 protected:
  SyncEngineMemoryTest() { EXPECT_TRUE(Composer().CreateFolder()); }

  // Fails every allocation of `call` in turn; `prepare` runs before each.
  template <typename Prepare, typename Call>
  int FailEach(Prepare prepare, Call call) {
    const Snapshot registry = RegistrySnapshot();
    const Snapshot files = FolderSnapshot(appData_.Path());
    const int allocations = ForEachFailingAllocation([&](auto watched, bool& failed) {
      const EntryKeys cleared(clsid_);
      for (const std::string& name : FolderContent()) {
        DeleteFileW(Wide(ShortcutPath(name)).c_str());
      }
      prepare();
      const RegistryWatch keys;
      CORVWinCFStatus result = 1;
      watched([&] { result = call(); });
      EXPECT_TRUE(result == 0 || (failed && result == -1)) << result;
      EXPECT_EQ(keys.StillOpen(), 0);
      failures_ += result == -1 ? 1 : 0;
    });
    // Whatever the runs did to others' keys and files would still be there.
    ExpectOnlyOwn(Changes(registry, RegistrySnapshot()), clsid_);
    ExpectOnlyOwn(Changes(files, FolderSnapshot(appData_.Path())),
                  R"(CorvaneDrive\SystemFolders\3\)");
    return allocations;
  }

  int failures_ = 0;
  const EntryArguments entry_ = Entry(appData_.MakeFolder("Root"), "/a");

 private:
  static void ExpectOnlyOwn(const std::vector<std::string>& changes, const std::string& mark) {
    for (const std::string& change : changes) {
      EXPECT_THAT(change, testing::HasSubstr(mark));
    }
  }
};

TEST_F(SyncEngineMemoryTest, ARegistrationWithoutMemoryFailsAndTouchesNothingForeign) {
  EXPECT_GT(FailEach([] {}, [&] { return Register(entry_); }), 20);
  EXPECT_GT(failures_, 20);
}

TEST_F(SyncEngineMemoryTest, AnUnregistrationWithoutMemoryFailsAndTouchesNothingForeign) {
  EXPECT_GT(FailEach([&] { ASSERT_EQ(Register(entry_), 0); }, [&] { return Unregister(entry_); }),
            20);
  EXPECT_GT(failures_, 10);
}

TEST_F(SyncEngineMemoryTest, RemovingTheEntryAloneWithoutMemoryFailsAndTouchesNothingForeign) {
  EXPECT_GT(FailEach([&] { ASSERT_EQ(Register(entry_), 0); },
                     [&] { return CORVWinCFSyncEngineUnregisterSystemFolder(clsid_.c_str()); }),
            3);
  EXPECT_GT(failures_, 3);
}

TEST_F(SyncEngineMemoryTest, ObjectsLiveNoLongerThanTheirCall) {
  ASSERT_EQ(Register(entry_), 0);
  ASSERT_EQ(Unregister(entry_), 0);
  const HeapWatch heap;
  CORVWinCFStatus results[3] = {};
  results[0] = CORVWinCFSyncEngineRegister(entry_.root.c_str(), clsid_.c_str(), 3, "d", "s",
                                           "/a long path that is kept in the object/a");
  results[1] = CORVWinCFSyncEngineUnregister(entry_.root.c_str(), clsid_.c_str(), 3, "d", "s",
                                             "/a long path that is kept in the object/a");
  results[2] = CORVWinCFSyncEngineUnregisterSystemFolder(clsid_.c_str());
  const int allocations = heap.Allocations();
  const int left = heap.LiveBlocks();
  EXPECT_GT(allocations, 20);
  EXPECT_EQ(left, 0);
  EXPECT_THAT(results, ElementsAre(0, 0, -1));
}

class SyncEngineThreadsTest : public ExplorerEntryFixture {
 protected:
  static constexpr int kThreads = 8;

  EntryArguments EntryOf(int thread) const {
    const std::string name = "root" + std::to_string(thread);
    return Entry(appData_.Item(name), "/" + name);
  }
};

TEST_F(SyncEngineThreadsTest, EightRegisterTheirRootsInOneEntry) {
  for (int thread = 0; thread < kThreads; ++thread) {
    appData_.MakeFolder("root" + std::to_string(thread));
  }
  EXPECT_THAT(OnThreads(kThreads, [&](int thread) { return Register(EntryOf(thread)); }),
              testing::Each(0));

  EXPECT_THAT(FolderContent(), ElementsAre("root0.lnk", "root1.lnk", "root2.lnk", "root3.lnk",
                                           "root4.lnk", "root5.lnk", "root6.lnk", "root7.lnk"));
  for (int thread = 0; thread < kThreads; ++thread) {
    const EntryArguments entry = EntryOf(thread);
    EXPECT_EQ(ReadShortcut(ShortcutPath("root" + std::to_string(thread) + ".lnk")).target,
              entry.root);
  }
  EXPECT_EQ(keys_.classKey.ValueNames().size(), 3u);
  EXPECT_EQ(keys_.classKey.SubkeyNames().size(), 4u);
  EXPECT_EQ(keys_.classKey.Value(L"ShellFolder", L"Attributes"), StoredNumber(0xF080004D));
  EXPECT_EQ(keys_.nameSpaceKey.Value(L"", L"")->type, static_cast<DWORD>(REG_EXPAND_SZ));
  EXPECT_TRUE(keys_.IsHidden());

  for (int thread = 0; thread < kThreads; ++thread) {
    EXPECT_EQ(Unregister(EntryOf(thread)), 0);
    EXPECT_EQ(keys_.nameSpaceKey.Exists(), thread + 1 < kThreads) << "goes with the last";
  }
  EXPECT_THAT(FolderContent(), IsEmpty());
}

// One may hold the other's shortcut open when it is deleted, which is no failure.
TEST_F(SyncEngineThreadsTest, EightUnregisterTheirRootsAndWhatStaysIsReported) {
  for (int thread = 0; thread < kThreads; ++thread) {
    appData_.MakeFolder("root" + std::to_string(thread));
    ASSERT_EQ(Register(EntryOf(thread)), 0);
  }
  log_.Clear();
  const auto results = OnThreads(kThreads, [&](int thread) { return Unregister(EntryOf(thread)); });
  EXPECT_THAT(results, testing::Each(testing::AnyOf(0, -1)));
  EXPECT_THAT(results, testing::Contains(0));
  const auto lines = log_.Lines();
  const auto reported = std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
    return line.find("Failed to remove") != std::string::npos ||
           line.find("Failed to find") != std::string::npos;
  });
  EXPECT_EQ(FolderContent().size(), static_cast<std::size_t>(reported));
  EXPECT_EQ(keys_.nameSpaceKey.Exists(), reported > 0);
}

// Nothing guards the choice of a free name: two may choose the same, and one of them may fail.
TEST_F(SyncEngineThreadsTest, EightThatWantOneNameLeaveAWholeEntryAndReadableShortcuts) {
  const auto results = OnThreads(
      kThreads, [&](int thread) { return Register(Entry(EntryOf(thread).root, "/same")); });
  EXPECT_THAT(results, testing::Each(testing::AnyOf(0, -1)));
  EXPECT_THAT(results, testing::Contains(0));
  EXPECT_EQ(keys_.classKey.SubkeyNames().size(), 4u);
  EXPECT_TRUE(keys_.nameSpaceKey.Exists());
  EXPECT_THAT(FolderContent(), testing::Not(IsEmpty()));
  for (const std::string& name : FolderContent()) {
    EXPECT_THAT(ReadShortcut(ShortcutPath(name)).target,
                testing::StartsWith(appData_.Item("root")));
  }
}

TEST_F(SyncEngineThreadsTest, EightWriteEntriesOfTheirOwn) {
  std::vector<std::string> clsids;
  for (int thread = 0; thread < kThreads; ++thread) {
    clsids.push_back(NextClsid());
  }
  const auto results = OnThreads(kThreads, [&](int thread) {
    EntryArguments entry = EntryOf(thread);
    entry.clsid = clsids[static_cast<std::size_t>(thread)];
    entry.systemFolder = 100u + static_cast<unsigned>(thread);
    const int registered = Register(entry);
    const int removed = CORVWinCFSyncEngineUnregisterSystemFolder(entry.clsid.c_str());
    return registered == 0 && removed == 0 ? 0 : -1;
  });
  EXPECT_THAT(results, testing::Each(0)) << testing::PrintToString(log_.Lines());
  for (const std::string& clsid : clsids) {
    RegDeleteTreeW(HKEY_CURRENT_USER, (std::wstring(kClasses) + L"\\" + Wide(clsid)).c_str());
  }
}

}  // namespace
}  // namespace nimbra_test
