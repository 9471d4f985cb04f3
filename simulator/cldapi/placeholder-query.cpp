// CfGetPlaceholderInfo and the range queries.

#include <cstddef>
#include <string>

#include "common/cloud-files.h"
#include "entry.h"
#include "filter.h"
#include "info-buffer.h"
#include "paths.h"
#include "result.h"

namespace cldapi {
namespace {

namespace wire = cloud_filter::wire;

// What both layouts tell.
template <class Info>
void FillCommon(const wire::PlaceholderInfo& from, Info& info) {
  info.PinState = static_cast<CF_PIN_STATE>(from.pinState);
  info.InSyncState = static_cast<CF_IN_SYNC_STATE>(from.inSyncState);
  info.FileId.QuadPart = from.fileId;
  info.SyncRootFileId.QuadPart = from.syncRootFileId;
  info.FileIdentityLength = static_cast<ULONG>(from.identity.size());
}

std::string BasicInfo(const wire::PlaceholderInfo& from) {
  CF_PLACEHOLDER_BASIC_INFO info{};
  FillCommon(from, info);
  return WithBlob(info, offsetof(CF_PLACEHOLDER_BASIC_INFO, FileIdentity), from.identity);
}

std::string StandardInfo(const wire::PlaceholderInfo& from) {
  CF_PLACEHOLDER_STANDARD_INFO info{};
  info.OnDiskDataSize.QuadPart = from.onDiskDataSize;
  info.ValidatedDataSize.QuadPart = from.validatedDataSize;
  info.ModifiedDataSize.QuadPart = from.modifiedDataSize;
  info.PropertiesSize.QuadPart = from.propertiesSize;
  FillCommon(from, info);
  return WithBlob(info, offsetof(CF_PLACEHOLDER_STANDARD_INFO, FileIdentity), from.identity);
}

bool IsRangeClass(CF_PLACEHOLDER_RANGE_INFO_CLASS infoClass) noexcept {
  return infoClass == CF_PLACEHOLDER_RANGE_INFO_ONDISK ||
         infoClass == CF_PLACEHOLDER_RANGE_INFO_VALIDATED ||
         infoClass == CF_PLACEHOLDER_RANGE_INFO_MODIFIED;
}

// Both range queries end with the same fields and have the same answer.
HRESULT RequestRanges(wire::Op op, wire::Writer& fields, CF_PLACEHOLDER_RANGE_INFO_CLASS infoClass,
                      LARGE_INTEGER offset, LARGE_INTEGER length, const InfoBuffer& buffer) {
  fields.Put(static_cast<std::uint32_t>(infoClass));
  fields.Put<std::int64_t>(offset.QuadPart).Put<std::int64_t>(length.QuadPart);
  std::string payload;
  const HRESULT result = TheFilter().Request(op, fields, &payload);
  if (FAILED(result)) return result;
  wire::Reader reader(payload);
  const auto count = reader.Get<std::uint32_t>();
  const std::string_view records = std::string_view(payload).substr(sizeof count);
  // The protocol's pairs of numbers are laid out as CF_FILE_RANGE is.
  if (!reader.Good() || records.size() != count * sizeof(CF_FILE_RANGE)) {
    return result::kInvalidData;
  }
  return buffer.AnswerRecords(records, sizeof(CF_FILE_RANGE));
}

}  // namespace
}  // namespace cldapi

extern "C" {

HRESULT WINAPI CfGetPlaceholderInfo(HANDLE FileHandle, CF_PLACEHOLDER_INFO_CLASS InfoClass,
                                    PVOID InfoBuffer, DWORD InfoBufferLength,
                                    PDWORD ReturnedLength) {
  return cldapi::Guarded([&]() -> HRESULT {
    const cldapi::InfoBuffer buffer(InfoBuffer, InfoBufferLength, ReturnedLength);
    const bool basic = InfoClass == CF_PLACEHOLDER_INFO_BASIC;
    if (!buffer.IsUsable() || (!basic && InfoClass != CF_PLACEHOLDER_INFO_STANDARD)) {
      return cldapi::result::kInvalidParameter;
    }
    cldapi::wire::ItemRef item;
    HRESULT result = cldapi::ItemOf(FileHandle, item);
    if (FAILED(result)) return result;
    cldapi::wire::Writer fields;
    Put(fields, item);
    cldapi::wire::PlaceholderInfo info;
    result = cldapi::RequestAnswer(cldapi::wire::Op::kGetPlaceholderInfo, fields, info);
    if (FAILED(result)) return result;
    return buffer.Answer(basic ? cldapi::BasicInfo(info) : cldapi::StandardInfo(info));
  });
}

HRESULT WINAPI CfGetPlaceholderRangeInfo(HANDLE FileHandle,
                                         CF_PLACEHOLDER_RANGE_INFO_CLASS InfoClass,
                                         LARGE_INTEGER StartingOffset, LARGE_INTEGER Length,
                                         PVOID InfoBuffer, DWORD InfoBufferLength,
                                         PDWORD ReturnedLength) {
  return cldapi::Guarded([&]() -> HRESULT {
    const cldapi::InfoBuffer buffer(InfoBuffer, InfoBufferLength, ReturnedLength);
    if (!buffer.IsUsable() || !cldapi::IsRangeClass(InfoClass)) {
      return cldapi::result::kInvalidParameter;
    }
    cldapi::wire::ItemRef item;
    const HRESULT found = cldapi::ItemOf(FileHandle, item);
    if (FAILED(found)) return found;
    cldapi::wire::Writer fields;
    Put(fields, item);
    return cldapi::RequestRanges(cldapi::wire::Op::kGetRangeInfo, fields, InfoClass, StartingOffset,
                                 Length, buffer);
  });
}

HRESULT WINAPI CfGetPlaceholderRangeInfoForHydration(
    CF_CONNECTION_KEY ConnectionKey, CF_TRANSFER_KEY TransferKey, LARGE_INTEGER FileId,
    CF_PLACEHOLDER_RANGE_INFO_CLASS InfoClass, LARGE_INTEGER StartingOffset,
    LARGE_INTEGER RangeLength, PVOID InfoBuffer, DWORD InfoBufferSize, PDWORD InfoBufferWritten) {
  return cldapi::Guarded([&]() -> HRESULT {
    const cldapi::InfoBuffer buffer(InfoBuffer, InfoBufferSize, InfoBufferWritten);
    if (!buffer.IsUsable() || !cldapi::IsRangeClass(InfoClass)) {
      return cldapi::result::kInvalidParameter;
    }
    cldapi::wire::Writer fields;
    fields.Put<std::int64_t>(ConnectionKey.Internal).Put<std::int64_t>(TransferKey.QuadPart);
    fields.Put<std::int64_t>(FileId.QuadPart);
    return cldapi::RequestRanges(cldapi::wire::Op::kGetRangeInfoByKey, fields, InfoClass,
                                 StartingOffset, RangeLength, buffer);
  });
}

}  // extern "C"
