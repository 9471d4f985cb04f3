#include <gtest/gtest.h>

#include <cstring>

#include "common/installation.h"
#include "fake-cloud.h"
#include "win-cf/placeholder-info.h"
#include "win-cf/placeholder.h"
#include "win-cf/sync-root.h"
#include "windows-stand-in.h"

namespace nimbra_native {
namespace {

using corvdrive::cloud_filter::Cloud;
using corvdrive::cloud_filter::PlaceholderInfoWinCF;
using corvdrive::cloud_filter::PlaceholderWinCF;
using corvdrive::cloud_filter::SyncRootWinCF;

class NativePlatform : public testing::Test {
 protected:
  NativePlatform() { Windows() = {}; }
};

TEST_F(NativePlatform, WithoutTheDllEveryFunctionFailsWithTheWin32Error) {
  CF_PLATFORM_INFO info{};
  EXPECT_EQ(Cloud().CfGetPlatformInfo(&info), HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND));
  EXPECT_EQ(Cloud().CfUnregisterSyncRoot(Wide(u"C:\\x").c_str()), static_cast<HRESULT>(0x8007007E));
  EXPECT_EQ(Cloud().CfReferenceProtectedHandle(nullptr), FALSE);
  EXPECT_EQ(Cloud().CfGetWin32HandleFromProtectedHandle(nullptr), INVALID_HANDLE_VALUE);
  EXPECT_EQ(Cloud().CfGetPlaceholderStateFromFindData(nullptr), CF_PLACEHOLDER_STATE_NO_STATES);
  Cloud().CfReleaseProtectedHandle(nullptr);
}

// The answer of a platform that claims an identity of `length` bytes.
std::string AnswerClaiming(std::uint32_t length) {
  std::string answer(4160, 'i');
  std::memcpy(answer.data() + offsetof(CF_PLACEHOLDER_STANDARD_INFO, FileIdentityLength), &length,
              sizeof length);
  return answer;
}

TEST_F(NativePlatform, AnIdentityThatClaimsToBeLongerThanTheAnswerEndsWithIt) {
  FakeCloud cloud;
  PlaceholderWinCF placeholder("C:/a");
  ASSERT_TRUE(placeholder.Open());
  for (const std::uint32_t length : {0U, 1U, 4096U}) {
    cloud.placeholderInfo = AnswerClaiming(length);
    EXPECT_EQ(PlaceholderInfoWinCF(&placeholder).FileIdentity(), std::string(length, 'i'));
  }
  constexpr std::size_t kRoom = 4160 - offsetof(CF_PLACEHOLDER_STANDARD_INFO, FileIdentity);
  for (const std::uint32_t length : {4161U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
    cloud.placeholderInfo = AnswerClaiming(length);
    EXPECT_EQ(PlaceholderInfoWinCF(&placeholder).FileIdentity(), std::string(kRoom, 'i'));
  }
}

// One piece after the other, with nothing but zeros behind each.
void ExpectCleanPieces(const FakeCloud& cloud) {
  std::int64_t offset = 0;
  for (const auto& [info, parameters, dirtyTail] : cloud.executed) {
    EXPECT_EQ(parameters.TransferData.Offset.QuadPart, offset);
    EXPECT_EQ(dirtyTail, 0U);
    offset += parameters.TransferData.Length.QuadPart;
  }
}

// Transfers a file of that size and looks at what the platform was given.
void ExpectTransfer(std::size_t size) {
  constexpr std::int64_t kChunk = std::int64_t{4} << 20;
  FakeCloud cloud;
  cloud.bufferSize = static_cast<std::size_t>(kChunk);
  std::string content(size, 'd');
  if (!content.empty()) content.back() = 'e';
  Windows().fileContent = content;
  PlaceholderWinCF placeholder("C:/a");
  ASSERT_TRUE(placeholder.Open());
  SyncRootWinCF root("C:\\", "", "");

  EXPECT_TRUE(root.ProactiveTransfer(placeholder, "C:\\local"));

  EXPECT_TRUE(cloud.transferred == content);
  ExpectCleanPieces(cloud);
  EXPECT_EQ(cloud.transferKeys, 0) << "the transfer key was not released";
  EXPECT_EQ(Windows().openHandles, 1) << "only the placeholder is still open";
}

class NativeTransfer : public NativePlatform, public testing::WithParamInterface<std::size_t> {};

TEST_P(NativeTransfer, HandsOverTheWholeFileInChunksWithACleanTail) { ExpectTransfer(GetParam()); }

// What an earlier transfer left in a buffer that is used again.
TEST_P(NativeTransfer, DoesSoAfterOthersToo) {
  for (const std::size_t before : {5U << 20, 3U << 20, 1U << 20, 4096U, 1U}) {
    SCOPED_TRACE(before);
    ExpectTransfer(before);
    ExpectTransfer(GetParam());
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, NativeTransfer,
                         testing::Values(0, 1, 1 << 20, (4 << 20) - 1, 4 << 20, (4 << 20) + 1,
                                         9 << 20));

TEST_F(NativePlatform, AnUnavailableFolderGivesAnEmptyPath) {
  EXPECT_EQ(corvdrive::cloud_filter::GetLocalAppDataDir(), "");
  EXPECT_EQ(corvdrive::cloud_filter::GetLauncherPath(), "");
  EXPECT_EQ(corvdrive::cloud_filter::GetCloudDriveUiPath(), "");
}

TEST_F(NativePlatform, AFolderOf259CharactersKeepsThemAll) {
  Windows().folders[CSIDL_LOCAL_APPDATA] = std::u16string(259, u'\x65E5');
  const std::string path = corvdrive::cloud_filter::GetCloudDriveUiPath();
  EXPECT_EQ(path.size(),
            777 + std::strlen(R"(\CorvaneDrive\CorvaneDrive.app\bin\cloud-drive-ui.exe)"));
}

}  // namespace
}  // namespace nimbra_native
