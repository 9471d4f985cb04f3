#include "daemon-process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <thread>

namespace cloud_filter::test {
namespace {

constexpr std::chrono::seconds kLimit{20};
constexpr std::chrono::milliseconds kPause{2};

int WaitForEnd(pid_t process) {
  const auto end = std::chrono::steady_clock::now() + kLimit;
  int status = 0;
  while (waitpid(process, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > end) {
      kill(process, SIGKILL);
      waitpid(process, &status, 0);
      return -1;
    }
    std::this_thread::sleep_for(kPause);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

DaemonProcess::~DaemonProcess() {
  if (Runs()) Stop();
}

bool DaemonProcess::Start(const std::vector<std::string>& options, uid_t user) {
  std::vector<std::string> arguments = {FILTER_DAEMON, "--state", state_.string()};
  arguments.insert(arguments.end(), options.begin(), options.end());
  std::vector<char*> raw;
  for (const auto& argument : arguments) raw.push_back(const_cast<char*>(argument.c_str()));
  raw.push_back(nullptr);
  const auto log = LogFile();
  // What an earlier start has written is not to be taken for this one's.
  std::filesystem::remove(log);
  std::filesystem::remove(Endpoint());
  const auto parent = getpid();
  id_ = fork();
  if (id_ == 0) {
    // A test that dies takes its daemon along, and the daemon its mounts.
    const auto output = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    if (user != 0 && (setgid(user) != 0 || setuid(user) != 0)) _exit(127);
    const rlimit limit{openFiles_, openFiles_};
    if (openFiles_ != 0 && setrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(127);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() == parent) execv(raw[0], raw.data());
    _exit(127);
  }
  const auto end = std::chrono::steady_clock::now() + kLimit;
  while (std::chrono::steady_clock::now() < end) {
    if (Log().find("cloud-filterd: ready") != std::string::npos) return true;
    if (waitpid(id_, nullptr, WNOHANG) != 0) {
      id_ = 0;
      return false;
    }
    std::this_thread::sleep_for(kPause);
  }
  return false;
}

int DaemonProcess::Stop() {
  kill(id_, SIGTERM);
  const auto code = WaitForEnd(id_);
  id_ = 0;
  return code;
}

void DaemonProcess::Kill() {
  kill(id_, SIGKILL);
  waitpid(id_, nullptr, 0);
  id_ = 0;
}

std::string DaemonProcess::Log() const {
  std::ifstream file(LogFile());
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace cloud_filter::test
