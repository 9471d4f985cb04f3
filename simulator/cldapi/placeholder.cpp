// What changes one placeholder by its handle, its data apart.

#include <span>
#include <string>

#include "blob.h"
#include "common/cloud-files.h"
#include "entry.h"
#include "filter.h"
#include "overlapped.h"
#include "paths.h"
#include "result.h"

namespace cldapi {
namespace {

namespace wire = cloud_filter::wire;

// Requests begin with the item.
HRESULT BeginWithItem(HANDLE file, wire::Writer& fields) {
  wire::ItemRef item;
  const HRESULT found = ItemOf(file, item);
  if (SUCCEEDED(found)) Put(fields, item);
  return found;
}

// A request answered with the number that the file's change got.
HRESULT RequestUsn(wire::Op op, const wire::Writer& fields, USN* usn) {
  std::int64_t changed = 0;
  const HRESULT result = RequestNumber(op, fields, changed);
  if (SUCCEEDED(result) && usn != nullptr) *usn = changed;
  return result;
}

void PutRanges(wire::Writer& fields, std::span<const CF_FILE_RANGE> ranges) {
  fields.Put(static_cast<std::uint32_t>(ranges.size()));
  for (const auto& range : ranges) {
    fields.Put<std::int64_t>(range.StartingOffset.QuadPart);
    fields.Put<std::int64_t>(range.Length.QuadPart);
  }
}

// More ranges than a request can carry are no sensible call.
constexpr DWORD kMostRanges = 1 << 20;

}  // namespace
}  // namespace cldapi

extern "C" {

HRESULT WINAPI CfConvertToPlaceholder(HANDLE FileHandle, LPCVOID FileIdentity,
                                      DWORD FileIdentityLength, CF_CONVERT_FLAGS ConvertFlags,
                                      USN* ConvertUsn, LPOVERLAPPED Overlapped) {
  return cldapi::Guarded([&]() -> HRESULT {
    if (!cldapi::IsConsistent(FileIdentity, FileIdentityLength)) {
      return cldapi::result::kInvalidParameter;
    }
    cldapi::wire::Writer fields;
    const HRESULT found = cldapi::BeginWithItem(FileHandle, fields);
    if (FAILED(found)) return found;
    fields.PutBytes(cldapi::IdentityOf(FileIdentity, FileIdentityLength));
    fields.Put(static_cast<std::uint32_t>(ConvertFlags));
    return cldapi::RunAtOnce(Overlapped, [&] {
      return cldapi::RequestUsn(cldapi::wire::Op::kConvert, fields, ConvertUsn);
    });
  });
}

HRESULT WINAPI CfUpdatePlaceholder(HANDLE FileHandle, const CF_FS_METADATA* FsMetadata,
                                   LPCVOID FileIdentity, DWORD FileIdentityLength,
                                   const CF_FILE_RANGE* DehydrateRangeArray,
                                   DWORD DehydrateRangeCount, CF_UPDATE_FLAGS UpdateFlags,
                                   USN* UpdateUsn, LPOVERLAPPED Overlapped) {
  return cldapi::Guarded([&]() -> HRESULT {
    if (!cldapi::IsConsistent(FileIdentity, FileIdentityLength) ||
        !cldapi::IsConsistent(DehydrateRangeArray, DehydrateRangeCount) ||
        DehydrateRangeCount > cldapi::kMostRanges) {
      return cldapi::result::kInvalidParameter;
    }
    cldapi::wire::Writer fields;
    const HRESULT found = cldapi::BeginWithItem(FileHandle, fields);
    if (FAILED(found)) return found;
    fields.Put<std::uint8_t>(FsMetadata != nullptr);
    if (FsMetadata != nullptr) Put(fields, cldapi::MetadataOf(*FsMetadata));
    fields.PutBytes(cldapi::IdentityOf(FileIdentity, FileIdentityLength));
    cldapi::PutRanges(fields, {DehydrateRangeArray, DehydrateRangeCount});
    fields.Put(static_cast<std::uint32_t>(UpdateFlags));
    fields.Put<std::int64_t>(UpdateUsn != nullptr ? *UpdateUsn : 0);
    return cldapi::RunAtOnce(Overlapped, [&] {
      return cldapi::RequestUsn(cldapi::wire::Op::kUpdate, fields, UpdateUsn);
    });
  });
}

HRESULT WINAPI CfRevertPlaceholder(HANDLE FileHandle, CF_REVERT_FLAGS RevertFlags,
                                   LPOVERLAPPED Overlapped) {
  return cldapi::Guarded([&]() -> HRESULT {
    if (RevertFlags != CF_REVERT_FLAG_NONE) return cldapi::result::kInvalidParameter;
    cldapi::wire::Writer fields;
    const HRESULT found = cldapi::BeginWithItem(FileHandle, fields);
    if (FAILED(found)) return found;
    fields.Put(static_cast<std::uint32_t>(RevertFlags));
    // May have to get the file's data first.
    return cldapi::RunInBackground(Overlapped, [fields] {
      return cldapi::TheFilter().Request(cldapi::wire::Op::kRevert, fields);
    });
  });
}

HRESULT WINAPI CfSetPinState(HANDLE FileHandle, CF_PIN_STATE PinState, CF_SET_PIN_FLAGS PinFlags,
                             LPOVERLAPPED Overlapped) {
  return cldapi::Guarded([&]() -> HRESULT {
    cldapi::wire::Writer fields;
    const HRESULT found = cldapi::BeginWithItem(FileHandle, fields);
    if (FAILED(found)) return found;
    fields.Put(static_cast<std::uint32_t>(PinState)).Put(static_cast<std::uint32_t>(PinFlags));
    return cldapi::RunAtOnce(Overlapped, [&] {
      return cldapi::TheFilter().Request(cldapi::wire::Op::kSetPinState, fields);
    });
  });
}

HRESULT WINAPI CfSetInSyncState(HANDLE FileHandle, CF_IN_SYNC_STATE InSyncState,
                                CF_SET_IN_SYNC_FLAGS InSyncFlags, USN* InSyncUsn) {
  return cldapi::Guarded([&]() -> HRESULT {
    cldapi::wire::Writer fields;
    const HRESULT found = cldapi::BeginWithItem(FileHandle, fields);
    if (FAILED(found)) return found;
    fields.Put(static_cast<std::uint32_t>(InSyncState));
    fields.Put(static_cast<std::uint32_t>(InSyncFlags));
    fields.Put<std::int64_t>(InSyncUsn != nullptr ? *InSyncUsn : 0);
    return cldapi::RequestUsn(cldapi::wire::Op::kSetInSync, fields, InSyncUsn);
  });
}

// Correlation vectors tie together traces of the system's parts, and there are none here.

HRESULT WINAPI CfSetCorrelationVector(HANDLE /*FileHandle*/,
                                      const PCORRELATION_VECTOR /*CorrelationVector*/) {
  return E_NOTIMPL;
}

HRESULT WINAPI CfGetCorrelationVector(HANDLE /*FileHandle*/,
                                      PCORRELATION_VECTOR /*CorrelationVector*/) {
  return E_NOTIMPL;
}

}  // extern "C"
