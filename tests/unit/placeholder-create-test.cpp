#include <windows.h>

#include <cstring>
#include <ostream>
#include <sstream>
#include <string>

#include "nimbra/nimbra.h"
#include "tests/support/file-watch.h"
#include "tests/support/heap-watch.h"
#include "tests/support/nimbra-test.h"
#include "tests/support/sync-root-handles.h"
#include "tests/support/temp-folder.h"
#include "tests/unit/open-placeholder.h"

namespace nimbra_test {
namespace {

struct PathRow {
  std::string path;
  std::wstring baseDirectory;
  std::wstring relativeName;
};

void PrintTo(const PathRow& row, std::ostream* out) { *out << '"' << row.path << '"'; }

class CreatePathTest : public NimbraTest, public testing::WithParamInterface<PathRow> {};

TEST_P(CreatePathTest, SplitsAtTheLastSlash) {
  const Placeholder placeholder(GetParam().path);
  const Metadata meta(0, 0, 0, 0, 0, 0);
  cloud_.FailNext(CloudFunction::CreatePlaceholders, kAccessDenied);

  EXPECT_EQ(CORVWinCFPlaceholderCreate(placeholder.Get(), "id", meta.Get()), -1);

  const auto call = cloud_.Only<CreatePlaceholdersCall>();
  EXPECT_EQ(call.baseDirectory, GetParam().baseDirectory);
  ASSERT_EQ(call.entries.size(), 1u);
  EXPECT_EQ(call.entries[0].relativeFileName, GetParam().relativeName);
}

INSTANTIATE_TEST_SUITE_P(
    Paths, CreatePathTest,
    testing::Values(PathRow{"a/b/c.txt", L"a/b", L"c.txt"},
                    PathRow{"C:/Sync/c.txt", L"C:/Sync", L"c.txt"},
                    PathRow{"c.txt", L"/", L"c.txt"}, PathRow{"/c.txt", L"/", L"c.txt"},
                    PathRow{"/a/c.txt", L"/a", L"c.txt"}, PathRow{"a/", L"a", L""},
                    PathRow{"", L"/", L""}, PathRow{"/", L"/", L""},
                    PathRow{"a//c.txt", L"a/", L"c.txt"},
                    PathRow{"C:\\Sync\\c.txt", L"/", L"C:\\Sync\\c.txt"},
                    PathRow{"C:\\Sync/c.txt", L"C:\\Sync", L"c.txt"},
                    PathRow{"\xC3\xBC/\xE6\x97\xA5/\xF0\x9F\x98\x80.txt", L"\x00FC/\x65E5",
                            L"\xD83D\xDE00.txt"},
                    PathRow{"C:/" + std::string(300, 'd') + "/" + std::string(255, 'f'),
                            L"C:/" + std::wstring(300, L'd'), std::wstring(255, L'f')}));

// A folder in which the platform's creation is played by making a plain file of that name.
class PlaceholderCreateTest : public NimbraTest {
 protected:
  PlaceholderCreateTest() {
    cloud_.OnCall(CloudFunction::CreatePlaceholders,
                  [this] { folder_.WriteFile("new.txt", "0123456789"); });
  }

  static std::string RefusalLine(const std::string& path, HRESULT result, HRESULT entryResult) {
    return ExpectedLine(kPlaceholderSource, 357,
                        "Create placeholder failed " + path + " " + std::to_string(result) + " " +
                            std::to_string(entryResult));
  }

  TempFolder folder_;
  std::string path_ = folder_.ItemWithSlashes("new.txt");
  std::string base_ = folder_.ItemWithSlashes("");
  FileWatch files_;
  Placeholder placeholder_{path_};
  Metadata meta_{1, 2, 3, 4, 5000, 0};
};

TEST_F(PlaceholderCreateTest, SendsOneEntryWithMetadataIdentityAndFlags) {
  EXPECT_EQ(CORVWinCFPlaceholderCreate(placeholder_.Get(), "file-42", meta_.Get()), 0);

  EXPECT_THAT(cloud_.CallNames(),
              testing::ElementsAre("CfCreatePlaceholders", "CfGetPlaceholderInfo"));
  const auto call = cloud_.Only<CreatePlaceholdersCall>();
  EXPECT_EQ(call.baseDirectory + L"/", Wide(base_));
  EXPECT_EQ(call.count, 1u);
  EXPECT_EQ(call.flags, CF_CREATE_FLAG_NONE);
  EXPECT_FALSE(call.asksEntriesProcessed);
  const CreateEntry& entry = call.entries.at(0);
  EXPECT_EQ(entry.relativeFileName, L"new.txt");
  EXPECT_EQ(entry.metadata.BasicInfo.LastAccessTime.QuadPart, 116444736010000000);
  EXPECT_EQ(entry.metadata.BasicInfo.ChangeTime.QuadPart, 116444736020000000);
  EXPECT_EQ(entry.metadata.BasicInfo.CreationTime.QuadPart, 116444736030000000);
  EXPECT_EQ(entry.metadata.BasicInfo.LastWriteTime.QuadPart, 116444736040000000);
  EXPECT_EQ(entry.metadata.BasicInfo.FileAttributes, 0u);
  EXPECT_EQ(entry.metadata.FileSize.QuadPart, 5000);
  EXPECT_EQ(entry.identity, "file-42");
  EXPECT_EQ(entry.identityLength, 7u);
  EXPECT_EQ(static_cast<DWORD>(entry.flags), 3u);
  EXPECT_EQ(entry.resultBefore, 0);
  EXPECT_EQ(entry.createUsnBefore, 0);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(PlaceholderCreateTest, AFolderCarriesTheDirectoryAttributeAndTheSameFlags) {
  const Metadata folder(0, 0, 0, 0, 0, 1);

  EXPECT_EQ(CORVWinCFPlaceholderCreate(placeholder_.Get(), "id", folder.Get()), 0);

  const CreateEntry entry = cloud_.Only<CreatePlaceholdersCall>().entries.at(0);
  EXPECT_EQ(entry.metadata.BasicInfo.FileAttributes, 0x10u);
  EXPECT_EQ(static_cast<DWORD>(entry.flags), 3u);
}

TEST_F(PlaceholderCreateTest, AnEmptyIdentityHasLengthZero) {
  EXPECT_EQ(CORVWinCFPlaceholderCreate(placeholder_.Get(), "", meta_.Get()), 0);

  EXPECT_EQ(cloud_.Only<CreatePlaceholdersCall>().entries.at(0).identityLength, 0u);
}

TEST_F(PlaceholderCreateTest, OpensTheNewItemForItsFollowUpWorkAndClosesIt) {
  EXPECT_EQ(CORVWinCFPlaceholderCreate(placeholder_.Get(), "id", meta_.Get()), 0);

  const auto opened = files_.Openings().back();
  EXPECT_EQ(opened.path, Wide(path_));
  EXPECT_EQ(opened.flags, 0x42300000u);
  EXPECT_EQ(cloud_.Only<GetPlaceholderInfoCall>().file, opened.handle);
  EXPECT_EQ(files_.StillOpen(), 0);
}

TEST_F(PlaceholderCreateTest, LeavesTheObjectClosed) {
  ASSERT_EQ(CORVWinCFPlaceholderCreate(placeholder_.Get(), "id", meta_.Get()), 0);

  EXPECT_EQ(CORVWinCFPlaceholderUpdate(placeholder_.Get(), "id", meta_.Get()), -1);

  EXPECT_THAT(log_.Lines(), testing::ElementsAre(
                                ExpectedLine(kPlaceholderSource, 389, "Handle is invalid value")));
}

TEST_F(PlaceholderCreateTest, ClosesAHandleFromAnEarlierOpen) {
  folder_.WriteFile("new.txt", "old");
  ASSERT_EQ(CORVWinCFPlaceholderOpen(placeholder_.Get()), 0);

  EXPECT_EQ(CORVWinCFPlaceholderCreate(placeholder_.Get(), "id", meta_.Get()), 0);

  EXPECT_EQ(files_.StillOpen(), 0);
}

TEST_F(PlaceholderCreateTest, LogsARefusedCallWithBothResults) {
  cloud_.FailNext(CloudFunction::CreatePlaceholders, kAccessDenied);

  EXPECT_EQ(CORVWinCFPlaceholderCreate(placeholder_.Get(), "id", meta_.Get()), -1);

  EXPECT_THAT(cloud_.CallNames(), testing::ElementsAre("CfCreatePlaceholders"));
  EXPECT_THAT(log_.Lines(), testing::ElementsAre(RefusalLine(path_, kAccessDenied, 0)));
}

TEST_F(PlaceholderCreateTest, FailsWhenOnlyTheEntryWasRefused) {
  const auto exists = static_cast<HRESULT>(0x800700B7);
  cloud_.SetEntryResult(exists);

  EXPECT_EQ(CORVWinCFPlaceholderCreate(placeholder_.Get(), "id", meta_.Get()), -1);

  EXPECT_THAT(cloud_.CallNames(), testing::ElementsAre("CfCreatePlaceholders"));
  EXPECT_THAT(log_.Lines(), testing::ElementsAre(RefusalLine(path_, 0, exists)));
}

TEST_F(PlaceholderCreateTest, LogsBothResultsWhenBothAreFailures) {
  const auto exists = static_cast<HRESULT>(0x800700B7);
  cloud_.SetEntryResult(exists);
  cloud_.FailNext(CloudFunction::CreatePlaceholders, kAccessDenied);

  EXPECT_EQ(CORVWinCFPlaceholderCreate(placeholder_.Get(), "id", meta_.Get()), -1);

  EXPECT_THAT(log_.Lines(), testing::ElementsAre(RefusalLine(path_, kAccessDenied, exists)));
}

TEST_F(PlaceholderCreateTest, FailsWhenTheNewItemIsNotThere) {
  cloud_.OnCall(CloudFunction::CreatePlaceholders, [] {});

  EXPECT_EQ(CORVWinCFPlaceholderCreate(placeholder_.Get(), "id", meta_.Get()), -1);

  EXPECT_THAT(cloud_.CallNames(), testing::ElementsAre("CfCreatePlaceholders"));
  EXPECT_THAT(log_.Lines(), testing::ElementsAre(ExpectedLine(kPlaceholderSource, 366,
                                                              "Failed to open placeholder\n")));
}

TEST_F(PlaceholderCreateTest, LogsBothTheOpenFailureAndItsConsequence) {
  cloud_.OnCall(CloudFunction::CreatePlaceholders,
                [this] { files_.FailNextOpening(ERROR_ACCESS_DENIED); });

  EXPECT_EQ(CORVWinCFPlaceholderCreate(placeholder_.Get(), "id", meta_.Get()), -1);

  EXPECT_THAT(
      log_.Lines(),
      testing::ElementsAre(ExpectedLine(kPlaceholderSource, 464,
                                        "Failed call on CreateFile on path " + path_ + ", ec: 5"),
                           ExpectedLine(kPlaceholderSource, 366, "Failed to open placeholder\n")));
}

TEST_F(PlaceholderCreateTest, HydratesAnItemThatInheritedAPinOverItsWholeSize) {
  cloud_.SetPlaceholder({.pinState = CF_PIN_STATE_PINNED});

  EXPECT_EQ(CORVWinCFPlaceholderCreate(placeholder_.Get(), "id", meta_.Get()), 0);

  EXPECT_THAT(
      cloud_.CallNames(),
      testing::ElementsAre("CfCreatePlaceholders", "CfGetPlaceholderInfo", "CfHydratePlaceholder"));
  const auto call = cloud_.Only<HydratePlaceholderCall>();
  EXPECT_EQ(call.file, files_.Openings().back().handle);
  EXPECT_EQ(call.offset, 0);
  EXPECT_EQ(call.length, 5000);
  EXPECT_EQ(call.flags, CF_HYDRATE_FLAG_NONE);
  EXPECT_EQ(call.overlapped.address, nullptr);
  EXPECT_EQ(files_.StillOpen(), 0);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(PlaceholderCreateTest, HydratesInNoOtherPinState) {
  for (const std::int32_t state : {0, 2, 3, 4}) {
    SCOPED_TRACE(state);
    cloud_.SetPlaceholder({.pinState = state});
    EXPECT_EQ(CORVWinCFPlaceholderCreate(placeholder_.Get(), "id", meta_.Get()), 0);
  }
  EXPECT_THAT(cloud_.CallsOf<HydratePlaceholderCall>(), testing::IsEmpty());
}

TEST_F(PlaceholderCreateTest, SucceedsEvenIfThatHydrationFails) {
  cloud_.SetPlaceholder({.pinState = CF_PIN_STATE_PINNED});
  cloud_.FailNext(CloudFunction::HydratePlaceholder, kAccessDenied);

  EXPECT_EQ(CORVWinCFPlaceholderCreate(placeholder_.Get(), "id", meta_.Get()), 0);

  std::ostringstream handle;
  handle << static_cast<const void*>(files_.Openings().back().handle);
  EXPECT_THAT(
      log_.Lines(),
      testing::ElementsAre(
          ExpectedLine(kPlaceholderSource, 135, "hydration failed -2147024891 " + handle.str()),
          ExpectedLine(kPlaceholderSource, 374, "Failed to hydrate placeholder after creation")));
  EXPECT_EQ(files_.StillOpen(), 0);
}

TEST_F(PlaceholderCreateTest, SucceedsWithoutHydrationWhenTheInformationCannotBeRead) {
  cloud_.SetPlaceholder({.pinState = CF_PIN_STATE_PINNED});
  cloud_.FailNext(CloudFunction::GetPlaceholderInfo, kNotACloudFile);

  EXPECT_EQ(CORVWinCFPlaceholderCreate(placeholder_.Get(), "id", meta_.Get()), 0);

  EXPECT_THAT(cloud_.CallsOf<HydratePlaceholderCall>(), testing::IsEmpty());
  EXPECT_THAT(log_.Lines(), testing::ElementsAre(InfoLine(path_, kNotACloudFile)));
  EXPECT_EQ(files_.StillOpen(), 0);
}

TEST_F(PlaceholderCreateTest, RefusesNullMetadata) {
  EXPECT_EQ(CORVWinCFPlaceholderCreate(placeholder_.Get(), "id", nullptr), -1);

  EXPECT_THAT(cloud_.Calls(), testing::IsEmpty());
}

TEST_F(PlaceholderCreateTest, FreesItsCopiesOnEveryWay) {
  struct {
    const char* name;
    CloudFunction function;
    HRESULT result;
  } const ways[] = {{"success", CloudFunction::CreatePlaceholders, S_OK},
                    {"refused", CloudFunction::CreatePlaceholders, kAccessDenied},
                    {"no information", CloudFunction::GetPlaceholderInfo, kNotACloudFile},
                    {"hydration fails", CloudFunction::HydratePlaceholder, kAccessDenied}};
  cloud_.SetPlaceholder({.pinState = CF_PIN_STATE_PINNED});
  for (const auto& way : ways) {
    SCOPED_TRACE(way.name);
    cloud_.FailNext(way.function, way.result);
    int left = -1;
    {
      const HeapWatch heap;
      CORVWinCFPlaceholderCreate(placeholder_.Get(), "id", meta_.Get());
      left = heap.LiveBlocks();
    }
    EXPECT_EQ(left, 0);
  }
}

TEST_F(PlaceholderCreateTest, NothingEscapesWhereverMemoryRunsOut) {
  // Too long to do without the heap, and for the item to be opened.
  const Placeholder placeholder("C:/" + std::string(1000, 'd') + "/" + std::string(1000, 'n'));
  const int failures = ForEachFailingAllocation([&](auto watched, bool&) {
    CORVWinCFStatus result = 1;
    watched([&] { result = CORVWinCFPlaceholderCreate(placeholder.Get(), "id", meta_.Get()); });
    EXPECT_EQ(result, -1);
  });
  EXPECT_GE(failures, 4) << "the two parts of the path, the path and a line";
}

}  // namespace
}  // namespace nimbra_test
