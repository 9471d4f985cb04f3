#ifndef NIMBRA_TESTS_SUPPORT_LOG_CAPTURE_H_
#define NIMBRA_TESTS_SUPPORT_LOG_CAPTURE_H_

#include <gmock/gmock.h>

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/import-double.h"

namespace nimbra_test {

// The source paths that log lines carry.
inline constexpr std::string_view kNimbraSource = R"(lib\cloud-filter\nimbra-host\nimbra\nimbra)";
inline constexpr std::string_view kPlaceholderSource = R"(lib\cloud-filter\win-cf\placeholder)";
inline constexpr std::string_view kPlaceholderInfoSource =
    R"(lib\cloud-filter\win-cf\placeholder-info)";
inline constexpr std::string_view kSyncRootSource = R"(lib\cloud-filter\win-cf\sync-root)";
inline constexpr std::string_view kRegistryKeySource = R"(lib\cloud-filter\win-cf\registry-key)";
inline constexpr std::string_view kSyncEngineSource = R"(lib\cloud-filter\win-cf\sync-engine)";
inline constexpr std::string_view kWrappingFolderSource =
    R"(lib\cloud-filter\win-cf\wrapping-folder-composer)";

// Collects what the program passes to the debugger output, one element for each call, in UTF-8.
class LogCapture {
 public:
  LogCapture();

  std::vector<std::string> Lines() const;
  void Clear();

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  ImportDouble<"OutputDebugStringW", decltype(&::OutputDebugStringW)> output_;
};

// The exact bytes of a log line.
std::string ExpectedLine(std::string_view sourcePath, int line, std::string_view message);

// A log line of that source path and message whose number is a real source line.
testing::Matcher<const std::string&> IsLogLine(std::string_view sourcePath,
                                               std::string_view message);

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_LOG_CAPTURE_H_
