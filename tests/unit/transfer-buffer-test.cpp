// The buffer that a transfer leaves to the next one: when it is used, what is in it, and when it is
// freed.

#include "win-cf/transfer-buffer.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support/heap-watch.h"
#include "tests/support/threads.h"
#include "tests/unit/proactive-transfer-fixture.h"
#include "win-cf/placeholder.h"
#include "win-cf/sync-root.h"

namespace nimbra_test {
namespace {

using corvdrive::cloud_filter::FreeKeptTransferBuffer;
using corvdrive::cloud_filter::PlaceholderWinCF;
using corvdrive::cloud_filter::SyncRootWinCF;

using AllocateDouble = ImportDouble<"VirtualAlloc", decltype(&::VirtualAlloc)>;
using FreeDouble = ImportDouble<"VirtualFree", decltype(&::VirtualFree)>;

class TransferBufferTest : public ProactiveTransferTest {
 protected:
  // Transfers a file of that size and checks what was handed over. Gives the buffer.
  const void* TransferWhole(std::int64_t size) {
    cloud_.Clear();
    EXPECT_EQ(Transfer(LocalFile(size)), 0);
    const std::string content = Content(size);
    std::string transferred;
    const void* buffer = nullptr;
    for (const ExecuteCall& call : cloud_.CallsOf<ExecuteCall>()) {
      EXPECT_EQ(call.zeroBytesAfter, kChunk - call.length) << size;
      transferred += call.data;
      buffer = call.buffer;
    }
    EXPECT_TRUE(transferred == content) << size;
    return buffer;
  }
  void RefuseNextAllocation() { allocate_.FailCall(1, nullptr, ERROR_COMMITMENT_LIMIT); }
  int Allocations() const { return allocate_.Count(); }
  int Frees() const { return free_.Count(); }
  bool WasFreed(const void* buffer) const {
    const auto calls = free_.Calls();
    return std::any_of(calls.begin(), calls.end(),
                       [&](const auto& call) { return std::get<0>(call) == buffer; });
  }

 private:
  AllocateDouble allocate_;
  const FreeDouble free_;
};

TEST_F(TransferBufferTest, OneBufferServesAnyNumberOfTransfersInTurn) {
  const void* const buffer = TransferWhole(kChunk + 1);
  for (const std::int64_t size : {2 * kMiB, kChunk, kMiB, 2 * kChunk, kMiB}) {
    EXPECT_EQ(TransferWhole(size), buffer) << size;
  }
  EXPECT_EQ(Allocations(), 1);
  EXPECT_EQ(Frees(), 0);
}

TEST_F(TransferBufferTest, SmallFilesShareOneTooAndTakeNothingFromTheHeap) {
  const void* const buffer = TransferWhole(4096);
  const std::string path = LocalFile(4096);
  int allocations = -1;
  {
    const HeapWatch heap;
    EXPECT_EQ(Transfer(path), 0);
    allocations = heap.Allocations();
  }
  EXPECT_EQ(allocations, 0);
  EXPECT_EQ(TransferWhole(1), buffer);
  EXPECT_EQ(TransferWhole(65536), buffer);
  EXPECT_EQ(TransferWhole(600), buffer);
  EXPECT_EQ(Allocations(), 1);
}

// Clearing 4 MiB for a small file would take longer than fresh pages do.
TEST_F(TransferBufferTest, ASmallFileAfterALargeOneTakesFreshPagesAndLeavesTheKeptBuffer) {
  const void* const kept = TransferWhole(kChunk);
  const void* const fresh = TransferWhole(4096);
  EXPECT_NE(fresh, kept);
  EXPECT_EQ(Allocations(), 2);
  EXPECT_EQ(Frees(), 1) << "one is kept, and no more";
  EXPECT_TRUE(WasFreed(fresh));
  EXPECT_EQ(TransferWhole(kChunk), kept);
  EXPECT_EQ(Allocations(), 2);
}

TEST_F(TransferBufferTest, WithoutFreshPagesASmallFileTakesTheKeptBufferHoweverDirty) {
  const void* const kept = TransferWhole(kChunk);
  RefuseNextAllocation();
  EXPECT_EQ(TransferWhole(4096), kept);
  EXPECT_EQ(Allocations(), 2);
  EXPECT_EQ(TransferWhole(kChunk), kept);
}

TEST_F(TransferBufferTest, NoByteOfAnEarlierFileIsBehindAChunk) {
  const std::vector<std::int64_t> sizes = {
      1,    2,        7,        8,        9,          1,          4095,       4096,       1,
      kMiB, kMiB - 1, 3 * kMiB, 2 * kMiB, kChunk - 1, kMiB,       kChunk + 5, kChunk - 5, 600'000,
      4096, 500'000,  1,        kChunk,   2 * kMiB,   2 * kChunk, 3 * kMiB,   65536,      kMiB};
  for (const std::int64_t size : sizes) {
    TransferWhole(size);
  }
  EXPECT_LT(Allocations(), static_cast<int>(sizes.size()));
  for (const std::int64_t first : {std::int64_t{1}, 3 * kMiB, kChunk + 5}) {
    FreeKeptTransferBuffer();
    TransferWhole(first);
    TransferWhole(kMiB);
    TransferWhole(1);
  }
}

// The file system may have written anything up to the length that was asked for.
TEST_F(TransferBufferTest, WhatAFailedReadLeftIsNotBehindTheNextChunk) {
  for (const bool isError : {true, false}) {
    SCOPED_TRACE(isError);
    FreeKeptTransferBuffer();
    const int before = Allocations();
    const std::string path = LocalFile(3 * kMiB);
    {
      const ReadFileDouble read(
          [isError](auto, HANDLE, LPVOID buffer, DWORD length, LPDWORD done, LPOVERLAPPED) {
            FillMemory(buffer, length, 'x');
            *done = length - 1;
            SetLastError(ERROR_CRC);
            return isError ? FALSE : TRUE;
          });
      EXPECT_EQ(Transfer(path), -1);
    }
    TransferWhole(kMiB);
    EXPECT_EQ(Allocations() - before, 1) << "the buffer is kept after a failure, too";
  }
}

TEST_F(TransferBufferTest, WhatAShortReadLeftIsNotBehindTheNextChunk) {
  const std::string path = LocalFile(2 * kChunk);
  for (const int chunk : {1, 2}) {
    const ShrunkenFile shrunken(chunk, 2 * kMiB);
    EXPECT_EQ(Transfer(path), -1);
  }
  TransferWhole(kMiB);
  EXPECT_EQ(Allocations(), 1);
}

TEST_F(TransferBufferTest, WhatARefusedChunkLeftIsNotBehindTheNextOne) {
  const std::string path = LocalFile(3 * kMiB);
  cloud_.FailNext(CloudFunction::Execute, E_FAIL);
  EXPECT_EQ(Transfer(path), -1);
  TransferWhole(kMiB);
  EXPECT_EQ(Allocations(), 1);
}

// Does something with each chunk instead of telling the platform.
class ActingRoot : public SyncRootWinCF {
 public:
  using Action = std::function<void(const char* chunk, std::int64_t length)>;

  explicit ActingRoot(Action action) : SyncRootWinCF("C:\\Sync", "", ""), act_(std::move(action)) {}

  HRESULT TransferData(std::int64_t /*transferKey*/, std::int64_t /*unused*/, const void* buffer,
                       std::int64_t /*offset*/, std::int64_t length,
                       std::uint32_t /*status*/) override {
    act_(static_cast<const char*>(buffer), length);
    return S_OK;
  }

 private:
  Action act_;
};

TEST_F(TransferBufferTest, AnExceptionDuringATransferLosesNoBufferAndLeavesNothingBehindAChunk) {
  const std::string path = LocalFile(3 * kMiB);
  PlaceholderWinCF placeholder(folder_.Item("placeholder"));
  ASSERT_TRUE(placeholder.Open());
  ActingRoot root([](const char*, std::int64_t) { throw std::runtime_error("no more"); });
  EXPECT_THROW(static_cast<void>(root.ProactiveTransfer(placeholder, path)), std::runtime_error);
  TransferWhole(kMiB);
  EXPECT_EQ(Allocations(), 1);
  EXPECT_EQ(Frees(), 0);
}

TEST_F(TransferBufferTest, DisconnectingARootFreesIt) {
  const void* const buffer = TransferWhole(kMiB);
  EXPECT_FALSE(WasFreed(buffer));
  EXPECT_EQ(CORVWinCFSyncRootDisconnect(root_.Get()), S_OK);
  EXPECT_TRUE(WasFreed(buffer));
  EXPECT_EQ(Frees(), 1);
  TransferWhole(kMiB);
  EXPECT_EQ(Allocations(), 2);
}

TEST_F(TransferBufferTest, SoDoesDisconnectingThatFails) {
  const void* const buffer = TransferWhole(kMiB);
  cloud_.FailNext(CloudFunction::DisconnectSyncRoot, E_HANDLE);
  EXPECT_EQ(CORVWinCFSyncRootDisconnect(root_.Get()), E_HANDLE);
  EXPECT_TRUE(WasFreed(buffer));
}

// The system waits there for callbacks that run, and these may transfer.
TEST_F(TransferBufferTest, ItIsFreedAfterThePlatformHasDisconnected) {
  TransferWhole(kMiB);
  int freesAtCall = -1;
  cloud_.OnCall(CloudFunction::DisconnectSyncRoot, [&] { freesAtCall = Frees(); });
  CORVWinCFSyncRootDisconnect(root_.Get());
  EXPECT_EQ(freesAtCall, 0);
  EXPECT_EQ(Frees(), 1);
}

TEST_F(TransferBufferTest, WithNothingKeptThereIsNothingToFree) {
  CORVWinCFSyncRootDisconnect(root_.Get());
  TransferWhole(0);
  CORVWinCFSyncRootDisconnect(root_.Get());
  EXPECT_EQ(Frees(), 0);
  EXPECT_EQ(Allocations(), 0);
}

TEST_F(TransferBufferTest, DisconnectingLeavesTheBufferOfARunningTransferAlone) {
  const std::string path = LocalFile(2 * kChunk);
  cloud_.OnCall(CloudFunction::Execute, [&] { CORVWinCFSyncRootDisconnect(root_.Get()); });
  EXPECT_EQ(Transfer(path), 0);
  cloud_.OnCall(CloudFunction::Execute, {});
  EXPECT_EQ(cloud_.CallsOf<ExecuteCall>().size(), 2u);
  EXPECT_EQ(Frees(), 0);
  TransferWhole(kMiB);
  EXPECT_EQ(Allocations(), 1);
}

TEST_F(TransferBufferTest, TransfersAtTheSameTimeHaveABufferEach) {
  constexpr int kThreads = 4;
  const std::string path = LocalFile(kChunk);
  std::atomic<int> missing = kThreads;
  const auto buffers = OnThreads(kThreads, [&](int) {
    const void* own = nullptr;
    ActingRoot root([&](const char* chunk, std::int64_t) {
      own = chunk;
      // Nobody ends before all have begun.
      --missing;
      while (missing > 0) {
        std::this_thread::yield();
      }
    });
    PlaceholderWinCF placeholder(folder_.Item("placeholder"));
    EXPECT_TRUE(placeholder.Open() && root.ProactiveTransfer(placeholder, path));
    if (own == nullptr) {
      --missing;  // the others need not wait for this one
    }
    return own;
  });
  EXPECT_EQ(std::set<const void*>(buffers.begin(), buffers.end()).size(), buffers.size());
  EXPECT_EQ(Allocations(), kThreads);
  EXPECT_EQ(Frees(), kThreads - 1) << "one is kept, and no more";
}

// Whose buffers are in use, and what is wrong with what was in them.
class Ledger {
 public:
  void Check(const char* chunk, std::int64_t length) {
    {
      const std::lock_guard lock(mutex_);
      shared_ += used_.insert(chunk).second ? 0 : 1;
    }
    for (std::int64_t i = 0; i < kChunk; ++i) {
      if ((chunk[i] != 0) != (i < length)) {
        ++wrongBytes_;
      }
    }
    const std::lock_guard lock(mutex_);
    used_.erase(chunk);
  }
  int Shared() const { return shared_; }
  int WrongBytes() const { return wrongBytes_; }

 private:
  std::mutex mutex_;
  std::set<const void*> used_;
  int shared_ = 0;
  std::atomic<int> wrongBytes_ = 0;
};

TEST_F(TransferBufferTest, ManyAtOnceNeverShareABufferNorSeeEachOthersBytes) {
  constexpr int kThreads = 4;
  std::vector<std::string> paths;
  for (const std::int64_t size : {std::int64_t{1}, std::int64_t{5000}, kMiB, kChunk, kChunk + 9}) {
    paths.push_back(folder_.WriteFile("local" + std::to_string(size), Content(size)));
  }
  Ledger ledger;
  const auto failures = OnThreads(kThreads, [&](int thread) {
    ActingRoot root([&](const char* chunk, std::int64_t length) { ledger.Check(chunk, length); });
    PlaceholderWinCF placeholder(folder_.Item("placeholder"));
    int failed = placeholder.Open() ? 0 : 1;
    for (std::size_t i = 0; i < 15; ++i) {
      const std::string& path = paths[(i * 7 + static_cast<std::size_t>(thread)) % paths.size()];
      failed += root.ProactiveTransfer(placeholder, path) ? 0 : 1;
      if (i % 5 == 4) {
        FreeKeptTransferBuffer();
      }
    }
    return failed;
  });
  EXPECT_EQ(failures, std::vector<int>(kThreads, 0));
  EXPECT_EQ(ledger.Shared(), 0);
  EXPECT_EQ(ledger.WrongBytes(), 0);
  FreeKeptTransferBuffer();
  EXPECT_EQ(Frees(), Allocations()) << "none is lost";
}

}  // namespace
}  // namespace nimbra_test
