#include <gtest/gtest.h>

#include "recording-nimbra.h"

namespace cpp_layer_test {

void Complain(const std::string& what) { ADD_FAILURE() << what; }

}  // namespace cpp_layer_test
