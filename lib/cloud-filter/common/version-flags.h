#ifndef NIMBRA_COMMON_VERSION_FLAGS_H_
#define NIMBRA_COMMON_VERSION_FLAGS_H_

#include <cstdint>

namespace corvdrive::cloud_filter {

// What the running Windows allows; 0 or 1, written once while the library is loaded.

// Windows 10.0, build 17134 or later: the gate before nearly every export.
extern std::int32_t supportFileStreaming;
// Exactly Windows 10.0, build 17134.
extern std::int32_t disableUIFileStreamingOption;
// Windows 10.0, build 17763 or later.
extern std::int32_t defaultFileStreaming;

// Sets the three flags from the version that Windows reports to this process, which depends on the
// host program's manifest.
void ComputeVersionFlags();

}  // namespace corvdrive::cloud_filter

#endif
