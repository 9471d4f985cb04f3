#include "program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

namespace cloud_filter::test {
namespace {

// What a program writes goes to memory, so that it never waits for a reader.
std::string Content(const UniqueFd& file) {
  std::string text;
  char buffer[65536];
  off_t at = 0;
  for (ssize_t got = 0; (got = pread(file.Get(), buffer, sizeof buffer, at)) > 0; at += got) {
    text.append(buffer, static_cast<std::size_t>(got));
  }
  return text;
}

}  // namespace

Program::Program(const std::vector<std::string>& arguments, const std::filesystem::path& folder)
    : output_(memfd_create("output", MFD_CLOEXEC)), errors_(memfd_create("errors", MFD_CLOEXEC)) {
  std::vector<char*> raw;
  for (const auto& argument : arguments) raw.push_back(const_cast<char*>(argument.c_str()));
  raw.push_back(nullptr);
  id_ = fork();
  if (id_ != 0) return;
  const auto null = open("/dev/null", O_RDONLY);
  dup2(null, STDIN_FILENO);
  dup2(output_.Get(), STDOUT_FILENO);
  dup2(errors_.Get(), STDERR_FILENO);
  if (chdir(folder.c_str()) == 0) execvp(raw[0], raw.data());
  _exit(127);
}

Program::~Program() {
  if (ended_) return;
  kill(id_, SIGKILL);
  waitpid(id_, nullptr, 0);
}

bool Program::Runs() {
  if (!ended_ && waitpid(id_, &status_, WNOHANG) == id_) ended_ = true;
  return !ended_;
}

std::optional<Program::Ended> Program::Wait(std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (Runs()) {
    if (std::chrono::steady_clock::now() > end) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  const auto code = WIFEXITED(status_) ? WEXITSTATUS(status_) : 128 + WTERMSIG(status_);
  return Ended{code, Content(output_), Content(errors_)};
}

void Program::Signal(int signal) const { kill(id_, signal); }

Program::Ended RunProgram(const std::vector<std::string>& arguments,
                          const std::filesystem::path& folder) {
  Program program(arguments, folder);
  const auto ended = program.Wait();
  EXPECT_TRUE(ended.has_value()) << arguments[0] << " did not end";
  return ended.value_or(Program::Ended());
}

}  // namespace cloud_filter::test
