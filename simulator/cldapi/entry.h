#ifndef NIMBRA_SIMULATOR_CLDAPI_ENTRY_H_
#define NIMBRA_SIMULATOR_CLDAPI_ENTRY_H_

#include <windows.h>

#include <new>

#include "wine-host.h"

namespace cldapi {

// The frame of every exported function that has a result: no exception leaves the DLL, and on a
// real Windows nothing is pretended.
template <class Body>
[[nodiscard]] HRESULT Guarded(const Body& body) noexcept {
  if (!RunsUnderWine()) return E_NOTIMPL;
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (...) {
    return E_UNEXPECTED;
  }
}

}  // namespace cldapi

#endif  // NIMBRA_SIMULATOR_CLDAPI_ENTRY_H_
