#include <windows.h>

#include <array>
#include <ostream>
#include <string>

#include "nimbra/nimbra.h"
#include "tests/support/heap-watch.h"
#include "tests/support/nimbra-test.h"
#include "tests/support/sync-root-handles.h"
#include "tests/unit/open-placeholder.h"

namespace nimbra_test {
namespace {

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

  std::string Bytes(std::size_t length) const { return {buffer_.data(), length}; }
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

}  // namespace
}  // namespace nimbra_test
