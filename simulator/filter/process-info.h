#ifndef NIMBRA_SIMULATOR_FILTER_PROCESS_INFO_H_
#define NIMBRA_SIMULATOR_FILTER_PROCESS_INFO_H_

#include <sys/types.h>

#include <optional>
#include <string>

namespace cloud_filter {

// The program that caused a request.
struct Cause {
  pid_t processId = 0;  // of the process, not of its thread; 0: unknown
  std::string image;
  std::string commandLine;
};

// The process that a thread belongs to; 0 when it is gone.
[[nodiscard]] pid_t ProcessOfThread(pid_t thread);
[[nodiscard]] Cause DescribeProcess(pid_t process);

// Wine's server does the opening, renaming and deleting for all programs of a prefix, in one
// thread.
[[nodiscard]] bool IsWineServer(pid_t process);

// Whether that server serves the prefix whose drive C is at `systemDrive`; nothing when unknown.
[[nodiscard]] std::optional<bool> ServesPrefixOf(pid_t wineServer, const std::string& systemDrive);

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_PROCESS_INFO_H_
