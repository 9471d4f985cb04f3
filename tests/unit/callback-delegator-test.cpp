#include "win-cf/callback-delegator.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "nimbra/nimbra.h"
#include "tests/support/heap-watch.h"
#include "tests/support/nimbra-test.h"
#include "tests/support/sync-root-handles.h"

namespace {

using corvdrive::cloud_filter::CallbackDelegatorBase;
using corvdrive::cloud_filter::CallbackDelegatorWinCF;
using nimbra_test::CallbackEvent;
using nimbra_test::Delegator;
using nimbra_test::HeapWatch;
using nimbra_test::SyncRoot;
using testing::ElementsAre;
using testing::IsEmpty;

using Setter = CORVWinCFStatus (*)(CORVWinCFCallbackDelegatorHandle, CORVWinCFCallback);

struct KindRow {
  const char* name;
  Setter set;
  // Nothing delivers an open completion.
  CF_CALLBACK_TYPE delivers;
};

const KindRow kKinds[] = {
    {"fetch", CORVWinCFCallbackDelegatorSetFetchCallback, CF_CALLBACK_TYPE_FETCH_DATA},
    {"fetch cancel", CORVWinCFCallbackDelegatorSetFetchCancelCallback,
     CF_CALLBACK_TYPE_CANCEL_FETCH_DATA},
    {"delete", CORVWinCFCallbackDelegatorSetDeleteCallback, CF_CALLBACK_TYPE_NOTIFY_DELETE},
    {"rename", CORVWinCFCallbackDelegatorSetRenameCallback, CF_CALLBACK_TYPE_NOTIFY_RENAME},
    {"rename completion", CORVWinCFCallbackDelegatorSetRenameCompletionCallback,
     CF_CALLBACK_TYPE_NOTIFY_RENAME_COMPLETION},
    {"open completion", CORVWinCFCallbackDelegatorSetOpenCompletionCallback,
     CF_CALLBACK_TYPE_NOTIFY_FILE_OPEN_COMPLETION},
};

// The callbacks below write their name to the list that the record's context points to.
template <int Name>
void Note(const CORVWinCFCallbackRecord* record) {
  static_cast<std::vector<int>*>(record->context)->push_back(Name);
}

constexpr CORVWinCFCallback kNotes[] = {Note<0>, Note<1>, Note<2>, Note<3>, Note<4>, Note<5>};

class CallbackDelegatorTest : public nimbra_test::NimbraTest {
 protected:
  CallbackDelegatorTest() { windows_.Become(nimbra_test::kBuildThatHidesOption); }

  // Connects on the build that registers for every notification the library knows.
  void Connect(const Delegator& delegator) {
    ASSERT_EQ(CORVWinCFSyncRootConnect(root_.Get(), delegator.Get()), S_OK);
  }

  bool Play(CF_CALLBACK_TYPE type) {
    CallbackEvent event;
    event.type = type;
    return cloud_.Play(event);
  }

  SyncRoot root_;
  std::vector<int> called_;
};

TEST_F(CallbackDelegatorTest, IsABaseWithADestructorOnlyAndAClassThatOverridesIt) {
  static_assert(std::is_polymorphic_v<CallbackDelegatorBase>);
  static_assert(std::has_virtual_destructor_v<CallbackDelegatorBase>);
  static_assert(std::is_base_of_v<CallbackDelegatorBase, CallbackDelegatorWinCF>);
}

TEST_F(CallbackDelegatorTest, NewGivesEachTimeAnotherHandleOfSixteenBytes) {
  CORVWinCFCallbackDelegatorHandle first = nullptr;
  CORVWinCFCallbackDelegatorHandle second = nullptr;
  std::size_t size = 0;
  {
    const HeapWatch heap;
    EXPECT_EQ(CORVWinCFCallbackDelegatorNew(&first, nullptr), 0);
    EXPECT_EQ(CORVWinCFCallbackDelegatorNew(&second, this), 0);
    size = HeapWatch::BlockSize(first);
    CORVWinCFCallbackDelegatorRelease(first);
    CORVWinCFCallbackDelegatorRelease(second);
  }
  EXPECT_NE(first, second);
  EXPECT_EQ(size, 16u);
  EXPECT_THAT(cloud_.CallNames(), IsEmpty());
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(CallbackDelegatorTest, EachSetterStoresTheCallbackOfItsOwnEvent) {
  const Delegator delegator(&called_);
  for (int kind = 0; kind < 6; ++kind) {
    SCOPED_TRACE(kKinds[kind].name);
    EXPECT_EQ(kKinds[kind].set(delegator.Get(), kNotes[kind]), 0);
  }
  Connect(delegator);
  for (int kind = 0; kind < 5; ++kind) {
    SCOPED_TRACE(kKinds[kind].name);
    called_.clear();
    EXPECT_TRUE(Play(kKinds[kind].delivers));
    EXPECT_THAT(called_, ElementsAre(kind));
  }
}

TEST_F(CallbackDelegatorTest, AnOpenCompletionCallbackIsAcceptedAndNeverCalled) {
  const Delegator delegator(&called_);
  EXPECT_EQ(CORVWinCFCallbackDelegatorSetOpenCompletionCallback(delegator.Get(), Note<5>), 0);
  Connect(delegator);
  EXPECT_FALSE(Play(CF_CALLBACK_TYPE_NOTIFY_FILE_OPEN_COMPLETION)) << "nobody asked for it";
  for (int kind = 0; kind < 5; ++kind) {
    EXPECT_TRUE(Play(kKinds[kind].delivers));
  }
  EXPECT_THAT(called_, IsEmpty());
}

TEST_F(CallbackDelegatorTest, TheLastCallbackSetWins) {
  const Delegator delegator(&called_);
  for (int kind = 0; kind < 5; ++kind) {
    EXPECT_EQ(kKinds[kind].set(delegator.Get(), Note<98>), 0);
    EXPECT_EQ(kKinds[kind].set(delegator.Get(), Note<99>), 0);
  }
  Connect(delegator);
  for (int kind = 0; kind < 5; ++kind) {
    SCOPED_TRACE(kKinds[kind].name);
    called_.clear();
    EXPECT_TRUE(Play(kKinds[kind].delivers));
    EXPECT_THAT(called_, ElementsAre(99));
  }
}

TEST_F(CallbackDelegatorTest, ANullCallbackIsRefusedAndTheStoredOneStays) {
  const Delegator delegator(&called_);
  for (int kind = 0; kind < 6; ++kind) {
    SCOPED_TRACE(kKinds[kind].name);
    EXPECT_EQ(kKinds[kind].set(delegator.Get(), nullptr), -1) << "nothing stored yet";
    EXPECT_EQ(kKinds[kind].set(delegator.Get(), kNotes[kind]), 0);
    EXPECT_EQ(kKinds[kind].set(delegator.Get(), nullptr), -1);
  }
  Connect(delegator);
  for (int kind = 0; kind < 5; ++kind) {
    SCOPED_TRACE(kKinds[kind].name);
    called_.clear();
    EXPECT_TRUE(Play(kKinds[kind].delivers));
    EXPECT_THAT(called_, ElementsAre(kind));
  }
}

TEST_F(CallbackDelegatorTest, ANullHandleIsRefusedBySetters) {
  for (const KindRow& kind : kKinds) {
    SCOPED_TRACE(kind.name);
    EXPECT_EQ(kind.set(nullptr, Note<0>), -1);
    EXPECT_EQ(kind.set(nullptr, nullptr), -1);
  }
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(CallbackDelegatorTest, DelegatorsDoNotShareCallbacksOrContexts) {
  std::vector<int> others;
  const Delegator delegator(&called_);
  const Delegator other(&others);
  EXPECT_EQ(CORVWinCFCallbackDelegatorSetFetchCallback(other.Get(), Note<7>), 0);

  Connect(delegator);
  EXPECT_TRUE(Play(CF_CALLBACK_TYPE_FETCH_DATA));
  EXPECT_THAT(called_, IsEmpty());
  EXPECT_THAT(others, IsEmpty());

  Connect(other);
  EXPECT_TRUE(Play(CF_CALLBACK_TYPE_FETCH_DATA));
  EXPECT_THAT(called_, IsEmpty());
  EXPECT_THAT(others, ElementsAre(7));
}

TEST_F(CallbackDelegatorTest, ANullContextIsHandedBackAsNull) {
  static bool wasNull = false;
  wasNull = false;
  const Delegator delegator(nullptr);
  ASSERT_EQ(CORVWinCFCallbackDelegatorSetFetchCallback(delegator.Get(),
                                                       [](const CORVWinCFCallbackRecord* record) {
                                                         wasNull = record->context == nullptr;
                                                       }),
            0);
  Connect(delegator);
  EXPECT_TRUE(Play(CF_CALLBACK_TYPE_FETCH_DATA));
  EXPECT_TRUE(wasNull);
}

TEST_F(CallbackDelegatorTest, AClosedGateRefusesEverythingButRelease) {
  const Delegator delegator(&called_);
  ASSERT_EQ(CORVWinCFCallbackDelegatorSetFetchCallback(delegator.Get(), Note<1>), 0);
  auto* const poison = reinterpret_cast<CORVWinCFCallbackDelegatorHandle>(0x5A5A);
  CORVWinCFCallbackDelegatorHandle handle = poison;

  windows_.Become(nimbra_test::kBuildWithoutStreaming);
  int allocations = 0;
  int created = 0;
  std::vector<int> set;
  {
    const HeapWatch heap;
    created = CORVWinCFCallbackDelegatorNew(&handle, this);
    allocations = heap.Allocations();
  }
  for (const KindRow& kind : kKinds) {
    set.push_back(kind.set(delegator.Get(), Note<2>));
    set.push_back(kind.set(nullptr, nullptr));
  }

  EXPECT_EQ(created, -1);
  EXPECT_EQ(handle, poison);
  EXPECT_EQ(allocations, 0);
  EXPECT_THAT(set, testing::Each(-1));
  EXPECT_EQ(set.size(), 12u);

  windows_.Become(nimbra_test::kBuildThatHidesOption);
  Connect(delegator);
  EXPECT_TRUE(Play(CF_CALLBACK_TYPE_FETCH_DATA));
  EXPECT_THAT(called_, ElementsAre(1)) << "what was stored before stays";
}

TEST_F(CallbackDelegatorTest, ReleaseFreesTheCellOnlyAndTheObjectLivesOn) {
  for (const DWORD build : {nimbra_test::kUsualBuild, nimbra_test::kBuildWithoutStreaming}) {
    SCOPED_TRACE(build);
    windows_.Become(nimbra_test::kUsualBuild);
    CORVWinCFCallbackDelegatorHandle handle = nullptr;
    bool cellFreed = false;
    bool objectAllocated = false;
    int liveBefore = 0;
    int liveAfter = 0;
    {
      const HeapWatch heap;
      ASSERT_EQ(CORVWinCFCallbackDelegatorNew(&handle, this), 0);
      ASSERT_EQ(CORVWinCFCallbackDelegatorSetFetchCallback(handle, Note<1>), 0);
      windows_.Become(build);
      const void* const cell = handle;
      void* object = nullptr;
      std::memcpy(&object, cell, sizeof object);
      liveBefore = heap.LiveBlocks();
      CORVWinCFCallbackDelegatorRelease(handle);
      liveAfter = heap.LiveBlocks();
      cellFreed = HeapWatch::WasFreed(cell);
      objectAllocated = HeapWatch::IsAllocated(object);
    }
    EXPECT_TRUE(cellFreed);
    EXPECT_TRUE(objectAllocated);
    EXPECT_EQ(liveAfter, liveBefore - 1) << "the table stays too";
  }
}

TEST_F(CallbackDelegatorTest, ReleaseOfANullHandleDoesNothing) {
  CORVWinCFCallbackDelegatorRelease(nullptr);
  EXPECT_THAT(log_.Lines(), IsEmpty());
  EXPECT_THAT(cloud_.CallNames(), IsEmpty());
}

TEST_F(CallbackDelegatorTest, NewThatRunsOutOfMemoryFailsAndLeavesTheOutput) {
  auto* const poison = reinterpret_cast<CORVWinCFCallbackDelegatorHandle>(0x5A5A);
  const int refused =
      nimbra_test::ForEachFailingAllocation([&](auto&& watched, const bool& failed) {
        CORVWinCFCallbackDelegatorHandle handle = poison;
        int result = 0;
        watched([&] { result = CORVWinCFCallbackDelegatorNew(&handle, nullptr); });
        EXPECT_EQ(result, failed ? -1 : 0);
        EXPECT_EQ(handle == poison, failed);
        if (result == 0) {
          CORVWinCFCallbackDelegatorRelease(handle);
        }
      });
  EXPECT_GE(refused, 2) << "the object and the cell";
}

TEST_F(CallbackDelegatorTest, ACallbackThatCouldNotBeStoredIsRefused) {
  const Delegator delegator(&called_);
  int stored = 0;
  int result = 0;
  {
    HeapWatch heap;
    heap.FailAllocation(1);
    result = CORVWinCFCallbackDelegatorSetFetchCallback(delegator.Get(), Note<1>);
    heap.StopFailing();
    stored = CORVWinCFCallbackDelegatorSetFetchCancelCallback(delegator.Get(), Note<2>);
  }
  EXPECT_EQ(result, -1);
  EXPECT_EQ(stored, 0);
  Connect(delegator);
  EXPECT_TRUE(Play(CF_CALLBACK_TYPE_FETCH_DATA));
  EXPECT_TRUE(Play(CF_CALLBACK_TYPE_CANCEL_FETCH_DATA));
  EXPECT_THAT(called_, ElementsAre(2));
}

}  // namespace
