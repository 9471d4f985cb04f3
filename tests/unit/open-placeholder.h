#ifndef NIMBRA_TESTS_UNIT_OPEN_PLACEHOLDER_H_
#define NIMBRA_TESTS_UNIT_OPEN_PLACEHOLDER_H_

#include <cstdint>
#include <stdexcept>
#include <string>

#include "nimbra/nimbra.h"
#include "tests/support/file-watch.h"
#include "tests/support/nimbra-test.h"
#include "tests/support/sync-root-handles.h"
#include "tests/support/temp-folder.h"

namespace nimbra_test {

// A metadata handle that is released when the object ends; the arguments are those of the export.
class Metadata {
 public:
  Metadata(std::int64_t lastAccess, std::int64_t change, std::int64_t creation,
           std::int64_t lastWrite, std::int64_t size, std::int32_t type)
      : handle_(CORVWinCFPlaceholderMetaNew(lastAccess, change, creation, lastWrite, size, type)) {
    if (handle_ == nullptr) {
      throw std::runtime_error("no metadata handle");
    }
  }
  ~Metadata() { CORVWinCFPlaceholderMetaRelease(handle_); }
  Metadata(const Metadata&) = delete;
  Metadata& operator=(const Metadata&) = delete;

  CORVWinCFPlaceholderMetaHandle Get() const { return handle_; }

 private:
  CORVWinCFPlaceholderMetaHandle handle_;
};

// The line of a failed information query.
inline std::string InfoLine(const std::string& path, HRESULT result) {
  return ExpectedLine(kPlaceholderInfoSource, 54,
                      "Failed to get placholder info. " + path + " " + std::to_string(result));
}

// A placeholder object opened on a real file of ten bytes.
class OpenPlaceholderTest : public NimbraTest {
 protected:
  static constexpr std::int64_t kFileSize = 10;

  OpenPlaceholderTest() {
    if (CORVWinCFPlaceholderOpen(placeholder_.Get()) != 0) {
      throw std::runtime_error("the test's placeholder cannot be opened");
    }
    file_ = files_.Openings().back().handle;
  }

  // The handle that the object holds.
  HANDLE File() const { return file_; }

  TempFolder folder_;
  std::string written_ = folder_.WriteFile("file.txt", "0123456789");
  std::string path_ = folder_.ItemWithSlashes("file.txt");
  FileWatch files_;
  Placeholder placeholder_{path_};

 private:
  HANDLE file_ = nullptr;
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_UNIT_OPEN_PLACEHOLDER_H_
