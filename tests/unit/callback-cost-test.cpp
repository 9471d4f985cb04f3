#include <windows.h>

#include <algorithm>
#include <string>

#include "tests/support/heap-watch.h"
#include "tests/support/import-double.h"
#include "tests/unit/dispatch-fixture.h"

// What an event costs on its way to the client. The numbers do not hang on the machine.

namespace nimbra_test {
namespace {

struct Cost {
  int allocations = 0;
  int conversions = 0;
  int measurings = 0;
};

class CallbackCostTest : public DispatchFixture, public testing::WithParamInterface<EventRow> {
 protected:
  // A rename inside of the root, which tells the most.
  static CallbackEvent RichEvent() {
    CallbackEvent event = Event(GetParam().type);
    event.flags = 6;
    return event;
  }
  // As long as the platform's texts and identities get.
  static CallbackEvent LongestEvent() {
    CallbackEvent event = RichEvent();
    event.syncRootIdentity = kPrefix + "12" + std::string(65498, 'x');
    event.fileIdentity = std::string(4096, 'i');
    event.normalizedPath = L"\\" + std::wstring(32766, L'\x65E5');
    event.otherPath = L"\\" + std::wstring(32766, L't');
    event.imagePath = L"\\" + std::wstring(32766, L'i');
    return event;
  }

  Cost CostOf(const CallbackEvent& event) {
    Play(event);  // What is made once per process is made now.
    Cost cost;
    const ImportDouble<"WideCharToMultiByte", decltype(&::WideCharToMultiByte)> conversions;
    {
      const HeapWatch heap;
      cloud_.Play(event);
      cost.allocations = heap.Allocations();
    }
    cost.conversions = conversions.Count();
    const auto calls = conversions.Calls();
    cost.measurings = static_cast<int>(std::count_if(
        calls.begin(), calls.end(), [](const auto& call) { return std::get<4>(call) == nullptr; }));
    return cost;
  }

  // The volume and the path, the target of a rename, and the program of all but a cancel.
  static int Texts() {
    return 2 + (GetParam().kind == kRename ? 1 : 0) + (GetParam().kind == kCancel ? 0 : 1);
  }
};

TEST_P(CallbackCostTest, AUsualEventTakesNothingFromTheHeap) {
  EXPECT_EQ(CostOf(RichEvent()).allocations, 0);
}

TEST_P(CallbackCostTest, APathAsLongAsExplorersTakesNothingFromTheHeap) {
  CallbackEvent event = RichEvent();
  event.normalizedPath = L"\\" + std::wstring(250, L'p');
  event.otherPath.reset();
  EXPECT_EQ(CostOf(event).allocations, 0);
}

TEST_P(CallbackCostTest, TheLongestEventTakesOneBlock) {
  EXPECT_EQ(CostOf(LongestEvent()).allocations, 1);
}

TEST_P(CallbackCostTest, EachTextIsConvertedOnceAndNotMeasuredBefore) {
  for (const CallbackEvent& event : {RichEvent(), LongestEvent()}) {
    const Cost cost = CostOf(event);
    EXPECT_EQ(cost.conversions, Texts());
    EXPECT_EQ(cost.measurings, 0);
  }
}

TEST_P(CallbackCostTest, TheLongestEventArrivesWhole) {
  const CallbackEvent event = LongestEvent();
  const Received received = Play(event);
  EXPECT_EQ(received.fullPath.size(), 3 + 3 * 32766u);
  EXPECT_EQ(received.targetPath.has_value(), GetParam().kind == kRename);
  if (received.targetPath) {
    EXPECT_EQ(*received.targetPath, "C:\\" + std::string(32766, 't'));
  }
  if (received.imagePath) {
    EXPECT_EQ(*received.imagePath, "\\" + std::string(32766, 'i'));
  }
}

INSTANTIATE_TEST_SUITE_P(Events, CallbackCostTest, testing::ValuesIn(kEvents),
                         [](const testing::TestParamInfo<EventRow>& row) {
                           std::string name = row.param.name;
                           std::replace(name.begin(), name.end(), ' ', '_');
                           return name;
                         });

}  // namespace
}  // namespace nimbra_test
