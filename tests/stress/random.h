#ifndef NIMBRA_TESTS_STRESS_RANDOM_H_
#define NIMBRA_TESTS_STRESS_RANDOM_H_

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace nimbra_stress {

// splitmix64: small, the same everywhere, and every seed is as good as any other.
class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed) {}

  std::uint64_t Next() {
    state_ += 0x9E3779B97F4A7C15;
    std::uint64_t value = state_;
    value = (value ^ (value >> 30U)) * 0xBF58476D1CE4E5B9;
    value = (value ^ (value >> 27U)) * 0x94D049BB133111EB;
    return value ^ (value >> 31U);
  }
  // 0 ... bound - 1; 0 when there is no choice.
  std::size_t Below(std::size_t bound) {
    return bound == 0 ? 0 : static_cast<std::size_t>(Next() % bound);
  }
  // first ... last, both included.
  int Between(int first, int last) {
    const int distance = last - first;
    return first + static_cast<int>(Below(static_cast<std::size_t>(distance) + 1));
  }
  bool Percent(int chance) { return Between(0, 99) < chance; }
  template <typename T>
  T& Pick(std::vector<T>& choices) {
    return choices[Below(choices.size())];
  }

 private:
  std::uint64_t state_;
};

// Bytes that tell which file and place they belong to.
inline std::string RandomBytes(std::uint64_t seed, std::size_t size) {
  Random random(seed);
  std::string bytes(size, '\0');
  for (auto& byte : bytes) {
    byte = static_cast<char>(random.Next() & 0xFF);
  }
  return bytes;
}

inline std::uint64_t NumberFromEnvironment(const char* name, std::uint64_t fallback) {
  const char* text = std::getenv(name);
  return text == nullptr || *text == '\0' ? fallback : std::strtoull(text, nullptr, 10);
}

// The schedules of one run. NIMBRA_SEED=N runs that one only, NIMBRA_SEEDS=N that many.
struct SeedRange {
  std::uint64_t first = 1;
  std::uint64_t count = 0;

  static SeedRange Usual(std::uint64_t usualCount) {
    const std::uint64_t only = NumberFromEnvironment("NIMBRA_SEED", 0);
    if (only != 0) {
      return {only, 1};
    }
    return {1, NumberFromEnvironment("NIMBRA_SEEDS", usualCount)};
  }
};

}  // namespace nimbra_stress

#endif  // NIMBRA_TESTS_STRESS_RANDOM_H_
