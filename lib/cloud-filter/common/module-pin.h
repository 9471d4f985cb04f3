#ifndef NIMBRA_COMMON_MODULE_PIN_H_
#define NIMBRA_COMMON_MODULE_PIN_H_

namespace corvdrive::cloud_filter {

// Keeps this module loaded until the process ends: from the moment the system may call into it at
// any time, unloading it would leave such a call without code.
void PinModule();

}  // namespace corvdrive::cloud_filter

#endif
