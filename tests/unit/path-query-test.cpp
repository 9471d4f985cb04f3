#include <windows.h>

#include <cstring>
#include <string>

#include "nimbra/nimbra.h"
#include "tests/support/file-watch.h"
#include "tests/support/heap-watch.h"
#include "tests/support/nimbra-test.h"
#include "tests/support/raw-bytes.h"
#include "tests/support/temp-folder.h"
#include "tests/support/test-scope.h"
#include "tests/support/threads.h"
#include "tests/unit/open-placeholder.h"

namespace nimbra_test {
namespace {

class PathQueryTest : public NimbraTest {
 protected:
  PathQueryTest() {
    folder_.WriteFile("\xC3\xA9.txt", "0123456789");
    files_.Clear();
  }

  TempFolder folder_;
  std::string path_ = folder_.ItemWithSlashes("\xC3\xA9.txt");
  std::string absent_ = folder_.ItemWithSlashes("absent.txt");
  FileWatch files_;
};

TEST_F(PathQueryTest, IsPlaceholderOpensAsksAndCloses) {
  EXPECT_EQ(CORVWinCFIsPlaceholder(path_.c_str()), 0);

  ASSERT_EQ(files_.Openings().size(), 1u);
  EXPECT_EQ(files_.Openings().front().path, Wide(path_));
  EXPECT_EQ(files_.Openings().front().flags, 0x42300000u);
  EXPECT_EQ(cloud_.Only<GetPlaceholderInfoCall>().file, files_.Openings().front().handle);
  EXPECT_EQ(files_.StillOpen(), 0);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(PathQueryTest, IsPlaceholderSaysNoForAPlainFile) {
  cloud_.FailNext(CloudFunction::GetPlaceholderInfo, kNotACloudFile);

  EXPECT_EQ(CORVWinCFIsPlaceholder(path_.c_str()), -1);

  EXPECT_EQ(files_.StillOpen(), 0);
  EXPECT_THAT(log_.Lines(), testing::ElementsAre(InfoLine(path_, kNotACloudFile)));
}

TEST_F(PathQueryTest, MissingPathsAreAnsweredNoInSilence) {
  EXPECT_EQ(CORVWinCFIsPlaceholder(absent_.c_str()), -1);
  EXPECT_EQ(CORVWinCFIsFullyHydrated(absent_.c_str()), -1);
  EXPECT_EQ(CORVWinCFIsFullyHydratedW(Wide(absent_).c_str()), -1);

  EXPECT_THAT(cloud_.Calls(), testing::IsEmpty());
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(PathQueryTest, PathsThatCannotBeOpenedAreAnsweredNoWithOneLogLine) {
  const std::string line = ExpectedLine(kPlaceholderSource, 464,
                                        "Failed call on CreateFile on path " + path_ + ", ec: 5");
  for (const auto query : {&CORVWinCFIsPlaceholder, &CORVWinCFIsFullyHydrated}) {
    log_.Clear();
    files_.FailNextOpening(ERROR_ACCESS_DENIED);
    EXPECT_EQ(query(path_.c_str()), -1);
    EXPECT_THAT(log_.Lines(), testing::ElementsAre(line));
  }
  EXPECT_THAT(cloud_.Calls(), testing::IsEmpty());
}

TEST_F(PathQueryTest, IsFullyHydratedComparesWithTheSizeOnDisk) {
  cloud_.SetPlaceholder({.onDiskDataSize = 4});
  EXPECT_EQ(CORVWinCFIsFullyHydrated(path_.c_str()), -1);
  EXPECT_EQ(CORVWinCFIsFullyHydratedW(Wide(path_).c_str()), -1);
  cloud_.SetPlaceholder({.onDiskDataSize = 10});
  EXPECT_EQ(CORVWinCFIsFullyHydrated(path_.c_str()), 0);
  EXPECT_EQ(CORVWinCFIsFullyHydratedW(Wide(path_).c_str()), 0);
  EXPECT_EQ(files_.StillOpen(), 0);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(PathQueryTest, IsFullyHydratedSaysYesForAPlainFile) {
  cloud_.Always(CloudFunction::GetPlaceholderInfo, kNotACloudFile);

  EXPECT_EQ(CORVWinCFIsFullyHydratedW(Wide(path_).c_str()), 0);

  EXPECT_EQ(files_.StillOpen(), 0);
  EXPECT_THAT(
      log_.Lines(),
      testing::ElementsAre(InfoLine(path_, kNotACloudFile),
                           ExpectedLine(kPlaceholderSource, 202,
                                        path_ + " is not a placeholder, so it is fully hydrated")));
}

TEST_F(PathQueryTest, ReleaseTheirTemporaryObjects) {
  int left = -1;
  const std::wstring wide = Wide(path_);
  {
    const HeapWatch heap;
    CORVWinCFIsPlaceholder(path_.c_str());
    CORVWinCFIsFullyHydrated(path_.c_str());
    CORVWinCFIsFullyHydratedW(wide.c_str());
    CORVWinCFIsPlaceholder(absent_.c_str());
    TestScope scope;
    left = heap.LiveBlocks();
  }
  EXPECT_EQ(left, 0);
}

TEST_F(PathQueryTest, NothingEscapesWhereverMemoryRunsOut) {
  const int failures = ForEachFailingAllocation([&](auto watched, bool& failed) {
    CORVWinCFStatus result = 1;
    watched([&] { result = CORVWinCFIsPlaceholder(path_.c_str()); });
    EXPECT_TRUE(result == 0 || (failed && result == -1)) << result;
    EXPECT_EQ(files_.StillOpen(), 0);
  });
  EXPECT_GT(failures, 0);
}

TEST_F(PathQueryTest, ManyThreadsAskAtOnce) {
  cloud_.SetPlaceholder({.onDiskDataSize = 10});
  const auto wrong = OnThreads(8, [this](int) {
    int count = 0;
    for (int i = 0; i < 50; ++i) {
      count += CORVWinCFIsPlaceholder(path_.c_str()) != 0;
      count += CORVWinCFIsFullyHydrated(path_.c_str()) != 0;
      count += CORVWinCFIsPlaceholder(absent_.c_str()) != -1;
    }
    return count;
  });
  EXPECT_THAT(wrong, testing::Each(0));
  EXPECT_EQ(files_.StillOpen(), 0);
}

class FindDataTest : public NimbraTest {};

TEST_F(FindDataTest, OnlyThePlaceholderBitDecides) {
  struct {
    DWORD state;
    CORVWinCFStatus result;
  } const rows[] = {{0x0, -1}, {0x1, 0},   {0x2, -1}, {0x3, 0},  {0x8, -1},
                    {0x9, 0},  {0x3E, -1}, {0x3F, 0}, {0x31, 0}, {0x30, -1}};
  WIN32_FIND_DATAW data{};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.state);
    cloud_.SetFindDataState(static_cast<CF_PLACEHOLDER_STATE>(row.state));
    EXPECT_EQ(CORVWinCFIsPlaceholderByFindData(&data), row.result);
  }
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(FindDataTest, HandsTheListingDataToThePlatformUnchanged) {
  WIN32_FIND_DATAW data;
  std::memset(&data, 0x5A, sizeof(data));
  CORVWinCFIsPlaceholderByFindData(&data);

  const auto call = cloud_.Only<GetPlaceholderStateFromFindDataCall>();
  EXPECT_EQ(RawBytes(call.contents), RawBytes(data));
}

}  // namespace
}  // namespace nimbra_test
