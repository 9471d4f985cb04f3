#ifndef NIMBRA_SIMULATOR_CLDAPI_BLOB_H_
#define NIMBRA_SIMULATOR_CLDAPI_BLOB_H_

// Bytes and metadata that callers pass by pointer.

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <string_view>

#include "common/cloud-files.h"
#include "protocol/wire.h"

namespace cldapi {

inline constexpr DWORD kMaxRootIdentity = 64 << 10;

// "An absent identity has length 0."
[[nodiscard]] inline bool IsConsistent(LPCVOID bytes, DWORD length) noexcept {
  return bytes != nullptr || length == 0;
}

// Of a blob that is too long only so much is sent that the filter sees it.
[[nodiscard]] inline std::string_view BytesOf(LPCVOID bytes, DWORD length, DWORD limit) noexcept {
  if (bytes == nullptr) return {};
  return {static_cast<const char*>(bytes), std::min(length, limit + 1)};
}

[[nodiscard]] inline std::string_view IdentityOf(LPCVOID bytes, DWORD length) noexcept {
  return BytesOf(bytes, length, CF_PLACEHOLDER_MAX_FILE_IDENTITY_LENGTH);
}

[[nodiscard]] inline cloud_filter::wire::Metadata MetadataOf(const CF_FS_METADATA& from) noexcept {
  return {from.BasicInfo.CreationTime.QuadPart,  from.BasicInfo.LastAccessTime.QuadPart,
          from.BasicInfo.LastWriteTime.QuadPart, from.BasicInfo.ChangeTime.QuadPart,
          from.BasicInfo.FileAttributes,         from.FileSize.QuadPart};
}

}  // namespace cldapi

#endif  // NIMBRA_SIMULATOR_CLDAPI_BLOB_H_
