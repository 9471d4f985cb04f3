#include <windows.h>

#include <cstdint>
#include <functional>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "common/debug-log.h"
#include "nimbra/nimbra.h"
#include "tests/support/heap-watch.h"
#include "tests/support/import-double.h"
#include "tests/unit/open-placeholder.h"
#include "win-cf/placeholder.h"
#include "win-cf/sync-root.h"
#include "win-cf/transfer-buffer.h"

// What the operations cost beside the platform's own work. The numbers do not hang on the machine.

namespace nimbra_test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

using ToWideDouble = ImportDouble<"MultiByteToWideChar", decltype(&::MultiByteToWideChar)>;
using ToNarrowDouble = ImportDouble<"WideCharToMultiByte", decltype(&::WideCharToMultiByte)>;

// Longer than what a std::string keeps within itself.
constexpr char kIdentity[] = "0123456789abcdef0123456789abcdef";

class OperationCostTest : public OpenPlaceholderTest {
 public:
  CORVWinCFPlaceholderHandle Item() const { return placeholder_.Get(); }
  CORVWinCFSyncRootHandle Root() const { return root_.Get(); }
  CORVWinCFPlaceholderMetaHandle Meta() const { return meta_.Get(); }
  const char* Path() const { return path_.c_str(); }

 private:
  SyncRoot root_;
  Metadata meta_{1, 2, 3, 4, kFileSize, 0};
};

struct OperationRow {
  const char* name;
  std::function<void(const OperationCostTest&)> run;
  std::vector<std::string> platformCalls;
  // Of texts, in either direction.
  int conversions;
  int allocations;
};

void PrintTo(const OperationRow& row, std::ostream* out) { *out << row.name; }

using Test = const OperationCostTest&;

// NOLINTNEXTLINE(readability-function-size): a table.
std::vector<OperationRow> PlaceholderOperations() {
  const std::string info = "CfGetPlaceholderInfo";
  return {
      {"Open", [](Test test) { EXPECT_EQ(CORVWinCFPlaceholderOpen(test.Item()), 0); }, {}, 1, 0},
      // The object keeps the path.
      {"IsPlaceholder", [](Test test) { CORVWinCFIsPlaceholder(test.Path()); }, {info}, 1, 1},
      {"IsFullyHydrated", [](Test test) { CORVWinCFIsFullyHydrated(test.Path()); }, {info}, 1, 1},
      {"Create",
       [](Test test) { CORVWinCFPlaceholderCreate(test.Item(), kIdentity, test.Meta()); },
       {"CfCreatePlaceholders", info},
       3,
       0},
      {"Update",
       [](Test test) { CORVWinCFPlaceholderUpdate(test.Item(), kIdentity, test.Meta()); },
       {info, "CfUpdatePlaceholder"},
       0,
       0},
      {"UpdateWithoutMetadata",
       [](Test test) { CORVWinCFPlaceholderUpdate(test.Item(), kIdentity, nullptr); },
       {info, "CfUpdatePlaceholder"},
       0,
       0},
      {"Convert",
       [](Test test) { CORVWinCFPlaceholderConvertToPlaceholder(test.Item(), kIdentity); },
       {"CfConvertToPlaceholder", "CfSetPinState"},
       0,
       0},
      {"IsPinned", [](Test test) { CORVWinCFPlaceholderIsPinned(test.Item()); }, {info}, 0, 0},
      {"IsInSync", [](Test test) { CORVWinCFPlaceholderIsInSync(test.Item()); }, {info}, 0, 0},
      {"FileIdentity",
       [](Test test) {
         char identity[4096];
         CORVWinCFPlaceholderGetFileIdentity(test.Item(), identity);
       },
       {info},
       0,
       0},
      {"Pin",
       [](Test test) { CORVWinCFPlaceholderPinToLocal(test.Item()); },
       {"CfSetPinState"},
       0,
       0},
      {"SetInSync",
       [](Test test) { CORVWinCFPlaceholderSetInSync(test.Item()); },
       {"CfSetInSyncState"},
       0,
       0},
      {"Hydrate",
       [](Test test) { CORVWinCFPlaceholderHydrateAll(test.Item()); },
       {"CfHydratePlaceholder"},
       0,
       0},
      // The record outlives the call.
      {"HydrateWithoutWaiting",
       [](Test test) { CORVWinCFPlaceholderHydrateAllAsync(test.Item()); },
       {"CfHydratePlaceholder"},
       0,
       1},
      {"DehydrateAll",
       [](Test test) { CORVWinCFPlaceholderDehydrateAll(test.Item()); },
       {"CfUpdatePlaceholder"},
       0,
       0},
      {"Revert",
       [](Test test) { CORVWinCFPlaceholderRevertToNormal(test.Item()); },
       {"CfRevertPlaceholder"},
       0,
       0},
      {"IsExcluded", [](Test test) { CORVWinCFPlaceholderIsExcluded(test.Item()); }, {info}, 0, 0},
      {"IsHydrated",
       [](Test test) { CORVWinCFPlaceholderIsFullyHydrated(test.Item()); },
       {info},
       0,
       0},
      {"Unpin", [](Test test) { CORVWinCFPlaceholderUnpin(test.Item()); }, {"CfSetPinState"}, 0, 0},
      {"ForceUnpin",
       [](Test test) { CORVWinCFPlaceholderForceUnpin(test.Item()); },
       {"CfSetPinState"},
       0,
       0},
      {"SetExcluded",
       [](Test test) { CORVWinCFPlaceholderSetExcluded(test.Item()); },
       {"CfSetPinState"},
       0,
       0},
      {"SetNotInSync",
       [](Test test) { CORVWinCFPlaceholderSetNotInSync(test.Item()); },
       {"CfSetInSyncState"},
       0,
       0},
      {"IsPlaceholderByFindData",
       [](Test) {
         const WIN32_FIND_DATAW found{};
         CORVWinCFIsPlaceholderByFindData(&found);
       },
       {"CfGetPlaceholderStateFromFindData"},
       0,
       0},
  };
}

std::vector<OperationRow> ObjectOperations() {
  return {
      // The object, its path and the handle's cell.
      {"PlaceholderLife",
       [](Test test) {
         CORVWinCFPlaceholderHandle other = nullptr;
         CORVWinCFPlaceholderNew(&other, test.Path());
         CORVWinCFPlaceholderRelease(other);
       },
       {},
       0,
       3},
      // The object and the handle's cell.
      {"DelegatorLife", [](Test) { const Delegator other; }, {}, 0, 2},
      {"MetadataLife", [](Test) { const Metadata other(1, 2, 3, 4, 5, 0); }, {}, 0, 2},
  };
}

std::vector<OperationRow> RootOperations() {
  return {
      {"TransferData",
       [](Test test) { CORVWinCFSyncRootTransferData(test.Root(), 1, 0, "x", 0, 1, 0); },
       {"CfExecute"},
       0,
       0},
      {"ReportProgress",
       [](Test test) { CORVWinCFSyncRootReportTransferProgress(test.Root(), 1, 2, 1); },
       {"CfReportProviderProgress"},
       0,
       0},
      {"AckRename",
       [](Test test) { CORVWinCFSyncRootAckRename(test.Root(), 1); },
       {"CfExecute"},
       0,
       0},
      {"AckDelete",
       [](Test test) { CORVWinCFSyncRootAckDelete(test.Root(), 1, 0, 0); },
       {"CfExecute"},
       0,
       0},
      {"PlatformInfo",
       [](Test) {
         CORVWinCFPlatformInfo info{};
         CORVWinCFGetPlatformInfo(&info);
       },
       {"CfGetPlatformInfo"},
       0,
       0},
      {"Disconnect",
       [](Test test) { CORVWinCFSyncRootDisconnect(test.Root()); },
       {"CfDisconnectSyncRoot"},
       0,
       0},
      {"SyncRootIdentity",
       [](Test test) { CORVWinCFGetSyncRootIdentityByPath(test.Path(), nullptr); },
       {"CfGetSyncRootInfoByPath"},
       1,
       1},
  };
}

class OperationCostRowTest : public OperationCostTest,
                             public testing::WithParamInterface<OperationRow> {};

TEST_P(OperationCostRowTest, MakesTheCallsItIsForAndFewElse) {
  cloud_.SetPlaceholder({.onDiskDataSize = kFileSize, .identity = kIdentity});
  GetParam().run(*this);  // What is made once per process is made now.
  CORVWinCFPlaceholderOpen(Item());
  cloud_.Clear();
  log_.Clear();
  const ToWideDouble toWide;
  const ToNarrowDouble toNarrow;
  int allocations = -1;
  int conversions = -1;
  {
    const HeapWatch heap;
    GetParam().run(*this);
    allocations = heap.Allocations();
    conversions = toWide.Count() + toNarrow.Count();
  }
  EXPECT_THAT(cloud_.CallNames(), ElementsAreArray(GetParam().platformCalls));
  EXPECT_EQ(conversions, GetParam().conversions);
  EXPECT_EQ(allocations, GetParam().allocations);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Placeholders, OperationCostRowTest,
                         testing::ValuesIn(PlaceholderOperations()),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(Objects, OperationCostRowTest, testing::ValuesIn(ObjectOperations()),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(Roots, OperationCostRowTest, testing::ValuesIn(RootOperations()),
                         testing::PrintToStringParamName());

TEST_F(OperationCostTest, ALineOfTheLogIsConvertedOnceAndTakesNothingFromTheHeap) {
  const std::string path(260, 'p');
  const ToWideDouble toWide;
  int allocations = -1;
  {
    const HeapWatch heap;
    corvdrive::cloud_filter::Log("lib\\source", 464, "Failed call on path ", path, ", ec: ", -5L);
    allocations = heap.Allocations();
  }
  EXPECT_EQ(allocations, 0);
  EXPECT_EQ(toWide.Count(), 1);
  EXPECT_THAT(log_.Lines(), ElementsAre(ExpectedLine("lib\\source", 464,
                                                     "Failed call on path " + path + ", ec: -5")));
}

// Counts the chunks and does not bother the platform with them.
class CountingRoot : public corvdrive::cloud_filter::SyncRootWinCF {
 public:
  CountingRoot() : SyncRootWinCF("C:\\Sync", "", "") {}

  HRESULT TransferData(std::int64_t /*transferKey*/, std::int64_t /*unused*/, const void* buffer,
                       std::int64_t offset, std::int64_t length, std::uint32_t status) override {
    const TestScope scope;
    EXPECT_EQ(offset, transferred);
    EXPECT_EQ(status, 0u);
    ++transfers;
    transferred += length;
    buffers.insert(buffer);
    return S_OK;
  }

  int transfers = 0;
  std::int64_t transferred = 0;
  std::set<const void*> buffers;
};

using PagesDouble = ImportDouble<"VirtualAlloc", decltype(&::VirtualAlloc)>;

class TransferCountTest : public OpenPlaceholderTest {
 protected:
  // Each test begins and ends without a kept buffer.
  void SetUp() override { corvdrive::cloud_filter::FreeKeptTransferBuffer(); }
  void TearDown() override { corvdrive::cloud_filter::FreeKeptTransferBuffer(); }

  // A local file that is said to have that size and costs no reading.
  void Transfer(std::int64_t size) {
    const ImportDouble<"GetFileSizeEx", decltype(&::GetFileSizeEx)> sizes(
        [size](auto, HANDLE, PLARGE_INTEGER result) {
          result->QuadPart = size;
          return TRUE;
        });
    const ImportDouble<"ReadFile", decltype(&::ReadFile)> reads(
        [this](auto, HANDLE, LPVOID buffer, DWORD length, LPDWORD done, LPOVERLAPPED) {
          ++reads_;
          readInto_.insert(buffer);
          *done = length;
          return TRUE;
        });
    const PagesDouble pages(makePages_);
    root_.transfers = 0;
    root_.transferred = 0;
    corvdrive::cloud_filter::PlaceholderWinCF placeholder(path_);
    ASSERT_TRUE(placeholder.Open());
    {
      const HeapWatch heap;
      EXPECT_TRUE(root_.ProactiveTransfer(placeholder, path_));
      allocations_ = heap.Allocations();
    }
    buffers_ = pages.Count();
  }

  CountingRoot root_;
  PagesDouble::Handler makePages_;
  int reads_ = 0;
  std::set<const void*> readInto_;
  int allocations_ = -1;
  int buffers_ = -1;
};

TEST_F(TransferCountTest, AGiBIs256TransfersOutOfTheOneBufferThatItIsReadInto) {
  constexpr std::int64_t kGiB = std::int64_t{1} << 30;
  Transfer(kGiB);
  EXPECT_EQ(root_.transfers, 256);
  EXPECT_EQ(root_.transferred, kGiB);
  EXPECT_EQ(reads_, 256);
  EXPECT_EQ(buffers_, 1);
  EXPECT_EQ(root_.buffers.size(), 1u);
  EXPECT_EQ(root_.buffers, readInto_) << "nothing is copied";
  EXPECT_EQ(allocations_, 0);
}

TEST_F(TransferCountTest, ASmallFileIsOneTransferAndTakesNothingFromTheHeap) {
  Transfer(4096);
  EXPECT_EQ(root_.transfers, 1);
  EXPECT_EQ(reads_, 1);
  EXPECT_EQ(root_.buffers, readInto_) << "nothing is copied";
  EXPECT_EQ(allocations_, 0);
}

TEST_F(TransferCountTest, TheNextTransferTakesNoMemoryAtAll) {
  for (const std::int64_t size : {std::int64_t{4096}, std::int64_t{1} << 30}) {
    Transfer(size);
    Transfer(size);
    EXPECT_EQ(buffers_, 0) << size;
    EXPECT_EQ(allocations_, 0) << size;
  }
  EXPECT_EQ(root_.buffers.size(), 1u);
  EXPECT_EQ(root_.buffers, readInto_) << "nothing is copied";
}

TEST_F(TransferCountTest, ASmallFilesTransferTouchesNothingOfTheBufferPastIt) {
  makePages_ = [](auto original, LPVOID at, SIZE_T size, DWORD type, DWORD protection) {
    const LPVOID memory = original(at, size, type, protection);
    DWORD before = 0;
    EXPECT_TRUE(
        VirtualProtect(static_cast<char*>(memory) + 4096, size - 4096, PAGE_NOACCESS, &before));
    return memory;
  };
  Transfer(4096);
  EXPECT_EQ(buffers_, 1);
  EXPECT_EQ(root_.transfers, 1);
}

TEST_F(TransferCountTest, AnEmptyFileNeedsNoBuffer) {
  Transfer(0);
  EXPECT_EQ(root_.transfers, 0);
  EXPECT_EQ(reads_, 0);
  EXPECT_EQ(buffers_, 0);
}

}  // namespace
}  // namespace nimbra_test
