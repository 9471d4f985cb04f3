#include "backing-file.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "codes.h"

namespace cloud_filter {
namespace {

constexpr std::int64_t kTicksPerSecond = 10'000'000;
constexpr std::int64_t kNanosecondsPerTick = 100;
constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

// Where Wine keeps hidden and system.
constexpr char kDosXattr[] = "user.DOSATTRIB";

timespec ToTimespec(const statx_timestamp& time) {
  return {static_cast<time_t>(time.tv_sec), static_cast<long>(time.tv_nsec)};
}

}  // namespace

int GetFacts(int fd, FileFacts& facts) {
  struct statx found {};
  if (statx(fd, "", AT_EMPTY_PATH | AT_STATX_SYNC_AS_STAT, STATX_BASIC_STATS | STATX_BTIME,
            &found) != 0) {
    return errno;
  }
  facts.inode = found.stx_ino;
  facts.device = makedev(found.stx_dev_major, found.stx_dev_minor);
  facts.mode = found.stx_mode;
  facts.links = found.stx_nlink;
  facts.size = static_cast<std::int64_t>(found.stx_size);
  facts.blocks = static_cast<std::int64_t>(found.stx_blocks);
  facts.birthTime = (found.stx_mask & STATX_BTIME) == 0
                        ? 0
                        : found.stx_btime.tv_sec * kNanosecondsPerSecond + found.stx_btime.tv_nsec;
  facts.accessTime = ToTimespec(found.stx_atime);
  facts.writeTime = ToTimespec(found.stx_mtime);
  return 0;
}

int OpenReference(int folder, const std::string& relative, UniqueFd& reference) {
  open_how how{};
  how.flags = O_PATH | O_NOFOLLOW | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  const auto* name = relative.empty() ? "." : relative.c_str();
  const auto fd = syscall(SYS_openat2, folder, name, &how, sizeof how);
  if (fd < 0) return errno == EXDEV ? ENOENT : errno;
  reference.Reset(static_cast<int>(fd));
  return 0;
}

int OpenData(int reference, int flags, UniqueFd& data) {
  const auto path = ProcPath(reference);
  data.Reset(open(path.c_str(), flags | O_CLOEXEC));
  if (data) return 0;
  struct stat facts {};
  if (errno != EACCES || fstat(reference, &facts) != 0) return errno;
  const auto mode = facts.st_mode & 07777U;
  if (chmod(path.c_str(), mode | S_IRUSR | S_IWUSR) != 0) return EACCES;
  data.Reset(open(path.c_str(), flags | O_CLOEXEC));
  const auto error = data ? 0 : errno;
  if (chmod(path.c_str(), mode) != 0) return errno;
  return error;
}

int WriteAll(int fd, std::string_view bytes, std::int64_t offset) {
  while (!bytes.empty()) {
    const auto written = pwrite(fd, bytes.data(), bytes.size(), offset);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    bytes.remove_prefix(static_cast<std::size_t>(written));
    offset += written;
  }
  return 0;
}

int ReadAll(int fd, std::string& bytes, std::int64_t offset) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const auto got = pread(fd, bytes.data() + done, bytes.size() - done,
                           offset + static_cast<std::int64_t>(done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno;
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  std::memset(bytes.data() + done, 0, bytes.size() - done);
  return 0;
}

int PunchHole(int fd, Range range) {
  if (range.Empty()) return 0;
  struct stat facts {};
  if (fstat(fd, &facts) != 0) return errno;
  // Only whole blocks are given back; the last one may reach past the end.
  if (range.end >= facts.st_size) range.end = (range.end + kPage - 1) / kPage * kPage;
  if (fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, range.begin, range.Length()) == 0) {
    return 0;
  }
  if (errno != EOPNOTSUPP) return errno;
  // A file system without holes: the space stays taken, the data goes all the same.
  const std::string zeros(64 << 10, '\0');
  range.end = std::min<std::int64_t>(range.end, facts.st_size);
  for (auto at = range.begin; at < range.end; at += static_cast<std::int64_t>(zeros.size())) {
    const auto length = std::min(range.end - at, static_cast<std::int64_t>(zeros.size()));
    const auto error = WriteAll(fd, {zeros.data(), static_cast<std::size_t>(length)}, at);
    if (error != 0) return error;
  }
  return 0;
}

std::uint32_t DosAttributesOf(int reference, const FileFacts& facts) {
  std::uint32_t attributes = 0;
  const auto anyWrite = static_cast<mode_t>(S_IWUSR | S_IWGRP | S_IWOTH);
  if ((facts.mode & anyWrite) == 0) attributes |= attribute::kReadonly;
  char text[32] = {};
  const auto length = getxattr(ProcPath(reference).c_str(), kDosXattr, text, sizeof text - 1);
  if (length <= 0) return attributes;
  const auto kept = static_cast<std::uint32_t>(std::strtoul(text, nullptr, 16));
  return attributes | (kept & (attribute::kHidden | attribute::kSystem));
}

void SetDosAttributes(int reference, const FileFacts& facts, std::uint32_t attributes) {
  const auto path = ProcPath(reference);
  const auto kept = attributes & (attribute::kHidden | attribute::kSystem);
  char text[32];
  const auto length = std::snprintf(text, sizeof text, "0x%x", kept);
  // A file system without extended attributes cannot hide files; nothing else depends on it.
  if (kept == 0) {
    removexattr(path.c_str(), kDosXattr);
  } else {
    setxattr(path.c_str(), kDosXattr, text, static_cast<std::size_t>(length), 0);
  }
  if (facts.IsDirectory()) return;  // Windows has no read-only folders in this sense
  const auto mode = facts.mode & 07777U;
  const auto wanted = (attributes & attribute::kReadonly) != 0 ? mode & ~0222U : mode | S_IWUSR;
  if (wanted != mode) chmod(path.c_str(), wanted);
}

int SetTimes(int reference, std::int64_t accessTime, std::int64_t writeTime) {
  timespec times[2] = {{0, UTIME_OMIT}, {0, UTIME_OMIT}};
  if (accessTime != 0) times[0] = TimeOf(accessTime);
  if (writeTime != 0) times[1] = TimeOf(writeTime);
  return utimensat(AT_FDCWD, ProcPath(reference).c_str(), times, 0) == 0 ? 0 : errno;
}

bool MayWrite(int reference) {
  return faccessat(AT_FDCWD, ProcPath(reference).c_str(), W_OK, AT_EACCESS) == 0;
}

std::string ProcPath(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

std::string PathOf(int reference) {
  std::string path(PATH_MAX * 2, '\0');
  const auto length = readlink(ProcPath(reference).c_str(), path.data(), path.size());
  if (length < 0) return {};
  path.resize(static_cast<std::size_t>(length));
  struct stat facts {};
  const auto deleted = fstat(reference, &facts) != 0 || facts.st_nlink == 0;
  return deleted ? std::string() : path;
}

timespec TimeOf(std::int64_t fileTime) {
  const auto ticks = fileTime - kUnixEpochAsFileTime;
  auto seconds = ticks / kTicksPerSecond;
  auto rest = ticks % kTicksPerSecond;
  if (rest < 0) {
    rest += kTicksPerSecond;
    --seconds;
  }
  return {static_cast<time_t>(seconds), static_cast<long>(rest * kNanosecondsPerTick)};
}

std::int64_t FileTimeOf(const timespec& time) {
  return time.tv_sec * kTicksPerSecond + time.tv_nsec / kNanosecondsPerTick + kUnixEpochAsFileTime;
}

std::int64_t FileTimeNow() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return FileTimeOf(now);
}

TimeKeeper::TimeKeeper(int fd) : fd_(fd), times_{{0, UTIME_OMIT}, {0, UTIME_OMIT}} {
  struct stat facts {};
  if (fstat(fd, &facts) != 0) return;
  times_[0] = facts.st_atim;
  times_[1] = facts.st_mtim;
}

TimeKeeper::~TimeKeeper() { futimens(fd_, times_); }

}  // namespace cloud_filter
