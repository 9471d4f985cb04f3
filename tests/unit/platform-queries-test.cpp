#include <cstdint>

#include "nimbra/nimbra.h"
#include "tests/support/nimbra-test.h"

namespace nimbra_test {
namespace {

constexpr std::uint32_t kPoison = 0xCCCCCCCC;

class PlatformInfoTest : public NimbraTest {
 protected:
  // Room behind the record shows writes past it.
  struct {
    CORVWinCFPlatformInfo info{kPoison, kPoison, kPoison};
    std::uint32_t after = kPoison;
  } output_;
};

TEST_F(PlatformInfoTest, CopiesBuildRevisionAndIntegrationNumbersInThatOrder) {
  cloud_.SetPlatform({19041, 1234, 0x600});

  EXPECT_EQ(CORVWinCFGetPlatformInfo(&output_.info), 0);

  EXPECT_EQ(output_.info.buildNumber, 19041u);
  EXPECT_EQ(output_.info.revisionNumber, 1234u);
  EXPECT_EQ(output_.info.integrationNumber, 0x600u);
  EXPECT_EQ(output_.after, kPoison);
  EXPECT_THAT(cloud_.CallNames(), testing::ElementsAre("CfGetPlatformInfo"));
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(PlatformInfoTest, KeepsAll32BitsOfEachNumber) {
  cloud_.SetPlatform({0xFFFFFFFF, 0x80000000, 0xFFFFFFFE});

  EXPECT_EQ(CORVWinCFGetPlatformInfo(&output_.info), 0);

  EXPECT_EQ(output_.info.buildNumber, 0xFFFFFFFFu);
  EXPECT_EQ(output_.info.revisionNumber, 0x80000000u);
  EXPECT_EQ(output_.info.integrationNumber, 0xFFFFFFFEu);
}

TEST_F(PlatformInfoTest, GivesZerosAndSuccessWithoutALogLineWhenThePlatformRefuses) {
  cloud_.SetPlatform({19041, 1234, 0x600});
  for (const HRESULT failure : {kAccessDenied, E_NOTIMPL, static_cast<HRESULT>(0x8007007E)}) {
    SCOPED_TRACE(failure);
    output_.info = {kPoison, kPoison, kPoison};
    cloud_.FailNext(CloudFunction::GetPlatformInfo, failure);

    EXPECT_EQ(CORVWinCFGetPlatformInfo(&output_.info), 0);

    EXPECT_EQ(output_.info.buildNumber, 0u);
    EXPECT_EQ(output_.info.revisionNumber, 0u);
    EXPECT_EQ(output_.info.integrationNumber, 0u);
    EXPECT_EQ(output_.after, kPoison);
  }
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

TEST_F(PlatformInfoTest, TakesEveryNonNegativeResultAsSuccess) {
  cloud_.SetPlatform({1, 2, 3});
  cloud_.FailNext(CloudFunction::GetPlatformInfo, S_FALSE);

  EXPECT_EQ(CORVWinCFGetPlatformInfo(&output_.info), 0);

  EXPECT_EQ(output_.info.integrationNumber, 3u);
}

TEST_F(PlatformInfoTest, AsksThePlatformAgainOnEachCall) {
  cloud_.SetPlatform({1, 2, 3});
  EXPECT_EQ(CORVWinCFGetPlatformInfo(&output_.info), 0);
  cloud_.SetPlatform({4, 5, 6});
  EXPECT_EQ(CORVWinCFGetPlatformInfo(&output_.info), 0);

  EXPECT_EQ(output_.info.buildNumber, 4u);
  EXPECT_EQ(cloud_.Calls().size(), 2u);
}

TEST_F(PlatformInfoTest, LeavesTheRecordAloneOnAWindowsWithoutStreaming) {
  windows_.Become(kBuildWithoutStreaming);

  EXPECT_EQ(CORVWinCFGetPlatformInfo(&output_.info), -1);

  EXPECT_EQ(output_.info.buildNumber, kPoison);
  EXPECT_EQ(output_.info.revisionNumber, kPoison);
  EXPECT_EQ(output_.info.integrationNumber, kPoison);
  EXPECT_THAT(cloud_.Calls(), testing::IsEmpty());
  EXPECT_THAT(log_.Lines(), testing::IsEmpty());
}

}  // namespace
}  // namespace nimbra_test
