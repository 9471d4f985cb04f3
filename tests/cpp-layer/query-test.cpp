// The functions that belong to no object: platform, paths, the Explorer entry, thumbnails.

#include <array>
#include <optional>
#include <stdexcept>

#include "cpp-layer-test.h"

// Of the platform's structure only the address matters here.
struct _WIN32_FIND_DATAW {};  // NOLINT(bugprone-reserved-identifier)

namespace {

using cpp_layer_test::kFailure;
using cpp_layer_test::kGuid;
using cpp_layer_test::kWithZero;
using cpp_layer_test::Part;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Optional;

class QueryTest : public cpp_layer_test::CppLayerTest {
 protected:
  const std::string path_ = "C:\\Sync and more";
  const std::string_view part_ = Part(path_, 7);
};

TEST_F(QueryTest, TellsWhatTheWindowsVersionAllows) {
  EXPECT_FALSE(nimbra::IsFileStreamingSupported());
  EXPECT_FALSE(nimbra::IsFileStreamingOptionHidden());
  EXPECT_FALSE(nimbra::IsFileStreamingDefault());
  for (const auto* name :
       {"SupportFileStreaming", "DisableUIFileStreamingOption", "DefaultFileStreaming"}) {
    nimbra_.Answer(std::string("IsWinVersion") + name, 1);
  }
  nimbra_.Take();
  EXPECT_TRUE(nimbra::IsFileStreamingSupported());
  EXPECT_TRUE(nimbra::IsFileStreamingOptionHidden());
  EXPECT_TRUE(nimbra::IsFileStreamingDefault());
  EXPECT_THAT(nimbra_.Take(), ElementsAre("IsWinVersionSupportFileStreaming()",
                                          "IsWinVersionDisableUIFileStreamingOption()",
                                          "IsWinVersionDefaultFileStreaming()"));
}

TEST_F(QueryTest, GivesThePlatformsVersionUnlessTheGateIsClosed) {
  const auto info = nimbra::GetPlatformInfo();
  ASSERT_TRUE(info.has_value());
  EXPECT_EQ(info->buildNumber, 19041U);
  EXPECT_EQ(info->revisionNumber, 2U);
  EXPECT_EQ(info->integrationNumber, 3U);
  nimbra_.Answer("GetPlatformInfo", kFailure);
  EXPECT_FALSE(nimbra::GetPlatformInfo().has_value());
  EXPECT_THAT(nimbra_.Take(), ElementsAre("GetPlatformInfo()", "GetPlatformInfo()"));
}

TEST_F(QueryTest, GivesASyncRootsIdentityWithoutTheZerosAtItsEnd) {
  for (const auto& identity : {std::string(), std::string("session.12"), std::string("a\0b", 3),
                               std::string(64480, 'x')}) {
    nimbra_.SetIdentity(identity);
    EXPECT_THAT(nimbra::GetSyncRootIdentity(part_), Optional(identity));
  }
  EXPECT_EQ(nimbra_.Take().front(), "GetSyncRootIdentityByPath(\"C:\\Sync\")");
  nimbra_.Answer("GetSyncRootIdentityByPath", kFailure);
  EXPECT_EQ(nimbra::GetSyncRootIdentity(part_), std::nullopt);
}

TEST_F(QueryTest, AsksWhoseSyncRootAPathIsIn) {
  EXPECT_TRUE(nimbra::IsInSyncRoot(part_));
  EXPECT_FALSE(nimbra::IsInForeignSyncRoot(part_));
  nimbra_.Answer("GetSyncRootIdentityByPath", kFailure);
  nimbra_.Answer("IsPathUnderCorvDriveSyncRoot", kFailure);
  EXPECT_FALSE(nimbra::IsInSyncRoot(kWithZero));
  EXPECT_TRUE(nimbra::IsInForeignSyncRoot(part_));
  EXPECT_THAT(nimbra_.Take(), ElementsAre("GetSyncRootIdentityByPath(\"C:\\Sync\")",
                                          "IsPathUnderCorvDriveSyncRoot(\"C:\\Sync\")",
                                          "GetSyncRootIdentityByPath(null)",
                                          "IsPathUnderCorvDriveSyncRoot(\"C:\\Sync\")"));
}

TEST_F(QueryTest, AsksWhatIsAtAPath) {
  const _WIN32_FIND_DATAW findData{};
  const std::wstring wide = L"C:\\Sync and more";
  const auto wideZero = std::wstring(L"a\0b", 3);
  const auto ask = [&] {
    return std::array{nimbra::IsPlaceholder(part_), nimbra::IsPlaceholder(findData),
                      nimbra::IsFullyHydrated(part_),
                      nimbra::IsFullyHydrated(std::wstring_view(wide).substr(0, 7))};
  };
  EXPECT_THAT(ask(), ElementsAre(true, true, true, true));
  const auto address = std::to_string(reinterpret_cast<std::uintptr_t>(&findData));
  EXPECT_THAT(nimbra_.Take(),
              ElementsAre("IsPlaceholder(\"C:\\Sync\")", "IsPlaceholderByFindData(" + address + ")",
                          "IsFullyHydrated(\"C:\\Sync\")", "IsFullyHydratedW(L\"C:\\Sync\")"));
  for (const auto* name :
       {"IsPlaceholder", "IsPlaceholderByFindData", "IsFullyHydrated", "IsFullyHydratedW"}) {
    nimbra_.Answer(name, kFailure);
  }
  EXPECT_THAT(ask(), ElementsAre(false, false, false, false));
  nimbra_.Take();
  EXPECT_FALSE(nimbra::IsPlaceholder(kWithZero));
  EXPECT_FALSE(nimbra::IsFullyHydrated(kWithZero));
  EXPECT_FALSE(nimbra::IsFullyHydrated(wideZero));
  EXPECT_THAT(nimbra_.Take(), ElementsAre("IsPlaceholder(null)", "IsFullyHydrated(null)",
                                          "IsFullyHydratedW(null)"));
}

class ExplorerEntryTest : public cpp_layer_test::CppLayerTest {};

TEST_F(ExplorerEntryTest, GivesTheTextOfAGuidBack) {
  EXPECT_THAT(nimbra::GenerateGuid(), Optional(std::string(kGuid)));
  nimbra_.Answer("GenerateGuid", kFailure);
  EXPECT_EQ(nimbra::GenerateGuid(), std::nullopt);
  EXPECT_THAT(nimbra_.Take(), ElementsAre("GenerateGuid()", "ReleaseGuid()", "GenerateGuid()"));
}

TEST_F(ExplorerEntryTest, IsRegisteredAndUnregisteredWithTheSameArguments) {
  const nimbra::ExplorerEntry entry{"C:\\Sync", kGuid, 18446744073709551615U, "name", "home", "/a"};
  EXPECT_TRUE(entry.Register());
  EXPECT_TRUE(entry.Unregister());
  nimbra_.Answer("SyncEngineRegister", kFailure);
  nimbra_.Answer("SyncEngineUnregister", kFailure);
  EXPECT_FALSE(entry.Register());
  EXPECT_FALSE(entry.Unregister());
  const auto arguments =
      R"(("C:\Sync", ")" + std::string(kGuid) + R"(", 18446744073709551615, "name", "home", "/a"))";
  EXPECT_THAT(nimbra_.Take(),
              ElementsAre("SyncEngineRegister" + arguments, "SyncEngineUnregister" + arguments,
                          "SyncEngineRegister" + arguments, "SyncEngineUnregister" + arguments));
}

TEST_F(ExplorerEntryTest, HandsTextWithAZeroByteOnAsNone) {
  nimbra_.Answer("SyncEngineRegister", kFailure);
  EXPECT_FALSE((nimbra::ExplorerEntry{"C:\\Sync", kGuid, 1, kWithZero, "home"}).Register());
  EXPECT_THAT(nimbra_.Take(), ElementsAre(HasSubstr(R"(1, null, "home", "/"))")));
}

TEST_F(ExplorerEntryTest, IsRemovedByItsIdentifier) {
  const std::string clsid = std::string(kGuid) + "more";
  EXPECT_TRUE(nimbra::UnregisterSystemFolder(Part(clsid, sizeof kGuid - 1)));
  nimbra_.Answer("SyncEngineUnregisterSystemFolder", kFailure);
  EXPECT_FALSE(nimbra::UnregisterSystemFolder(kGuid));
  const auto call = "SyncEngineUnregisterSystemFolder(\"" + std::string(kGuid) + "\")";
  EXPECT_THAT(nimbra_.Take(), ElementsAre(call, call));
}

// Each item's name says what becomes of it.
std::optional<std::wstring> Find(std::wstring_view item) {
  if (item == L"none") {
    return std::nullopt;
  }
  if (item == L"exception") {
    throw std::runtime_error("no preview");
  }
  if (item == L"number") {
    throw 1;  // NOLINT(hicpp-exception-baseclass): a client may
  }
  return item == L"longest"    ? std::wstring(259, L'x')
         : item == L"too long" ? std::wstring(260, L'x')
                               : L"C:\\" + std::wstring(item);
}

class ThumbnailTest : public cpp_layer_test::CppLayerTest {
 protected:
  // What the library would get for an item: nothing, or the buffer up to its terminator.
  [[nodiscard]] std::optional<std::wstring> Ask(const wchar_t* item) const {
    std::array<wchar_t, 261> buffer{};
    buffer.back() = L'!';
    const bool isFound = nimbra_.Retriever()(item, buffer.data());
    EXPECT_EQ(buffer.back(), L'!');
    const std::wstring found = buffer.data();
    EXPECT_EQ(isFound, !found.empty());
    return isFound ? std::optional(found) : std::nullopt;
  }
};

TEST_F(ThumbnailTest, AreFoundByAFunctionThatGivesAPath) {
  nimbra::SetThumbnailRetriever<Find>();
  EXPECT_THAT(Ask(L"a.png"), Optional(std::wstring(L"C:\\a.png")));
  EXPECT_THAT(Ask(L"longest"), Optional(std::wstring(259, L'x')));
  EXPECT_EQ(Ask(L"too long"), std::nullopt);
  EXPECT_EQ(Ask(L"none"), std::nullopt);
  EXPECT_THAT(nimbra_.Take(), ElementsAre("SetThumbRetrieverCb()"));
}

TEST_F(ThumbnailTest, AreNotThereWhenTheFunctionThrows) {
  nimbra::SetThumbnailRetriever<&Find>();
  EXPECT_EQ(Ask(L"exception"), std::nullopt);
  EXPECT_EQ(Ask(L"number"), std::nullopt);
}

TEST_F(ThumbnailTest, EndWithTheFunction) {
  nimbra::SetThumbnailRetriever<Find>();
  nimbra::ClearThumbnailRetriever();
  EXPECT_EQ(nimbra_.Retriever(), nullptr);
}

TEST_F(ThumbnailTest, AreServedFromThisProcess) {
  nimbra::StartShellServices();
  EXPECT_THAT(nimbra_.Take(), ElementsAre("StartShellServices()"));
  nimbra_.Answer("StartShellServices", kFailure);
  EXPECT_THROW(nimbra::StartShellServices(), std::runtime_error);
}

}  // namespace
