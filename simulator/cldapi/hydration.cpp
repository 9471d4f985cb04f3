// What brings a placeholder's data and drops it, and the keys under which data are transferred.

#include "common/cloud-files.h"
#include "entry.h"
#include "filter.h"
#include "overlapped.h"
#include "paths.h"
#include "result.h"

namespace cldapi {
namespace {

namespace wire = cloud_filter::wire;

HRESULT RangeRequest(HANDLE file, LARGE_INTEGER offset, LARGE_INTEGER length, ULONG flags,
                     wire::Writer& fields) {
  if (offset.QuadPart < 0 || length.QuadPart < CF_EOF) return result::kInvalidParameter;
  wire::ItemRef item;
  const HRESULT found = ItemOf(file, item);
  if (FAILED(found)) return found;
  Put(fields, item);
  fields.Put<std::int64_t>(offset.QuadPart).Put<std::int64_t>(length.QuadPart);
  fields.Put(static_cast<std::uint32_t>(flags));
  return S_OK;
}

}  // namespace
}  // namespace cldapi

extern "C" {

HRESULT WINAPI CfHydratePlaceholder(HANDLE FileHandle, LARGE_INTEGER StartingOffset,
                                    LARGE_INTEGER Length, CF_HYDRATE_FLAGS HydrateFlags,
                                    LPOVERLAPPED Overlapped) {
  return cldapi::Guarded([&]() -> HRESULT {
    if (HydrateFlags != CF_HYDRATE_FLAG_NONE) return cldapi::result::kInvalidParameter;
    cldapi::wire::Writer fields;
    const HRESULT ready =
        cldapi::RangeRequest(FileHandle, StartingOffset, Length, HydrateFlags, fields);
    if (FAILED(ready)) return ready;
    return cldapi::RunInBackground(Overlapped, [fields] {
      return cldapi::TheFilter().Request(cldapi::wire::Op::kHydrate, fields);
    });
  });
}

HRESULT WINAPI CfDehydratePlaceholder(HANDLE FileHandle, LARGE_INTEGER StartingOffset,
                                      LARGE_INTEGER Length, CF_DEHYDRATE_FLAGS DehydrateFlags,
                                      LPOVERLAPPED Overlapped) {
  return cldapi::Guarded([&]() -> HRESULT {
    if ((DehydrateFlags & ~CF_DEHYDRATE_FLAG_BACKGROUND) != 0) {
      return cldapi::result::kInvalidParameter;
    }
    cldapi::wire::Writer fields;
    const HRESULT ready =
        cldapi::RangeRequest(FileHandle, StartingOffset, Length, DehydrateFlags, fields);
    if (FAILED(ready)) return ready;
    // Without an event there is nothing that a waiter could be woken by: Wine takes a pending
    // record without one to be complete.
    const auto request = [fields] {
      return cldapi::TheFilter().Request(cldapi::wire::Op::kDehydrate, fields);
    };
    const bool canWait = Overlapped != nullptr && Overlapped->hEvent != nullptr;
    return canWait ? cldapi::RunInBackground(Overlapped, request)
                   : cldapi::RunAtOnce(Overlapped, request);
  });
}

HRESULT WINAPI CfGetTransferKey(HANDLE FileHandle, CF_TRANSFER_KEY* TransferKey) {
  return cldapi::Guarded([&]() -> HRESULT {
    if (TransferKey == nullptr) return cldapi::result::kInvalidParameter;
    cldapi::wire::ItemRef item;
    const HRESULT found = cldapi::ItemOf(FileHandle, item);
    if (FAILED(found)) return found;
    cldapi::wire::Writer fields;
    Put(fields, item);
    std::int64_t key = 0;
    const HRESULT result = cldapi::RequestNumber(cldapi::wire::Op::kGetTransferKey, fields, key);
    if (SUCCEEDED(result)) TransferKey->QuadPart = key;
    return result;
  });
}

void WINAPI CfReleaseTransferKey(HANDLE /*FileHandle*/, CF_TRANSFER_KEY* TransferKey) {
  // Has no result to tell a failure with.
  static_cast<void>(cldapi::Guarded([&]() -> HRESULT {
    if (TransferKey == nullptr) return cldapi::result::kInvalidParameter;
    cldapi::wire::Writer fields;
    fields.Put<std::int64_t>(TransferKey->QuadPart);
    return cldapi::TheFilter().Request(cldapi::wire::Op::kReleaseTransferKey, fields);
  }));
}

}  // extern "C"
