#include "win-cf/operations.h"

#include "common/cldapi-table.h"

namespace corvdrive::cloud_filter {
namespace {

// Each operation's parameters count from the start of the record to the end of its own part.
constexpr ULONG kTransferSize = 40;
constexpr ULONG kAckSize = 16;

}  // namespace

NTSTATUS ToCompletionStatus(std::uint32_t clientStatus) {
  switch (clientStatus) {
    case 0:
      return STATUS_SUCCESS;
    case 2:
      return STATUS_DISK_FULL;
    case 3:
      return STATUS_CLOUD_FILE_REQUEST_ABORTED;
    default:
      return STATUS_CLOUD_FILE_UNSUCCESSFUL;
  }
}

CF_OPERATION_PARAMETERS MakeTransfer(NTSTATUS status, const void* buffer, std::int64_t offset,
                                     std::int64_t length) {
  CF_OPERATION_PARAMETERS parameters{};
  parameters.ParamSize = kTransferSize;
  parameters.TransferData.Flags = CF_OPERATION_TRANSFER_DATA_FLAG_NONE;
  parameters.TransferData.CompletionStatus = status;
  parameters.TransferData.Buffer = buffer;
  parameters.TransferData.Offset.QuadPart = offset;
  parameters.TransferData.Length.QuadPart = length;
  return parameters;
}

CF_OPERATION_PARAMETERS MakeAckRename() {
  CF_OPERATION_PARAMETERS parameters{};
  parameters.ParamSize = kAckSize;
  parameters.AckRename.Flags = CF_OPERATION_ACK_RENAME_FLAG_NONE;
  parameters.AckRename.CompletionStatus = STATUS_SUCCESS;
  return parameters;
}

CF_OPERATION_PARAMETERS MakeAckDelete(NTSTATUS status) {
  CF_OPERATION_PARAMETERS parameters{};
  parameters.ParamSize = kAckSize;
  parameters.AckDelete.Flags = CF_OPERATION_ACK_DELETE_FLAG_NONE;
  parameters.AckDelete.CompletionStatus = status;
  return parameters;
}

HRESULT Execute(CF_OPERATION_TYPE type, CF_CONNECTION_KEY connectionKey, std::int64_t transferKey,
                CF_OPERATION_PARAMETERS& parameters) {
  CF_OPERATION_INFO info{};
  info.StructSize = sizeof info;
  info.Type = type;
  info.ConnectionKey = connectionKey;
  info.TransferKey.QuadPart = transferKey;
  return Cloud().CfExecute(&info, &parameters);
}

}  // namespace corvdrive::cloud_filter
