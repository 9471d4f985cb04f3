#ifndef NIMBRA_TESTS_UNIT_PROACTIVE_TRANSFER_FIXTURE_H_
#define NIMBRA_TESTS_UNIT_PROACTIVE_TRANSFER_FIXTURE_H_

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "nimbra/nimbra.h"
#include "tests/support/file-watch.h"
#include "tests/support/import-double.h"
#include "tests/support/temp-folder.h"
#include "tests/unit/transfer-fixture.h"
#include "win-cf/transfer-buffer.h"

namespace nimbra_test {

inline constexpr std::int64_t kMiB = std::int64_t{1024} * 1024;
inline constexpr std::int64_t kChunk = 4 * kMiB;
inline constexpr std::int64_t kTransferKey = 0x5152535455565758;

using ReadFileDouble = ImportDouble<"ReadFile", decltype(&::ReadFile)>;

// A placeholder with an open handle, and a local file with the data.
class ProactiveTransferTest : public TransferFixture {
 protected:
  ProactiveTransferTest() : placeholder_(folder_.WriteFile("placeholder", "")) {
    // What other tests left would hide what this one takes.
    corvdrive::cloud_filter::FreeKeptTransferBuffer();
    cloud_.SetTransferKey(kTransferKey);
    cloud_.SetTransferBufferSize(kChunk);
    const FileWatch files;
    if (CORVWinCFPlaceholderOpen(placeholder_.Get()) != 0) {
      throw std::runtime_error("no open placeholder");
    }
    placeholderFile_ = files.Openings().at(0).handle;
  }

  int Transfer(const std::string& localPath) {
    return CORVWinCFSyncRootProactiveTransferToPlaceholder(root_.Get(), placeholder_.Get(),
                                                           localPath.c_str());
  }

  // Content that differs from chunk to chunk and has no zero byte.
  static std::string Content(std::int64_t size) {
    std::string content(static_cast<std::size_t>(size), '\0');
    std::uint32_t state = 12345;
    for (char& byte : content) {
      state = state * 1664525 + 1013904223;
      byte = static_cast<char>(state >> 24 | 1);
    }
    return content;
  }

  std::string LocalFile(std::int64_t size) { return folder_.WriteFile("local", Content(size)); }

  // The key is released once, with the values it was obtained with, after everything else.
  void ExpectKeyReleased() {
    EXPECT_EQ(cloud_.Only<GetTransferKeyCall>().file, placeholderFile_);
    const auto release = cloud_.Only<ReleaseTransferKeyCall>();
    EXPECT_EQ(release.file, placeholderFile_);
    EXPECT_EQ(release.transferKey, kTransferKey);
    EXPECT_EQ(cloud_.CallNames().back(), "CfReleaseTransferKey");
  }

  TempFolder folder_;
  Placeholder placeholder_;
  HANDLE placeholderFile_ = nullptr;
};

// As a file behaves that another program cuts during the transfer.
class ShrunkenFile {
 public:
  ShrunkenFile(int call, DWORD bytes)
      : read_([this, call, bytes](ReadFileDouble::Function original, HANDLE file, LPVOID buffer,
                                  DWORD length, LPDWORD done, LPOVERLAPPED overlapped) {
          const DWORD asked = ++calls_ == call ? std::min(bytes, length) : length;
          return original(file, buffer, asked, done, overlapped);
        }) {}

 private:
  int calls_ = 0;
  ReadFileDouble read_;
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_UNIT_PROACTIVE_TRANSFER_FIXTURE_H_
