#include <windows.h>

#include <cstdint>
#include <string>

#include "nimbra/nimbra.h"
#include "tests/support/heap-watch.h"
#include "tests/support/nimbra-test.h"
#include "tests/support/raw-bytes.h"
#include "tests/support/sync-root-handles.h"
#include "tests/unit/open-placeholder.h"

namespace nimbra_test {
namespace {

class PlaceholderUpdateTest : public OpenPlaceholderTest {
 protected:
  static std::string Line(HRESULT result, const std::string& path) {
    return ExpectedLine(
        kPlaceholderSource, 409,
        "Failed to update placeholder, path: " + path + " " + std::to_string(result));
  }
};

TEST_F(PlaceholderUpdateTest, SendsMetadataAndIdentityAndMarksInSync) {
  const Metadata meta(1, 2, 3, 4, 5000, 0);

  EXPECT_EQ(CORVWinCFPlaceholderUpdate(placeholder_.Get(), "file-42", meta.Get()), 0);

  EXPECT_THAT(cloud_.CallNames(),
              testing::ElementsAre("CfGetPlaceholderInfo", "CfUpdatePlaceholder"));
  const auto call = cloud_.Only<UpdatePlaceholderCall>();
  EXPECT_EQ(call.file, File());
  ASSERT_TRUE(call.metadata.has_value());
  EXPECT_EQ(call.metadata->BasicInfo.LastAccessTime.QuadPart, 116444736010000000);
  EXPECT_EQ(call.metadata->BasicInfo.ChangeTime.QuadPart, 116444736020000000);
  EXPECT_EQ(call.metadata->BasicInfo.CreationTime.QuadPart, 116444736030000000);
  EXPECT_EQ(call.metadata->BasicInfo.LastWriteTime.QuadPart, 116444736040000000);
  EXPECT_EQ(call.metadata->BasicInfo.FileAttributes, 0u);
  EXPECT_EQ(call.metadata->FileSize.QuadPart, 5000);
  EXPECT_EQ(call.identity, "file-42");
  EXPECT_EQ(call.identityLength, 7u);
  EXPECT_FALSE(call.ranges.has_value());
  EXPECT_EQ(call.rangeCount, 0u);
  EXPECT_EQ(call.flags, CF_UPDATE_FLAG_MARK_IN_SYNC);
  EXPECT_FALSE(call.hasUsn);
  EXPECT_EQ(call.overlapped.address, nullptr);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(PlaceholderUpdateTest, WithoutMetadataSendsAnAllZeroRecord) {
  EXPECT_EQ(CORVWinCFPlaceholderUpdate(placeholder_.Get(), "id", nullptr), 0);

  const auto call = cloud_.Only<UpdatePlaceholderCall>();
  ASSERT_TRUE(call.metadata.has_value());
  const CF_FS_METADATA zero{};
  EXPECT_EQ(RawBytes(*call.metadata), RawBytes(zero));
  EXPECT_EQ(call.identity, "id");
  EXPECT_EQ(call.flags, CF_UPDATE_FLAG_MARK_IN_SYNC);
}

TEST_F(PlaceholderUpdateTest, AnEmptyIdentityHasLengthZero) {
  EXPECT_EQ(CORVWinCFPlaceholderUpdate(placeholder_.Get(), "", nullptr), 0);

  EXPECT_EQ(cloud_.Only<UpdatePlaceholderCall>().identityLength, 0u);
}

TEST_F(PlaceholderUpdateTest, PinsAPinnedPlaceholderAgain) {
  cloud_.SetPlaceholder({.pinState = CF_PIN_STATE_PINNED});

  EXPECT_EQ(CORVWinCFPlaceholderUpdate(placeholder_.Get(), "id", nullptr), 0);

  EXPECT_THAT(cloud_.CallNames(),
              testing::ElementsAre("CfGetPlaceholderInfo", "CfUpdatePlaceholder", "CfSetPinState"));
  const auto call = cloud_.Only<SetPinStateCall>();
  EXPECT_EQ(call.file, File());
  EXPECT_EQ(call.state, CF_PIN_STATE_PINNED);
  EXPECT_EQ(call.flags, CF_SET_PIN_FLAG_RECURSE);
  EXPECT_EQ(call.overlapped.address, nullptr);
}

TEST_F(PlaceholderUpdateTest, JudgesThePinStateFromBeforeTheUpdate) {
  cloud_.SetPlaceholder({.pinState = CF_PIN_STATE_PINNED});
  cloud_.OnCall(CloudFunction::UpdatePlaceholder,
                [this] { cloud_.SetPlaceholder({.pinState = CF_PIN_STATE_UNPINNED}); });

  EXPECT_EQ(CORVWinCFPlaceholderUpdate(placeholder_.Get(), "id", nullptr), 0);

  EXPECT_EQ(cloud_.CallsOf<SetPinStateCall>().size(), 1u);
}

TEST_F(PlaceholderUpdateTest, LeavesEveryOtherPinStateAlone) {
  for (const std::int32_t state : {0, 2, 3, 4}) {
    SCOPED_TRACE(state);
    cloud_.SetPlaceholder({.pinState = state});
    EXPECT_EQ(CORVWinCFPlaceholderUpdate(placeholder_.Get(), "id", nullptr), 0);
  }
  EXPECT_THAT(cloud_.CallsOf<SetPinStateCall>(), testing::IsEmpty());
}

TEST_F(PlaceholderUpdateTest, SucceedsEvenIfPinningAgainFails) {
  cloud_.SetPlaceholder({.pinState = CF_PIN_STATE_PINNED});
  cloud_.FailNext(CloudFunction::SetPinState, kAccessDenied);

  EXPECT_EQ(CORVWinCFPlaceholderUpdate(placeholder_.Get(), "id", nullptr), 0);

  EXPECT_THAT(log_.Lines(), testing::ElementsAre(ExpectedLine(kPlaceholderSource, 273,
                                                              "Failed to pin to local: " + path_)));
}

TEST_F(PlaceholderUpdateTest, GoesOnWhenTheInformationCannotBeRead) {
  cloud_.SetPlaceholder({.pinState = CF_PIN_STATE_PINNED});
  cloud_.FailNext(CloudFunction::GetPlaceholderInfo, kNotACloudFile);

  EXPECT_EQ(CORVWinCFPlaceholderUpdate(placeholder_.Get(), "id", nullptr), 0);

  EXPECT_THAT(cloud_.CallNames(),
              testing::ElementsAre("CfGetPlaceholderInfo", "CfUpdatePlaceholder"));
  EXPECT_THAT(log_.Lines(), testing::ElementsAre(InfoLine(path_, kNotACloudFile)));
}

TEST_F(PlaceholderUpdateTest, LogsARefusalAndDoesNotPin) {
  cloud_.SetPlaceholder({.pinState = CF_PIN_STATE_PINNED});
  cloud_.FailNext(CloudFunction::UpdatePlaceholder, kAccessDenied);

  EXPECT_EQ(CORVWinCFPlaceholderUpdate(placeholder_.Get(), "id", nullptr), -1);

  EXPECT_THAT(cloud_.CallsOf<SetPinStateCall>(), testing::IsEmpty());
  EXPECT_THAT(log_.Lines(), testing::ElementsAre(Line(kAccessDenied, path_)));
}

TEST_F(PlaceholderUpdateTest, LeavesTheHandleOpenWhateverTheResult) {
  for (const HRESULT result : {S_OK, kAccessDenied}) {
    cloud_.Always(CloudFunction::UpdatePlaceholder, result);
    CORVWinCFPlaceholderUpdate(placeholder_.Get(), "id", nullptr);
    EXPECT_EQ(files_.StillOpen(), 1);
  }
}

TEST_F(PlaceholderUpdateTest, RefusesAnObjectThatWasNotOpened) {
  const Placeholder closed(path_);

  EXPECT_EQ(CORVWinCFPlaceholderUpdate(closed.Get(), "id", nullptr), -1);

  EXPECT_THAT(cloud_.Calls(), testing::IsEmpty());
  EXPECT_THAT(log_.Lines(), testing::ElementsAre(
                                ExpectedLine(kPlaceholderSource, 389, "Handle is invalid value")));
}

TEST_F(PlaceholderUpdateTest, DropsEveryReferenceItTook) {
  int left = -1;
  const auto meta = CORVWinCFPlaceholderMetaNew(1, 2, 3, 4, 5, 0);
  CORVWinCFPlaceholderUpdate(placeholder_.Get(), "id", meta);
  {
    const HeapWatch heap;
    CORVWinCFPlaceholderUpdate(placeholder_.Get(), "id", meta);
    CORVWinCFPlaceholderUpdate(placeholder_.Get(), "id", nullptr);
    left = heap.LiveBlocks();
  }
  EXPECT_EQ(left, 0);
  CORVWinCFPlaceholderMetaRelease(meta);
}

TEST_F(PlaceholderUpdateTest, KeepsTheMetadataAliveIfItIsReleasedMeanwhile) {
  const auto meta = CORVWinCFPlaceholderMetaNew(1, 2, 3, 4, 5000, 0);
  cloud_.OnCall(CloudFunction::GetPlaceholderInfo,
                [meta] { CORVWinCFPlaceholderMetaRelease(meta); });
  std::int64_t size = 0;
  {
    // Freed memory is overwritten while the heap is watched.
    const HeapWatch heap;
    EXPECT_EQ(CORVWinCFPlaceholderUpdate(placeholder_.Get(), "id", meta), 0);
    size = cloud_.Only<UpdatePlaceholderCall>().metadata->FileSize.QuadPart;
  }
  EXPECT_EQ(size, 5000);
}

class PlaceholderConvertTest : public OpenPlaceholderTest {};

TEST_F(PlaceholderConvertTest, ConvertsInSyncAndThenUnpins) {
  EXPECT_EQ(CORVWinCFPlaceholderConvertToPlaceholder(placeholder_.Get(), "file-42"), 0);

  EXPECT_THAT(cloud_.CallNames(), testing::ElementsAre("CfConvertToPlaceholder", "CfSetPinState"));
  const auto convert = cloud_.Only<ConvertToPlaceholderCall>();
  EXPECT_EQ(convert.file, File());
  EXPECT_EQ(convert.identity, "file-42");
  EXPECT_EQ(convert.identityLength, 7u);
  EXPECT_EQ(convert.flags, CF_CONVERT_FLAG_MARK_IN_SYNC);
  EXPECT_FALSE(convert.hasUsn);
  EXPECT_EQ(convert.overlapped.address, nullptr);
  const auto pin = cloud_.Only<SetPinStateCall>();
  EXPECT_EQ(pin.file, File());
  EXPECT_EQ(static_cast<int>(pin.state), 4);
  EXPECT_EQ(pin.flags, CF_SET_PIN_FLAG_RECURSE);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
  EXPECT_EQ(files_.StillOpen(), 1);
}

TEST_F(PlaceholderConvertTest, AnEmptyIdentityHasLengthZero) {
  EXPECT_EQ(CORVWinCFPlaceholderConvertToPlaceholder(placeholder_.Get(), ""), 0);

  EXPECT_EQ(cloud_.Only<ConvertToPlaceholderCall>().identityLength, 0u);
}

TEST_F(PlaceholderConvertTest, PassesIdentitiesInUtf8BytesUnchanged) {
  const std::string identity = "\xC3\xA9\xF0\x9F\x98\x80" + std::string(4090, 'i');
  EXPECT_EQ(CORVWinCFPlaceholderConvertToPlaceholder(placeholder_.Get(), identity.c_str()), 0);

  EXPECT_EQ(cloud_.Only<ConvertToPlaceholderCall>().identity, identity);
}

TEST_F(PlaceholderConvertTest, LogsARefusalAndDoesNotUnpin) {
  cloud_.FailNext(CloudFunction::ConvertToPlaceholder, static_cast<HRESULT>(0x80004005));

  EXPECT_EQ(CORVWinCFPlaceholderConvertToPlaceholder(placeholder_.Get(), "id"), -1);

  EXPECT_THAT(cloud_.CallsOf<SetPinStateCall>(), testing::IsEmpty());
  EXPECT_THAT(log_.Lines(),
              testing::ElementsAre(ExpectedLine(kPlaceholderSource, 332,
                                                "Failed to convert to placeholder. -2147467259")));
}

TEST_F(PlaceholderConvertTest, SucceedsEvenIfUnpinningFails) {
  cloud_.FailNext(CloudFunction::SetPinState, kAccessDenied);

  EXPECT_EQ(CORVWinCFPlaceholderConvertToPlaceholder(placeholder_.Get(), "id"), 0);

  EXPECT_THAT(log_.Lines(), testing::ElementsAre(ExpectedLine(kPlaceholderSource, 273,
                                                              "Failed to pin to local: " + path_)));
}

TEST_F(PlaceholderConvertTest, PassesTheInvalidHandleOnWhenNotOpened) {
  const Placeholder closed(path_);
  cloud_.FailNext(CloudFunction::ConvertToPlaceholder, static_cast<HRESULT>(0x80070006));

  EXPECT_EQ(CORVWinCFPlaceholderConvertToPlaceholder(closed.Get(), "id"), -1);

  EXPECT_EQ(cloud_.Only<ConvertToPlaceholderCall>().file, INVALID_HANDLE_VALUE);
}

class PlaceholderRevertTest : public OpenPlaceholderTest {};

TEST_F(PlaceholderRevertTest, RevertsWithoutFlags) {
  EXPECT_EQ(CORVWinCFPlaceholderRevertToNormal(placeholder_.Get()), 0);

  EXPECT_THAT(cloud_.CallNames(), testing::ElementsAre("CfRevertPlaceholder"));
  const auto call = cloud_.Only<RevertPlaceholderCall>();
  EXPECT_EQ(call.file, File());
  EXPECT_EQ(call.flags, CF_REVERT_FLAG_NONE);
  EXPECT_EQ(call.overlapped.address, nullptr);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
  EXPECT_EQ(files_.StillOpen(), 1);
}

TEST_F(PlaceholderRevertTest, LogsARefusal) {
  cloud_.FailNext(CloudFunction::RevertPlaceholder, kAccessDenied);

  EXPECT_EQ(CORVWinCFPlaceholderRevertToNormal(placeholder_.Get()), -1);

  EXPECT_THAT(log_.Lines(), testing::ElementsAre(ExpectedLine(
                                kPlaceholderSource, 313,
                                "Failed to revert placeholder to normal file, hr=-2147024891")));
}

}  // namespace
}  // namespace nimbra_test
