#include "win-cf/placeholder-meta.h"

#include <windows.h>

#include <cstdint>
#include <memory>
#include <new>
#include <ostream>
#include <string>
#include <type_traits>

#include "nimbra-host/nimbra/handles.h"
#include "nimbra/nimbra.h"
#include "tests/support/heap-watch.h"
#include "tests/support/nimbra-test.h"
#include "tests/support/raw-bytes.h"
#include "tests/support/threads.h"
#include "tests/unit/open-placeholder.h"

namespace nimbra_test {
namespace {

using corvdrive::cloud_filter::PlaceholderMetaBase;
using corvdrive::cloud_filter::PlaceholderMetaWinCF;

constexpr std::int64_t kEpoch = 116444736000000000;
constexpr std::int64_t kSecond = 10000000;

static_assert(std::is_base_of_v<PlaceholderMetaBase, PlaceholderMetaWinCF>);
static_assert(std::is_base_of_v<__tag_PlaceholderMetaWrap,
                                corvdrive::cloud_filter::PlaceholderMeta<PlaceholderMetaWinCF>>);
static_assert(std::has_virtual_destructor_v<__tag_PlaceholderMetaWrap>);
static_assert(std::is_abstract_v<__tag_PlaceholderMetaWrap>);
static_assert(std::has_virtual_destructor_v<PlaceholderMetaBase>);

// What the platform gets for metadata made by the export, seen through an update.
class PlaceholderMetaTest : public OpenPlaceholderTest {
 protected:
  CF_FS_METADATA Sent(CORVWinCFPlaceholderMetaHandle meta) {
    cloud_.Clear();
    EXPECT_EQ(CORVWinCFPlaceholderUpdate(placeholder_.Get(), "id", meta), 0);
    return cloud_.Only<UpdatePlaceholderCall>().metadata.value();
  }
};

TEST_F(PlaceholderMetaTest, EachArgumentLandsInItsField) {
  const Metadata meta(1, 2, 3, 4, 5, 0);

  const CF_FS_METADATA sent = Sent(meta.Get());

  EXPECT_EQ(sent.BasicInfo.LastAccessTime.QuadPart, kEpoch + 1 * kSecond);
  EXPECT_EQ(sent.BasicInfo.ChangeTime.QuadPart, kEpoch + 2 * kSecond);
  EXPECT_EQ(sent.BasicInfo.CreationTime.QuadPart, kEpoch + 3 * kSecond);
  EXPECT_EQ(sent.BasicInfo.LastWriteTime.QuadPart, kEpoch + 4 * kSecond);
  EXPECT_EQ(sent.FileSize.QuadPart, 5);
  EXPECT_EQ(sent.BasicInfo.FileAttributes, 0u);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(PlaceholderMetaTest, OnlyTypeOneIsAFolder) {
  for (const std::int32_t type : {0, 2, 3, -1, 16, 257, INT32_MIN, INT32_MAX}) {
    SCOPED_TRACE(type);
    const Metadata file(0, 0, 0, 0, 0, type);
    EXPECT_EQ(Sent(file.Get()).BasicInfo.FileAttributes, 0u);
  }
  const Metadata folder(0, 0, 0, 0, 0, 1);
  EXPECT_EQ(Sent(folder.Get()).BasicInfo.FileAttributes, 0x10u);
}

TEST_F(PlaceholderMetaTest, TheSizeIsPassedOnInAll64Bits) {
  for (const std::int64_t size : {std::int64_t{0}, std::int64_t{1}, std::int64_t{4294967296},
                                  INT64_MAX, std::int64_t{-1}, INT64_MIN}) {
    SCOPED_TRACE(size);
    const Metadata meta(0, 0, 0, 0, size, 0);
    EXPECT_EQ(Sent(meta.Get()).FileSize.QuadPart, size);
  }
}

TEST_F(PlaceholderMetaTest, TimesThatAreNotGivenStayZero) {
  const Metadata nothing(0, 0, 0, 0, 0, 0);
  const CF_FS_METADATA zero{};
  EXPECT_EQ(RawBytes(Sent(nothing.Get())), RawBytes(zero));

  const Metadata one(0, 7, 0, 0, 0, 0);
  CF_FS_METADATA expected{};
  expected.BasicInfo.ChangeTime.QuadPart = kEpoch + 7 * kSecond;
  EXPECT_EQ(RawBytes(Sent(one.Get())), RawBytes(expected));
}

struct TimeRow {
  const char* name;
  std::int64_t unixSeconds;
  std::int64_t fileTime;
};

void PrintTo(const TimeRow& row, std::ostream* out) { *out << row.name; }

class MetadataTimeTest : public PlaceholderMetaTest, public testing::WithParamInterface<TimeRow> {};

TEST_P(MetadataTimeTest, EveryTimeFieldIsConvertedAlike) {
  const std::int64_t time = GetParam().unixSeconds;
  const Metadata meta(time, time, time, time, 0, 0);

  const FILE_BASIC_INFO sent = Sent(meta.Get()).BasicInfo;

  EXPECT_EQ(sent.LastAccessTime.QuadPart, GetParam().fileTime);
  EXPECT_EQ(sent.ChangeTime.QuadPart, GetParam().fileTime);
  EXPECT_EQ(sent.CreationTime.QuadPart, GetParam().fileTime);
  EXPECT_EQ(sent.LastWriteTime.QuadPart, GetParam().fileTime);
}

INSTANTIATE_TEST_SUITE_P(
    Times, MetadataTimeTest,
    testing::Values(TimeRow{"NotGiven", 0, 0},
                    TimeRow{"OneSecondAfterTheEpoch", 1, 116444736010000000},
                    TimeRow{"OneSecondBeforeTheEpoch", -1, 116444735990000000},
                    TimeRow{"Year2001", 1000000000, 126444736000000000},
                    TimeRow{"LastOf32Bits", 2147483647, 137919572470000000},
                    TimeRow{"FirstBeyond32Bits", 2147483648, 94969899520000000},
                    TimeRow{"AllLowBitsSet", 4294967295, 116444735990000000},
                    TimeRow{"LowBitsZero", 4294967296, 116444736000000000},
                    TimeRow{"LowBitsOne", 4294967297, 116444736010000000},
                    TimeRow{"SmallestOf32Bits", -2147483648LL, 94969899520000000},
                    TimeRow{"Largest", INT64_MAX, 116444735990000000},
                    TimeRow{"Smallest", INT64_MIN, 116444736000000000}),
    testing::PrintToStringParamName());

TEST(EmptyMetadataTest, GivesAnAllZeroRecordWhateverItHolds) {
  PlaceholderMetaWinCF meta;
  meta.isEmpty = true;
  meta.lastAccessTime = 1;
  meta.lastWriteTime = 2;
  meta.creationTime = 3;
  meta.changeTime = 4;
  meta.fileSize = 5;
  meta.isDirectory = true;

  const CF_FS_METADATA record = meta.ToFsMetadata();

  const CF_FS_METADATA zero{};
  EXPECT_EQ(RawBytes(record), RawBytes(zero));
}

class MetadataLifetimeTest : public NimbraTest {};

TEST_F(MetadataLifetimeTest, NewGivesNullWhenTheWrapperCannotBeAllocated) {
  auto* handle =
      reinterpret_cast<CORVWinCFPlaceholderMetaHandle>(static_cast<std::uintptr_t>(0xCC));
  {
    HeapWatch heap;
    heap.FailAllocation(1);
    handle = CORVWinCFPlaceholderMetaNew(1, 2, 3, 4, 5, 0);
    heap.StopFailing();
  }
  EXPECT_EQ(handle, nullptr);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(MetadataLifetimeTest, AFailureToAllocateTheObjectReachesTheCallerWithoutALeak) {
  bool failed = false;
  int left = -1;
  {
    HeapWatch heap;
    heap.FailAllocation(2);
    try {
      CORVWinCFPlaceholderMetaNew(1, 2, 3, 4, 5, 0);
    } catch (const std::bad_alloc&) {
      failed = true;
    }
    heap.StopFailing();
    left = heap.LiveBlocks();
  }
  EXPECT_TRUE(failed);
  EXPECT_EQ(left, 0);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(MetadataLifetimeTest, ReleaseFreesWrapperAndObject) {
  int made = 0;
  int left = -1;
  {
    const HeapWatch heap;
    const auto handle = CORVWinCFPlaceholderMetaNew(1, 2, 3, 4, 5, 0);
    made = heap.LiveBlocks();
    CORVWinCFPlaceholderMetaRelease(handle);
    left = heap.LiveBlocks();
  }
  // The wrapper, and the object in one allocation with its count.
  EXPECT_EQ(made, 2);
  EXPECT_EQ(left, 0);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(MetadataLifetimeTest, ReleaseIgnoresNull) {
  CORVWinCFPlaceholderMetaRelease(nullptr);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

// A handle of somebody else's.
struct ForeignWrapper : __tag_PlaceholderMetaWrap {
  explicit ForeignWrapper(bool& flag) : destroyed(flag) {}
  ~ForeignWrapper() override { destroyed = true; }
  void Unused() override {}
  bool& destroyed;
};

TEST_F(MetadataLifetimeTest, ReleaseIgnoresAForeignWrapper) {
  bool destroyed = false;
  auto foreign = std::make_unique<ForeignWrapper>(destroyed);

  CORVWinCFPlaceholderMetaRelease(foreign.get());

  EXPECT_FALSE(destroyed);
  EXPECT_TRUE(HeapWatch::IsAllocated(foreign.get()));
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(MetadataLifetimeTest, ManyThreadsReadOneObjectAtOnce) {
  const Metadata meta(1, 2, 3, 4, 5, 0);
  cloud_.Always(CloudFunction::CreatePlaceholders, kAccessDenied);
  const auto failures = OnThreads(8, [&meta](int) {
    const Placeholder own("C:/Sync/file.txt");
    int count = 0;
    for (int i = 0; i < 100; ++i) {
      count += CORVWinCFPlaceholderCreate(own.Get(), "id", meta.Get()) != -1;
    }
    return count;
  });
  EXPECT_THAT(failures, testing::Each(0));
  for (const auto& call : cloud_.CallsOf<CreatePlaceholdersCall>()) {
    ASSERT_EQ(call.entries.at(0).metadata.FileSize.QuadPart, 5);
  }
}

}  // namespace
}  // namespace nimbra_test
