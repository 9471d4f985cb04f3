#ifndef NIMBRA_SIMULATOR_FILTER_UNIQUE_FD_H_
#define NIMBRA_SIMULATOR_FILTER_UNIQUE_FD_H_

#include <unistd.h>

#include <utility>

namespace cloud_filter {

// Owns a file descriptor.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) Reset(std::exchange(other.fd_, -1));
    return *this;
  }
  ~UniqueFd() { Reset(); }

  [[nodiscard]] int Get() const { return fd_; }
  [[nodiscard]] int Release() { return std::exchange(fd_, -1); }
  explicit operator bool() const { return fd_ >= 0; }
  void Reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_UNIQUE_FD_H_
