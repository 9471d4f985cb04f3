#ifndef NIMBRA_WIN_CF_PLACEHOLDER_META_H_
#define NIMBRA_WIN_CF_PLACEHOLDER_META_H_

#include <cstdint>

#include "common/cloud-files.h"

namespace corvdrive::cloud_filter {

// File-system metadata that a client gives for a placeholder. Never changed after construction.
class PlaceholderMetaBase {
 public:
  virtual ~PlaceholderMetaBase() = default;
};

// Times are seconds since 1970-01-01 00:00:00 UTC; 0 means not given.
class PlaceholderMetaWinCF : public PlaceholderMetaBase {
 public:
  // The form that the platform takes: all zero for an empty object, and a time that was not given
  // stays 0, which leaves the item's own time alone.
  [[nodiscard]] CF_FS_METADATA ToFsMetadata() const;

  bool isEmpty = false;
  std::int64_t lastAccessTime = 0;
  std::int64_t lastWriteTime = 0;
  std::int64_t creationTime = 0;
  std::int64_t changeTime = 0;
  std::int64_t fileSize = 0;
  bool isDirectory = false;
};

}  // namespace corvdrive::cloud_filter

#endif
