#ifndef NIMBRA_SIMULATOR_CLDAPI_MODULE_H_
#define NIMBRA_SIMULATOR_CLDAPI_MODULE_H_

namespace cldapi {

// Keeps the DLL loaded for the rest of the process; called before the first thread starts, because
// threads cannot outlive their code. For the same reason what threads use is never destroyed.
void KeepLoaded() noexcept;

}  // namespace cldapi

#endif  // NIMBRA_SIMULATOR_CLDAPI_MODULE_H_
