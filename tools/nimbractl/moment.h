#ifndef NIMBRA_NIMBRACTL_MOMENT_H_
#define NIMBRA_NIMBRACTL_MOMENT_H_

#include <windows.h>

#include <cstdint>

namespace nimbractl {

// In units of 100 ns since 1601, UTC.
using Moment = std::int64_t;

// Something happened at some moment between these two.
struct Span {
  Moment earliest = 0;
  Moment latest = 0;
};

[[nodiscard]] inline Moment ToMoment(const FILETIME& time) {
  return static_cast<std::int64_t>(time.dwHighDateTime) << 32U | time.dwLowDateTime;
}

[[nodiscard]] inline Moment CurrentMoment() {
  FILETIME now{};
  GetSystemTimeAsFileTime(&now);
  return ToMoment(now);
}

}  // namespace nimbractl

#endif
