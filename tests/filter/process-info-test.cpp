#include "process-info.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <future>

namespace cloud_filter::test {
namespace {

pid_t ThisThread() { return static_cast<pid_t>(syscall(SYS_gettid)); }

TEST(ProcessInfo, AThreadLeadsToItsProcess) {
  auto found = std::async(std::launch::async,
                          [] { return std::pair(ThisThread(), ProcessOfThread(ThisThread())); });
  const auto [thread, process] = found.get();
  EXPECT_NE(thread, getpid());
  EXPECT_EQ(process, getpid());
}

TEST(ProcessInfo, AProcessThatIsGoneIsUnknown) {
  EXPECT_EQ(ProcessOfThread(0x7FFFFFFF), 0);
  const auto cause = DescribeProcess(0x7FFFFFFF);
  EXPECT_EQ(cause.image, "");
  EXPECT_EQ(cause.commandLine, "");
}

TEST(ProcessInfo, DescribesImageAndCommandLine) {
  const auto cause = DescribeProcess(getpid());
  EXPECT_EQ(cause.processId, getpid());
  EXPECT_TRUE(cause.image.ends_with("/filter-tests")) << cause.image;
  EXPECT_NE(cause.commandLine.find("filter-tests"), std::string::npos);
  EXPECT_EQ(cause.commandLine.find('\0'), std::string::npos);
}

TEST(ProcessInfo, ThisTestIsNoWineServer) {
  EXPECT_FALSE(IsWineServer(getpid()));
  EXPECT_FALSE(IsWineServer(0));
  EXPECT_EQ(ServesPrefixOf(getpid(), "/some/prefix/dosdevices/c:"), std::nullopt);
}

}  // namespace
}  // namespace cloud_filter::test
