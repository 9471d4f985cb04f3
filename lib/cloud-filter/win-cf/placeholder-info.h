#ifndef NIMBRA_WIN_CF_PLACEHOLDER_INFO_H_
#define NIMBRA_WIN_CF_PLACEHOLDER_INFO_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "common/cloud-files.h"

namespace corvdrive::cloud_filter {

class PlaceholderWinCF;

// What the platform tells of a placeholder.
class PlaceholderInfoBase {
 public:
  virtual ~PlaceholderInfoBase() = default;
};

// A snapshot, taken on construction. It is not valid, with all fields zero or empty, when the
// placeholder is not open (silently) or the query failed (logged).
class PlaceholderInfoWinCF : public PlaceholderInfoBase {
 public:
  // `subject` must outlive the object.
  explicit PlaceholderInfoWinCF(const PlaceholderWinCF* subject);
  PlaceholderInfoWinCF(const PlaceholderInfoWinCF&) = delete;
  PlaceholderInfoWinCF& operator=(const PlaceholderInfoWinCF&) = delete;

  [[nodiscard]] bool IsValid() const { return isValid; }
  [[nodiscard]] std::int64_t OnDiskDataSize() const { return onDiskDataSize; }
  [[nodiscard]] CF_PIN_STATE PinState() const { return pinState; }
  [[nodiscard]] CF_IN_SYNC_STATE InSyncState() const { return inSyncState; }
  // May hold any bytes; they live as long as the object.
  [[nodiscard]] std::string_view FileIdentity() const { return fileIdentity; }

 private:
  void Query();

  const PlaceholderWinCF* placeholder;
  bool isValid = false;
  std::int64_t onDiskDataSize = 0;
  std::int64_t fileId = 0;
  CF_PIN_STATE pinState = CF_PIN_STATE_UNSPECIFIED;
  CF_IN_SYNC_STATE inSyncState = CF_IN_SYNC_STATE_NOT_IN_SYNC;
  std::string_view fileIdentity;

  // What the platform told: the standard information with the largest identity, and room to spare.
  alignas(CF_PLACEHOLDER_STANDARD_INFO) std::array<char, 4160> buffer;
};

}  // namespace corvdrive::cloud_filter

#endif
