// CfExecute and progress.

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>

#include "blob.h"
#include "common/cloud-files.h"
#include "connection.h"
#include "entry.h"
#include "filter.h"
#include "result.h"

namespace cldapi {
namespace {

namespace wire = cloud_filter::wire;

using Parameters = CF_OPERATION_PARAMETERS;

// One transfer of the protocol; a multiple of the page size.
constexpr LONGLONG kPiece = 64LL << 20;

wire::Writer Addressed(const CF_OPERATION_INFO& operation) {
  wire::Writer fields;
  Put(fields, wire::Target{operation.ConnectionKey.Internal, operation.TransferKey.QuadPart,
                           operation.RequestKey.QuadPart});
  return fields;
}

// Documented: the size is that of the arm and what lies before it, exactly.
template <class Arm>
bool IsSized(const Parameters& parameters, const Arm& /*arm*/, ULONG allowedFlags = 0) {
  const auto& flags = parameters.TransferData.Flags;  // all arms begin with their flags
  return parameters.ParamSize == offsetof(Parameters, TransferData) + sizeof(Arm) &&
         (flags & ~allowedFlags) == 0;
}

bool IsRange(LARGE_INTEGER offset, LARGE_INTEGER length) noexcept {
  return offset.QuadPart >= 0 && length.QuadPart >= 0 &&
         offset.QuadPart <= MAXLONGLONG - length.QuadPart;
}

HRESULT TransferPiece(const CF_OPERATION_INFO& operation, NTSTATUS status, LONGLONG offset,
                      LONGLONG length, std::string_view data) {
  wire::Writer fields = Addressed(operation);
  fields.Put(static_cast<std::uint32_t>(status)).Put<std::int64_t>(offset);
  // The data follow the fields straight from the caller's buffer.
  fields.Put<std::int64_t>(length).Put(static_cast<std::uint32_t>(data.size()));
  return TheFilter().Request(wire::Op::kTransferData, fields, nullptr, data);
}

HRESULT TransferData(const CF_OPERATION_INFO& operation, Parameters& parameters) {
  const auto& arm = parameters.TransferData;
  if (!IsSized(parameters, arm) || !IsRange(arm.Offset, arm.Length)) {
    return result::kInvalidParameter;
  }
  const LONGLONG offset = arm.Offset.QuadPart;
  const LONGLONG length = arm.Length.QuadPart;
  if (arm.CompletionStatus < 0) {
    return TransferPiece(operation, arm.CompletionStatus, offset, length, {});
  }
  if (arm.Buffer == nullptr && length > 0) return result::kInvalidParameter;
  const auto* data = static_cast<const char*>(arm.Buffer);
  LONGLONG done = 0;
  HRESULT result = S_OK;
  do {
    const LONGLONG piece = std::min(length - done, kPiece);
    const std::string_view bytes(data + done, static_cast<std::size_t>(piece));
    result = TransferPiece(operation, arm.CompletionStatus, offset + done, piece, bytes);
    done += piece;
  } while (SUCCEEDED(result) && done < length);
  return result;
}

HRESULT RetrievePiece(const CF_OPERATION_INFO& operation, LONGLONG offset, LONGLONG length,
                      std::string& data) {
  wire::Writer fields = Addressed(operation);
  fields.Put<std::int64_t>(offset).Put<std::int64_t>(length);
  std::string payload;
  const HRESULT result = TheFilter().Request(wire::Op::kRetrieveData, fields, &payload);
  if (FAILED(result)) return result;
  wire::Reader reader(payload);
  data = reader.GetString();
  const bool fits = reader.Good() && data.size() <= static_cast<std::size_t>(length);
  return fits ? result : result::kInvalidData;
}

HRESULT RetrieveData(const CF_OPERATION_INFO& operation, Parameters& parameters) {
  auto& arm = parameters.RetrieveData;
  if (!IsSized(parameters, arm) || !IsRange(arm.Offset, arm.Length) || arm.Buffer == nullptr) {
    return result::kInvalidParameter;
  }
  auto* into = static_cast<char*>(arm.Buffer);
  LONGLONG done = 0;
  LONGLONG wanted = 0;
  std::string data;
  do {
    wanted = std::min(arm.Length.QuadPart - done, kPiece);
    const HRESULT result = RetrievePiece(operation, arm.Offset.QuadPart + done, wanted, data);
    if (FAILED(result)) return result;
    std::memcpy(into + done, data.data(), data.size());
    done += static_cast<LONGLONG>(data.size());
  } while (static_cast<LONGLONG>(data.size()) == wanted && done < arm.Length.QuadPart);
  arm.ReturnedLength.QuadPart = done;
  return S_OK;
}

HRESULT AckData(const CF_OPERATION_INFO& operation, Parameters& parameters) {
  const auto& arm = parameters.AckData;
  const bool toEnd = arm.Offset.QuadPart >= 0 && arm.Length.QuadPart == CF_EOF;
  if (!IsSized(parameters, arm) || !(toEnd || IsRange(arm.Offset, arm.Length))) {
    return result::kInvalidParameter;
  }
  wire::Writer fields = Addressed(operation);
  fields.Put(static_cast<std::uint32_t>(arm.CompletionStatus));
  fields.Put<std::int64_t>(arm.Offset.QuadPart).Put<std::int64_t>(arm.Length.QuadPart);
  return TheFilter().Request(wire::Op::kAckData, fields);
}

void PutOptionalIdentity(wire::Writer& fields, LPCVOID identity, DWORD length) {
  fields.Put<std::uint8_t>(identity != nullptr);
  if (identity != nullptr) fields.PutBytes(IdentityOf(identity, length));
}

HRESULT RestartHydration(const CF_OPERATION_INFO& operation, Parameters& parameters) {
  const auto& arm = parameters.RestartHydration;
  if (!IsSized(parameters, arm, CF_OPERATION_RESTART_HYDRATION_FLAG_MARK_IN_SYNC) ||
      !IsConsistent(arm.FileIdentity, arm.FileIdentityLength)) {
    return result::kInvalidParameter;
  }
  wire::Writer fields = Addressed(operation);
  fields.Put(static_cast<std::uint32_t>(arm.Flags));
  fields.Put<std::uint8_t>(arm.FsMetadata != nullptr);
  if (arm.FsMetadata != nullptr) Put(fields, MetadataOf(*arm.FsMetadata));
  PutOptionalIdentity(fields, arm.FileIdentity, arm.FileIdentityLength);
  return TheFilter().Request(wire::Op::kRestartHydration, fields);
}

HRESULT TransferPlaceholders(Parameters& parameters) {
  auto& arm = parameters.TransferPlaceholders;
  if (!IsSized(parameters, arm,
               CF_OPERATION_TRANSFER_PLACEHOLDERS_FLAG_STOP_ON_ERROR |
                   CF_OPERATION_TRANSFER_PLACEHOLDERS_FLAG_DISABLE_ON_DEMAND_POPULATION)) {
    return result::kInvalidParameter;
  }
  arm.EntriesProcessed = 0;
  return FromWin32(ERROR_CLOUD_FILE_NOT_SUPPORTED);  // the filter populates nothing on demand
}

HRESULT AckDehydrate(const CF_OPERATION_INFO& operation, Parameters& parameters) {
  const auto& arm = parameters.AckDehydrate;
  if (!IsSized(parameters, arm) || !IsConsistent(arm.FileIdentity, arm.FileIdentityLength)) {
    return result::kInvalidParameter;
  }
  wire::Writer fields = Addressed(operation);
  fields.Put(static_cast<std::uint32_t>(arm.CompletionStatus));
  PutOptionalIdentity(fields, arm.FileIdentity, arm.FileIdentityLength);
  return TheFilter().Request(wire::Op::kAckDehydrate, fields);
}

template <class Arm>
HRESULT Acknowledge(wire::Op op, const CF_OPERATION_INFO& operation, const Parameters& parameters,
                    const Arm& arm) {
  if (!IsSized(parameters, arm)) return result::kInvalidParameter;
  wire::Writer fields = Addressed(operation);
  fields.Put(static_cast<std::uint32_t>(arm.CompletionStatus));
  return TheFilter().Request(op, fields);
}

HRESULT Execute(const CF_OPERATION_INFO& operation, Parameters& parameters) {
  switch (operation.Type) {
    case CF_OPERATION_TYPE_TRANSFER_DATA:
      return TransferData(operation, parameters);
    case CF_OPERATION_TYPE_RETRIEVE_DATA:
      return RetrieveData(operation, parameters);
    case CF_OPERATION_TYPE_ACK_DATA:
      return AckData(operation, parameters);
    case CF_OPERATION_TYPE_RESTART_HYDRATION:
      return RestartHydration(operation, parameters);
    case CF_OPERATION_TYPE_TRANSFER_PLACEHOLDERS:
      return TransferPlaceholders(parameters);
    case CF_OPERATION_TYPE_ACK_DEHYDRATE:
      return AckDehydrate(operation, parameters);
    case CF_OPERATION_TYPE_ACK_DELETE:
      return Acknowledge(wire::Op::kAckDelete, operation, parameters, parameters.AckDelete);
    case CF_OPERATION_TYPE_ACK_RENAME:
      return Acknowledge(wire::Op::kAckRename, operation, parameters, parameters.AckRename);
  }
  return result::kInvalidParameter;
}

}  // namespace
}  // namespace cldapi

extern "C" {

HRESULT WINAPI CfExecute(const CF_OPERATION_INFO* OpInfo, CF_OPERATION_PARAMETERS* OpParams) {
  return cldapi::Guarded([&]() -> HRESULT {
    if (OpInfo == nullptr || OpParams == nullptr || OpInfo->StructSize != sizeof *OpInfo ||
        !cldapi::IsConnected(OpInfo->ConnectionKey)) {
      return cldapi::result::kInvalidParameter;
    }
    return cldapi::Execute(*OpInfo, *OpParams);
  });
}

HRESULT WINAPI CfReportProviderProgress(CF_CONNECTION_KEY ConnectionKey,
                                        CF_TRANSFER_KEY TransferKey,
                                        LARGE_INTEGER ProviderProgressTotal,
                                        LARGE_INTEGER ProviderProgressCompleted) {
  CF_REQUEST_KEY request;
  request.QuadPart = CF_REQUEST_KEY_DEFAULT;
  return CfReportProviderProgress2(ConnectionKey, TransferKey, request, ProviderProgressTotal,
                                   ProviderProgressCompleted, 0);
}

HRESULT WINAPI CfReportProviderProgress2(CF_CONNECTION_KEY ConnectionKey,
                                         CF_TRANSFER_KEY TransferKey, CF_REQUEST_KEY RequestKey,
                                         LARGE_INTEGER ProviderProgressTotal,
                                         LARGE_INTEGER ProviderProgressCompleted,
                                         DWORD /*TargetSessionId*/) {
  return cldapi::Guarded([&]() -> HRESULT {
    if (!cldapi::IsConnected(ConnectionKey)) return cldapi::result::kInvalidParameter;
    cldapi::wire::Writer fields;
    fields.Put<std::int64_t>(ConnectionKey.Internal).Put<std::int64_t>(TransferKey.QuadPart);
    fields.Put<std::int64_t>(RequestKey.QuadPart);
    fields.Put<std::int64_t>(ProviderProgressTotal.QuadPart);
    fields.Put<std::int64_t>(ProviderProgressCompleted.QuadPart);
    return cldapi::TheFilter().Request(cldapi::wire::Op::kReportProgress, fields);
  });
}

}  // extern "C"
