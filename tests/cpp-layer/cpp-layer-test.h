#ifndef NIMBRA_TESTS_CPP_LAYER_CPP_LAYER_TEST_H_
#define NIMBRA_TESTS_CPP_LAYER_CPP_LAYER_TEST_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nimbra/nimbra.hpp>
#include <string>
#include <string_view>

#include "recording-nimbra.h"

namespace cpp_layer_test {

inline constexpr std::uint32_t kAccessDenied = 0x80070005;
inline constexpr std::uint32_t kNullPointer = 0x80004003;
inline constexpr std::uint32_t kFailure = 0xFFFFFFFF;

// Text that is not terminated where it ends.
inline std::string_view Part(const std::string& whole, std::size_t size) {
  return std::string_view(whole).substr(0, size);
}

// Text that no C string can hold.
inline const std::string kWithZero("be\0fore", 7);

// A test on the recording library.
class CppLayerTest : public testing::Test {
 protected:
  RecordingNimbra nimbra_;
};

}  // namespace cpp_layer_test

#endif
