#ifndef NIMBRA_TESTS_CONFORMANCE_SYNC_ROOT_FIXTURE_H_
#define NIMBRA_TESTS_CONFORMANCE_SYNC_ROOT_FIXTURE_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "common/cloud-files.h"
#include "provider.h"

namespace conformance {

inline constexpr HRESULT Win32(DWORD code) {
  return static_cast<HRESULT>(0x80070000U | (code & 0xFFFFU));
}
inline constexpr HRESULT kInvalidParameter = Win32(ERROR_INVALID_PARAMETER);

// A file handle that closes itself.
class File {
 public:
  // By default opened as providers do: for nothing, shared with all.
  explicit File(const std::wstring& path, DWORD access = 0, DWORD flags = 0);
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File();

  [[nodiscard]] HANDLE Get() const { return handle_; }
  [[nodiscard]] bool IsOpen() const { return handle_ != INVALID_HANDLE_VALUE; }

 private:
  HANDLE handle_;
};

// What a test says about the place of a placeholder, with the values most tests want.
struct NewFile {
  std::wstring name = L"file.bin";
  std::int64_t size = 10000;
  std::string identity = "identity-1";
  CF_PLACEHOLDER_CREATE_FLAGS flags = CF_PLACEHOLDER_CREATE_FLAG_MARK_IN_SYNC;
  DWORD attributes = FILE_ATTRIBUTE_NORMAL;
};

// A folder of the test's own below the folder named by CLOUD_FILTER_TEST_DIR; whatever sync root is
// made of it is gone after the test.
class FolderTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  [[nodiscard]] const std::wstring& Root() const { return root_; }
  [[nodiscard]] std::wstring At(const std::wstring& name) const { return root_ + L"\\" + name; }

  CF_SYNC_POLICIES policies_{};
  CF_SYNC_REGISTRATION registration_{};

  [[nodiscard]] HRESULT Register(CF_REGISTER_FLAGS flags = CF_REGISTER_FLAG_NONE) const;

  // They point into the descriptions, which must outlive them.
  [[nodiscard]] static std::vector<CF_PLACEHOLDER_CREATE_INFO> Entries(
      const std::vector<NewFile>& files);
  // Creates one placeholder, in the root or in a folder of it.
  [[nodiscard]] HRESULT Create(const NewFile& file) const { return CreateIn(root_, file); }
  [[nodiscard]] static HRESULT CreateIn(const std::wstring& folder, const NewFile& file);

 private:
  std::wstring folder_;  // holds the root and what lies outside of it
  std::wstring root_;
};

// The folder is a registered sync root.
class RegisteredTest : public FolderTest {
 protected:
  void SetUp() override;
};

// The folder is a connected sync root.
class SyncRootTest : public RegisteredTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  Provider provider_;
};

// What CfGetPlaceholderInfo says.
struct Info {
  HRESULT result = E_FAIL;
  CF_PLACEHOLDER_STANDARD_INFO standard{};
  std::string identity;
};
[[nodiscard]] Info InfoOf(HANDLE file);
[[nodiscard]] Info InfoOf(const std::wstring& path);

// Reads a whole file with ReadFile. The error is that of the read which failed.
struct Content {
  DWORD error = ERROR_SUCCESS;
  std::string bytes;
};
[[nodiscard]] Content ReadAll(const std::wstring& path);
[[nodiscard]] DWORD WriteAt(const std::wstring& path, std::int64_t offset,
                            const std::string& bytes);

[[nodiscard]] HRESULT HydrateAll(const std::wstring& path);
[[nodiscard]] HRESULT DehydrateAll(const std::wstring& path);

}  // namespace conformance

#endif  // NIMBRA_TESTS_CONFORMANCE_SYNC_ROOT_FIXTURE_H_
