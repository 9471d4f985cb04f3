#ifndef NIMBRA_COMMON_EXCEPTION_STATE_H_
#define NIMBRA_COMMON_EXCEPTION_STATE_H_

#include <exception>

namespace corvdrive::cloud_filter {

// Makes the calling thread's share of what the C++ runtime keeps for exceptions. Some runtimes make
// it at a thread's first exception, and end the process when there is no memory for it: the
// exception that says so could then never be one.
inline void PrepareExceptionState() noexcept { static_cast<void>(std::uncaught_exceptions()); }

}  // namespace corvdrive::cloud_filter

#endif
