#include "protected-handle.h"

#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>

#include "common/cloud-files.h"
#include "entry.h"
#include "owned-handle.h"
#include "paths.h"
#include "result.h"

namespace cldapi {
namespace {

// Far above any value that the system gives out, so that using one as a file handle fails.
constexpr std::uintptr_t kFirstValue = 0x4346'0000'0010;
constexpr std::uintptr_t kStep = 0x10;

class ProtectedHandles {
 public:
  HANDLE Add(OwnedHandle file) {
    const std::scoped_lock lock(mutex_);
    const auto handle = reinterpret_cast<HANDLE>(next_);
    files_.emplace(handle, Entry{std::move(file)});
    next_ += kStep;
    return handle;
  }

  bool Reference(HANDLE handle) {
    const std::scoped_lock lock(mutex_);
    const auto found = files_.find(handle);
    if (found == files_.end() || found->second.closing) return false;
    ++found->second.references;
    return true;
  }

  // Whether the handle is one of these.
  bool Release(HANDLE handle) {
    const std::scoped_lock lock(mutex_);
    const auto found = files_.find(handle);
    if (found == files_.end()) return false;
    Entry& entry = found->second;
    if (entry.references > 0) --entry.references;
    if (entry.closing && entry.references == 0) files_.erase(found);
    return true;
  }

  // Closes the file once nobody refers to it. Whether the handle is one of these.
  bool Close(HANDLE handle) {
    const std::scoped_lock lock(mutex_);
    const auto found = files_.find(handle);
    if (found == files_.end()) return false;
    found->second.closing = true;
    if (found->second.references == 0) files_.erase(found);
    return true;
  }

  // The file of a handle that somebody refers to.
  HANDLE FileOf(HANDLE handle) {
    const std::scoped_lock lock(mutex_);
    const auto found = files_.find(handle);
    const bool usable = found != files_.end() && found->second.references > 0;
    return usable ? found->second.file.Get() : INVALID_HANDLE_VALUE;
  }

 private:
  struct Entry {
    OwnedHandle file;
    unsigned references = 0;
    bool closing = false;
  };

  std::mutex mutex_;
  std::unordered_map<HANDLE, Entry> files_;
  std::uintptr_t next_ = kFirstValue;
};

ProtectedHandles& Handles() {
  static auto& handles = *new ProtectedHandles;  // outlives everything: see module.h
  return handles;
}

bool IsPlain(HANDLE handle) noexcept {
  DWORD flags = 0;
  return handle != nullptr && handle != INVALID_HANDLE_VALUE &&
         GetHandleInformation(handle, &flags);
}

OwnedHandle OpenFile(const std::wstring& path, CF_OPEN_FILE_FLAGS flags) {
  DWORD access = FILE_READ_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE;
  if (flags & CF_OPEN_FILE_FLAG_WRITE_ACCESS) access |= FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES;
  if (flags & CF_OPEN_FILE_FLAG_DELETE_ACCESS) access |= DELETE;
  const DWORD share = (flags & CF_OPEN_FILE_FLAG_EXCLUSIVE)
                          ? 0
                          : FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  return OwnedHandle(CreateFileW(
      path.c_str(), access, share, nullptr, OPEN_EXISTING,
      FILE_FLAG_OVERLAPPED | FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
}

}  // namespace

HandleLease::HandleLease(HANDLE given) : given_(given) {
  if (Handles().Reference(given)) {
    file_ = Handles().FileOf(given);
    held_ = true;
  } else if (IsPlain(given)) {
    file_ = given;
    held_ = true;
  }
}

HandleLease::~HandleLease() {
  if (held_ && file_ != given_) Handles().Release(given_);
}

}  // namespace cldapi

extern "C" {

HRESULT WINAPI CfOpenFileWithOplock(LPCWSTR FilePath, CF_OPEN_FILE_FLAGS Flags,
                                    PHANDLE ProtectedHandle) {
  return cldapi::Guarded([&]() -> HRESULT {
    const ULONG kKnown = CF_OPEN_FILE_FLAG_EXCLUSIVE | CF_OPEN_FILE_FLAG_WRITE_ACCESS |
                         CF_OPEN_FILE_FLAG_DELETE_ACCESS | CF_OPEN_FILE_FLAG_FOREGROUND;
    if (ProtectedHandle == nullptr || (Flags & ~kKnown) != 0) {
      return cldapi::result::kInvalidParameter;
    }
    *ProtectedHandle = INVALID_HANDLE_VALUE;
    std::wstring path;
    const HRESULT full = cldapi::FullDosPath(FilePath, path);
    if (FAILED(full)) return full;
    cldapi::OwnedHandle file = cldapi::OpenFile(L"\\\\?\\" + path, Flags);
    if (!file.IsValid()) return cldapi::FromWin32(GetLastError());
    *ProtectedHandle = cldapi::Handles().Add(std::move(file));
    return S_OK;
  });
}

BOOLEAN WINAPI CfReferenceProtectedHandle(HANDLE ProtectedHandle) {
  return cldapi::Handles().Reference(ProtectedHandle) || cldapi::IsPlain(ProtectedHandle) ? TRUE
                                                                                          : FALSE;
}

HANDLE WINAPI CfGetWin32HandleFromProtectedHandle(HANDLE ProtectedHandle) {
  const HANDLE file = cldapi::Handles().FileOf(ProtectedHandle);
  if (file != INVALID_HANDLE_VALUE) return file;
  return cldapi::IsPlain(ProtectedHandle) ? ProtectedHandle : INVALID_HANDLE_VALUE;
}

void WINAPI CfReleaseProtectedHandle(HANDLE ProtectedHandle) {
  cldapi::Handles().Release(ProtectedHandle);
}

void WINAPI CfCloseHandle(HANDLE FileHandle) {
  if (!cldapi::Handles().Close(FileHandle) && cldapi::IsPlain(FileHandle)) CloseHandle(FileHandle);
}

}  // extern "C"
