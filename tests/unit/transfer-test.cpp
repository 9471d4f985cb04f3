#include <windows.h>

#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "nimbra/nimbra.h"
#include "tests/unit/transfer-fixture.h"

namespace {

using nimbra_test::CloudFunction;
using nimbra_test::ExecuteCall;
using nimbra_test::IsLogLine;
using nimbra_test::kAccessDenied;
using nimbra_test::kConnectionKey;
using nimbra_test::kSyncRootSource;
using nimbra_test::ReportProviderProgressCall;
using testing::ElementsAre;
using testing::IsEmpty;

class TransferTest : public nimbra_test::TransferFixture {};

struct StatusRow {
  std::uint32_t client;
  std::uint32_t platform;
};

constexpr StatusRow kStatuses[] = {
    {0, 0},          {1, 0xC000CF12}, {2, 0xC000007F},          {3, 0xC000CF16},
    {4, 0xC000CF12}, {5, 0xC000CF12}, {0xC000007F, 0xC000CF12}, {0xFFFFFFFF, 0xC000CF12},
};

TEST_F(TransferTest, HandsTheClientsBufferToThePlatformAsItIs) {
  const std::string data("da\0ta\xFF", 6);
  EXPECT_EQ(CORVWinCFSyncRootTransferData(root_.Get(), -3, 0, data.data(), 0x123456789000, 6, 0),
            S_OK);

  const auto call = cloud_.Only<ExecuteCall>();
  ExpectOperation(call, 0, -3, 40);
  EXPECT_EQ(call.status, 0);
  EXPECT_EQ(call.buffer, data.data()) << "no copy";
  EXPECT_EQ(call.data, data);
  EXPECT_EQ(call.offset, 0x123456789000);
  EXPECT_EQ(call.length, 6);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(TransferTest, MapsTheClientsStatus) {
  for (const StatusRow& row : kStatuses) {
    SCOPED_TRACE(row.client);
    cloud_.Clear();
    EXPECT_EQ(CORVWinCFSyncRootTransferData(root_.Get(), 1, 0, nullptr, 4096, 8192, row.client),
              S_OK);
    const auto call = cloud_.Only<ExecuteCall>();
    ExpectOperation(call, 0, 1, 40);
    EXPECT_EQ(static_cast<std::uint32_t>(call.status), row.platform);
    EXPECT_EQ(call.buffer, nullptr);
    EXPECT_EQ(call.offset, 4096);
    EXPECT_EQ(call.length, 8192);
  }
}

TEST_F(TransferTest, IgnoresTheUnusedArgument) {
  for (const std::int64_t unused :
       {std::int64_t{0}, std::int64_t{-1}, std::numeric_limits<std::int64_t>::max()}) {
    cloud_.Clear();
    EXPECT_EQ(CORVWinCFSyncRootTransferData(root_.Get(), 1, unused, "x", 0, 1, 0), S_OK);
    ExpectOperation(cloud_.Only<ExecuteCall>(), 0, 1, 40);
    cloud_.Clear();
    EXPECT_EQ(CORVWinCFSyncRootAckDelete(root_.Get(), 2, unused, 0), 0);
    ExpectOperation(cloud_.Only<ExecuteCall>(), 6, 2, 16);
  }
}

struct RangeRow {
  std::int64_t offset;
  std::int64_t length;
};

// Nothing is judged here; the platform does that.
TEST_F(TransferTest, PassesAnyRangeOn) {
  const RangeRow rows[] = {{0, 0},
                           {1, 3},
                           {-1, -1},
                           {std::numeric_limits<std::int64_t>::max(), 0},
                           {std::numeric_limits<std::int64_t>::min(), 0},
                           {0, std::numeric_limits<std::int64_t>::max()}};
  for (const RangeRow& row : rows) {
    cloud_.Clear();
    EXPECT_EQ(CORVWinCFSyncRootTransferData(root_.Get(), 1, 0, nullptr, row.offset, row.length, 3),
              S_OK);
    EXPECT_EQ(cloud_.Only<ExecuteCall>().offset, row.offset);
    EXPECT_EQ(cloud_.Only<ExecuteCall>().length, row.length);
  }
}

TEST_F(TransferTest, AFailedTransferIsLoggedAndHandedBack) {
  for (const HRESULT failure :
       {kAccessDenied, static_cast<HRESULT>(0x8007018E), static_cast<HRESULT>(0x8007017C)}) {
    log_.Clear();
    cloud_.FailNext(CloudFunction::Execute, failure);
    EXPECT_EQ(CORVWinCFSyncRootTransferData(root_.Get(), 1, 0, "x", 0, 1, 0), failure);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(IsLogLine(kSyncRootSource, "Failed: " + std::to_string(failure))));
  }
}

TEST_F(TransferTest, PositiveResultsAreHandedBackSilently) {
  cloud_.Always(CloudFunction::Execute, S_FALSE);
  cloud_.Always(CloudFunction::ReportProviderProgress, S_FALSE);
  EXPECT_EQ(CORVWinCFSyncRootTransferData(root_.Get(), 1, 0, "x", 0, 1, 0), S_FALSE);
  EXPECT_EQ(CORVWinCFSyncRootReportTransferProgress(root_.Get(), 1, 2, 1), S_FALSE);
  EXPECT_EQ(CORVWinCFSyncRootAckRename(root_.Get(), 1), 0);
  EXPECT_EQ(CORVWinCFSyncRootAckDelete(root_.Get(), 1, 0, 0), 0);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(TransferTest, UsesTheKeyOfTheLastConnection) {
  cloud_.SetConnectionKey(99);
  ASSERT_EQ(CORVWinCFSyncRootConnect(root_.Get(), delegator_.Get()), S_OK);
  cloud_.Clear();
  EXPECT_EQ(CORVWinCFSyncRootTransferData(root_.Get(), 1, 0, "x", 0, 1, 0), S_OK);
  EXPECT_EQ(CORVWinCFSyncRootReportTransferProgress(root_.Get(), 1, 2, 1), S_OK);
  EXPECT_EQ(CORVWinCFSyncRootAckRename(root_.Get(), 1), 0);
  EXPECT_EQ(CORVWinCFSyncRootAckDelete(root_.Get(), 1, 0, 0), 0);
  const auto calls = cloud_.CallsOf<ExecuteCall>();
  ASSERT_EQ(calls.size(), 3u);
  for (const ExecuteCall& call : calls) {
    EXPECT_EQ(call.info.ConnectionKey.Internal, 99);
  }
  EXPECT_EQ(cloud_.Only<ReportProviderProgressCall>().connectionKey, 99);
}

TEST_F(TransferTest, ReportsProgressAsGiven) {
  const RangeRow rows[] = {
      {100, 50}, {0, 0}, {-1, -2}, {std::numeric_limits<std::int64_t>::max(), 0x100000000}};
  for (const RangeRow& row : rows) {
    cloud_.Clear();
    EXPECT_EQ(CORVWinCFSyncRootReportTransferProgress(root_.Get(), -7, row.offset, row.length),
              S_OK);
    const auto call = cloud_.Only<ReportProviderProgressCall>();
    EXPECT_EQ(call.connectionKey, kConnectionKey);
    EXPECT_EQ(call.transferKey, -7);
    EXPECT_EQ(call.total, row.offset);
    EXPECT_EQ(call.completed, row.length);
  }
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(TransferTest, AFailedProgressReportIsLoggedWithoutASeparator) {
  cloud_.FailNext(CloudFunction::ReportProviderProgress, kAccessDenied);
  EXPECT_EQ(CORVWinCFSyncRootReportTransferProgress(root_.Get(), 1, 2, 1), kAccessDenied);
  EXPECT_THAT(log_.Lines(),
              ElementsAre(IsLogLine(kSyncRootSource,
                                    "Failed to report transfer progress data-2147024891")));
}

TEST_F(TransferTest, ARenameIsAlwaysAccepted) {
  EXPECT_EQ(CORVWinCFSyncRootAckRename(root_.Get(), 77), 0);
  const auto call = cloud_.Only<ExecuteCall>();
  ExpectOperation(call, 7, 77, 16);
  EXPECT_EQ(call.status, 0);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(TransferTest, ADeleteIsAcceptedOrRefusedByItsStatus) {
  for (const StatusRow& row : kStatuses) {
    SCOPED_TRACE(row.client);
    cloud_.Clear();
    EXPECT_EQ(CORVWinCFSyncRootAckDelete(root_.Get(), 78, 0, row.client), 0);
    const auto call = cloud_.Only<ExecuteCall>();
    ExpectOperation(call, 6, 78, 16);
    EXPECT_EQ(static_cast<std::uint32_t>(call.status), row.platform);
  }
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

// Both say "rename", on purpose.
TEST_F(TransferTest, FailedAcknowledgementsAreLoggedInTheSameWords) {
  cloud_.Always(CloudFunction::Execute, static_cast<HRESULT>(0x8007017C));
  EXPECT_EQ(CORVWinCFSyncRootAckRename(root_.Get(), 1), -1);
  EXPECT_EQ(CORVWinCFSyncRootAckDelete(root_.Get(), 1, 0, 0), -1);
  EXPECT_THAT(log_.Lines(),
              ElementsAre(IsLogLine(kSyncRootSource, "Failed to ack rename-2147024516"),
                          IsLogLine(kSyncRootSource, "Failed to ack rename-2147024516")));
}

TEST_F(TransferTest, SeveralTransfersAtOnceKeepTheirValuesApart) {
  constexpr int kThreads = 6;
  constexpr int kEach = 200;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      const std::string data(static_cast<std::size_t>(thread) + 1, static_cast<char>('a' + thread));
      for (int n = 0; n < kEach; ++n) {
        EXPECT_EQ(CORVWinCFSyncRootTransferData(root_.Get(), thread, 0, data.data(), n,
                                                static_cast<std::int64_t>(data.size()), 0),
                  S_OK);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  const auto calls = cloud_.CallsOf<ExecuteCall>();
  EXPECT_EQ(calls.size(), static_cast<std::size_t>(kThreads * kEach));
  for (const ExecuteCall& call : calls) {
    const auto thread = call.info.TransferKey.QuadPart;
    EXPECT_EQ(call.data,
              std::string(static_cast<std::size_t>(thread) + 1, static_cast<char>('a' + thread)));
  }
}

}  // namespace
