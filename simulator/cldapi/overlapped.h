#ifndef NIMBRA_SIMULATOR_CLDAPI_OVERLAPPED_H_
#define NIMBRA_SIMULATOR_CLDAPI_OVERLAPPED_H_

#include <windows.h>

#include <functional>

namespace cldapi {

// Runs a request that may be overlapped. Without a record: here and now. With one: the record is
// marked pending, a thread of its own completes it later, and the result is kPending.
[[nodiscard]] HRESULT RunInBackground(OVERLAPPED* overlapped, std::function<HRESULT()> request);

// The same for requests that are short: with a record it is completed before the return.
[[nodiscard]] HRESULT RunAtOnce(OVERLAPPED* overlapped, const std::function<HRESULT()>& request);

}  // namespace cldapi

#endif  // NIMBRA_SIMULATOR_CLDAPI_OVERLAPPED_H_
