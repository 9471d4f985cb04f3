#include "sync-root-fixture.h"

#include <algorithm>
#include <cstddef>

namespace conformance {
namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// The variable holds a Unix path under Wine, where drive Z is the whole file system.
std::wstring TestFolder() {
  WCHAR value[MAX_PATH];
  const DWORD length = GetEnvironmentVariableW(L"CLOUD_FILTER_TEST_DIR", value, MAX_PATH);
  if (length == 0 || length >= MAX_PATH) return {};
  std::wstring folder(value, length);
  std::replace(folder.begin(), folder.end(), L'/', L'\\');
  return folder.starts_with(L"\\") ? L"Z:" + folder : folder;
}

std::wstring NameOfThisTest() {
  const auto* test = testing::UnitTest::GetInstance()->current_test_info();
  const std::string name = std::string(test->test_suite_name()) + "-" +
                           std::to_string(GetCurrentProcessId()) + "-" +
                           std::to_string(GetTickCount64());
  return {name.begin(), name.end()};
}

void RemoveTree(const std::wstring& folder) {
  WIN32_FIND_DATAW entry;
  const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &entry);
  if (search != INVALID_HANDLE_VALUE) {
    do {
      const std::wstring name = entry.cFileName;
      if (name == L"." || name == L"..") continue;
      const std::wstring path = folder + L"\\" + name;
      if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
        RemoveTree(path);
      } else {
        DeleteFileW(path.c_str());
      }
    } while (FindNextFileW(search, &entry));
    FindClose(search);
  }
  RemoveDirectoryW(folder.c_str());
}

CF_PLACEHOLDER_CREATE_INFO EntryOf(const NewFile& file) {
  CF_PLACEHOLDER_CREATE_INFO entry{};
  entry.RelativeFileName = file.name.c_str();
  entry.FsMetadata.FileSize.QuadPart = file.size;
  entry.FsMetadata.BasicInfo.FileAttributes = file.attributes;
  // 2020-02-02 02:02:02 UTC
  entry.FsMetadata.BasicInfo.LastWriteTime.QuadPart = 132250753220000000;
  entry.FileIdentity = file.identity.data();
  entry.FileIdentityLength = static_cast<DWORD>(file.identity.size());
  entry.Flags = file.flags;
  return entry;
}

// What the simulator guesses proves nothing about Windows, nor against it.
bool IsGuessOnWindows() {
  const bool isWine = GetProcAddress(GetModuleHandleW(L"ntdll"), "wine_get_version") != nullptr;
  const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
  return !isWine && name.starts_with("Guessed");
}

}  // namespace

File::File(const std::wstring& path, DWORD access, DWORD flags)
    : handle_(CreateFileW(path.c_str(), access, kShareAll, nullptr, OPEN_EXISTING,
                          FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT | flags,
                          nullptr)) {}

File::~File() {
  if (IsOpen()) CloseHandle(handle_);
}

void FolderTest::SetUp() {
  if (IsGuessOnWindows()) GTEST_SKIP() << "makes sense on the simulator only, which guesses here";
  const std::wstring parent = TestFolder();
  ASSERT_FALSE(parent.empty()) << "CLOUD_FILTER_TEST_DIR names no folder";
  folder_ = parent + L"\\" + NameOfThisTest();
  root_ = folder_ + L"\\Root \u00e9\u6f22";
  ASSERT_TRUE(CreateDirectoryW(folder_.c_str(), nullptr)) << GetLastError();
  ASSERT_TRUE(CreateDirectoryW(root_.c_str(), nullptr)) << GetLastError();

  registration_.StructSize = sizeof registration_;
  registration_.ProviderName = L"Conformance";
  registration_.ProviderVersion = L"1.0";
  registration_.SyncRootIdentity = "root\0identity";
  registration_.SyncRootIdentityLength = 13;
  policies_.StructSize = sizeof policies_;
  policies_.Hydration.Primary.us = CF_HYDRATION_POLICY_FULL;
  policies_.Population.Primary.us = CF_POPULATION_POLICY_ALWAYS_FULL;
}

void FolderTest::TearDown() {
  if (root_.empty()) return;
  CfUnregisterSyncRoot(root_.c_str());  // fails where the test registered none
  RemoveTree(folder_);
  EXPECT_EQ(GetFileAttributesW(folder_.c_str()), INVALID_FILE_ATTRIBUTES)
      << "the test's folder could not be removed";
}

HRESULT FolderTest::Register(CF_REGISTER_FLAGS flags) const {
  return CfRegisterSyncRoot(root_.c_str(), &registration_, &policies_, flags);
}

std::vector<CF_PLACEHOLDER_CREATE_INFO> FolderTest::Entries(const std::vector<NewFile>& files) {
  std::vector<CF_PLACEHOLDER_CREATE_INFO> entries(files.size());
  std::transform(files.begin(), files.end(), entries.begin(), EntryOf);
  return entries;
}

HRESULT FolderTest::CreateIn(const std::wstring& folder, const NewFile& file) {
  CF_PLACEHOLDER_CREATE_INFO entry = EntryOf(file);
  return CfCreatePlaceholders(folder.c_str(), &entry, 1, CF_CREATE_FLAG_NONE, nullptr);
}

void RegisteredTest::SetUp() {
  FolderTest::SetUp();
  if (IsSkipped()) return;
  ASSERT_EQ(Register(), S_OK);
}

void SyncRootTest::SetUp() {
  RegisteredTest::SetUp();
  if (IsSkipped()) return;
  ASSERT_EQ(provider_.Connect(Root()), S_OK);
}

void SyncRootTest::TearDown() {
  if (IsSkipped()) return;
  EXPECT_EQ(provider_.Disconnect(), S_OK);
  RegisteredTest::TearDown();
}

Info InfoOf(HANDLE file) {
  std::vector<char> buffer(sizeof(CF_PLACEHOLDER_STANDARD_INFO) +
                           CF_PLACEHOLDER_MAX_FILE_IDENTITY_LENGTH);
  DWORD length = 0;
  Info info;
  info.result = CfGetPlaceholderInfo(file, CF_PLACEHOLDER_INFO_STANDARD, buffer.data(),
                                     static_cast<DWORD>(buffer.size()), &length);
  if (FAILED(info.result)) return info;
  std::copy_n(buffer.begin(), sizeof info.standard, reinterpret_cast<char*>(&info.standard));
  info.identity.assign(buffer.data() + offsetof(CF_PLACEHOLDER_STANDARD_INFO, FileIdentity),
                       info.standard.FileIdentityLength);
  return info;
}

Info InfoOf(const std::wstring& path) { return InfoOf(File(path).Get()); }

Content ReadAll(const std::wstring& path) {
  Content content;
  const File file(path, GENERIC_READ);
  if (!file.IsOpen()) {
    content.error = GetLastError();
    return content;
  }
  std::vector<char> piece(1 << 20);
  DWORD got = 0;
  do {
    if (!ReadFile(file.Get(), piece.data(), static_cast<DWORD>(piece.size()), &got, nullptr)) {
      content.error = GetLastError();
      return content;
    }
    content.bytes.append(piece.data(), got);
  } while (got > 0);
  return content;
}

DWORD WriteAt(const std::wstring& path, std::int64_t offset, const std::string& bytes) {
  const File file(path, GENERIC_READ | GENERIC_WRITE);
  if (!file.IsOpen()) return GetLastError();
  DWORD written = 0;
  const bool done =
      SetFilePointerEx(file.Get(), Large(offset), nullptr, FILE_BEGIN) &&
      WriteFile(file.Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
  return done ? ERROR_SUCCESS : GetLastError();
}

HRESULT HydrateAll(const std::wstring& path) {
  const File file(path);
  return CfHydratePlaceholder(file.Get(), Large(0), Large(CF_EOF), CF_HYDRATE_FLAG_NONE, nullptr);
}

HRESULT DehydrateAll(const std::wstring& path) {
  const File file(path);
  return CfDehydratePlaceholder(file.Get(), Large(0), Large(CF_EOF), CF_DEHYDRATE_FLAG_NONE,
                                nullptr);
}

}  // namespace conformance
