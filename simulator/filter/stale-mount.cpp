#include "stale-mount.h"

#include <spawn.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace cloud_filter {
namespace {

void UnmountLazily(const std::string& path) {
  if (umount2(path.c_str(), MNT_DETACH) == 0) return;
  std::string program = "fusermount3";
  std::string unmount = "-u";
  std::string lazy = "-z";
  std::string quiet = "-q";
  std::string target = path;
  char* arguments[] = {program.data(), unmount.data(), lazy.data(),
                       quiet.data(),   target.data(),  nullptr};
  pid_t child = 0;
  if (posix_spawnp(&child, program.c_str(), nullptr, nullptr, arguments, environ) != 0) return;
  waitpid(child, nullptr, 0);
}

}  // namespace

void RemoveStaleMount(const std::string& path) {
  constexpr int kMaxLayers = 16;
  for (int layer = 0; layer < kMaxLayers; ++layer) {
    // What the kernel keeps of the folder outlives its daemon for a while; this is always asked.
    struct statvfs facts {};
    if (statvfs(path.c_str(), &facts) == 0 || (errno != ENOTCONN && errno != ECONNABORTED)) return;
    UnmountLazily(path);
  }
}

}  // namespace cloud_filter
