#include "tests/support/cloud-copies.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <stdexcept>

namespace nimbra_test {
namespace {

std::int64_t CountZeroes(const std::byte* begin, const std::byte* end) {
  return std::count(begin, std::max(begin, end), std::byte{0});
}

void CopyTransfer(const CF_OPERATION_PARAMETERS::TransferDataArm& arm, std::int64_t bufferSize,
                  ExecuteCall& call) {
  call.flags = static_cast<DWORD>(arm.Flags);
  call.status = arm.CompletionStatus;
  call.buffer = arm.Buffer;
  call.offset = arm.Offset.QuadPart;
  call.length = arm.Length.QuadPart;
  const auto* bytes = static_cast<const std::byte*>(arm.Buffer);
  if (bytes != nullptr && call.length > 0) {
    call.data.assign(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(call.length));
  }
  if (bytes != nullptr && bufferSize > 0) {
    call.zeroBytesAfter = CountZeroes(bytes + call.length, bytes + bufferSize);
  }
}

}  // namespace

const char* Name(CloudFunction function) {
  static constexpr const char* kNames[] = {
      "CfGetPlatformInfo",
      "CfRegisterSyncRoot",
      "CfUnregisterSyncRoot",
      "CfConnectSyncRoot",
      "CfDisconnectSyncRoot",
      "CfGetTransferKey",
      "CfReleaseTransferKey",
      "CfExecute",
      "CfReportProviderProgress",
      "CfCreatePlaceholders",
      "CfConvertToPlaceholder",
      "CfUpdatePlaceholder",
      "CfRevertPlaceholder",
      "CfHydratePlaceholder",
      "CfDehydratePlaceholder",
      "CfSetPinState",
      "CfSetInSyncState",
      "CfGetPlaceholderInfo",
      "CfGetPlaceholderStateFromFindData",
      "CfGetSyncRootInfoByPath",
      "CfReferenceProtectedHandle",
      "CfGetWin32HandleFromProtectedHandle",
      "CfReleaseProtectedHandle",
  };
  static_assert(std::size(kNames) == std::variant_size_v<CloudCall>);
  return kNames[static_cast<std::size_t>(function)];
}

std::wstring Text(LPCWSTR text) { return text != nullptr ? text : L"(null)"; }

std::optional<Bytes> Blob(const void* data, DWORD length) {
  if (data == nullptr) {
    return std::nullopt;
  }
  return Bytes(static_cast<const char*>(data), length);
}

OverlappedArgument Overlapped(OVERLAPPED* overlapped) {
  OverlappedArgument argument;
  argument.address = overlapped;
  if (overlapped != nullptr) {
    argument.contents = *overlapped;
  }
  return argument;
}

bool IsZeroed(const void* buffer, DWORD length) {
  const auto* bytes = static_cast<const char*>(buffer);
  return std::all_of(bytes, bytes + length, [](char byte) { return byte == 0; });
}

CreateEntry CopyEntry(const CF_PLACEHOLDER_CREATE_INFO& entry) {
  return {Text(entry.RelativeFileName),
          entry.FsMetadata,
          Blob(entry.FileIdentity, entry.FileIdentityLength),
          entry.FileIdentityLength,
          entry.Flags,
          entry.Result,
          entry.CreateUsn};
}

std::vector<CF_CALLBACK_REGISTRATION> CopyTable(const CF_CALLBACK_REGISTRATION* table) {
  std::vector<CF_CALLBACK_REGISTRATION> copy;
  constexpr std::size_t kMostEntries = 32;
  while (table != nullptr && copy.size() < kMostEntries) {
    copy.push_back(*table);
    if (table->Type == CF_CALLBACK_TYPE_NONE) {
      break;
    }
    ++table;
  }
  return copy;
}

ExecuteCall CopyExecute(const CF_OPERATION_INFO& info, const CF_OPERATION_PARAMETERS& parameters,
                        std::int64_t bufferSize) {
  ExecuteCall call{};
  call.info = info;
  call.paramSize = parameters.ParamSize;
  switch (info.Type) {
    case CF_OPERATION_TYPE_TRANSFER_DATA:
      CopyTransfer(parameters.TransferData, bufferSize, call);
      break;
    case CF_OPERATION_TYPE_ACK_RENAME:
      call.flags = static_cast<DWORD>(parameters.AckRename.Flags);
      call.status = parameters.AckRename.CompletionStatus;
      break;
    case CF_OPERATION_TYPE_ACK_DELETE:
      call.flags = static_cast<DWORD>(parameters.AckDelete.Flags);
      call.status = parameters.AckDelete.CompletionStatus;
      break;
    default:
      throw std::logic_error("an operation that this system never asks for");
  }
  return call;
}

}  // namespace nimbra_test
