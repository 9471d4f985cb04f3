#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <iterator>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "nimbra/nimbra.h"
#include "tests/support/heap-watch.h"
#include "tests/support/sync-root-handles.h"
#include "tests/support/temp-folder.h"
#include "tests/unit/dispatch-fixture.h"

namespace {

using nimbra_test::CallbackEvent;
using nimbra_test::CloudFunction;
using nimbra_test::Delegator;
using nimbra_test::EventRow;
using nimbra_test::ExecuteCall;
using nimbra_test::HeapWatch;
using nimbra_test::kAccessDenied;
using nimbra_test::kCancel;
using nimbra_test::kEvents;
using nimbra_test::kFetch;
using nimbra_test::kPrefix;
using nimbra_test::Narrow;
using nimbra_test::Received;
using testing::IsEmpty;

class CallbackDispatchTest : public nimbra_test::DispatchFixture {};

struct SessionRow {
  const char* name;
  std::optional<std::string> identity;
  std::int64_t number;
};

std::vector<SessionRow> ReadableIdentities() {
  return {
      {"usual", kPrefix + "12", 12},
      {"zero", kPrefix + "0", 0},
      {"largest", kPrefix + "2147483647", 2147483647},
      {"smallest", kPrefix + "-2147483648", -2147483648LL},
      {"signed", kPrefix + "+7", 7},
      {"negative is widened with its sign", kPrefix + "-5", -5},
      {"white space in front", kPrefix + " \t\n 9", 9},
      {"something behind the digits", kPrefix + "12abc", 12},
      {"a zero byte behind the digits",
       kPrefix + "12" +
           std::string("\0"
                       "34",
                       3),
       12},
      {"leading zeros", kPrefix + "000042", 42},
      {"shorter than the prefix", kPrefix.substr(0, 35), 0},
      {"another name", std::string(60, 'x'), 0},
      {"text in front", "x" + kPrefix + "12", 0},
      {"prefix repeated", kPrefix + "12" + kPrefix + "13", 0},
      {"prefix twice", kPrefix + kPrefix, 0},
      {"another case", "corvane.drive.filestreaming.session.12", 0},
      {"a zero byte in the prefix", std::string("Corvane.Drive\0FileStreaming.session.12", 38), 0},
      {"empty", "", 0},
      {"none", std::nullopt, 0},
      {"as large as an identity gets", kPrefix + "12" + std::string(65498, 'x'), 12},
  };
}

TEST_F(CallbackDispatchTest, TheSessionNumberIsReadFromTheIdentity) {
  for (const SessionRow& row : ReadableIdentities()) {
    SCOPED_TRACE(row.name);
    CallbackEvent event;
    event.syncRootIdentity = row.identity;
    EXPECT_EQ(static_cast<std::int64_t>(Play(event).Slot(1)), row.number);
  }
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

std::vector<std::string> UnreadableIdentities() {
  return {
      kPrefix,
      kPrefix + "x",
      kPrefix + "-",
      kPrefix + " ",
      kPrefix + "2147483648",
      kPrefix + "-2147483649",
      kPrefix + "18446744073709551615",
      kPrefix + std::string(400, '9'),
  };
}

TEST_F(CallbackDispatchTest, AFetchWithAnUnreadableSessionIsFailedSoThatNobodyWaits) {
  for (const std::string& identity : UnreadableIdentities()) {
    SCOPED_TRACE(identity);
    log_.Clear();
    cloud_.Clear();
    CallbackEvent event = Event(CF_CALLBACK_TYPE_FETCH_DATA);
    event.syncRootIdentity = identity;
    event.connectionKey = 0x0A0B0C0D0E0F1011;
    event.transferKey = 0x6162636465666768;
    event.requiredOffset = 0x123456000;
    event.requiredLength = 0x7000;
    event.optionalOffset = 0;
    event.optionalLength = 0x7FFFFFFFF;

    EXPECT_NO_THROW(EXPECT_TRUE(cloud_.Play(event)));

    EXPECT_EQ(log_.Lines().size(), 1u);
    EXPECT_THAT(receiver_.All(), IsEmpty());
    const auto call = cloud_.Only<ExecuteCall>();
    EXPECT_EQ(call.info.StructSize, 48u);
    EXPECT_EQ(static_cast<int>(call.info.Type), 0);
    EXPECT_EQ(call.info.ConnectionKey.Internal, 0x0A0B0C0D0E0F1011);
    EXPECT_EQ(call.info.TransferKey.QuadPart, 0x6162636465666768);
    EXPECT_EQ(call.paramSize, 40u);
    EXPECT_EQ(call.flags, 0u);
    EXPECT_EQ(call.status, static_cast<std::int32_t>(0xC000CF12));
    EXPECT_EQ(call.offset, 0x123456000);
    EXPECT_EQ(call.length, 0x7000);
  }
}

TEST_F(CallbackDispatchTest, OtherEventsWithAnUnreadableSessionAreDroppedWithOneLine) {
  for (const EventRow& row : kEvents) {
    if (row.kind == kFetch) {
      continue;
    }
    for (const std::string& identity : UnreadableIdentities()) {
      SCOPED_TRACE(std::string(row.name) + " " + identity);
      log_.Clear();
      CallbackEvent event = Event(row.type);
      event.syncRootIdentity = identity;

      EXPECT_NO_THROW(EXPECT_TRUE(cloud_.Play(event)));

      EXPECT_EQ(log_.Lines().size(), 1u);
      EXPECT_THAT(receiver_.All(), IsEmpty());
      EXPECT_THAT(cloud_.CallNames(), IsEmpty());
    }
  }
}

TEST_F(CallbackDispatchTest, TheLinesOfDroppedEventsHaveTheUsualFrame) {
  CallbackEvent event;
  event.syncRootIdentity = kPrefix + "2147483648";
  ASSERT_TRUE(cloud_.Play(event));
  ASSERT_EQ(log_.Lines().size(), 1u);
  const std::string line = log_.Lines().front();
  EXPECT_TRUE(line.starts_with("lib\\cloud-filter\\")) << line;
  EXPECT_NE(line.find(") | "), std::string::npos) << line;
  EXPECT_TRUE(line.ends_with("\r\n")) << line;
}

TEST_F(CallbackDispatchTest, AFailingAnswerToAnUnreadableFetchDoesNotEscapeEither) {
  cloud_.Always(CloudFunction::Execute, kAccessDenied);
  CallbackEvent event;
  event.syncRootIdentity = kPrefix;
  EXPECT_NO_THROW(EXPECT_TRUE(cloud_.Play(event)));
  EXPECT_EQ(cloud_.CallsOf<ExecuteCall>().size(), 1u);
  EXPECT_THAT(receiver_.All(), IsEmpty());
}

TEST_F(CallbackDispatchTest, AnEventWithoutAContextIsDroppedSilently) {
  for (const EventRow& row : kEvents) {
    SCOPED_TRACE(row.name);
    CallbackEvent event = Event(row.type);
    EXPECT_TRUE(cloud_.Play(event, nullptr));
    event.syncRootIdentity = kPrefix + "unreadable";
    EXPECT_TRUE(cloud_.Play(event, nullptr));
  }
  EXPECT_THAT(receiver_.All(), IsEmpty());
  EXPECT_THAT(cloud_.CallNames(), IsEmpty());
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(CallbackDispatchTest, AnEventWithoutACallbackAnswersNothing) {
  const Delegator empty(&receiver_);
  for (const EventRow& row : kEvents) {
    SCOPED_TRACE(row.name);
    EXPECT_TRUE(cloud_.Play(Event(row.type), empty.Get()));
  }
  EXPECT_THAT(receiver_.All(), IsEmpty());
  EXPECT_THAT(cloud_.CallNames(), IsEmpty());
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(CallbackDispatchTest, EveryBufferOfARecordIsFreedWithIt) {
  for (const EventRow& row : kEvents) {
    SCOPED_TRACE(row.name);
    CallbackEvent event = Event(row.type);
    event.flags = 6;
    event.imagePath = std::wstring(1000, L'i');
    Play(event);  // What is made once per process is made now.
    int live = -1;
    {
      const HeapWatch heap;
      cloud_.Play(event);
      live = heap.LiveBlocks();
    }
    EXPECT_EQ(live, 0);
  }
}

class OutOfMemoryTest : public nimbra_test::DispatchFixture,
                        public testing::WithParamInterface<EventRow> {};

TEST_P(OutOfMemoryTest, ATranslatorThatRunsOutOfMemoryDropsTheEventWithOneLine) {
  CallbackEvent event = Event(GetParam().type);
  event.flags = 6;
  // Too long to do without the heap.
  event.normalizedPath = L"\\" + std::wstring(1000, L'p');
  event.imagePath = std::wstring(500, L'i');
  Play(event);
  const int refused =
      nimbra_test::ForEachFailingAllocation([&](auto&& watched, const bool& failed) {
        receiver_.Clear();
        log_.Clear();
        cloud_.Clear();
        watched([&] { EXPECT_NO_THROW(cloud_.Play(event)); });
        // A refused allocation that the translator could do without changes nothing.
        const bool delivered = receiver_.All().size() == 1;
        EXPECT_TRUE(delivered || failed);
        const bool answers = GetParam().kind == kFetch && !delivered;
        EXPECT_EQ(cloud_.CallsOf<ExecuteCall>().size(), answers ? 1u : 0u);
        EXPECT_EQ(log_.Lines().size(), delivered ? 0u : 1u);
      });
  EXPECT_GE(refused, 1);
}

TEST_P(OutOfMemoryTest, ATranslatorLeftWithoutAnyMemoryStillFailsAFetch) {
  CallbackEvent event = Event(GetParam().type);
  event.requiredOffset = 8192;
  event.requiredLength = 4096;
  event.normalizedPath = L"\\" + std::wstring(1000, L'p');
  Play(event);
  const int refused = nimbra_test::ForEachFailingAllocation(
      [&](auto&& watched, const bool& failed) {
        receiver_.Clear();
        cloud_.Clear();
        log_.Clear();
        watched([&] { EXPECT_NO_THROW(cloud_.Play(event)); });
        const bool delivered = receiver_.All().size() == 1;
        EXPECT_TRUE(delivered || failed);
        // There is always room for the line.
        EXPECT_EQ(log_.Lines().size(), delivered ? 0u : 1u);
        const auto answers = cloud_.CallsOf<ExecuteCall>();
        if (GetParam().kind != kFetch || delivered) {
          EXPECT_THAT(answers, IsEmpty());
          return;
        }
        ASSERT_EQ(answers.size(), 1u);
        EXPECT_EQ(answers[0].status, static_cast<std::int32_t>(0xC000CF12));
        EXPECT_EQ(answers[0].offset, 8192);
        EXPECT_EQ(answers[0].length, 4096);
      },
      true);
  EXPECT_GE(refused, 1);
}

INSTANTIATE_TEST_SUITE_P(Events, OutOfMemoryTest, testing::ValuesIn(kEvents),
                         [](const testing::TestParamInfo<EventRow>& row) {
                           std::string name = row.param.name;
                           std::replace(name.begin(), name.end(), ' ', '_');
                           return name;
                         });

TEST_F(CallbackDispatchTest, AClientMayAnswerFromWithinItsCallback) {
  struct Answering {
    CORVWinCFSyncRootHandle root;
    HRESULT result;
  } answering{root_.Get(), E_FAIL};
  const Delegator delegator(&answering);
  ASSERT_EQ(CORVWinCFCallbackDelegatorSetFetchCallback(
                delegator.Get(),
                [](const CORVWinCFCallbackRecord* record) {
                  auto* const client = static_cast<Answering*>(record->context);
                  client->result = CORVWinCFSyncRootTransferData(
                      client->root, record->transferKey, 0, "data", record->parameters[0], 4, 0);
                }),
            0);
  CallbackEvent event;
  event.requiredOffset = 4096;

  EXPECT_TRUE(cloud_.Play(event, delegator.Get()));

  EXPECT_EQ(answering.result, S_OK);
  const auto call = cloud_.Only<ExecuteCall>();
  EXPECT_EQ(call.info.TransferKey.QuadPart, event.transferKey);
  EXPECT_EQ(call.offset, 4096);
  EXPECT_EQ(call.data, "data");
}

// The event number `n` of a thread; all its values follow from the two numbers.
CallbackEvent NumberedEvent(int thread, int n) {
  CallbackEvent event;
  event.type = kEvents[static_cast<std::size_t>(n) % std::size(kEvents)].type;
  const std::wstring name = std::to_wstring(thread) + L"-" + std::to_wstring(n);
  event.syncRootIdentity = kPrefix + std::to_string(thread);
  event.fileId = thread * 100000 + n;
  event.normalizedPath = L"\\" + name + std::wstring(static_cast<std::size_t>(n % 40) * 20, L'p');
  event.imagePath = L"image " + name;
  return event;
}

TEST_F(CallbackDispatchTest, EventsOnManyThreadsAtOnceKeepTheirValuesApart) {
  constexpr int kThreads = 8;
  constexpr int kEventsEach = 300;
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      while (!go) {
        std::this_thread::yield();
      }
      for (int n = 0; n < kEventsEach; ++n) {
        cloud_.Play(NumberedEvent(thread, n));
      }
    });
  }
  go = true;
  for (std::thread& thread : threads) {
    thread.join();
  }

  std::set<std::uint64_t> files;
  for (const Received& received : receiver_.All()) {
    const auto file = received.Slot(4);
    files.insert(file);
    const auto thread = static_cast<int>(file / 100000);
    const auto n = static_cast<int>(file % 100000);
    const CallbackEvent event = NumberedEvent(thread, n);
    EXPECT_EQ(received.kind, kEvents[static_cast<std::size_t>(n) % std::size(kEvents)].kind);
    EXPECT_EQ(received.Slot(1), static_cast<std::uint64_t>(thread));
    EXPECT_EQ(received.fullPath, "C:" + Narrow(*event.normalizedPath));
    if (received.kind != kCancel) {
      EXPECT_EQ(received.imagePath, Narrow(*event.imagePath));
    }
  }
  EXPECT_EQ(files.size(), static_cast<std::size_t>(kThreads * kEventsEach));
  EXPECT_EQ(receiver_.All().size(), static_cast<std::size_t>(kThreads * kEventsEach));
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

}  // namespace
