#include <windows.h>

#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "nimbra/nimbra.h"
#include "tests/support/file-watch.h"
#include "tests/support/handle-census.h"
#include "tests/support/heap-watch.h"
#include "tests/support/nimbra-test.h"
#include "tests/support/sync-root-handles.h"
#include "tests/support/temp-folder.h"
#include "tests/unit/open-placeholder.h"

namespace nimbra_test {
namespace {

class PlaceholderNewTest : public NimbraTest {
 protected:
  CORVWinCFPlaceholderHandle handle_ =
      reinterpret_cast<CORVWinCFPlaceholderHandle>(static_cast<std::uintptr_t>(0xCCCC));
};

TEST_F(PlaceholderNewTest, TouchesNeitherTheDiskNorThePlatform) {
  const FileWatch files;

  EXPECT_EQ(CORVWinCFPlaceholderNew(&handle_, "C:/Sync/file.txt"), 0);

  EXPECT_TRUE(HeapWatch::IsAllocated(handle_));
  EXPECT_THAT(files.Openings(), testing::IsEmpty());
  EXPECT_THAT(cloud_.Calls(), testing::IsEmpty());
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
  CORVWinCFPlaceholderRelease(handle_);
}

TEST_F(PlaceholderNewTest, AcceptsAnEmptyPath) {
  EXPECT_EQ(CORVWinCFPlaceholderNew(&handle_, ""), 0);
  EXPECT_TRUE(HeapWatch::IsAllocated(handle_));
  CORVWinCFPlaceholderRelease(handle_);
}

TEST_F(PlaceholderNewTest, KeepsACopyOfThePath) {
  std::string path = "C:/Sync/file.txt";
  ASSERT_EQ(CORVWinCFPlaceholderNew(&handle_, path.c_str()), 0);
  path.assign(path.size(), 'x');
  const FileWatch files;

  CORVWinCFPlaceholderOpen(handle_);

  ASSERT_EQ(files.Openings().size(), 1u);
  EXPECT_EQ(files.Openings().front().path, L"C:/Sync/file.txt");
  CORVWinCFPlaceholderRelease(handle_);
}

TEST_F(PlaceholderNewTest, GivesNullAndFailureWhenTheRecordCannotBeAllocated) {
  CORVWinCFStatus result = 0;
  {
    HeapWatch heap;
    heap.FailAllocation(1);
    result = CORVWinCFPlaceholderNew(&handle_, "C:/Sync/file.txt");
    heap.StopFailing();
    EXPECT_EQ(heap.LiveBlocks(), 0);
  }
  EXPECT_EQ(result, -1);
  EXPECT_EQ(handle_, nullptr);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(PlaceholderNewTest, FailsWithoutALeakWhereverMemoryRunsOut) {
  const std::string path(500, 'p');
  const int failures = ForEachFailingAllocation([&](auto watched, bool& failed) {
    CORVWinCFStatus result = 1;
    handle_ = nullptr;
    watched([&] { result = CORVWinCFPlaceholderNew(&handle_, path.c_str()); });
    EXPECT_EQ(result, failed ? -1 : 0);
    if (!failed) {
      CORVWinCFPlaceholderRelease(handle_);
    }
  });
  EXPECT_GE(failures, 2);
}

TEST_F(PlaceholderNewTest, ReleaseFreesTheRecordAndTheObject) {
  int left = -1;
  int made = 0;
  {
    const HeapWatch heap;
    CORVWinCFPlaceholderNew(&handle_, "C:/a-path-that-is-too-long-for-a-short-string.txt");
    made = heap.LiveBlocks();
    CORVWinCFPlaceholderRelease(handle_);
    left = heap.LiveBlocks();
  }
  EXPECT_GE(made, 3);
  EXPECT_EQ(left, 0);
}

class PlaceholderOpenTest : public NimbraTest {
 protected:
  TempFolder folder_;
  FileWatch files_;
};

TEST_F(PlaceholderOpenTest, OpensWithoutAccessRightsSharedOverlappedAndWithoutRecall) {
  folder_.WriteFile("file.txt", "data");
  const std::string path = folder_.ItemWithSlashes("file.txt");
  const Placeholder placeholder(path);
  files_.Clear();

  EXPECT_EQ(CORVWinCFPlaceholderOpen(placeholder.Get()), 0);

  ASSERT_EQ(files_.Openings().size(), 1u);
  const FileWatch::Opening opening = files_.Openings().front();
  EXPECT_EQ(opening.path, Wide(path));
  EXPECT_EQ(opening.access, 0u);
  EXPECT_EQ(opening.share, 7u);
  EXPECT_FALSE(opening.hasSecurity);
  EXPECT_EQ(opening.disposition, 3u);
  EXPECT_EQ(opening.flags, 0x42300000u);
  EXPECT_EQ(opening.pattern, nullptr);
  EXPECT_THAT(cloud_.Calls(), testing::IsEmpty());
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(PlaceholderOpenTest, OpensFoldersAndNonAsciiNames) {
  for (const std::string& name :
       {std::string("\xC3\xBCml\xC3\xA4ut"), std::string("\xE6\x97\xA5\xE6\x9C\xAC"),
        std::string("\xF0\x9F\x98\x80")}) {
    SCOPED_TRACE(name);
    folder_.MakeFolder(name);
    const Placeholder placeholder(folder_.ItemWithSlashes(name));
    EXPECT_EQ(CORVWinCFPlaceholderOpen(placeholder.Get()), 0);
  }
}

TEST_F(PlaceholderOpenTest, LeavesTheHandleOpenUntilTheObjectGoes) {
  folder_.WriteFile("file.txt", "data");
  {
    const Placeholder placeholder(folder_.ItemWithSlashes("file.txt"));
    files_.Clear();
    EXPECT_EQ(CORVWinCFPlaceholderOpen(placeholder.Get()), 0);
    EXPECT_EQ(files_.StillOpen(), 1);
  }
  EXPECT_EQ(files_.StillOpen(), 0);
  EXPECT_THAT(files_.Closings(), testing::ElementsAre(files_.Openings().front().handle));
}

TEST_F(PlaceholderOpenTest, OpeningAgainClosesTheEarlierHandleFirst) {
  folder_.WriteFile("file.txt", "data");
  const Placeholder placeholder(folder_.ItemWithSlashes("file.txt"));
  files_.Clear();
  ASSERT_EQ(CORVWinCFPlaceholderOpen(placeholder.Get()), 0);

  EXPECT_EQ(CORVWinCFPlaceholderOpen(placeholder.Get()), 0);

  ASSERT_EQ(files_.Openings().size(), 2u);
  EXPECT_THAT(files_.Closings(), testing::ElementsAre(files_.Openings().front().handle));
  EXPECT_EQ(files_.StillOpen(), 1);
}

TEST_F(PlaceholderOpenTest, FailingToOpenAgainLeavesTheObjectClosed) {
  folder_.WriteFile("file.txt", "data");
  const Placeholder placeholder(folder_.ItemWithSlashes("file.txt"));
  ASSERT_EQ(CORVWinCFPlaceholderOpen(placeholder.Get()), 0);
  files_.FailNextOpening(ERROR_SHARING_VIOLATION);

  EXPECT_EQ(CORVWinCFPlaceholderOpen(placeholder.Get()), -1);

  EXPECT_EQ(files_.StillOpen(), 0);
  log_.Clear();
  EXPECT_EQ(CORVWinCFPlaceholderUpdate(placeholder.Get(), "id", nullptr), -1);
  EXPECT_THAT(log_.Lines(), testing::ElementsAre(
                                ExpectedLine(kPlaceholderSource, 389, "Handle is invalid value")));
}

TEST_F(PlaceholderOpenTest, IsSilentAboutAMissingFile) {
  const Placeholder placeholder(folder_.ItemWithSlashes("absent.txt"));

  EXPECT_EQ(CORVWinCFPlaceholderOpen(placeholder.Get()), -1);

  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(PlaceholderOpenTest, LogsEveryOtherFailureWithItsCode) {
  const std::string path = folder_.ItemWithSlashes("\xC3\xA9.txt");
  const Placeholder placeholder(path);
  for (const DWORD error :
       std::initializer_list<DWORD>{ERROR_PATH_NOT_FOUND, ERROR_ACCESS_DENIED,
                                    ERROR_SHARING_VIOLATION, ERROR_INVALID_NAME, 0x16A}) {
    SCOPED_TRACE(error);
    log_.Clear();
    files_.FailNextOpening(error);

    EXPECT_EQ(CORVWinCFPlaceholderOpen(placeholder.Get()), -1);

    EXPECT_THAT(log_.Lines(),
                testing::ElementsAre(ExpectedLine(kPlaceholderSource, 464,
                                                  "Failed call on CreateFile on path " + path +
                                                      ", ec: " + std::to_string(error))));
  }
}

TEST_F(PlaceholderOpenTest, LogsAMissingFolderOnTheRealDisk) {
  const std::string path = folder_.ItemWithSlashes("absent/file.txt");
  const Placeholder placeholder(path);

  EXPECT_EQ(CORVWinCFPlaceholderOpen(placeholder.Get()), -1);

  EXPECT_THAT(log_.Lines(), testing::ElementsAre(ExpectedLine(
                                kPlaceholderSource, 464,
                                "Failed call on CreateFile on path " + path + ", ec: 3")));
}

TEST_F(PlaceholderOpenTest, LeaksNoHandleOverManyObjects) {
  folder_.WriteFile("file.txt", "data");
  const std::string path = folder_.ItemWithSlashes("file.txt");
  const std::size_t before = OpenHandleCount();
  for (int i = 0; i < 50; ++i) {
    const Placeholder placeholder(path);
    ASSERT_EQ(CORVWinCFPlaceholderOpen(placeholder.Get()), 0);
    ASSERT_EQ(CORVWinCFPlaceholderOpen(placeholder.Get()), 0);
  }
  EXPECT_LE(OpenHandleCount(), before);
}

}  // namespace
}  // namespace nimbra_test
