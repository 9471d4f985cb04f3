#include <windows.h>

#include <cstdint>
#include <string>
#include <tuple>

#include "nimbra/nimbra.h"
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

}  // namespace
}  // namespace nimbra_test
