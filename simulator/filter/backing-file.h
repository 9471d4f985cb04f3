#ifndef NIMBRA_SIMULATOR_FILTER_BACKING_FILE_H_
#define NIMBRA_SIMULATOR_FILTER_BACKING_FILE_H_

#include <sys/stat.h>
#include <time.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "range-set.h"
#include "unique-fd.h"

// The underlying files and folders, reached past the mount that covers them. Functions that return
// int give 0 or an errno.

namespace cloud_filter {

struct FileFacts {
  ino_t inode = 0;
  dev_t device = 0;
  mode_t mode = 0;
  nlink_t links = 0;
  std::int64_t size = 0;
  std::int64_t blocks = 0;  // of 512 bytes
  std::int64_t birthTime = 0;
  timespec accessTime{};
  timespec writeTime{};

  [[nodiscard]] bool IsDirectory() const { return S_ISDIR(mode); }
  [[nodiscard]] bool IsFile() const { return S_ISREG(mode); }
};

int GetFacts(int fd, FileFacts& facts);

// Opens what `relative` (without a leading slash; empty: the folder itself) names below `folder` as
// a reference (O_PATH). A link at the end is not followed, and no link leads out of the folder.
int OpenReference(int folder, const std::string& relative, UniqueFd& reference);

// Opens a referenced file for data. A file that its owner made read-only can still be filled.
int OpenData(int reference, int flags, UniqueFd& data);

int WriteAll(int fd, std::string_view bytes, std::int64_t offset);
int ReadAll(int fd, std::string& bytes, std::int64_t offset);  // fills `bytes`, zeros past the end

// Gives the space of a range back; it then reads as zeros.
int PunchHole(int fd, Range range);

// The DOS attributes as Wine keeps them: read-only in the mode, hidden and system in an extended
// attribute.
std::uint32_t DosAttributesOf(int reference, const FileFacts& facts);
void SetDosAttributes(int reference, const FileFacts& facts, std::uint32_t attributes);

// Sets access and write time from FILETIME counts; 0 keeps what is there.
int SetTimes(int reference, std::int64_t accessTime, std::int64_t writeTime);

// Whether this process may write to the file or folder.
bool MayWrite(int reference);

// Where a reference is now; empty when it was deleted.
std::string PathOf(int reference);
std::string ProcPath(int fd);

constexpr std::int64_t kUnixEpochAsFileTime = 116444736000000000;
timespec TimeOf(std::int64_t fileTime);
std::int64_t FileTimeOf(const timespec& time);
std::int64_t FileTimeNow();

// Keeps a file's times while the filter, not a program, changes the data.
class TimeKeeper {
 public:
  explicit TimeKeeper(int fd);
  ~TimeKeeper();
  TimeKeeper(const TimeKeeper&) = delete;
  TimeKeeper& operator=(const TimeKeeper&) = delete;

 private:
  int fd_;
  timespec times_[2];
};

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_BACKING_FILE_H_
