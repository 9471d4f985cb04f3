#include <windows.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "nimbra/nimbra.h"
#include "tests/support/file-watch.h"
#include "tests/support/handle-census.h"
#include "tests/support/heap-watch.h"
#include "tests/support/import-double.h"
#include "tests/support/temp-folder.h"
#include "tests/unit/proactive-transfer-fixture.h"
#include "win-cf/placeholder.h"
#include "win-cf/sync-root.h"

namespace {

using nimbra_test::CloudFunction;
using nimbra_test::ExecuteCall;
using nimbra_test::FileWatch;
using nimbra_test::GetTransferKeyCall;
using nimbra_test::IsLogLine;
using nimbra_test::kAccessDenied;
using nimbra_test::kChunk;
using nimbra_test::kMiB;
using nimbra_test::kSyncRootSource;
using nimbra_test::kTransferKey;
using nimbra_test::Placeholder;
using nimbra_test::ProactiveTransferTest;
using nimbra_test::ReadFileDouble;
using nimbra_test::ReleaseTransferKeyCall;
using nimbra_test::ShrunkenFile;
using nimbra_test::Wide;
using testing::ElementsAre;
using testing::IsEmpty;

using GetFileSizeDouble = nimbra_test::ImportDouble<"GetFileSizeEx", decltype(&::GetFileSizeEx)>;
using SetFilePointerDouble =
    nimbra_test::ImportDouble<"SetFilePointerEx", decltype(&::SetFilePointerEx)>;

struct SizeRow {
  std::int64_t size;
  std::vector<std::int64_t> chunks;
};

class ProactiveSizeTest : public ProactiveTransferTest,
                          public testing::WithParamInterface<SizeRow> {};

TEST_P(ProactiveSizeTest, SendsTheFileInChunksOfFourMiB) {
  const std::int64_t size = GetParam().size;
  const std::string content = Content(size);

  EXPECT_EQ(Transfer(LocalFile(size)), 0);

  const auto calls = cloud_.CallsOf<ExecuteCall>();
  ASSERT_EQ(calls.size(), GetParam().chunks.size());
  std::int64_t offset = 0;
  for (std::size_t i = 0; i < calls.size(); ++i) {
    SCOPED_TRACE(i);
    ExpectOperation(calls[i], 0, kTransferKey, 40);
    EXPECT_EQ(calls[i].status, 0);
    EXPECT_EQ(calls[i].offset, offset);
    EXPECT_EQ(calls[i].length, GetParam().chunks[i]);
    EXPECT_TRUE(calls[i].data == content.substr(static_cast<std::size_t>(offset),
                                                static_cast<std::size_t>(calls[i].length)));
    EXPECT_EQ(calls[i].zeroBytesAfter, kChunk - calls[i].length) << "the rest of the buffer";
    EXPECT_EQ(calls[i].buffer, calls[0].buffer) << "one buffer for all";
    offset += calls[i].length;
  }
  EXPECT_EQ(offset, size);
  ExpectKeyReleased();
  EXPECT_EQ(cloud_.CallNames().front(), "CfGetTransferKey");
  EXPECT_EQ(cloud_.CallNames().size(), calls.size() + 2);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Sizes, ProactiveSizeTest,
                         testing::Values(SizeRow{0, {}}, SizeRow{1, {1}}, SizeRow{4095, {4095}},
                                         SizeRow{4096, {4096}}, SizeRow{4097, {4097}},
                                         SizeRow{65536, {65536}}, SizeRow{kChunk - 1, {kChunk - 1}},
                                         SizeRow{kChunk, {kChunk}},
                                         SizeRow{kChunk + 1, {kChunk, 1}},
                                         SizeRow{2 * kChunk, {kChunk, kChunk}},
                                         SizeRow{10 * kMiB, {kChunk, kChunk, 2 * kMiB}}),
                         [](const testing::TestParamInfo<SizeRow>& row) {
                           return std::to_string(row.param.size) + "Bytes";
                         });

TEST_F(ProactiveTransferTest, OpensTheLocalFileForSequentialSharedReading) {
  const std::string path = folder_.WriteFile(
      "l\xC3\xB6"
      "cal \xE6\x97\xA5",
      "data");
  const FileWatch files;

  EXPECT_EQ(Transfer(path), 0);

  const auto openings = files.Openings();
  ASSERT_EQ(openings.size(), 1u);
  EXPECT_EQ(openings[0].path, Wide(path));
  EXPECT_EQ(openings[0].access, 0x80000000u);
  EXPECT_EQ(openings[0].share, 3u);
  EXPECT_FALSE(openings[0].hasSecurity);
  EXPECT_EQ(openings[0].disposition, 3u);
  EXPECT_EQ(openings[0].flags, 0x08000080u);
  EXPECT_EQ(openings[0].pattern, nullptr);
  EXPECT_THAT(files.Closings(), ElementsAre(openings[0].handle));
}

TEST_F(ProactiveTransferTest, GetsTheKeyBeforeOpeningAndReleasesItBeforeClosing) {
  const std::string path = LocalFile(10);
  const FileWatch files;
  std::size_t openedAtKey = 99;
  int openAtRelease = 99;
  cloud_.OnCall(CloudFunction::GetTransferKey, [&] { openedAtKey = files.Openings().size(); });
  cloud_.OnCall(CloudFunction::ReleaseTransferKey, [&] { openAtRelease = files.StillOpen(); });

  EXPECT_EQ(Transfer(path), 0);

  EXPECT_EQ(openedAtKey, 0u);
  EXPECT_EQ(openAtRelease, 1);
  EXPECT_EQ(files.StillOpen(), 0);
}

TEST_F(ProactiveTransferTest, ReadsEachChunkAtItsOwnOffset) {
  const std::string path = LocalFile(2 * kChunk + 5);
  const FileWatch files;
  const SetFilePointerDouble pointer;
  const ReadFileDouble read;

  EXPECT_EQ(Transfer(path), 0);

  const HANDLE file = files.Openings().at(0).handle;
  const auto moves = pointer.Calls();
  ASSERT_EQ(moves.size(), 3u);
  const auto reads = read.Calls();
  ASSERT_EQ(reads.size(), 3u);
  for (std::size_t i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(std::get<0>(moves[i]), file);
    EXPECT_EQ(std::get<1>(moves[i]).QuadPart, static_cast<std::int64_t>(i) * kChunk);
    EXPECT_EQ(std::get<2>(moves[i]), nullptr);
    EXPECT_EQ(std::get<3>(moves[i]), static_cast<DWORD>(FILE_BEGIN));
    EXPECT_EQ(std::get<0>(reads[i]), file);
    EXPECT_EQ(std::get<2>(reads[i]), i < 2 ? static_cast<DWORD>(kChunk) : 5u);
    EXPECT_EQ(std::get<4>(reads[i]), nullptr) << "read synchronously";
  }
}

TEST_F(ProactiveTransferTest, AKeyThatCannotBeHadFailsBeforeAnythingElse) {
  const std::string path = LocalFile(10);
  const FileWatch files;
  cloud_.FailNext(CloudFunction::GetTransferKey, kAccessDenied);

  EXPECT_EQ(Transfer(path), -1);

  EXPECT_THAT(log_.Lines(),
              ElementsAre(IsLogLine(kSyncRootSource, "Failed to obtain trans key-2147024891")));
  EXPECT_THAT(files.Openings(), IsEmpty());
  EXPECT_THAT(cloud_.CallNames(), ElementsAre("CfGetTransferKey"));
}

TEST_F(ProactiveTransferTest, APlaceholderThatIsNotOpenGivesNoHandleToThePlatform) {
  const Placeholder closed(folder_.Item("closed"));
  cloud_.FailNext(CloudFunction::GetTransferKey, E_HANDLE);
  EXPECT_EQ(CORVWinCFSyncRootProactiveTransferToPlaceholder(root_.Get(), closed.Get(), "x"), -1);
  EXPECT_EQ(cloud_.Only<GetTransferKeyCall>().file, INVALID_HANDLE_VALUE);
}

// The failed opening itself has no line of its own; asking for the size tells it.
TEST_F(ProactiveTransferTest, AMissingLocalFileFailsWhenItsSizeIsAsked) {
  const std::string path = folder_.Item("missing");
  EXPECT_EQ(Transfer(path), -1);
  EXPECT_THAT(log_.Lines(), ElementsAre(IsLogLine(kSyncRootSource,
                                                  "Get file size failed: " + path + ": ec = 6")));
  ExpectKeyReleased();
  EXPECT_THAT(cloud_.CallsOf<ExecuteCall>(), IsEmpty());
}

TEST_F(ProactiveTransferTest, ASizeThatCannotBeHadReleasesKeyAndFile) {
  const std::string path = LocalFile(10);
  const FileWatch files;
  GetFileSizeDouble size;
  size.FailCall(1, FALSE, ERROR_IO_DEVICE);

  EXPECT_EQ(Transfer(path), -1);

  EXPECT_THAT(log_.Lines(), ElementsAre(IsLogLine(
                                kSyncRootSource, "Get file size failed: " + path + ": ec = 1117")));
  ExpectKeyReleased();
  EXPECT_EQ(files.StillOpen(), 0);
  EXPECT_EQ(size.Count(), 1);
}

TEST_F(ProactiveTransferTest, ABufferThatCannotBeHadReleasesKeyAndFile) {
  const std::string path = LocalFile(10);
  const FileWatch files;
  nimbra_test::ImportDouble<"VirtualAlloc", decltype(&::VirtualAlloc)> pages;
  pages.FailCall(1, nullptr, ERROR_COMMITMENT_LIMIT);

  EXPECT_EQ(Transfer(path), -1);

  EXPECT_THAT(
      log_.Lines(),
      ElementsAre(IsLogLine(kSyncRootSource, "Failed to allocate the transfer buffer, ec = 1455")));
  ExpectKeyReleased();
  EXPECT_THAT(cloud_.CallsOf<ExecuteCall>(), IsEmpty());
  EXPECT_EQ(files.StillOpen(), 0);
}

TEST_F(ProactiveTransferTest, AFailedMoveEndsTheTransferAtItsChunk) {
  const std::string path = LocalFile(10 * kMiB);
  for (int chunk = 1; chunk <= 3; ++chunk) {
    SCOPED_TRACE(chunk);
    cloud_.Clear();
    log_.Clear();
    const FileWatch files;
    SetFilePointerDouble pointer;
    pointer.FailCall(chunk, FALSE, ERROR_SEEK);

    EXPECT_EQ(Transfer(path), -1);

    EXPECT_THAT(log_.Lines(),
                ElementsAre(IsLogLine(kSyncRootSource, "Failed to set file pointer to " +
                                                           std::to_string((chunk - 1) * kChunk) +
                                                           " ec = 25")));
    EXPECT_EQ(cloud_.CallsOf<ExecuteCall>().size(), static_cast<std::size_t>(chunk - 1));
    ExpectKeyReleased();
    EXPECT_EQ(files.StillOpen(), 0);
  }
}

TEST_F(ProactiveTransferTest, AFailedReadEndsTheTransferAtItsChunk) {
  const std::string path = LocalFile(10 * kMiB);
  for (int chunk = 1; chunk <= 3; ++chunk) {
    SCOPED_TRACE(chunk);
    cloud_.Clear();
    log_.Clear();
    const FileWatch files;
    ReadFileDouble read;
    read.FailCall(chunk, FALSE, ERROR_CRC);

    EXPECT_EQ(Transfer(path), -1);

    EXPECT_THAT(log_.Lines(),
                ElementsAre(IsLogLine(kSyncRootSource, "Read file failed: " + path + ": ec = 23")));
    EXPECT_EQ(cloud_.CallsOf<ExecuteCall>().size(), static_cast<std::size_t>(chunk - 1));
    ExpectKeyReleased();
    EXPECT_EQ(files.StillOpen(), 0);
  }
}

TEST_F(ProactiveTransferTest, AShortReadEndsTheTransferAndSendsNothingOfIt) {
  const std::string path = LocalFile(10 * kMiB);
  struct Row {
    int chunk;
    DWORD bytes;
    std::int64_t required;
  };
  for (const Row& row : {Row{1, 100, kChunk}, Row{2, 0, kChunk}, Row{3, 2097151, 2 * kMiB}}) {
    SCOPED_TRACE(row.chunk);
    cloud_.Clear();
    log_.Clear();
    const FileWatch files;
    const ShrunkenFile shrunken(row.chunk, row.bytes);

    EXPECT_EQ(Transfer(path), -1);

    EXPECT_THAT(
        log_.Lines(),
        ElementsAre(IsLogLine(kSyncRootSource, "Read file failed: " + path +
                                                   ". actually read: " + std::to_string(row.bytes) +
                                                   " required: " + std::to_string(row.required))));
    EXPECT_EQ(cloud_.CallsOf<ExecuteCall>().size(), static_cast<std::size_t>(row.chunk - 1));
    ExpectKeyReleased();
    EXPECT_EQ(files.StillOpen(), 0);
  }
}

TEST_F(ProactiveTransferTest, AFailedChunkEndsTheTransferWithBothLines) {
  const std::string path = LocalFile(10 * kMiB);
  const char* ranges[] = {"[0, 4194304]", "[4194304, 8388608]", "[8388608, 10485760]"};
  for (int chunk = 1; chunk <= 3; ++chunk) {
    SCOPED_TRACE(chunk);
    cloud_.Clear();
    log_.Clear();
    const FileWatch files;
    cloud_.ResultOnCall(CloudFunction::Execute, chunk, static_cast<HRESULT>(0x8007018E));

    EXPECT_EQ(Transfer(path), -1);

    EXPECT_THAT(log_.Lines(),
                ElementsAre(IsLogLine(kSyncRootSource, "Failed: -2147024498"),
                            IsLogLine(kSyncRootSource,
                                      std::string("Failed to transfer ") + ranges[chunk - 1])));
    EXPECT_EQ(cloud_.CallsOf<ExecuteCall>().size(), static_cast<std::size_t>(chunk))
        << "no retry and nothing after it";
    ExpectKeyReleased();
    EXPECT_EQ(files.StillOpen(), 0);
  }
}

// A chunk counts as sent only when the result is zero.
TEST_F(ProactiveTransferTest, APositiveResultOfAChunkEndsTheTransferToo) {
  const std::string path = LocalFile(10);
  cloud_.FailNext(CloudFunction::Execute, S_FALSE);
  EXPECT_EQ(Transfer(path), -1);
  EXPECT_THAT(log_.Lines(), ElementsAre(IsLogLine(kSyncRootSource, "Failed to transfer [0, 10]")));
  ExpectKeyReleased();
}

// Counts the chunks that pass its virtual operation.
class CountingRoot : public corvdrive::cloud_filter::SyncRootWinCF {
 public:
  using SyncRootWinCF::SyncRootWinCF;

  HRESULT TransferData(std::int64_t transferKey, std::int64_t unused, const void* buffer,
                       std::int64_t offset, std::int64_t length, std::uint32_t status) override {
    lengths.push_back(length);
    return SyncRootWinCF::TransferData(transferKey, unused, buffer, offset, length, status);
  }

  std::vector<std::int64_t> lengths;
};

TEST_F(ProactiveTransferTest, SendsItsChunksThroughTheVirtualOperation) {
  const std::string path = LocalFile(kChunk + 7);
  corvdrive::cloud_filter::PlaceholderWinCF placeholder(folder_.Item("placeholder"));
  ASSERT_TRUE(placeholder.Open());
  CountingRoot root("C:\\Sync", "", "");
  EXPECT_TRUE(root.ProactiveTransfer(placeholder, path));
  EXPECT_THAT(root.lengths, ElementsAre(kChunk, 7));
}

TEST_F(ProactiveTransferTest, AnAllocationThatFailsReleasesKeyAndFile) {
  // The way to the file is too long to do without the heap.
  std::string path = LocalFile(10);
  while (path.size() < 1000) {
    path.insert(path.find_last_of("/\\"), "\\.");
  }
  const int refused =
      nimbra_test::ForEachFailingAllocation([&](auto&& watched, const bool& failed) {
        cloud_.Clear();
        const FileWatch files;
        int result = 1;
        watched([&] { EXPECT_NO_THROW(result = Transfer(path)); });
        EXPECT_TRUE(result == 0 || (result == -1 && failed)) << result;
        EXPECT_EQ(cloud_.CallsOf<ReleaseTransferKeyCall>().size(),
                  cloud_.CallsOf<GetTransferKeyCall>().size());
        EXPECT_EQ(files.StillOpen(), 0);
        if (result == 0) {
          EXPECT_EQ(cloud_.CallsOf<ExecuteCall>().size(), 1u);
        }
      });
  EXPECT_GE(refused, 1);
}

TEST_F(ProactiveTransferTest, NoHandleOfTheProcessStaysBehind) {
  const std::string path = LocalFile(kChunk + 1);
  const std::string missing = folder_.Item("missing");
  Transfer(path);
  Transfer(missing);
  const std::size_t before = nimbra_test::OpenHandleCount();
  for (int n = 0; n < 10; ++n) {
    EXPECT_EQ(Transfer(path), 0);
    EXPECT_EQ(Transfer(missing), -1);
    cloud_.FailNext(CloudFunction::Execute, E_FAIL);
    EXPECT_EQ(Transfer(path), -1);
    cloud_.FailNext(CloudFunction::GetTransferKey, E_FAIL);
    EXPECT_EQ(Transfer(path), -1);
    cloud_.Clear();
  }
  EXPECT_EQ(nimbra_test::OpenHandleCount(), before);
}

TEST_F(ProactiveTransferTest, NoBlockOfTheHeapStaysBehind) {
  const std::string path = LocalFile(100);
  Transfer(path);
  int live = -1;
  {
    const nimbra_test::HeapWatch heap;
    Transfer(path);
    live = heap.LiveBlocks();
  }
  EXPECT_EQ(live, 0);
}

TEST_F(ProactiveTransferTest, AClosedGateDoesNothing) {
  const std::string path = LocalFile(10);
  windows_.Become(nimbra_test::kBuildWithoutStreaming);
  const FileWatch files;
  EXPECT_EQ(Transfer(path), -1);
  EXPECT_EQ(CORVWinCFSyncRootProactiveTransferToPlaceholder(nullptr, nullptr, nullptr), -1);
  EXPECT_THAT(files.Openings(), IsEmpty());
  EXPECT_THAT(cloud_.CallNames(), IsEmpty());
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(ProactiveTransferTest, ANullPlaceholderIsRefused) {
  EXPECT_EQ(CORVWinCFSyncRootProactiveTransferToPlaceholder(root_.Get(), nullptr, "x"), -1);
  EXPECT_THAT(cloud_.CallsOf<ExecuteCall>(), IsEmpty());
  EXPECT_EQ(cloud_.CallsOf<ReleaseTransferKeyCall>().size(),
            cloud_.CallsOf<GetTransferKeyCall>().size());
}

TEST_F(ProactiveTransferTest, SeveralAtOnceUseBuffersOfTheirOwn) {
  constexpr int kThreads = 4;
  std::vector<std::string> paths;
  for (int thread = 0; thread < kThreads; ++thread) {
    paths.push_back(folder_.WriteFile(
        "local" + std::to_string(thread),
        std::string(static_cast<std::size_t>(kChunk) + 3, static_cast<char>('a' + thread))));
  }
  std::vector<std::thread> threads;
  for (const std::string& path : paths) {
    threads.emplace_back([&] { EXPECT_EQ(Transfer(path), 0); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::multiset<char> firsts;
  for (const ExecuteCall& call : cloud_.CallsOf<ExecuteCall>()) {
    EXPECT_TRUE(std::all_of(call.data.begin(), call.data.end(),
                            [&](char byte) { return byte == call.data.front(); }));
    firsts.insert(call.data.front());
  }
  EXPECT_THAT(firsts, ElementsAre('a', 'a', 'b', 'b', 'c', 'c', 'd', 'd'));
}

}  // namespace
