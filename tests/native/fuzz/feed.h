#ifndef NIMBRA_TESTS_NATIVE_FUZZ_FEED_H_
#define NIMBRA_TESTS_NATIVE_FUZZ_FEED_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace nimbra_native {

// Ends the run when a property does not hold; the fuzzer keeps the input.
inline void Require(bool holds, const char* property) {
  if (holds) return;
  std::fprintf(stderr, "\nNot so: %s\n", property);
  std::abort();
}

// Takes values off a fuzzer's input, from the front; zeros when it is used up.
class Feed {
 public:
  Feed(const std::uint8_t* data, std::size_t size)
      : rest_(reinterpret_cast<const char*>(data), size) {}

  template <typename Number>
  Number Take() {
    Number number{};
    const std::size_t count = std::min(sizeof number, rest_.size());
    if (count > 0) std::memcpy(&number, rest_.data(), count);
    rest_.remove_prefix(count);
    return number;
  }
  bool TakeBool() { return (Take<std::uint8_t>() & 1U) != 0; }
  std::string TakeBytes(std::size_t count) {
    std::string bytes(rest_.substr(0, std::min(count, rest_.size())));
    rest_.remove_prefix(bytes.size());
    return bytes;
  }
  std::string TakeRest() { return TakeBytes(rest_.size()); }
  // Up to `longest` bytes from few: a length, and a pattern that fills it.
  std::string TakeStretched(std::size_t longest) {
    const std::size_t length = Take<std::uint16_t>() % (longest + 1);
    const std::string pattern = TakeBytes(Take<std::uint8_t>() % 32U);
    std::string bytes(length, 'x');
    for (std::size_t i = 0; i < length && !pattern.empty(); ++i) {
      bytes[i] = pattern[i % pattern.size()];
    }
    return bytes;
  }
  // The same, as text that ends at its first NUL.
  std::string TakeText(std::size_t longest) {
    const std::string bytes = TakeStretched(longest);
    return bytes.substr(0, bytes.find('\0'));
  }

 private:
  std::string_view rest_;
};

}  // namespace nimbra_native

#endif
