// Placeholder states from attributes, and protected handles.

#include "sync-root-fixture.h"

namespace conformance {
namespace {

TEST(State, DocumentedOrdinaryFilesHaveNone) {
  EXPECT_EQ(CfGetPlaceholderStateFromAttributeTag(FILE_ATTRIBUTE_ARCHIVE, 0),
            CF_PLACEHOLDER_STATE_NO_STATES);
  EXPECT_EQ(
      CfGetPlaceholderStateFromAttributeTag(FILE_ATTRIBUTE_REPARSE_POINT, IO_REPARSE_TAG_SYMLINK),
      CF_PLACEHOLDER_STATE_NO_STATES);
}

TEST(State, DocumentedDisguisedPlaceholdersHaveNone) {
  EXPECT_EQ(CfGetPlaceholderStateFromAttributeTag(FILE_ATTRIBUTE_ARCHIVE, IO_REPARSE_TAG_CLOUD_6),
            CF_PLACEHOLDER_STATE_NO_STATES);
}

TEST(State, DocumentedAllTagsOfTheFamilyArePlaceholders) {
  for (DWORD tag = IO_REPARSE_TAG_CLOUD; tag <= IO_REPARSE_TAG_CLOUD_F; tag += 0x1000) {
    EXPECT_TRUE(CfGetPlaceholderStateFromAttributeTag(0x420, tag) &
                CF_PLACEHOLDER_STATE_PLACEHOLDER)
        << std::hex << tag;
  }
}

TEST(State, DocumentedMissingDataImplyPartial) {
  const auto state = CfGetPlaceholderStateFromAttributeTag(0x401620, IO_REPARSE_TAG_CLOUD_4);
  EXPECT_TRUE(state & CF_PLACEHOLDER_STATE_PARTIALLY_ON_DISK);
  EXPECT_TRUE(state & CF_PLACEHOLDER_STATE_PARTIAL);
  EXPECT_FALSE(CfGetPlaceholderStateFromAttributeTag(0x420, IO_REPARSE_TAG_CLOUD_6) &
               CF_PLACEHOLDER_STATE_PARTIALLY_ON_DISK);
}

TEST(State, DocumentedFindDataCarryTheTagInTheReservedField) {
  WIN32_FIND_DATAW data{};
  data.dwFileAttributes = 0x420;
  data.dwReserved0 = IO_REPARSE_TAG_CLOUD_6;
  EXPECT_EQ(CfGetPlaceholderStateFromFindData(&data),
            CfGetPlaceholderStateFromAttributeTag(0x420, IO_REPARSE_TAG_CLOUD_6));
}

TEST(State, DocumentedInformationWithoutATagIsInvalid) {
  const FILE_BASIC_INFO basic{};
  SetLastError(ERROR_SUCCESS);
  EXPECT_EQ(CfGetPlaceholderStateFromFileInfo(&basic, FileBasicInfo), CF_PLACEHOLDER_STATE_INVALID);
  EXPECT_NE(GetLastError(), DWORD{ERROR_SUCCESS});
}

TEST(State, DocumentedInformationWithATagIsRead) {
  const FILE_ATTRIBUTE_TAG_INFO tag{0x420, IO_REPARSE_TAG_CLOUD_6};
  const auto expected = CfGetPlaceholderStateFromAttributeTag(0x420, IO_REPARSE_TAG_CLOUD_6);
  EXPECT_EQ(CfGetPlaceholderStateFromFileInfo(&tag, FileAttributeTagInfo), expected);
  FILE_ID_BOTH_DIR_INFO entry{};
  entry.FileAttributes = 0x420;
  entry.EaSize = IO_REPARSE_TAG_CLOUD_6;
  EXPECT_EQ(CfGetPlaceholderStateFromFileInfo(&entry, FileIdBothDirectoryInfo), expected);
}

class ProtectedHandles : public SyncRootTest {};

TEST_F(ProtectedHandles, DocumentedServeInPlaceOfFileHandles) {
  ASSERT_EQ(Create({}), S_OK);
  HANDLE handle = nullptr;
  ASSERT_EQ(CfOpenFileWithOplock(At(L"file.bin").c_str(), CF_OPEN_FILE_FLAG_WRITE_ACCESS, &handle),
            S_OK);
  EXPECT_EQ(InfoOf(handle).identity, "identity-1");
  ASSERT_TRUE(CfReferenceProtectedHandle(handle));
  const HANDLE file = CfGetWin32HandleFromProtectedHandle(handle);
  LARGE_INTEGER size{};
  EXPECT_TRUE(GetFileSizeEx(file, &size));
  EXPECT_EQ(size.QuadPart, 10000);
  CfReleaseProtectedHandle(handle);
  CfCloseHandle(handle);
  EXPECT_FALSE(CfReferenceProtectedHandle(handle));
  EXPECT_EQ(InfoOf(handle).result, Win32(ERROR_INVALID_HANDLE));
}

TEST_F(ProtectedHandles, DocumentedStayOpenWhileTheyAreReferenced) {
  ASSERT_EQ(Create({}), S_OK);
  HANDLE handle = nullptr;
  ASSERT_EQ(CfOpenFileWithOplock(At(L"file.bin").c_str(), CF_OPEN_FILE_FLAG_NONE, &handle), S_OK);
  ASSERT_TRUE(CfReferenceProtectedHandle(handle));
  const HANDLE file = CfGetWin32HandleFromProtectedHandle(handle);
  CfCloseHandle(handle);
  LARGE_INTEGER size{};
  EXPECT_TRUE(GetFileSizeEx(file, &size));
  CfReleaseProtectedHandle(handle);
  EXPECT_FALSE(GetFileSizeEx(file, &size));
}

TEST_F(ProtectedHandles, DocumentedExclusiveOnesShareTheFileWithNobody) {
  ASSERT_EQ(Create({}), S_OK);
  HANDLE handle = nullptr;
  ASSERT_EQ(CfOpenFileWithOplock(At(L"file.bin").c_str(), CF_OPEN_FILE_FLAG_EXCLUSIVE, &handle),
            S_OK);
  EXPECT_FALSE(File(At(L"file.bin"), GENERIC_READ).IsOpen());
  EXPECT_EQ(GetLastError(), DWORD{ERROR_SHARING_VIOLATION});
  CfCloseHandle(handle);
  EXPECT_TRUE(File(At(L"file.bin"), GENERIC_READ).IsOpen());
}

TEST_F(ProtectedHandles, ObservedPlainHandlesStandForThemselves) {
  ASSERT_EQ(Create({}), S_OK);
  const File file(At(L"file.bin"));
  EXPECT_TRUE(CfReferenceProtectedHandle(file.Get()));
  EXPECT_EQ(CfGetWin32HandleFromProtectedHandle(file.Get()), file.Get());
  CfReleaseProtectedHandle(file.Get());
  EXPECT_EQ(InfoOf(file.Get()).result, S_OK);
}

TEST_F(ProtectedHandles, DocumentedAMissingFileIsNotOpened) {
  HANDLE handle = nullptr;
  EXPECT_EQ(CfOpenFileWithOplock(At(L"none").c_str(), CF_OPEN_FILE_FLAG_NONE, &handle),
            Win32(ERROR_FILE_NOT_FOUND));
}

}  // namespace
}  // namespace conformance
