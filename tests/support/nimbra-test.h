#ifndef NIMBRA_TESTS_SUPPORT_NIMBRA_TEST_H_
#define NIMBRA_TESTS_SUPPORT_NIMBRA_TEST_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/log-capture.h"
#include "tests/support/recording-cloud.h"
#include "tests/support/windows-build.h"

namespace nimbra_test {

// The usual surroundings of a test: a Windows with file streaming, the recording platform and the
// log. Use as `class SyncRootTest : public nimbra_test::NimbraTest {};`.
class NimbraTest : public testing::Test {
 protected:
  WindowsBuild windows_{kUsualBuild};
  LogCapture log_;
  RecordingCloud cloud_;
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_NIMBRA_TEST_H_
