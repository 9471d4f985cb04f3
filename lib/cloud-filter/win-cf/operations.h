#ifndef NIMBRA_WIN_CF_OPERATIONS_H_
#define NIMBRA_WIN_CF_OPERATIONS_H_

#include <cstdint>

#include "common/cloud-files.h"

namespace corvdrive::cloud_filter {

// The operations by which a provider answers the platform.

// The completion status for a client's status code.
[[nodiscard]] NTSTATUS ToCompletionStatus(std::uint32_t clientStatus);

[[nodiscard]] CF_OPERATION_PARAMETERS MakeTransfer(NTSTATUS status, const void* buffer,
                                                   std::int64_t offset, std::int64_t length);
[[nodiscard]] CF_OPERATION_PARAMETERS MakeAckRename();
[[nodiscard]] CF_OPERATION_PARAMETERS MakeAckDelete(NTSTATUS status);

// Executes one of the above.
[[nodiscard]] HRESULT Execute(CF_OPERATION_TYPE type, CF_CONNECTION_KEY connectionKey,
                              std::int64_t transferKey, CF_OPERATION_PARAMETERS& parameters);

}  // namespace corvdrive::cloud_filter

#endif
