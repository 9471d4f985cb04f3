#include "win-cf/placeholder-meta.h"

namespace corvdrive::cloud_filter {
namespace {

constexpr std::int64_t kSecondsFrom1601To1970 = 11644473600;
constexpr std::int64_t kFileTimeUnitsPerSecond = 10000000;

// Only the low 32 bits of the seconds count, as a signed number: clients rely on it.
LARGE_INTEGER ToFileTime(std::int64_t unixSeconds) {
  LARGE_INTEGER fileTime{};
  if (unixSeconds != 0) {
    const auto seconds = static_cast<std::int32_t>(static_cast<std::uint32_t>(unixSeconds));
    fileTime.QuadPart = (seconds + kSecondsFrom1601To1970) * kFileTimeUnitsPerSecond;
  }
  return fileTime;
}

}  // namespace

CF_FS_METADATA PlaceholderMetaWinCF::ToFsMetadata() const {
  CF_FS_METADATA metadata{};
  if (isEmpty) {
    return metadata;
  }
  metadata.BasicInfo.CreationTime = ToFileTime(creationTime);
  metadata.BasicInfo.LastAccessTime = ToFileTime(lastAccessTime);
  metadata.BasicInfo.LastWriteTime = ToFileTime(lastWriteTime);
  metadata.BasicInfo.ChangeTime = ToFileTime(changeTime);
  metadata.BasicInfo.FileAttributes = isDirectory ? FILE_ATTRIBUTE_DIRECTORY : 0;
  metadata.FileSize.QuadPart = fileSize;
  return metadata;
}

}  // namespace corvdrive::cloud_filter
