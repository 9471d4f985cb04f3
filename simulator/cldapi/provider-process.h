#ifndef NIMBRA_SIMULATOR_CLDAPI_PROVIDER_PROCESS_H_
#define NIMBRA_SIMULATOR_CLDAPI_PROVIDER_PROCESS_H_

#include <string>

#include "protocol/wire.h"

namespace cldapi {

// What the filter wants to know of this process when it connects the sync root at `rootPath`.
[[nodiscard]] cloud_filter::wire::ProviderProcess DescribeThisProcess(const std::wstring& rootPath);

}  // namespace cldapi

#endif  // NIMBRA_SIMULATOR_CLDAPI_PROVIDER_PROCESS_H_
