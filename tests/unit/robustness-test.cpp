#include <windows.h>

#include <string>

#include "common/debug-log.h"
#include "nimbra-host/nimbra/handles.h"
#include "nimbra/nimbra.h"
#include "tests/support/heap-watch.h"
#include "tests/support/import-double.h"
#include "tests/support/nimbra-test.h"
#include "tests/unit/open-placeholder.h"

namespace nimbra_test {
namespace {

using OverlappedResultDouble =
    ImportDouble<"GetOverlappedResult", decltype(&::GetOverlappedResult)>;

class EndedWaitTest : public OpenPlaceholderTest {
 protected:
  OverlappedResultDouble wait_{[](auto, HANDLE, LPOVERLAPPED, LPDWORD, BOOL) { return FALSE; }};
};

TEST_F(EndedWaitTest, ADehydrationThatIsStillPendingKeepsItsRecord) {
  cloud_.LeaveOverlappedPending(true);
  OVERLAPPED* record = nullptr;
  {
    const HeapWatch heap;
    const TestScope scope;
    EXPECT_EQ(CORVWinCFPlaceholderDehydrate(placeholder_.Get(), 0, 4096), -1);
    record = cloud_.Only<DehydratePlaceholderCall>().overlapped.address;
    EXPECT_TRUE(HeapWatch::IsAllocated(record));
  }
  if (HeapWatch::IsAllocated(record)) {
    EXPECT_EQ(record->Internal, 0x103u);
    RecordingCloud::Complete(record);
  }
}

class ForeignMetadataTest : public OpenPlaceholderTest {};

struct Foreign : __tag_PlaceholderMetaWrap {
  void Unused() override {}
};

TEST_F(ForeignMetadataTest, AnUpdateWithAForeignHandleDoesNotEmptyTheFile) {
  Foreign foreign;
  EXPECT_EQ(CORVWinCFPlaceholderUpdate(placeholder_.Get(), "id", &foreign), -1);
  EXPECT_THAT(cloud_.Calls(), testing::IsEmpty());
}

class LogMemoryTest : public testing::Test {
 protected:
  LogCapture log_;
};

TEST_F(LogMemoryTest, ALineIsNeverCutWhenMemoryRunsOut) {
  const std::string whole = ExpectedLine("source", 7, std::string(2000, 'x') + " tail");
  const std::string text(2000, 'x');
  const int failures = ForEachFailingAllocation([&](auto watched, bool&) {
    const std::size_t before = log_.Lines().size();
    bool thrown = false;
    watched([&] {
      try {
        corvdrive::cloud_filter::Log("source", 7, text, " tail");
      } catch (const std::bad_alloc&) {
        thrown = true;
      }
    });
    const auto lines = log_.Lines();
    for (std::size_t i = before; i < lines.size(); ++i) {
      EXPECT_TRUE(lines[i] == whole || lines[i].empty()) << lines[i].size() << " bytes";
    }
    EXPECT_EQ(lines.size() - before, thrown ? 0u : 1u);
  });
  EXPECT_EQ(failures, 2) << "the line and what the system is given";
}

}  // namespace
}  // namespace nimbra_test
