// Creating, converting, updating and reverting placeholders, and what is told about them.

#include <cstddef>
#include <vector>

#include "sync-root-fixture.h"

namespace conformance {
namespace {

class Creating : public SyncRootTest {};

TEST_F(Creating, DocumentedMakesAFileThatHasItsSizeButNoData) {
  ASSERT_EQ(Create({L"file.bin", 123456}), S_OK);
  WIN32_FILE_ATTRIBUTE_DATA attributes{};
  ASSERT_TRUE(GetFileAttributesExW(At(L"file.bin").c_str(), GetFileExInfoStandard, &attributes));
  EXPECT_EQ(attributes.nFileSizeLow, 123456u);
  const ULARGE_INTEGER time{
      {attributes.ftLastWriteTime.dwLowDateTime, attributes.ftLastWriteTime.dwHighDateTime}};
  EXPECT_EQ(time.QuadPart, 132250753220000000u);
  const Info info = InfoOf(At(L"file.bin"));
  ASSERT_EQ(info.result, S_OK);
  EXPECT_EQ(info.standard.OnDiskDataSize.QuadPart, 0);
  EXPECT_EQ(info.standard.ModifiedDataSize.QuadPart, 0);
  EXPECT_EQ(info.standard.PinState, CF_PIN_STATE_UNSPECIFIED);
  EXPECT_EQ(info.standard.InSyncState, CF_IN_SYNC_STATE_IN_SYNC);
  EXPECT_EQ(info.identity, "identity-1");
  EXPECT_TRUE(provider_.Events(CF_CALLBACK_TYPE_FETCH_DATA).empty());
}

TEST_F(Creating, DocumentedMakesFolders) {
  NewFile folder{L"folder", 0, {}, CF_PLACEHOLDER_CREATE_FLAG_DISABLE_ON_DEMAND_POPULATION};
  folder.attributes = FILE_ATTRIBUTE_DIRECTORY;
  ASSERT_EQ(Create(folder), S_OK);
  EXPECT_TRUE(GetFileAttributesW(At(L"folder").c_str()) & FILE_ATTRIBUTE_DIRECTORY);
  EXPECT_EQ(InfoOf(At(L"folder")).result, S_OK);
}

TEST_F(Creating, DocumentedTakesLeafNamesOnly) {
  for (const auto* name : {L"a\\b", L"a/b", L"..", L".", L""}) {
    EXPECT_TRUE(FAILED(Create({name}))) << testing::PrintToString(std::wstring(name));
  }
}

// Windows takes paths beyond MAX_PATH from programs whose manifest says longPathAware, as ours
// does.
TEST_F(Creating, DocumentedTakesLongPaths) {
  NewFile folder{
      std::wstring(200, L'd'), 0, {}, CF_PLACEHOLDER_CREATE_FLAG_DISABLE_ON_DEMAND_POPULATION};
  folder.attributes = FILE_ATTRIBUTE_DIRECTORY;
  ASSERT_EQ(Create(folder), S_OK);
  const std::wstring name(250, L'f');
  ASSERT_EQ(CreateIn(At(folder.name), {name}), S_OK);
  const std::wstring path = At(folder.name) + L"\\" + name;
  EXPECT_EQ(InfoOf(path).identity, "identity-1");
  EXPECT_EQ(InfoOf(L"\\\\?\\" + path).identity, "identity-1");
  EXPECT_EQ(HydrateAll(path), S_OK);
  const auto event = provider_.WaitFor(CF_CALLBACK_TYPE_FETCH_DATA);
  ASSERT_TRUE(event);
  EXPECT_EQ(event->path, path.substr(2));
}

TEST_F(Creating, DocumentedFilesNeedAnIdentityOfAtMost4096Bytes) {
  EXPECT_TRUE(FAILED(Create({L"none.bin", 1, ""})));
  EXPECT_TRUE(FAILED(Create({L"long.bin", 1, std::string(4097, 'i')})));
  EXPECT_EQ(Create({L"most.bin", 1, std::string(4096, 'i')}), S_OK);
  EXPECT_EQ(InfoOf(At(L"most.bin")).identity, std::string(4096, 'i'));
}

TEST_F(Creating, DocumentedNeedsASyncRoot) {
  const std::wstring outside = Root().substr(0, Root().find_last_of(L'\\'));
  EXPECT_EQ(CreateIn(outside, {}), Win32(ERROR_CLOUD_FILE_NOT_UNDER_SYNC_ROOT));
}

TEST_F(Creating, DocumentedTriesAllEntriesAndReturnsTheFirstFailure) {
  const std::vector<NewFile> files = {{L"a"}, {L"b", 1, ""}, {L"c\\d"}, {L"e"}};
  std::vector<CF_PLACEHOLDER_CREATE_INFO> entries = Entries(files);
  DWORD processed = 0;
  const HRESULT result =
      CfCreatePlaceholders(Root().c_str(), entries.data(), 4, CF_CREATE_FLAG_NONE, &processed);
  EXPECT_TRUE(FAILED(result));
  EXPECT_EQ(result, entries[1].Result);
  EXPECT_EQ(processed, 4u);
  EXPECT_EQ(entries[0].Result, S_OK);
  EXPECT_TRUE(FAILED(entries[2].Result));
  EXPECT_EQ(entries[3].Result, S_OK);
  EXPECT_EQ(InfoOf(At(L"e")).result, S_OK);
}

TEST_F(Creating, DocumentedStopsAtTheFirstFailureWhenAskedTo) {
  const std::vector<NewFile> files = {{L"a"}, {L"b", 1, ""}, {L"c"}};
  std::vector<CF_PLACEHOLDER_CREATE_INFO> entries = Entries(files);
  DWORD processed = 0;
  EXPECT_TRUE(FAILED(CfCreatePlaceholders(Root().c_str(), entries.data(), 3,
                                          CF_CREATE_FLAG_STOP_ON_ERROR, &processed)));
  EXPECT_EQ(processed, 2u);
  EXPECT_EQ(GetFileAttributesW(At(L"c").c_str()), INVALID_FILE_ATTRIBUTES);
}

TEST_F(Creating, GuessedAnExistingNameIsRefused) {
  ASSERT_EQ(Create({}), S_OK);
  const HRESULT result = Create({});
  EXPECT_TRUE(result == Win32(ERROR_ALREADY_EXISTS) || result == Win32(ERROR_FILE_EXISTS))
      << std::hex << result;
}

TEST_F(Creating, DocumentedMakesThousandsInOneCall) {
  constexpr DWORD kCount = 3000;
  std::vector<NewFile> files;
  files.reserve(kCount);
  for (DWORD i = 0; i < kCount; ++i) {
    files.push_back({L"file" + std::to_wstring(i), i, "id" + std::to_string(i)});
  }
  std::vector<CF_PLACEHOLDER_CREATE_INFO> entries = Entries(files);
  DWORD processed = 0;
  ASSERT_EQ(
      CfCreatePlaceholders(Root().c_str(), entries.data(), kCount, CF_CREATE_FLAG_NONE, &processed),
      S_OK);
  EXPECT_EQ(processed, kCount);
  EXPECT_EQ(InfoOf(At(L"file2999")).identity, "id2999");
}

class Querying : public SyncRootTest {};

TEST_F(Querying, DocumentedAnOrdinaryFileIsNotACloudFile) {
  ASSERT_EQ(WriteAt(At(L"none.txt"), 0, "x"), DWORD{ERROR_FILE_NOT_FOUND});
  const HANDLE plain =
      CreateFileW(At(L"plain.txt").c_str(), GENERIC_WRITE, 7, nullptr, CREATE_NEW, 0, nullptr);
  ASSERT_NE(plain, INVALID_HANDLE_VALUE);
  EXPECT_EQ(InfoOf(plain).result, Win32(ERROR_NOT_A_CLOUD_FILE));  // the number is guessed
  CloseHandle(plain);
}

TEST_F(Querying, DocumentedASmallBufferGetsWhatFits) {
  ASSERT_EQ(Create({}), S_OK);
  const File file(At(L"file.bin"));
  CF_PLACEHOLDER_STANDARD_INFO info{};
  DWORD length = 0;
  EXPECT_EQ(
      CfGetPlaceholderInfo(file.Get(), CF_PLACEHOLDER_INFO_STANDARD, &info, sizeof info, &length),
      Win32(ERROR_MORE_DATA));
  EXPECT_EQ(info.FileIdentityLength, 10u);
  EXPECT_EQ(info.FileIdentity[0], 'i');
  EXPECT_EQ(length, offsetof(CF_PLACEHOLDER_STANDARD_INFO, FileIdentity) + 10);  // guessed
}

TEST_F(Querying, DocumentedTheBasicLayoutTellsTheSame) {
  ASSERT_EQ(Create({}), S_OK);
  const File file(At(L"file.bin"));
  std::vector<char> buffer(4200);
  DWORD length = 0;
  ASSERT_EQ(
      CfGetPlaceholderInfo(file.Get(), CF_PLACEHOLDER_INFO_BASIC, buffer.data(), 4200, &length),
      S_OK);
  const auto* basic = reinterpret_cast<const CF_PLACEHOLDER_BASIC_INFO*>(buffer.data());
  const Info standard = InfoOf(file.Get());
  EXPECT_EQ(basic->FileId.QuadPart, standard.standard.FileId.QuadPart);
  EXPECT_EQ(basic->SyncRootFileId.QuadPart, standard.standard.SyncRootFileId.QuadPart);
  EXPECT_EQ(basic->InSyncState, CF_IN_SYNC_STATE_IN_SYNC);
  EXPECT_EQ(std::string(buffer.data() + offsetof(CF_PLACEHOLDER_BASIC_INFO, FileIdentity),
                        basic->FileIdentityLength),
            "identity-1");
}

TEST_F(Querying, GuessedRefusesHandlesThatAreNone) {
  for (const HANDLE handle : {HANDLE{nullptr}, INVALID_HANDLE_VALUE,
                              reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(0x77777774))}) {
    EXPECT_EQ(InfoOf(handle).result, Win32(ERROR_INVALID_HANDLE));
    EXPECT_EQ(CfHydratePlaceholder(handle, Large(0), Large(1), CF_HYDRATE_FLAG_NONE, nullptr),
              Win32(ERROR_INVALID_HANDLE));
    EXPECT_EQ(CfSetPinState(handle, CF_PIN_STATE_PINNED, CF_SET_PIN_FLAG_NONE, nullptr),
              Win32(ERROR_INVALID_HANDLE));
  }
}

class Changing : public SyncRootTest {
 protected:
  static HRESULT Update(const std::wstring& path, CF_UPDATE_FLAGS flags,
                        const CF_FS_METADATA* metadata = nullptr, const std::string& identity = {},
                        const std::vector<CF_FILE_RANGE>& dehydrate = {}) {
    const File file(path, GENERIC_WRITE);
    return CfUpdatePlaceholder(file.Get(), metadata, identity.empty() ? nullptr : identity.data(),
                               static_cast<DWORD>(identity.size()),
                               dehydrate.empty() ? nullptr : dehydrate.data(),
                               static_cast<DWORD>(dehydrate.size()), flags, nullptr, nullptr);
  }

  std::wstring MakePlainFile(const std::string& content) {
    std::wstring path = At(L"plain.txt");
    const HANDLE file =
        CreateFileW(path.c_str(), GENERIC_WRITE, 7, nullptr, CREATE_NEW, 0, nullptr);
    DWORD written = 0;
    EXPECT_TRUE(
        WriteFile(file, content.data(), static_cast<DWORD>(content.size()), &written, nullptr));
    CloseHandle(file);
    return path;
  }
};

TEST_F(Changing, DocumentedConvertingKeepsTheDataAndAddsTheIdentity) {
  const std::wstring path = MakePlainFile("hello");
  {
    const File file(path, GENERIC_WRITE);
    ASSERT_EQ(CfConvertToPlaceholder(file.Get(), "converted", 9, CF_CONVERT_FLAG_MARK_IN_SYNC,
                                     nullptr, nullptr),
              S_OK);
    EXPECT_TRUE(FAILED(CfConvertToPlaceholder(file.Get(), "converted", 9, CF_CONVERT_FLAG_NONE,
                                              nullptr, nullptr)));
  }
  const Info info = InfoOf(path);
  ASSERT_EQ(info.result, S_OK);
  EXPECT_EQ(info.identity, "converted");
  EXPECT_EQ(info.standard.OnDiskDataSize.QuadPart, 5);
  EXPECT_EQ(info.standard.InSyncState, CF_IN_SYNC_STATE_IN_SYNC);
  EXPECT_EQ(ReadAll(path).bytes, "hello");
}

TEST_F(Changing, DocumentedConvertingOutsideOfRootsIsRefused) {
  const std::wstring path = Root().substr(0, Root().find_last_of(L'\\')) + L"\\outside.txt";
  const HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 7, nullptr, CREATE_NEW, 0, nullptr);
  EXPECT_EQ(CfConvertToPlaceholder(file, "id", 2, CF_CONVERT_FLAG_MARK_IN_SYNC, nullptr, nullptr),
            Win32(ERROR_CLOUD_FILE_NOT_UNDER_SYNC_ROOT));
  CloseHandle(file);
}

TEST_F(Changing, DocumentedUpdatingAppliesMetadataAndIdentity) {
  ASSERT_EQ(Create({}), S_OK);
  CF_FS_METADATA metadata{};
  metadata.FileSize.QuadPart = 20000;
  metadata.BasicInfo.LastWriteTime.QuadPart = 132250753230000000;
  ASSERT_EQ(Update(At(L"file.bin"), CF_UPDATE_FLAG_MARK_IN_SYNC, &metadata, "new identity"), S_OK);
  EXPECT_EQ(InfoOf(At(L"file.bin")).identity, "new identity");
  WIN32_FILE_ATTRIBUTE_DATA attributes{};
  ASSERT_TRUE(GetFileAttributesExW(At(L"file.bin").c_str(), GetFileExInfoStandard, &attributes));
  EXPECT_EQ(attributes.nFileSizeLow, 20000u);
  EXPECT_EQ(ReadAll(At(L"file.bin")).bytes, ServerBytes("new identity", 0, 20000));
}

TEST_F(Changing, DocumentedUpdatingWithASizeOfZeroTruncates) {
  ASSERT_EQ(Create({}), S_OK);
  const CF_FS_METADATA metadata{};
  ASSERT_EQ(Update(At(L"file.bin"), CF_UPDATE_FLAG_MARK_IN_SYNC, &metadata, "identity-1"), S_OK);
  EXPECT_EQ(ReadAll(At(L"file.bin")).bytes, "");
}

TEST_F(Changing, DocumentedVerifyingFailsWhenNotInSync) {
  ASSERT_EQ(Create({}), S_OK);
  ASSERT_EQ(Update(At(L"file.bin"), CF_UPDATE_FLAG_CLEAR_IN_SYNC), S_OK);
  EXPECT_EQ(InfoOf(At(L"file.bin")).standard.InSyncState, CF_IN_SYNC_STATE_NOT_IN_SYNC);
  EXPECT_EQ(Update(At(L"file.bin"), CF_UPDATE_FLAG_VERIFY_IN_SYNC),
            Win32(ERROR_CLOUD_FILE_NOT_IN_SYNC));
}

TEST_F(Changing, DocumentedUpdatingCanDropTheIdentity) {
  ASSERT_EQ(Create({}), S_OK);
  ASSERT_EQ(Update(At(L"file.bin"), CF_UPDATE_FLAG_REMOVE_FILE_IDENTITY, nullptr, "ignored"), S_OK);
  EXPECT_EQ(InfoOf(At(L"file.bin")).identity, "");
}

TEST_F(Changing, DocumentedUpdatingCanDehydrate) {
  ASSERT_EQ(Create({}), S_OK);
  ASSERT_EQ(HydrateAll(At(L"file.bin")), S_OK);
  ASSERT_EQ(InfoOf(At(L"file.bin")).standard.OnDiskDataSize.QuadPart, 10000);
  ASSERT_EQ(Update(At(L"file.bin"), CF_UPDATE_FLAG_DEHYDRATE), S_OK);
  EXPECT_EQ(InfoOf(At(L"file.bin")).standard.OnDiskDataSize.QuadPart, 0);
}

TEST_F(Changing, DocumentedUpdatingCanDehydrateAlignedRanges) {
  ASSERT_EQ(Create({}), S_OK);
  ASSERT_EQ(HydrateAll(At(L"file.bin")), S_OK);
  EXPECT_TRUE(FAILED(
      Update(At(L"file.bin"), CF_UPDATE_FLAG_NONE, nullptr, {}, {{Large(100), Large(4096)}})));
  ASSERT_EQ(Update(At(L"file.bin"), CF_UPDATE_FLAG_NONE, nullptr, {}, {{Large(4096), Large(4096)}}),
            S_OK);
  EXPECT_EQ(InfoOf(At(L"file.bin")).standard.OnDiskDataSize.QuadPart, 10000 - 4096);
}

TEST_F(Changing, DocumentedRevertingHydratesAndLeavesAPlainFile) {
  ASSERT_EQ(Create({}), S_OK);
  {
    const File file(At(L"file.bin"));
    ASSERT_EQ(CfRevertPlaceholder(file.Get(), CF_REVERT_FLAG_NONE, nullptr), S_OK);
  }
  EXPECT_EQ(InfoOf(At(L"file.bin")).result, Win32(ERROR_NOT_A_CLOUD_FILE));
  EXPECT_EQ(ReadAll(At(L"file.bin")).bytes, ServerBytes("identity-1", 0, 10000));
}

TEST_F(Changing, DocumentedRevertingFailsWhenTheDataCannotBeHad) {
  ASSERT_EQ(Create({}), S_OK);
  provider_.OnFetch([&](const Event& event) {
    EXPECT_EQ(provider_.Fail(event, STATUS_CLOUD_FILE_NETWORK_UNAVAILABLE), S_OK);
  });
  const File file(At(L"file.bin"));
  EXPECT_EQ(CfRevertPlaceholder(file.Get(), CF_REVERT_FLAG_NONE, nullptr),
            Win32(ERROR_CLOUD_FILE_ACCESS_DENIED));
  EXPECT_EQ(InfoOf(At(L"file.bin")).result, S_OK);
}

TEST_F(Changing, DocumentedTheInSyncStateIsSetThroughAHandleWithoutAccess) {
  ASSERT_EQ(Create({}), S_OK);
  const File file(At(L"file.bin"));
  ASSERT_EQ(
      CfSetInSyncState(file.Get(), CF_IN_SYNC_STATE_NOT_IN_SYNC, CF_SET_IN_SYNC_FLAG_NONE, nullptr),
      S_OK);
  EXPECT_EQ(InfoOf(file.Get()).standard.InSyncState, CF_IN_SYNC_STATE_NOT_IN_SYNC);
  ASSERT_EQ(
      CfSetInSyncState(file.Get(), CF_IN_SYNC_STATE_IN_SYNC, CF_SET_IN_SYNC_FLAG_NONE, nullptr),
      S_OK);
  EXPECT_EQ(InfoOf(file.Get()).standard.InSyncState, CF_IN_SYNC_STATE_IN_SYNC);
}

TEST_F(Changing, DocumentedALocalChangeOfTheDataEndsTheInSyncState) {
  ASSERT_EQ(Create({}), S_OK);
  ASSERT_EQ(WriteAt(At(L"file.bin"), 100, "changed"), DWORD{ERROR_SUCCESS});
  const Info info = InfoOf(At(L"file.bin"));
  EXPECT_EQ(info.standard.InSyncState, CF_IN_SYNC_STATE_NOT_IN_SYNC);
  EXPECT_GT(info.standard.ModifiedDataSize.QuadPart, 0);
  std::string expected = ServerBytes("identity-1", 0, 10000);
  expected.replace(100, 7, "changed");
  EXPECT_EQ(ReadAll(At(L"file.bin")).bytes, expected);
}

TEST_F(Changing, GuessedTheProvidersOwnChangesCanBeExempt) {
  policies_.InSync = CF_INSYNC_POLICY_PRESERVE_INSYNC_FOR_SYNC_ENGINE;
  ASSERT_EQ(Register(CF_REGISTER_FLAG_UPDATE), S_OK);
  ASSERT_EQ(Create({}), S_OK);
  ASSERT_EQ(WriteAt(At(L"file.bin"), 100, "changed"), DWORD{ERROR_SUCCESS});
  EXPECT_EQ(InfoOf(At(L"file.bin")).standard.InSyncState, CF_IN_SYNC_STATE_IN_SYNC);
}

class Pinning : public SyncRootTest {
 protected:
  static HRESULT Pin(const std::wstring& path, CF_PIN_STATE state,
                     CF_SET_PIN_FLAGS flags = CF_SET_PIN_FLAG_NONE) {
    const File file(path);
    return CfSetPinState(file.Get(), state, flags, nullptr);
  }
  static CF_PIN_STATE PinOf(const std::wstring& path) { return InfoOf(path).standard.PinState; }

  void MakeFolderWithFile() {
    NewFile folder{L"folder", 0, {}, CF_PLACEHOLDER_CREATE_FLAG_DISABLE_ON_DEMAND_POPULATION};
    folder.attributes = FILE_ATTRIBUTE_DIRECTORY;
    ASSERT_EQ(Create(folder), S_OK);
    ASSERT_EQ(CreateIn(At(L"folder"), {L"inner.bin"}), S_OK);
  }
};

TEST_F(Pinning, DocumentedSetsTheStateAndFetchesNothing) {
  ASSERT_EQ(Create({}), S_OK);
  for (const auto state : {CF_PIN_STATE_PINNED, CF_PIN_STATE_UNPINNED, CF_PIN_STATE_UNSPECIFIED,
                           CF_PIN_STATE_EXCLUDED}) {
    ASSERT_EQ(Pin(At(L"file.bin"), state), S_OK);
    EXPECT_EQ(PinOf(At(L"file.bin")), state);
  }
  EXPECT_TRUE(provider_.Events(CF_CALLBACK_TYPE_FETCH_DATA).empty());
}

TEST_F(Pinning, DocumentedAPinnedFileIsNotDehydrated) {
  ASSERT_EQ(Create({}), S_OK);
  ASSERT_EQ(HydrateAll(At(L"file.bin")), S_OK);
  ASSERT_EQ(Pin(At(L"file.bin"), CF_PIN_STATE_PINNED), S_OK);
  EXPECT_EQ(DehydrateAll(At(L"file.bin")), Win32(ERROR_CLOUD_FILE_PINNED));
  EXPECT_EQ(InfoOf(At(L"file.bin")).standard.OnDiskDataSize.QuadPart, 10000);
}

TEST_F(Pinning, DocumentedCanTakeAWholeFolder) {
  MakeFolderWithFile();
  ASSERT_EQ(Pin(At(L"folder"), CF_PIN_STATE_PINNED, CF_SET_PIN_FLAG_RECURSE), S_OK);
  EXPECT_EQ(PinOf(At(L"folder")), CF_PIN_STATE_PINNED);
  EXPECT_EQ(PinOf(At(L"folder\\inner.bin")), CF_PIN_STATE_PINNED);
}

TEST_F(Pinning, DocumentedCanTakeAFoldersContentsOnly) {
  MakeFolderWithFile();
  ASSERT_EQ(Pin(At(L"folder"), CF_PIN_STATE_PINNED, CF_SET_PIN_FLAG_RECURSE_ONLY), S_OK);
  EXPECT_EQ(PinOf(At(L"folder")), CF_PIN_STATE_UNSPECIFIED);
  EXPECT_EQ(PinOf(At(L"folder\\inner.bin")), CF_PIN_STATE_PINNED);
}

TEST_F(Pinning, DocumentedANewFileTakesTheStateOfItsFolder) {
  MakeFolderWithFile();
  ASSERT_EQ(Pin(At(L"folder"), CF_PIN_STATE_PINNED), S_OK);
  ASSERT_EQ(CreateIn(At(L"folder"), {L"later.bin"}), S_OK);
  EXPECT_EQ(PinOf(At(L"folder\\later.bin")), CF_PIN_STATE_PINNED);
}

TEST_F(Pinning, DocumentedInheritingFollowsTheTableOfParentAndOwnState) {
  MakeFolderWithFile();
  const std::wstring file = At(L"folder\\inner.bin");
  const struct {
    CF_PIN_STATE folder;
    CF_PIN_STATE own;
    CF_PIN_STATE expected;
  } rows[] = {
      {CF_PIN_STATE_UNSPECIFIED, CF_PIN_STATE_PINNED, CF_PIN_STATE_PINNED},
      {CF_PIN_STATE_UNSPECIFIED, CF_PIN_STATE_UNPINNED, CF_PIN_STATE_UNPINNED},
      {CF_PIN_STATE_UNSPECIFIED, CF_PIN_STATE_EXCLUDED, CF_PIN_STATE_UNSPECIFIED},
      {CF_PIN_STATE_PINNED, CF_PIN_STATE_UNSPECIFIED, CF_PIN_STATE_PINNED},
      {CF_PIN_STATE_PINNED, CF_PIN_STATE_UNPINNED, CF_PIN_STATE_UNPINNED},
      {CF_PIN_STATE_PINNED, CF_PIN_STATE_EXCLUDED, CF_PIN_STATE_PINNED},
      {CF_PIN_STATE_UNPINNED, CF_PIN_STATE_UNSPECIFIED, CF_PIN_STATE_UNSPECIFIED},
      {CF_PIN_STATE_UNPINNED, CF_PIN_STATE_PINNED, CF_PIN_STATE_PINNED},
      {CF_PIN_STATE_EXCLUDED, CF_PIN_STATE_PINNED, CF_PIN_STATE_EXCLUDED},
      {CF_PIN_STATE_EXCLUDED, CF_PIN_STATE_UNSPECIFIED, CF_PIN_STATE_EXCLUDED},
  };
  for (const auto& row : rows) {
    ASSERT_EQ(Pin(At(L"folder"), row.folder), S_OK);
    ASSERT_EQ(Pin(file, row.own), S_OK);
    ASSERT_EQ(Pin(file, CF_PIN_STATE_INHERIT), S_OK);
    EXPECT_EQ(PinOf(file), row.expected) << "folder " << row.folder << ", own " << row.own;
  }
}

}  // namespace
}  // namespace conformance
