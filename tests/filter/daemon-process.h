#ifndef NIMBRA_TESTS_FILTER_DAEMON_PROCESS_H_
#define NIMBRA_TESTS_FILTER_DAEMON_PROCESS_H_

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace cloud_filter::test {

// A cloud-filterd of the test's own.
class DaemonProcess {
 public:
  explicit DaemonProcess(std::filesystem::path state) : state_(std::move(state)) {}
  ~DaemonProcess();
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  // At most this many open files from the next start on; 0: as many as the test may have.
  void LimitOpenFiles(std::uint64_t limit) { openFiles_ = limit; }
  // True once it is ready. `user`: run as this user, where the test may choose.
  bool Start(const std::vector<std::string>& options = {}, uid_t user = 0);
  // Asks it to end; its exit code.
  int Stop();
  void Kill();
  [[nodiscard]] bool Runs() const { return id_ > 0; }
  [[nodiscard]] pid_t Id() const { return id_; }
  [[nodiscard]] std::filesystem::path Endpoint() const { return state_ / "endpoint"; }
  [[nodiscard]] const std::filesystem::path& State() const { return state_; }
  [[nodiscard]] std::string Log() const;

 private:
  [[nodiscard]] std::filesystem::path LogFile() const { return state_.string() + ".log"; }

  std::filesystem::path state_;
  std::uint64_t openFiles_ = 0;
  pid_t id_ = 0;
};

}  // namespace cloud_filter::test

#endif  // NIMBRA_TESTS_FILTER_DAEMON_PROCESS_H_
