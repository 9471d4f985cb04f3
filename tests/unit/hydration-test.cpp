#include <windows.h>

#include <array>
#include <functional>
#include <ostream>
#include <set>
#include <sstream>
#include <string>

#include "nimbra/nimbra.h"
#include "tests/support/heap-watch.h"
#include "tests/support/import-double.h"
#include "tests/support/nimbra-test.h"
#include "tests/support/raw-bytes.h"
#include "tests/support/sync-root-handles.h"
#include "tests/support/threads.h"
#include "tests/unit/open-placeholder.h"

namespace nimbra_test {
namespace {

using FileSizeDouble = ImportDouble<"GetFileSizeEx", decltype(&::GetFileSizeEx)>;
using OverlappedResultDouble =
    ImportDouble<"GetOverlappedResult", decltype(&::GetOverlappedResult)>;

bool IsZeroed(const OVERLAPPED& overlapped) {
  return RawBytes(overlapped) == RawBytes(OVERLAPPED{});
}

std::string HydrationLine(HRESULT result, HANDLE file) {
  std::ostringstream message;
  message << "hydration failed " << static_cast<long>(result) << ' '
          << static_cast<const void*>(file);
  return ExpectedLine(kPlaceholderSource, 135, message.str());
}

class HydrateTest : public OpenPlaceholderTest {};

TEST_F(HydrateTest, HydrateAllAsksForTheWholeFileAndWaits) {
  EXPECT_EQ(CORVWinCFPlaceholderHydrateAll(placeholder_.Get()), 0);

  EXPECT_THAT(cloud_.CallNames(), testing::ElementsAre("CfHydratePlaceholder"));
  const auto call = cloud_.Only<HydratePlaceholderCall>();
  EXPECT_EQ(call.file, File());
  EXPECT_EQ(call.offset, 0);
  EXPECT_EQ(call.length, kFileSize);
  EXPECT_EQ(call.flags, CF_HYDRATE_FLAG_NONE);
  EXPECT_EQ(call.overlapped.address, nullptr);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(HydrateTest, HydrateAllAsyncPassesAZeroedOverlappedWithoutAnEvent) {
  EXPECT_EQ(CORVWinCFPlaceholderHydrateAllAsync(placeholder_.Get()), 0);

  const auto call = cloud_.Only<HydratePlaceholderCall>();
  EXPECT_EQ(call.file, File());
  EXPECT_EQ(call.offset, 0);
  EXPECT_EQ(call.length, kFileSize);
  EXPECT_EQ(call.flags, CF_HYDRATE_FLAG_NONE);
  ASSERT_NE(call.overlapped.address, nullptr);
  EXPECT_TRUE(IsZeroed(call.overlapped.contents));
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

using HydrateExport = CORVWinCFStatus (*)(CORVWinCFPlaceholderHandle);

struct HydrateRow {
  const char* name;
  HydrateExport call;
  int sizeLine;
};

void PrintTo(const HydrateRow& row, std::ostream* out) { *out << row.name; }

class HydrateEitherWayTest : public OpenPlaceholderTest,
                             public testing::WithParamInterface<HydrateRow> {
 protected:
  CORVWinCFStatus Hydrate() { return GetParam().call(placeholder_.Get()); }
};

TEST_P(HydrateEitherWayTest, AnEmptyFileIsARequestOfLengthZero) {
  const FileSizeDouble size([](auto, HANDLE, PLARGE_INTEGER output) -> BOOL {
    output->QuadPart = 0;
    return TRUE;
  });
  EXPECT_EQ(Hydrate(), 0);

  EXPECT_EQ(cloud_.Only<HydratePlaceholderCall>().length, 0);
}

TEST_P(HydrateEitherWayTest, KeepsAll64BitsOfTheSize) {
  constexpr std::int64_t kLarge = (std::int64_t{7} << 40) + 3;
  const FileSizeDouble size([](auto, HANDLE, PLARGE_INTEGER output) -> BOOL {
    output->QuadPart = kLarge;
    return TRUE;
  });
  EXPECT_EQ(Hydrate(), 0);

  EXPECT_EQ(cloud_.Only<HydratePlaceholderCall>().length, kLarge);
}

TEST_P(HydrateEitherWayTest, APendingRequestCountsAsSuccess) {
  cloud_.FailNext(CloudFunction::HydratePlaceholder, kIoPending);

  EXPECT_EQ(Hydrate(), 0);

  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_P(HydrateEitherWayTest, ARefusalIsLoggedWithItsCodeAndTheHandle) {
  // The last two differ from the pending result in severity and in facility only.
  for (const HRESULT failure :
       {kAccessDenied, static_cast<HRESULT>(0x8007016A), static_cast<HRESULT>(0x800703E4),
        static_cast<HRESULT>(0x800003E5)}) {
    SCOPED_TRACE(failure);
    log_.Clear();
    cloud_.FailNext(CloudFunction::HydratePlaceholder, failure);

    EXPECT_EQ(Hydrate(), -1);

    EXPECT_THAT(log_.Lines(), testing::ElementsAre(HydrationLine(failure, File())));
  }
}

TEST_P(HydrateEitherWayTest, AnUnreadableSizeIsLoggedAndAsksThePlatformNothing) {
  FileSizeDouble size;
  size.FailCall(1, FALSE, ERROR_INVALID_HANDLE);

  EXPECT_EQ(Hydrate(), -1);

  EXPECT_EQ(std::get<0>(size.Calls().at(0)), File());
  EXPECT_THAT(cloud_.Calls(), testing::IsEmpty());
  EXPECT_THAT(log_.Lines(),
              testing::ElementsAre(ExpectedLine(kPlaceholderSource, GetParam().sizeLine,
                                                "Failed to get filesize\n")));
}

TEST_P(HydrateEitherWayTest, AHandleNeverOpenedFailsAtTheSize) {
  const Placeholder closed(path_);

  EXPECT_EQ(GetParam().call(closed.Get()), -1);

  EXPECT_THAT(cloud_.Calls(), testing::IsEmpty());
  EXPECT_THAT(log_.Lines(),
              testing::ElementsAre(ExpectedLine(kPlaceholderSource, GetParam().sizeLine,
                                                "Failed to get filesize\n")));
}

TEST_P(HydrateEitherWayTest, NothingEscapesWhereverMemoryRunsOut) {
  cloud_.Always(CloudFunction::HydratePlaceholder, kAccessDenied);
  ForEachFailingAllocation([&](auto watched, bool&) {
    CORVWinCFStatus result = 1;
    watched([&] { result = Hydrate(); });
    EXPECT_EQ(result, -1);
  });
}

INSTANTIATE_TEST_SUITE_P(
    Exports, HydrateEitherWayTest,
    testing::Values(HydrateRow{"HydrateAll", &CORVWinCFPlaceholderHydrateAll, 95},
                    HydrateRow{"HydrateAllAsync", &CORVWinCFPlaceholderHydrateAllAsync, 107}),
    testing::PrintToStringParamName());

// The record behind a request that nobody waits for.
class AsyncHydrationTest : public OpenPlaceholderTest {
 protected:
  OVERLAPPED* Start() {
    EXPECT_EQ(CORVWinCFPlaceholderHydrateAllAsync(placeholder_.Get()), 0);
    return cloud_.CallsOf<HydratePlaceholderCall>().back().overlapped.address;
  }
};

TEST_F(AsyncHydrationTest, ThePendingRecordOutlivesThePlaceholder) {
  cloud_.LeaveOverlappedPending(true);
  OVERLAPPED* record = nullptr;
  {
    const HeapWatch heap;
    const TestScope scope;
    CORVWinCFPlaceholderHandle handle = nullptr;
    ASSERT_EQ(CORVWinCFPlaceholderNew(&handle, path_.c_str()), 0);
    ASSERT_EQ(CORVWinCFPlaceholderOpen(handle), 0);
    ASSERT_EQ(CORVWinCFPlaceholderHydrateAllAsync(handle), 0);
    record = cloud_.Only<HydratePlaceholderCall>().overlapped.address;

    CORVWinCFPlaceholderRelease(handle);

    EXPECT_TRUE(HeapWatch::WasFreed(handle));
    EXPECT_FALSE(HeapWatch::WasFreed(record));
    EXPECT_EQ(record->Internal, 0x103u);
    EXPECT_EQ(record->hEvent, nullptr);
  }
  RecordingCloud::Complete(record);
}

TEST_F(AsyncHydrationTest, RequestsInFlightHaveRecordsOfTheirOwn) {
  cloud_.LeaveOverlappedPending(true);
  std::set<OVERLAPPED*> records;
  for (int i = 0; i < 50; ++i) {
    records.insert(Start());
  }
  EXPECT_EQ(records.size(), 50u);
  for (OVERLAPPED* record : records) {
    EXPECT_EQ(record->Internal, 0x103u);
    RecordingCloud::Complete(record);
  }
}

TEST_F(AsyncHydrationTest, RecordsOfFinishedRequestsDoNotPileUp) {
  cloud_.LeaveOverlappedPending(true);
  RecordingCloud::Complete(Start());
  int after10 = 0;
  int after100 = 0;
  {
    const HeapWatch heap;
    for (int i = 1; i <= 100; ++i) {
      CORVWinCFPlaceholderHydrateAllAsync(placeholder_.Get());
      const TestScope scope;
      RecordingCloud::Complete(cloud_.CallsOf<HydratePlaceholderCall>().back().overlapped.address);
      if (i == 10) {
        after10 = heap.LiveBlocks();
      }
    }
    after100 = heap.LiveBlocks();
  }
  EXPECT_LE(after100, after10);
}

TEST_F(AsyncHydrationTest, RecordsBehindRequestsThatNeverFinishDoNotPileUpEither) {
  cloud_.LeaveOverlappedPending(true);
  std::vector<OVERLAPPED*> unfinished;
  for (int i = 0; i < 20; ++i) {
    unfinished.push_back(Start());
  }
  constexpr int kFinished = 400;
  int live = 0;
  {
    const HeapWatch heap;
    for (int i = 0; i < kFinished; ++i) {
      CORVWinCFPlaceholderHydrateAllAsync(placeholder_.Get());
      const TestScope scope;
      RecordingCloud::Complete(cloud_.CallsOf<HydratePlaceholderCall>().back().overlapped.address);
    }
    live = heap.LiveBlocks();
  }
  // Those that wait for their turn to be looked at, not all that ever finished.
  EXPECT_LE(live, 20);
  for (OVERLAPPED* record : unfinished) {
    RecordingCloud::Complete(record);
  }
}

TEST_F(AsyncHydrationTest, ARecordOfARequestThatIsNotPendingIsFreedAtOnce) {
  struct {
    const char* name;
    HRESULT result;
  } const rows[] = {{"completed", S_OK}, {"refused", kAccessDenied}};
  Start();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    cloud_.FailNext(CloudFunction::HydratePlaceholder, row.result);
    int left = -1;
    {
      const HeapWatch heap;
      CORVWinCFPlaceholderHydrateAllAsync(placeholder_.Get());
      left = heap.LiveBlocks();
    }
    EXPECT_EQ(left, 0);
  }
}

TEST_F(AsyncHydrationTest, ManyThreadsStartAndFinishRequestsAtOnce) {
  cloud_.LeaveOverlappedPending(true);
  const auto failures = OnThreads(8, [this](int) {
    const Placeholder own(path_);
    int count = CORVWinCFPlaceholderOpen(own.Get()) != 0;
    for (int i = 0; i < 40; ++i) {
      count += CORVWinCFPlaceholderHydrateAllAsync(own.Get()) != 0;
    }
    return count;
  });
  EXPECT_THAT(failures, testing::Each(0));
  std::set<OVERLAPPED*> records;
  for (const auto& call : cloud_.CallsOf<HydratePlaceholderCall>()) {
    records.insert(call.overlapped.address);
  }
  EXPECT_EQ(records.size(), 8u * 40u);
  for (OVERLAPPED* record : records) {
    EXPECT_EQ(record->Internal, 0x103u);
    RecordingCloud::Complete(record);
  }
}

class DehydrateTest : public OpenPlaceholderTest {
 protected:
  CORVWinCFStatus Dehydrate(std::int64_t offset = 4096, std::int64_t length = 8192) {
    return CORVWinCFPlaceholderDehydrate(placeholder_.Get(), offset, length);
  }

  OverlappedResultDouble wait_{[](auto, HANDLE, LPOVERLAPPED, LPDWORD, BOOL) { return TRUE; }};
};

TEST_F(DehydrateTest, AnswersFailureEvenWhenTheDataWasDropped) {
  EXPECT_EQ(Dehydrate(), -1);

  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(DehydrateTest, WorksOnTheHandleBehindTheReferencedProtectedOne) {
  auto* const win32 = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(0x7777));
  cloud_.SetWin32Handle(win32);

  Dehydrate();

  EXPECT_THAT(
      cloud_.CallNames(),
      testing::ElementsAre("CfReferenceProtectedHandle", "CfGetWin32HandleFromProtectedHandle",
                           "CfDehydratePlaceholder", "CfReleaseProtectedHandle"));
  EXPECT_EQ(cloud_.Only<ReferenceProtectedHandleCall>().handle, File());
  EXPECT_EQ(cloud_.Only<GetWin32HandleFromProtectedHandleCall>().handle, File());
  EXPECT_EQ(cloud_.Only<ReleaseProtectedHandleCall>().handle, File());
  const auto call = cloud_.Only<DehydratePlaceholderCall>();
  EXPECT_EQ(call.file, win32);
  EXPECT_EQ(call.offset, 4096);
  EXPECT_EQ(call.length, 8192);
  EXPECT_EQ(call.flags, CF_DEHYDRATE_FLAG_NONE);
  ASSERT_NE(call.overlapped.address, nullptr);
  EXPECT_TRUE(IsZeroed(call.overlapped.contents));
}

TEST_F(DehydrateTest, PassesAnyRangeThrough) {
  Dehydrate(0, -1);
  Dehydrate(std::int64_t{1} << 40, std::int64_t{1} << 41);

  const auto calls = cloud_.CallsOf<DehydratePlaceholderCall>();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].offset, 0);
  EXPECT_EQ(calls[0].length, -1);
  EXPECT_EQ(calls[1].offset, std::int64_t{1} << 40);
  EXPECT_EQ(calls[1].length, std::int64_t{1} << 41);
}

TEST_F(DehydrateTest, WaitsForARequestThatSucceededOrIsPending) {
  for (const HRESULT result : {S_OK, kIoPending}) {
    SCOPED_TRACE(result);
    const int before = wait_.Count();
    cloud_.FailNext(CloudFunction::DehydratePlaceholder, result);

    EXPECT_EQ(Dehydrate(), -1);

    ASSERT_EQ(wait_.Count(), before + 1);
    const auto [file, overlapped, transferred, waits] = wait_.Calls().back();
    EXPECT_EQ(file, File());
    EXPECT_EQ(overlapped, cloud_.CallsOf<DehydratePlaceholderCall>().back().overlapped.address);
    EXPECT_EQ(waits, TRUE);
  }
}

TEST_F(DehydrateTest, ReleasesTheProtectedHandleOnlyAfterTheWait) {
  std::size_t callsBeforeWait = 0;
  // The platform was asked three things when the wait began.
  cloud_.OnCall(CloudFunction::ReleaseProtectedHandle,
                [&] { callsBeforeWait = static_cast<std::size_t>(wait_.Count()); });

  Dehydrate();

  EXPECT_EQ(callsBeforeWait, 1u);
}

TEST_F(DehydrateTest, DoesNotWaitAfterARefusalButStillReleases) {
  cloud_.FailNext(CloudFunction::DehydratePlaceholder, kAccessDenied);

  EXPECT_EQ(Dehydrate(), -1);

  EXPECT_EQ(wait_.Count(), 0);
  EXPECT_EQ(cloud_.CallsOf<ReleaseProtectedHandleCall>().size(), 1u);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(DehydrateTest, GoesOnWhenTheHandleCannotBeReferenced) {
  cloud_.SetReferenceResult(FALSE);

  EXPECT_EQ(Dehydrate(), -1);

  EXPECT_EQ(cloud_.CallsOf<DehydratePlaceholderCall>().size(), 1u);
  EXPECT_EQ(cloud_.CallsOf<ReleaseProtectedHandleCall>().size(), 1u);
}

class DehydrateAllTest : public OpenPlaceholderTest {};

TEST_F(DehydrateAllTest, UpdatesWithTheDehydrateFlagAndNothingElse) {
  EXPECT_EQ(CORVWinCFPlaceholderDehydrateAll(placeholder_.Get()), 0);

  EXPECT_THAT(cloud_.CallNames(), testing::ElementsAre("CfUpdatePlaceholder"));
  const auto call = cloud_.Only<UpdatePlaceholderCall>();
  EXPECT_EQ(call.file, File());
  EXPECT_FALSE(call.metadata.has_value());
  EXPECT_FALSE(call.identity.has_value());
  EXPECT_EQ(call.identityLength, 0u);
  EXPECT_FALSE(call.ranges.has_value());
  EXPECT_EQ(call.rangeCount, 0u);
  EXPECT_EQ(call.flags, CF_UPDATE_FLAG_DEHYDRATE);
  EXPECT_FALSE(call.hasUsn);
  EXPECT_EQ(call.overlapped.address, nullptr);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(DehydrateAllTest, LogsARefusalWithItsCode) {
  cloud_.FailNext(CloudFunction::UpdatePlaceholder, static_cast<HRESULT>(0x80070187));

  EXPECT_EQ(CORVWinCFPlaceholderDehydrateAll(placeholder_.Get()), -1);

  EXPECT_THAT(log_.Lines(),
              testing::ElementsAre(ExpectedLine(kPlaceholderSource, 183,
                                                "Failed to dehydrate all, reason: -2147024505")));
}

}  // namespace
}  // namespace nimbra_test
