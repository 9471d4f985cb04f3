#include <gmock/gmock.h>
#include <windows.h>

#include <memory>
#include <new>
#include <string>
#include <thread>

#include "common/cldapi-table.h"
#include "tests/support/handle-census.h"
#include "tests/support/heap-watch.h"
#include "tests/support/import-double.h"
#include "tests/support/log-capture.h"
#include "tests/support/recording-cloud.h"
#include "tests/support/temp-folder.h"
#include "tests/support/test-scope.h"

// The tests' own tools must notice what they are there to notice.
namespace nimbra_test {
namespace {

using corvdrive::cloud_filter::Cloud;

// Reads the import slot anew at each call.
BOOL(*volatile askSize)
(HANDLE) = [](HANDLE file) -> BOOL {
  LARGE_INTEGER size;
  return GetFileSizeEx(file, &size);
};

TEST(ImportDoubleTest, FailsTheChosenCallAndRestoresTheSlot) {
  const HANDLE none = INVALID_HANDLE_VALUE;
  {
    ImportDouble<"GetFileSizeEx", decltype(&::GetFileSizeEx)> faked;
    faked.FailCall(2, TRUE, 1234);
    EXPECT_FALSE(askSize(none));
    EXPECT_TRUE(askSize(none));
    EXPECT_EQ(GetLastError(), 1234u);
    EXPECT_FALSE(askSize(none));
    EXPECT_EQ(faked.Count(), 3);
    EXPECT_EQ(std::get<0>(faked.Calls().at(0)), none);
  }
  EXPECT_FALSE(askSize(none));
}

TEST(ImportDoubleTest, RefusesAFunctionThatNobodyImports) {
  EXPECT_THROW(ScopedImportHook("NoSuchFunction", nullptr), std::runtime_error);
}

TEST(LogCaptureTest, OutputIsCollectedCallByCall) {
  LogCapture log;
  OutputDebugStringW(L"a\x00E9");
  OutputDebugStringW(L"");
  EXPECT_THAT(log.Lines(), testing::ElementsAre("a\xC3\xA9", ""));
}

TEST(LogCaptureTest, TheLineMatcherWantsTheWholeFrame) {
  const auto matcher = IsLogLine("a\\b", "text");
  EXPECT_TRUE(matcher.Matches("a\\b (12) | text\r\n"));
  for (const char* other :
       {"a\\b (12) | text\n", "a\\b (x) | text\r\n", "a\\b () | text\r\n", "a\\b (0) | text\r\n",
        "a\\b(12) | text\r\n", "a\\b (12) | text \r\n", "a\\b (12) | other\r\n",
        "x\\b (12) | text\r\n", "", "a\\b (1 2) | text\r\n"}) {
    EXPECT_FALSE(matcher.Matches(other)) << other;
  }
}

const void* volatile observed = nullptr;

TEST(HeapWatchTest, CountsFailsAndFindsBlocks) {
  int* kept = nullptr;
  {
    HeapWatch heap;
    auto first = std::make_unique<int>(1);
    EXPECT_EQ(heap.Allocations(), 1);
    EXPECT_EQ(heap.LiveBlocks(), 1);
    heap.FailAllocation(2);
    kept = new (std::nothrow) int(2);
    EXPECT_NE(kept, nullptr);
    EXPECT_EQ(new (std::nothrow) int(3), nullptr);
    EXPECT_TRUE(heap.Failed());
    // Volatile, as the compiler would object to using a freed pointer.
    const void* volatile address = first.get();
    first.reset();
    EXPECT_TRUE(HeapWatch::WasFreed(address));
    EXPECT_FALSE(HeapWatch::IsAllocated(address));
    EXPECT_TRUE(HeapWatch::IsAllocated(kept));
    EXPECT_EQ(HeapWatch::BlockSize(kept), sizeof(int));
    EXPECT_EQ(heap.LiveBlocks(), 1);
  }
  delete kept;
}

TEST(HeapWatchTest, TestCodeAndOtherThreadsDoNotCount) {
  HeapWatch heap;
  {
    const TestScope scope;
    observed = std::make_unique<int>(1).get();
    std::thread([] { observed = std::make_unique<int>(2).get(); }).join();
  }
  EXPECT_EQ(heap.Allocations(), 0);
}

TEST(HeapWatchTest, TheLoopFailsEachAllocationOnce) {
  int runs = 0;
  const int failures = ForEachFailingAllocation([&](auto watched, bool& failed) {
    ++runs;
    bool thrown = false;
    try {
      watched([] {
        const auto a = std::make_unique<int>(1);
        const auto b = std::make_unique<int>(2);
        // Allocations that nothing looks at may be left out by the compiler.
        observed = a.get();
        observed = b.get();
      });
    } catch (const std::bad_alloc&) {
      thrown = true;
    }
    EXPECT_EQ(thrown, failed);
  });
  EXPECT_EQ(failures, 2);
  EXPECT_EQ(runs, 3);
}

TEST(HandleCensusTest, SeesAHandleThatIsLeftOpen) {
  const std::size_t before = OpenHandleCount();
  const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  EXPECT_EQ(OpenHandleCount(), before + 1);
  CloseHandle(event);
  EXPECT_EQ(OpenHandleCount(), before);
}

TEST(TempFolderTest, IsRemovedWithAllItHolds) {
  std::wstring path;
  {
    const TempFolder folder;
    path = folder.Path();
    folder.MakeFolder("sub");
    const std::string file = folder.WriteFile("sub\\\xC3\xA9.txt", "data");
    folder.WriteLargeFile("large", 300000);
    SetFileAttributesW(Wide(file).c_str(), FILE_ATTRIBUTE_READONLY);
    EXPECT_NE(GetFileAttributesW(Wide(file).c_str()), INVALID_FILE_ATTRIBUTES);
  }
  EXPECT_EQ(GetFileAttributesW(path.c_str()), INVALID_FILE_ATTRIBUTES);
}

TEST(RecordingCloudTest, ReplacesThePlatformAndRecordsInOrder) {
  RecordingCloud cloud;
  cloud.FailNext(CloudFunction::RevertPlaceholder, kAccessDenied);
  EXPECT_EQ(Cloud().CfRevertPlaceholder(nullptr, CF_REVERT_FLAG_NONE, nullptr), kAccessDenied);
  EXPECT_EQ(Cloud().CfRevertPlaceholder(nullptr, CF_REVERT_FLAG_NONE, nullptr), S_OK);
  EXPECT_EQ(Cloud().CfUnregisterSyncRoot(L"C:\\Sync"), S_OK);
  EXPECT_THAT(cloud.CallNames(), testing::ElementsAre("CfRevertPlaceholder", "CfRevertPlaceholder",
                                                      "CfUnregisterSyncRoot"));
  EXPECT_EQ(cloud.Only<UnregisterSyncRootCall>().path, L"C:\\Sync");
  EXPECT_THROW(cloud.Only<RevertPlaceholderCall>(), std::logic_error);
}

const CF_CALLBACK_INFO* lastInfo = nullptr;
std::wstring lastPath;

void CALLBACK Remember(const CF_CALLBACK_INFO* info, const CF_CALLBACK_PARAMETERS*) {
  lastInfo = info;
  lastPath = info->NormalizedPath;
}

TEST(RecordingCloudTest, PlaysCallbacksInMemoryThatGoesWithThem) {
  RecordingCloud cloud;
  const CF_CALLBACK_REGISTRATION table[] = {{CF_CALLBACK_TYPE_FETCH_DATA, &Remember},
                                            {CF_CALLBACK_TYPE_NONE, nullptr}};
  CF_CONNECTION_KEY key{};
  ASSERT_EQ(Cloud().CfConnectSyncRoot(L"C:\\Sync", table, nullptr, CF_CONNECT_FLAG_NONE, &key),
            S_OK);
  CallbackEvent event;

  EXPECT_TRUE(cloud.Play(event));
  event.type = CF_CALLBACK_TYPE_NOTIFY_DELETE;
  EXPECT_FALSE(cloud.Play(event));

  EXPECT_EQ(lastPath, L"\\Sync\\file.txt");
  MEMORY_BASIC_INFORMATION memory{};
  ASSERT_NE(VirtualQuery(lastInfo, &memory, sizeof(memory)), 0u);
  EXPECT_NE(memory.State, static_cast<DWORD>(MEM_COMMIT));
}

}  // namespace
}  // namespace nimbra_test
