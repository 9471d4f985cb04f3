#include "codes.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace cloud_filter {
namespace {

using StatusRow = std::pair<std::uint32_t, std::uint32_t>;

constexpr std::array kCloudFileStatuses = {
    StatusRow{0xC000CF00, 358}, StatusRow{0xC000CF01, 362}, StatusRow{0xC000CF02, 363},
    StatusRow{0xC000CF03, 364}, StatusRow{0x8000CF04, 365}, StatusRow{0x8000CF00, 366},
    StatusRow{0x8000CF05, 374}, StatusRow{0xC000CF06, 375}, StatusRow{0xC000CF07, 376},
    StatusRow{0xC000CF08, 377}, StatusRow{0xC000CF09, 378}, StatusRow{0xC000CF0A, 379},
    StatusRow{0xC000CF0B, 380}, StatusRow{0xC000CF0C, 381}, StatusRow{0xC000CF0D, 382},
    StatusRow{0xC000CF0E, 383}, StatusRow{0xC000CF0F, 386}, StatusRow{0xC000CF10, 387},
    StatusRow{0xC000CF11, 388}, StatusRow{0xC000CF12, 389}, StatusRow{0xC000CF13, 390},
    StatusRow{0xC000CF14, 391}, StatusRow{0xC000CF15, 392}, StatusRow{0xC000CF16, 393},
    StatusRow{0xC000CF17, 394}, StatusRow{0xC000CF18, 395}, StatusRow{0xC000CF19, 396},
    StatusRow{0xC000CF1A, 397}, StatusRow{0xC000CF1B, 398}, StatusRow{0xC000CF1D, 404},
    StatusRow{0xC000CF1E, 405}, StatusRow{0xC000CF1F, 426}, StatusRow{0xC000CF20, 434},
    StatusRow{0xC000CF21, 475},
};

}  // namespace

Hresult HresultOfStatus(std::uint32_t ntstatus) {
  if (ntstatus == 0) return hr::kOk;
  const auto row = std::find_if(kCloudFileStatuses.begin(), kCloudFileStatuses.end(),
                                [=](const StatusRow& r) { return r.first == ntstatus; });
  return row == kCloudFileStatuses.end() ? hr::kUnsuccessful : FromWin32(row->second);
}

int ErrnoOf(Hresult result) {
  switch (result) {
    case hr::kOk:
      return 0;
    case hr::kRequestTimeout:
      return ETIMEDOUT;
    case hr::kAccessDenied:
      return EACCES;
    case hr::kInterrupted:
      return EINTR;
    case hr::kDiskFull:
      return ENOSPC;
    default:
      return EIO;
  }
}

Hresult HresultOfErrno(int error) {
  switch (error) {
    case 0:
      return hr::kOk;
    case ENOENT:
    case ESTALE:
      return hr::kFileNotFound;
    case ENOTDIR:
      return hr::kPathNotFound;
    case EEXIST:
      return hr::kAlreadyExists;
    case EACCES:
    case EPERM:
    case EROFS:
      return hr::kAccessDenied;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return hr::kDiskFull;
    case ENAMETOOLONG:
    case EINVAL:
      return hr::kInvalidName;
    default:
      return hr::kGeneralFailure;
  }
}

}  // namespace cloud_filter
