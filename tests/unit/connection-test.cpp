#include <windows.h>

#include <cstdint>
#include <initializer_list>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "common/cloud-files.h"
#include "nimbra/nimbra.h"
#include "tests/support/nimbra-test.h"
#include "tests/support/sync-root-handles.h"

namespace {

using nimbra_test::CloudFunction;
using nimbra_test::ConnectSyncRootCall;
using nimbra_test::Delegator;
using nimbra_test::DisconnectSyncRootCall;
using nimbra_test::IsLogLine;
using nimbra_test::kAccessDenied;
using nimbra_test::kSyncRootSource;
using nimbra_test::SyncRoot;
using testing::ElementsAre;
using testing::IsEmpty;

class ConnectionTest : public nimbra_test::NimbraTest {
 protected:
  SyncRoot root_{"C:\\Sync \xE6\x97\xA5"};
  Delegator delegator_;
};

std::vector<int> Types(const ConnectSyncRootCall& call) {
  std::vector<int> types;
  for (const CF_CALLBACK_REGISTRATION& entry : call.table) {
    types.push_back(static_cast<int>(entry.Type));
  }
  return types;
}

constexpr int kNone = -1;

TEST_F(ConnectionTest, ConnectTellsThePlatformPathContextFlagsAndKey) {
  EXPECT_EQ(CORVWinCFSyncRootConnect(root_.Get(), delegator_.Get()), S_OK);

  const auto call = cloud_.Only<ConnectSyncRootCall>();
  EXPECT_EQ(call.path, L"C:\\Sync \u65E5");
  EXPECT_EQ(call.context, static_cast<const void*>(delegator_.Get()))
      << "the handle, not the object behind it";
  EXPECT_EQ(static_cast<int>(call.flags), 14);
  EXPECT_NE(call.keyAddress, nullptr);
  EXPECT_THAT(cloud_.CallNames(), ElementsAre("CfConnectSyncRoot"));
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

struct BuildRow {
  DWORD build;
  bool registersDelete;
};

TEST_F(ConnectionTest, DeletesAreAskedForOnOneBuildOnly) {
  const BuildRow rows[] = {
      {17134, true}, {17135, false}, {17763, false}, {19045, false}, {22631, false}};
  for (const BuildRow& row : rows) {
    SCOPED_TRACE(row.build);
    windows_.Become(row.build);
    cloud_.Clear();
    ASSERT_EQ(CORVWinCFSyncRootConnect(root_.Get(), delegator_.Get()), S_OK);
    const auto call = cloud_.Only<ConnectSyncRootCall>();
    if (row.registersDelete) {
      EXPECT_THAT(Types(call), ElementsAre(0, 2, 11, 12, 9, kNone));
    } else {
      EXPECT_THAT(Types(call), ElementsAre(0, 2, 11, 12, kNone));
    }
    EXPECT_EQ(call.table.back().Callback, nullptr);
  }
}

TEST_F(ConnectionTest, EveryEventHasATranslatorOfItsOwn) {
  windows_.Become(nimbra_test::kBuildThatHidesOption);
  ASSERT_EQ(CORVWinCFSyncRootConnect(root_.Get(), delegator_.Get()), S_OK);
  std::set<CF_CALLBACK> translators;
  for (const CF_CALLBACK_REGISTRATION& entry : cloud_.Only<ConnectSyncRootCall>().table) {
    translators.insert(entry.Callback);
  }
  EXPECT_EQ(translators.size(), 6u) << "five and the null of the terminator";
}

TEST_F(ConnectionTest, EachVariantOfTheTableIsBuiltOnce) {
  const SyncRoot other("C:\\Other", 13);
  std::map<DWORD, std::set<const CF_CALLBACK_REGISTRATION*>> addresses;
  for (const DWORD build : std::initializer_list<DWORD>{17134, 19045, 17134, 22631}) {
    windows_.Become(build);
    for (const CORVWinCFSyncRootHandle root : {root_.Get(), other.Get()}) {
      cloud_.Clear();
      ASSERT_EQ(CORVWinCFSyncRootConnect(root, delegator_.Get()), S_OK);
      const DWORD variant = build == 17134 ? 1u : 0u;
      addresses[variant].insert(cloud_.Only<ConnectSyncRootCall>().tableAddress);
    }
  }
  EXPECT_EQ(addresses[0].size(), 1u);
  EXPECT_EQ(addresses[1].size(), 1u);
  EXPECT_NE(addresses[0], addresses[1]);
}

TEST_F(ConnectionTest, AFailedConnectIsLoggedAndHandedBack) {
  for (const HRESULT failure : {kAccessDenied, static_cast<HRESULT>(0x8007017A)}) {
    log_.Clear();
    cloud_.FailNext(CloudFunction::ConnectSyncRoot, failure);
    EXPECT_EQ(CORVWinCFSyncRootConnect(root_.Get(), delegator_.Get()), failure);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(IsLogLine(kSyncRootSource,
                                      "Failed to connect to syncroot C:\\Sync \xE6\x97\xA5, err: " +
                                          std::to_string(failure))));
  }
}

TEST_F(ConnectionTest, ResultsThatAreNotNegativeAreHandedBackSilently) {
  cloud_.FailNext(CloudFunction::ConnectSyncRoot, S_FALSE);
  cloud_.FailNext(CloudFunction::DisconnectSyncRoot, S_FALSE);
  EXPECT_EQ(CORVWinCFSyncRootConnect(root_.Get(), delegator_.Get()), S_FALSE);
  EXPECT_EQ(CORVWinCFSyncRootDisconnect(root_.Get()), S_FALSE);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(ConnectionTest, NullHandlesAndAClosedGateAreRefused) {
  EXPECT_EQ(CORVWinCFSyncRootConnect(nullptr, delegator_.Get()), E_POINTER);
  EXPECT_EQ(CORVWinCFSyncRootConnect(root_.Get(), nullptr), E_POINTER);
  EXPECT_EQ(CORVWinCFSyncRootConnect(nullptr, nullptr), E_POINTER);
  windows_.Become(nimbra_test::kBuildWithoutStreaming);
  EXPECT_EQ(CORVWinCFSyncRootConnect(root_.Get(), delegator_.Get()), E_NOINTERFACE);
  EXPECT_EQ(CORVWinCFSyncRootConnect(nullptr, nullptr), E_NOINTERFACE);
  EXPECT_THAT(cloud_.CallNames(), IsEmpty());
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(ConnectionTest, DisconnectGivesTheKeyOfTheLastConnection) {
  cloud_.SetConnectionKey(0x1111222233334444);
  ASSERT_EQ(CORVWinCFSyncRootConnect(root_.Get(), delegator_.Get()), S_OK);
  cloud_.SetConnectionKey(-2);
  ASSERT_EQ(CORVWinCFSyncRootConnect(root_.Get(), delegator_.Get()), S_OK);

  EXPECT_EQ(CORVWinCFSyncRootDisconnect(root_.Get()), S_OK);

  EXPECT_EQ(cloud_.Only<DisconnectSyncRootCall>().connectionKey, -2);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(ConnectionTest, RootsKeepTheirOwnKeys) {
  const SyncRoot other("C:\\Other", 13);
  cloud_.SetConnectionKey(100);
  ASSERT_EQ(CORVWinCFSyncRootConnect(root_.Get(), delegator_.Get()), S_OK);
  cloud_.SetConnectionKey(200);
  ASSERT_EQ(CORVWinCFSyncRootConnect(other.Get(), delegator_.Get()), S_OK);

  EXPECT_EQ(CORVWinCFSyncRootDisconnect(root_.Get()), S_OK);
  EXPECT_EQ(CORVWinCFSyncRootDisconnect(other.Get()), S_OK);

  const auto calls = cloud_.CallsOf<DisconnectSyncRootCall>();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].connectionKey, 100);
  EXPECT_EQ(calls[1].connectionKey, 200);
}

TEST_F(ConnectionTest, AFailedDisconnectIsLoggedAndHandedBack) {
  cloud_.FailNext(CloudFunction::DisconnectSyncRoot, E_INVALIDARG);
  EXPECT_EQ(CORVWinCFSyncRootDisconnect(root_.Get()), E_INVALIDARG);
  EXPECT_THAT(log_.Lines(),
              ElementsAre(IsLogLine(kSyncRootSource,
                                    "Failed to disconnected from syncroot, err: -2147024809")));
}

// The first connections of a process may come on several threads; one-time initialisation makes
// one table of them.
TEST_F(ConnectionTest, ConnectionsOnManyThreadsAtOnceShareOneTable) {
  constexpr int kThreads = 8;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      const SyncRoot root("C:\\Root", static_cast<std::uint64_t>(thread));
      EXPECT_EQ(CORVWinCFSyncRootConnect(root.Get(), delegator_.Get()), S_OK);
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::set<const CF_CALLBACK_REGISTRATION*> tables;
  for (const ConnectSyncRootCall& call : cloud_.CallsOf<ConnectSyncRootCall>()) {
    tables.insert(call.tableAddress);
  }
  EXPECT_EQ(tables.size(), 1u);
}

}  // namespace
