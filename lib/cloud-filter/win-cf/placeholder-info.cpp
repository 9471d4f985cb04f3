#include "win-cf/placeholder-info.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "common/cldapi-table.h"
#include "common/debug-log.h"
#include "win-cf/placeholder.h"

namespace corvdrive::cloud_filter {
namespace {

constexpr char kSource[] = R"(lib\cloud-filter\win-cf\placeholder-info)";

constexpr std::size_t kIdentityOffset = offsetof(CF_PLACEHOLDER_STANDARD_INFO, FileIdentity);

}  // namespace

PlaceholderInfoWinCF::PlaceholderInfoWinCF(const PlaceholderWinCF* subject) : placeholder(subject) {
  if (placeholder->IsOpen()) {
    Query();
  }
}

void PlaceholderInfoWinCF::Query() {
  static_assert(sizeof buffer >= kIdentityOffset + CF_PLACEHOLDER_MAX_FILE_IDENTITY_LENGTH);
  buffer.fill('\0');
  DWORD returnedLength = 0;
  const HRESULT result = Cloud().CfGetPlaceholderInfo(
      placeholder->Handle(), CF_PLACEHOLDER_INFO_STANDARD, buffer.data(),
      static_cast<DWORD>(buffer.size()), &returnedLength);
  if (FAILED(result)) {
    constexpr int kLine = 54;
    Log(kSource, kLine, "Failed to get placholder info. ", placeholder->Path(), " ", result);
    return;
  }
  CF_PLACEHOLDER_STANDARD_INFO info;
  std::memcpy(&info, buffer.data(), sizeof info);
  onDiskDataSize = info.OnDiskDataSize.QuadPart;
  fileId = info.FileId.QuadPart;
  pinState = info.PinState;
  inSyncState = info.InSyncState;
  // The length comes from outside; a wrong one must not lead past the buffer.
  fileIdentity = {buffer.data() + kIdentityOffset,
                  std::min<std::size_t>(info.FileIdentityLength, buffer.size() - kIdentityOffset)};
  isValid = true;
}

}  // namespace corvdrive::cloud_filter
