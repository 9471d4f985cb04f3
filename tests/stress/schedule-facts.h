#ifndef NIMBRA_TESTS_STRESS_SCHEDULE_FACTS_H_
#define NIMBRA_TESTS_STRESS_SCHEDULE_FACTS_H_

#include <cstdint>

namespace nimbra_stress {

inline constexpr std::int64_t kPage = 4096;
// Connection keys count from here.
inline constexpr std::int64_t kKeyBase = 0x7000000000;
// Offsets of answers that the library gives by itself, far from the client's.
inline constexpr std::int64_t kOwnOffset = std::int64_t{1} << 40;

}  // namespace nimbra_stress

#endif  // NIMBRA_TESTS_STRESS_SCHEDULE_FACTS_H_
