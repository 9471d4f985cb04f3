#include <windows.h>

#include <ostream>
#include <string>

#include "nimbra/nimbra.h"
#include "tests/support/nimbra-test.h"
#include "tests/support/sync-root-handles.h"
#include "tests/unit/open-placeholder.h"

namespace nimbra_test {
namespace {

struct PinRow {
  const char* name;
  CORVWinCFStatus (*call)(CORVWinCFPlaceholderHandle);
  int state;
};

void PrintTo(const PinRow& row, std::ostream* out) { *out << row.name; }

class PinTest : public OpenPlaceholderTest, public testing::WithParamInterface<PinRow> {};

TEST_P(PinTest, SetsItsStateForTheWholeSubtree) {
  EXPECT_EQ(GetParam().call(placeholder_.Get()), 0);

  EXPECT_THAT(cloud_.CallNames(), testing::ElementsAre("CfSetPinState"));
  const auto call = cloud_.Only<SetPinStateCall>();
  EXPECT_EQ(call.file, File());
  EXPECT_EQ(static_cast<int>(call.state), GetParam().state);
  EXPECT_EQ(call.flags, CF_SET_PIN_FLAG_RECURSE);
  EXPECT_EQ(call.overlapped.address, nullptr);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_P(PinTest, TakesEveryNonNegativeResultAsSuccess) {
  cloud_.FailNext(CloudFunction::SetPinState, S_FALSE);

  EXPECT_EQ(GetParam().call(placeholder_.Get()), 0);

  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_P(PinTest, ARefusalIsOneLogLine) {
  cloud_.FailNext(CloudFunction::SetPinState, kAccessDenied);

  EXPECT_EQ(GetParam().call(placeholder_.Get()), -1);

  const std::string expected =
      GetParam().state == CF_PIN_STATE_EXCLUDED
          ? ExpectedLine(kPlaceholderSource, 256, "Failed to set excluded.-2147024891")
          : ExpectedLine(kPlaceholderSource, 273, "Failed to pin to local: " + path_);
  EXPECT_THAT(log_.Lines(), testing::ElementsAre(expected));
}

TEST_P(PinTest, AHandleNeverOpenedIsPassedOnAsInvalid) {
  const Placeholder closed(path_);
  cloud_.FailNext(CloudFunction::SetPinState, static_cast<HRESULT>(0x80070006));

  EXPECT_EQ(GetParam().call(closed.Get()), -1);

  EXPECT_EQ(cloud_.Only<SetPinStateCall>().file, INVALID_HANDLE_VALUE);
  EXPECT_EQ(log_.Lines().size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Exports, PinTest,
                         testing::Values(PinRow{"PinToLocal", &CORVWinCFPlaceholderPinToLocal, 1},
                                         PinRow{"Unpin", &CORVWinCFPlaceholderUnpin, 4},
                                         PinRow{"ForceUnpin", &CORVWinCFPlaceholderForceUnpin, 0},
                                         PinRow{"SetExcluded", &CORVWinCFPlaceholderSetExcluded,
                                                3}),
                         testing::PrintToStringParamName());

struct SyncRow {
  const char* name;
  CORVWinCFStatus (*call)(CORVWinCFPlaceholderHandle);
  int state;
};

void PrintTo(const SyncRow& row, std::ostream* out) { *out << row.name; }

class InSyncTest : public OpenPlaceholderTest, public testing::WithParamInterface<SyncRow> {};

TEST_P(InSyncTest, SetsItsStateWithoutFlagsOrUsn) {
  EXPECT_EQ(GetParam().call(placeholder_.Get()), 0);

  EXPECT_THAT(cloud_.CallNames(), testing::ElementsAre("CfSetInSyncState"));
  const auto call = cloud_.Only<SetInSyncStateCall>();
  EXPECT_EQ(call.file, File());
  EXPECT_EQ(static_cast<int>(call.state), GetParam().state);
  EXPECT_EQ(call.flags, CF_SET_IN_SYNC_FLAG_NONE);
  EXPECT_FALSE(call.hasUsn);
}

TEST_P(InSyncTest, TakesEveryNonNegativeResultAsSuccess) {
  cloud_.FailNext(CloudFunction::SetInSyncState, S_FALSE);

  EXPECT_EQ(GetParam().call(placeholder_.Get()), 0);
}

TEST_P(InSyncTest, ARefusalIsSilent) {
  cloud_.FailNext(CloudFunction::SetInSyncState, kAccessDenied);

  EXPECT_EQ(GetParam().call(placeholder_.Get()), -1);

  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_P(InSyncTest, AHandleNeverOpenedIsPassedOnAsInvalid) {
  const Placeholder closed(path_);
  cloud_.FailNext(CloudFunction::SetInSyncState, static_cast<HRESULT>(0x80070006));

  EXPECT_EQ(GetParam().call(closed.Get()), -1);

  EXPECT_EQ(cloud_.Only<SetInSyncStateCall>().file, INVALID_HANDLE_VALUE);
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Exports, InSyncTest,
                         testing::Values(SyncRow{"SetInSync", &CORVWinCFPlaceholderSetInSync, 1},
                                         SyncRow{"SetNotInSync", &CORVWinCFPlaceholderSetNotInSync,
                                                 0}),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace nimbra_test
