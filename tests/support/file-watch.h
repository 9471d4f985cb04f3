#ifndef NIMBRA_TESTS_SUPPORT_FILE_WATCH_H_
#define NIMBRA_TESTS_SUPPORT_FILE_WATCH_H_

#include <windows.h>

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/import-double.h"

namespace nimbra_test {

// Watches every file that the program opens with CreateFileW, and every handle that it closes.
class FileWatch {
 public:
  struct Opening {
    std::wstring path;
    DWORD access;
    DWORD share;
    bool hasSecurity;
    DWORD disposition;
    DWORD flags;
    HANDLE pattern;
    // INVALID_HANDLE_VALUE when the call failed.
    HANDLE handle;
  };

  FileWatch();

  std::vector<Opening> Openings() const;
  std::vector<HANDLE> Closings() const;
  // Files opened here that are still open.
  int StillOpen() const;
  // Lets the next CreateFileW fail with that error.
  void FailNextOpening(DWORD error);
  void Clear();

 private:
  mutable std::mutex mutex_;
  std::vector<Opening> openings_;
  std::vector<HANDLE> closings_;
  std::vector<HANDLE> open_;
  std::optional<DWORD> failure_;
  ImportDouble<"CreateFileW", decltype(&::CreateFileW)> create_;
  ImportDouble<"CloseHandle", decltype(&::CloseHandle)> close_;
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_FILE_WATCH_H_
