#include "tests/support/file-watch.h"

#include <algorithm>
#include <utility>

namespace nimbra_test {

FileWatch::FileWatch()
    : create_([this](auto original, LPCWSTR path, DWORD access, DWORD share,
                     LPSECURITY_ATTRIBUTES security, DWORD disposition, DWORD flags,
                     HANDLE pattern) -> HANDLE {
        std::lock_guard lock(mutex_);
        HANDLE handle = INVALID_HANDLE_VALUE;
        const std::optional<DWORD> failure = std::exchange(failure_, std::nullopt);
        if (!failure) {
          handle = original(path, access, share, security, disposition, flags, pattern);
        }
        const DWORD error = failure.value_or(GetLastError());
        openings_.push_back(
            {path, access, share, security != nullptr, disposition, flags, pattern, handle});
        if (handle != INVALID_HANDLE_VALUE) {
          open_.push_back(handle);
        }
        SetLastError(error);
        return handle;
      }),
      close_([this](auto original, HANDLE handle) -> BOOL {
        {
          std::lock_guard lock(mutex_);
          closings_.push_back(handle);
          const auto found = std::find(open_.begin(), open_.end(), handle);
          if (found != open_.end()) {
            open_.erase(found);
          }
        }
        return original(handle);
      }) {}

std::vector<FileWatch::Opening> FileWatch::Openings() const {
  std::lock_guard lock(mutex_);
  return openings_;
}

std::vector<HANDLE> FileWatch::Closings() const {
  std::lock_guard lock(mutex_);
  return closings_;
}

int FileWatch::StillOpen() const {
  std::lock_guard lock(mutex_);
  return static_cast<int>(open_.size());
}

void FileWatch::FailNextOpening(DWORD error) {
  std::lock_guard lock(mutex_);
  failure_ = error;
}

void FileWatch::Clear() {
  std::lock_guard lock(mutex_);
  openings_.clear();
  closings_.clear();
}

}  // namespace nimbra_test
