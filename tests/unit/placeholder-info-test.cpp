#include <windows.h>

#include <array>
#include <cstring>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "nimbra/nimbra.h"
#include "tests/support/file-watch.h"
#include "tests/support/heap-watch.h"
#include "tests/support/import-double.h"
#include "tests/support/nimbra-test.h"
#include "tests/support/sync-root-handles.h"
#include "tests/support/temp-folder.h"
#include "tests/unit/open-placeholder.h"

namespace nimbra_test {
namespace {

constexpr DWORD kOffline = 0x1000;

using FileSizeDouble = ImportDouble<"GetFileSizeEx", decltype(&::GetFileSizeEx)>;
using AttributesDouble = ImportDouble<"GetFileAttributesW", decltype(&::GetFileAttributesW)>;

FileSizeDouble::Handler SizeOf(std::int64_t size) {
  return [size](auto, HANDLE, PLARGE_INTEGER output) -> BOOL {
    output->QuadPart = size;
    return TRUE;
  };
}

class PlaceholderInfoTest : public OpenPlaceholderTest {};

TEST_F(PlaceholderInfoTest, AsksForStandardInformationWithRoomForTheLargestIdentity) {
  EXPECT_EQ(CORVWinCFPlaceholderIsPlaceholder(placeholder_.Get()), 0);

  const auto call = cloud_.Only<GetPlaceholderInfoCall>();
  EXPECT_EQ(call.file, File());
  EXPECT_EQ(call.infoClass, CF_PLACEHOLDER_INFO_STANDARD);
  EXPECT_EQ(call.bufferLength, 4160u);
  EXPECT_TRUE(call.bufferIsZeroed);
  EXPECT_TRUE(call.asksReturnedLength);
  EXPECT_EQ(cloud_.Calls().size(), 1u);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(PlaceholderInfoTest, SaysNoWithOneLogLineWhenTheQueryFails) {
  for (const HRESULT failure : {kNotACloudFile, kAccessDenied, E_FAIL}) {
    SCOPED_TRACE(failure);
    log_.Clear();
    cloud_.FailNext(CloudFunction::GetPlaceholderInfo, failure);

    EXPECT_EQ(CORVWinCFPlaceholderIsPlaceholder(placeholder_.Get()), -1);

    EXPECT_THAT(log_.Lines(), testing::ElementsAre(InfoLine(path_, failure)));
  }
}

TEST_F(PlaceholderInfoTest, SaysNoForAHandleNeverOpenedWithoutAskingThePlatform) {
  cloud_.SetPlaceholder({.pinState = 1, .inSyncState = 1, .identity = "id"});
  const Placeholder closed(path_);
  char identity[8] = {};

  EXPECT_EQ(CORVWinCFPlaceholderIsPlaceholder(closed.Get()), -1);
  EXPECT_EQ(CORVWinCFPlaceholderIsPinned(closed.Get()), -1);
  EXPECT_EQ(CORVWinCFPlaceholderIsExcluded(closed.Get()), -1);
  EXPECT_EQ(CORVWinCFPlaceholderIsInSync(closed.Get()), -1);
  CORVWinCFPlaceholderGetFileIdentity(closed.Get(), identity);

  EXPECT_STREQ(identity, "");
  EXPECT_THAT(cloud_.Calls(), testing::IsEmpty());
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(PlaceholderInfoTest, CachesNothingBetweenQueries) {
  cloud_.SetPlaceholder({.pinState = 1});
  EXPECT_EQ(CORVWinCFPlaceholderIsPinned(placeholder_.Get()), 0);
  cloud_.SetPlaceholder({.pinState = 0});
  EXPECT_EQ(CORVWinCFPlaceholderIsPinned(placeholder_.Get()), -1);
  EXPECT_EQ(cloud_.CallsOf<GetPlaceholderInfoCall>().size(), 2u);
}

TEST_F(PlaceholderInfoTest, FreesItsBufferWhateverTheResult) {
  for (const HRESULT result : {S_OK, kNotACloudFile}) {
    SCOPED_TRACE(result);
    cloud_.Always(CloudFunction::GetPlaceholderInfo, result);
    int left = -1;
    {
      const HeapWatch heap;
      CORVWinCFPlaceholderIsPlaceholder(placeholder_.Get());
      left = heap.LiveBlocks();
    }
    EXPECT_EQ(left, 0);
  }
}

struct StateRow {
  std::int32_t pinState;
  std::int32_t inSyncState;
  CORVWinCFStatus pinned;
  CORVWinCFStatus excluded;
  CORVWinCFStatus inSync;
};

void PrintTo(const StateRow& row, std::ostream* out) {
  *out << "pin state " << row.pinState << ", in-sync state " << row.inSyncState;
}

class PlaceholderStateTest : public OpenPlaceholderTest,
                             public testing::WithParamInterface<StateRow> {};

TEST_P(PlaceholderStateTest, EachStateAnswersItsOwnQuestionOnly) {
  const StateRow& row = GetParam();
  cloud_.SetPlaceholder({.pinState = row.pinState, .inSyncState = row.inSyncState});

  EXPECT_EQ(CORVWinCFPlaceholderIsPinned(placeholder_.Get()), row.pinned);
  EXPECT_EQ(CORVWinCFPlaceholderIsExcluded(placeholder_.Get()), row.excluded);
  EXPECT_EQ(CORVWinCFPlaceholderIsInSync(placeholder_.Get()), row.inSync);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    States, PlaceholderStateTest,
    testing::Values(StateRow{CF_PIN_STATE_UNSPECIFIED, 0, -1, -1, -1},
                    StateRow{CF_PIN_STATE_PINNED, 0, 0, -1, -1},
                    StateRow{CF_PIN_STATE_UNPINNED, 0, -1, -1, -1},
                    StateRow{CF_PIN_STATE_EXCLUDED, 0, -1, 0, -1},
                    StateRow{CF_PIN_STATE_INHERIT, 0, -1, -1, -1},
                    StateRow{CF_PIN_STATE_UNSPECIFIED, CF_IN_SYNC_STATE_IN_SYNC, -1, -1, 0},
                    StateRow{CF_PIN_STATE_PINNED, CF_IN_SYNC_STATE_IN_SYNC, 0, -1, 0},
                    StateRow{CF_PIN_STATE_EXCLUDED, CF_IN_SYNC_STATE_IN_SYNC, -1, 0, 0},
                    StateRow{257, 257, -1, -1, -1}));

class PlaceholderStateFailureTest : public OpenPlaceholderTest {};

TEST_F(PlaceholderStateFailureTest, AFailedQueryAnswersNoAndIsLoggedOnceEach) {
  // What the platform leaves behind would answer yes to everything.
  cloud_.SetPlaceholder({.pinState = 1, .inSyncState = 1});
  cloud_.Always(CloudFunction::GetPlaceholderInfo, kAccessDenied);

  EXPECT_EQ(CORVWinCFPlaceholderIsPinned(placeholder_.Get()), -1);
  EXPECT_EQ(CORVWinCFPlaceholderIsExcluded(placeholder_.Get()), -1);
  EXPECT_EQ(CORVWinCFPlaceholderIsInSync(placeholder_.Get()), -1);

  const std::string line = InfoLine(path_, kAccessDenied);
  EXPECT_THAT(log_.Lines(), testing::ElementsAre(line, line, line));
}

class FileIdentityTest : public OpenPlaceholderTest {
 protected:
  FileIdentityTest() { buffer_.fill(static_cast<char>(0xCC)); }

  std::string Bytes(std::size_t length) const { return std::string(buffer_.data(), length); }
  bool UntouchedFrom(std::size_t offset) const {
    return Bytes(buffer_.size()).find_first_not_of('\xCC', offset) == std::string::npos;
  }

  std::array<char, 4200> buffer_;
};

TEST_F(FileIdentityTest, CopiesExactlyTheIdentitysBytes) {
  std::string withZeroes = "a";
  withZeroes += '\0';
  withZeroes += "b";
  withZeroes += '\0';
  for (const std::string& identity : {std::string("file-42"), std::string("x"), withZeroes,
                                      std::string(4095, 'y'), std::string(4096, 'z')}) {
    SCOPED_TRACE(identity.size());
    buffer_.fill(static_cast<char>(0xCC));
    cloud_.SetPlaceholder({.identity = identity});

    CORVWinCFPlaceholderGetFileIdentity(placeholder_.Get(), buffer_.data());

    EXPECT_EQ(Bytes(identity.size()), identity);
    EXPECT_TRUE(UntouchedFrom(identity.size()));
  }
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(FileIdentityTest, AnEmptyIdentityLeavesTheBufferUntouched) {
  CORVWinCFPlaceholderGetFileIdentity(placeholder_.Get(), buffer_.data());
  EXPECT_TRUE(UntouchedFrom(0));
}

TEST_F(FileIdentityTest, AFailedQueryLeavesTheBufferUntouched) {
  cloud_.SetPlaceholder({.identity = "file-42"});
  cloud_.FailNext(CloudFunction::GetPlaceholderInfo, kNotACloudFile);

  CORVWinCFPlaceholderGetFileIdentity(placeholder_.Get(), buffer_.data());

  EXPECT_TRUE(UntouchedFrom(0));
  EXPECT_THAT(log_.Lines(), testing::ElementsAre(InfoLine(path_, kNotACloudFile)));
}

TEST_F(FileIdentityTest, AnIdentityLargerThanThePlatformAllowsIsAFailedQuery) {
  cloud_.SetPlaceholder({.identity = std::string(4101, 'x')});

  CORVWinCFPlaceholderGetFileIdentity(placeholder_.Get(), buffer_.data());

  EXPECT_TRUE(UntouchedFrom(0));
  EXPECT_THAT(log_.Lines(),
              testing::ElementsAre(InfoLine(path_, static_cast<HRESULT>(0x800700EA))));
}

TEST_F(FileIdentityTest, AWrongLengthLeadsNoFurtherThanTheQuerysBuffer) {
  cloud_.SetPlaceholder({.identity = "file-42", .statedIdentityLength = 0xFFFFFFFF});

  CORVWinCFPlaceholderGetFileIdentity(placeholder_.Get(), buffer_.data());

  EXPECT_EQ(Bytes(7), "file-42");
  EXPECT_TRUE(UntouchedFrom(4160 - 60));
}

TEST_F(FileIdentityTest, NoBufferIsNoHarm) {
  cloud_.SetPlaceholder({.identity = "file-42"});

  CORVWinCFPlaceholderGetFileIdentity(placeholder_.Get(), nullptr);

  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

class FullyHydratedTest : public OpenPlaceholderTest {
 protected:
  // The answer for the ten-byte file with that much on disk.
  CORVWinCFStatus WithOnDisk(std::int64_t onDisk) {
    cloud_.SetPlaceholder({.onDiskDataSize = onDisk});
    return CORVWinCFPlaceholderIsFullyHydrated(placeholder_.Get());
  }
};

TEST_F(FullyHydratedTest, NeedsExactlyTheFilesSizeOnDisk) {
  EXPECT_EQ(WithOnDisk(0), -1);
  EXPECT_EQ(WithOnDisk(4), -1);
  EXPECT_EQ(WithOnDisk(9), -1);
  EXPECT_EQ(WithOnDisk(10), 0);
  EXPECT_EQ(WithOnDisk(11), -1);
  EXPECT_EQ(WithOnDisk(10 + (std::int64_t{1} << 32)), -1);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(FullyHydratedTest, ComparesAll64BitsOfTheSize) {
  const std::int64_t large = std::int64_t{5} << 40;
  const FileSizeDouble size(SizeOf(large));
  EXPECT_EQ(WithOnDisk(large), 0);
  EXPECT_EQ(WithOnDisk(large - 1), -1);
}

TEST_F(FullyHydratedTest, AsksNoAttributesForAFileWithData) {
  const AttributesDouble attributes;
  WithOnDisk(10);
  EXPECT_EQ(attributes.Count(), 0);
}

TEST_F(FullyHydratedTest, SaysNoWithOneLogLineWhenTheSizeCannotBeRead) {
  FileSizeDouble size;
  size.FailCall(1, FALSE, ERROR_INVALID_HANDLE);

  EXPECT_EQ(WithOnDisk(10), -1);

  EXPECT_EQ(std::get<0>(size.Calls().at(0)), File());
  EXPECT_THAT(cloud_.Calls(), testing::IsEmpty());
  EXPECT_THAT(log_.Lines(),
              testing::ElementsAre(ExpectedLine(
                  kPlaceholderSource, 195, "Failed to get filesize [" + path_ + "] error: 6")));
}

TEST_F(FullyHydratedTest, SaysYesForAPlainFileAndLogsWhy) {
  cloud_.FailNext(CloudFunction::GetPlaceholderInfo, kNotACloudFile);

  EXPECT_EQ(WithOnDisk(0), 0);

  EXPECT_THAT(
      log_.Lines(),
      testing::ElementsAre(InfoLine(path_, kNotACloudFile),
                           ExpectedLine(kPlaceholderSource, 202,
                                        path_ + " is not a placeholder, so it is fully hydrated")));
}

struct EmptyFileRow {
  DWORD attributes;
  CORVWinCFStatus result;
};

TEST_F(FullyHydratedTest, AnEmptyFileIsHydratedUnlessItIsOffline) {
  const FileSizeDouble size(SizeOf(0));
  for (const EmptyFileRow row :
       {EmptyFileRow{FILE_ATTRIBUTE_ARCHIVE, 0}, EmptyFileRow{FILE_ATTRIBUTE_DIRECTORY, 0},
        EmptyFileRow{0, 0}, EmptyFileRow{kOffline, -1},
        EmptyFileRow{kOffline | FILE_ATTRIBUTE_ARCHIVE, -1},
        EmptyFileRow{0xFFFFFFFF & ~kOffline, 0}, EmptyFileRow{0x401620, -1}}) {
    SCOPED_TRACE(row.attributes);
    AttributesDouble attributes([&](auto, LPCWSTR path) -> DWORD {
      EXPECT_EQ(path, Wide(path_));
      return row.attributes;
    });
    EXPECT_EQ(WithOnDisk(0), row.result);
    EXPECT_EQ(attributes.Count(), 1);
  }
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(FullyHydratedTest, AnEmptyFileWithDataOnDiskIsJudgedByItsAttributesToo) {
  const FileSizeDouble size(SizeOf(0));
  EXPECT_EQ(WithOnDisk(17), 0);
}

TEST_F(FullyHydratedTest, SaysYesWithOneLogLineWhenTheAttributesCannotBeRead) {
  const FileSizeDouble size(SizeOf(0));
  AttributesDouble attributes;
  attributes.FailCall(1, INVALID_FILE_ATTRIBUTES, ERROR_ACCESS_DENIED);

  EXPECT_EQ(WithOnDisk(0), 0);

  EXPECT_THAT(log_.Lines(),
              testing::ElementsAre(ExpectedLine(kPlaceholderSource, 213,
                                                "Failed to get file attr " + path_ + ", ec: 5")));
}

TEST_F(FullyHydratedTest, SaysNoForAHandleNeverOpened) {
  const Placeholder closed(path_);

  EXPECT_EQ(CORVWinCFPlaceholderIsFullyHydrated(closed.Get()), -1);

  EXPECT_THAT(cloud_.Calls(), testing::IsEmpty());
  EXPECT_THAT(log_.Lines(),
              testing::ElementsAre(ExpectedLine(
                  kPlaceholderSource, 195, "Failed to get filesize [" + path_ + "] error: 6")));
}

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
  std::vector<std::thread> threads;
  std::vector<int> wrong(8);
  for (int& count : wrong) {
    threads.emplace_back([this, &count] {
      for (int i = 0; i < 50; ++i) {
        count += CORVWinCFIsPlaceholder(path_.c_str()) != 0;
        count += CORVWinCFIsFullyHydrated(path_.c_str()) != 0;
        count += CORVWinCFIsPlaceholder(absent_.c_str()) != -1;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
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
  EXPECT_EQ(std::memcmp(&call.contents, &data, sizeof(data)), 0);
}

}  // namespace
}  // namespace nimbra_test
