#ifndef NIMBRA_TESTS_FILTER_PROGRAM_H_
#define NIMBRA_TESTS_FILTER_PROGRAM_H_

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "unique-fd.h"

namespace cloud_filter::test {

// A program that a test runs, as a user would. It never outlives this object.
class Program {
 public:
  explicit Program(const std::vector<std::string>& arguments,
                   const std::filesystem::path& folder = "/");
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  struct Ended {
    int exitCode = -1;  // 128 + the signal that ended it
    std::string output;
    std::string errors;
  };
  // Nothing when it has not ended in time.
  std::optional<Ended> Wait(std::chrono::milliseconds limit = std::chrono::seconds(20));
  void Signal(int signal) const;
  [[nodiscard]] pid_t Id() const { return id_; }
  [[nodiscard]] bool Runs();

 private:
  pid_t id_ = 0;
  bool ended_ = false;
  int status_ = 0;
  UniqueFd output_;
  UniqueFd errors_;
};

// Runs a program to its end; fails the test when it takes too long.
Program::Ended RunProgram(const std::vector<std::string>& arguments,
                          const std::filesystem::path& folder = "/");

}  // namespace cloud_filter::test

#endif  // NIMBRA_TESTS_FILTER_PROGRAM_H_
