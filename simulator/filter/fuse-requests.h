#ifndef NIMBRA_SIMULATOR_FILTER_FUSE_REQUESTS_H_
#define NIMBRA_SIMULATOR_FILTER_FUSE_REQUESTS_H_

// What the handlers of kernel requests share, and the handlers. A handler answers its request
// exactly once, possibly later and from another thread.

#include <sys/stat.h>

#include <chrono>
#include <exception>
#include <memory>
#include <mutex>
#include <string>

#include "fuse-mount.h"

namespace cloud_filter::fuse {

FuseMount& MountOf(fuse_req_t request);

// The error of a request whose file is not there any more.
class FileError : public std::exception {
 public:
  explicit FileError(int error) : error_(error) {}
  [[nodiscard]] int Error() const { return error_; }
  [[nodiscard]] const char* what() const noexcept override { return "the file is gone"; }

 private:
  int error_;
};

// A node and its file, held open for as long as this exists.
struct HeldNode {
  Node* node = nullptr;
  Reference reference;

  [[nodiscard]] int Fd() const { return reference->Get(); }
  [[nodiscard]] FileRef File() const { return {reference->Get(), node->inode}; }
};
// Throws FileError.
HeldNode Hold(fuse_req_t request, fuse_ino_t id);

// Names a request that is about to wait, so that the kernel's interrupt finds it.
Waiting AboutToWait(fuse_req_t request);

void ReplyError(fuse_req_t request, int error);
void ReplyAttributes(fuse_req_t request, int reference);
// For how many seconds the kernel keeps a name and its attributes. Those of files not at all, for
// calls of the API change files behind its back. What these change about a folder, the kernel is
// told: every use of a path asks for each folder in it, twice.
double KeptSeconds(const struct stat& facts);

// Finds `name` in a folder: counts the look-up and fills `entry`. 0 or an errno.
int LookUp(FuseMount& mount, const HeldNode& folder, const char* name, fuse_entry_param& entry);
bool IsWhoAmI(fuse_ino_t folder, const char* name);
struct stat WhoAmIAttributes();

// Remembers the latest read that failed. The kernel reads ahead, takes no notice when that fails,
// and asks once more for the page itself; that second try is not to make the provider try again.
class FailedRead {
 public:
  void Remember(pid_t thread, Range range, int error);
  // The error of the same try; 0 when this one is new.
  int TakeErrorOf(pid_t thread, Range range);

 private:
  std::mutex mutex_;
  pid_t thread_ = 0;
  Range range_;
  int error_ = 0;
  std::chrono::steady_clock::time_point when_;
};

// A file that a program has open.
struct OpenFile {
  UniqueFd fd;
  Node* node = nullptr;
  ItemPtr item;  // as it was when the file was opened; tells about a deleted one
  FailedRead failedRead;

  [[nodiscard]] FileRef File() const { return {fd.Get(), node->inode}; }
};
OpenFile& OpenFileOf(const fuse_file_info& info);

// Files.
void SetAttributes(fuse_req_t, fuse_ino_t, struct stat*, int, fuse_file_info*);
void Open(fuse_req_t, fuse_ino_t, fuse_file_info*);
void Create(fuse_req_t, fuse_ino_t, const char*, mode_t, fuse_file_info*);
void Read(fuse_req_t, fuse_ino_t, std::size_t, off_t, fuse_file_info*);
void Write(fuse_req_t, fuse_ino_t, const char*, std::size_t, off_t, fuse_file_info*);
void Flush(fuse_req_t, fuse_ino_t, fuse_file_info*);
void Release(fuse_req_t, fuse_ino_t, fuse_file_info*);
void Sync(fuse_req_t, fuse_ino_t, int, fuse_file_info*);
void Allocate(fuse_req_t, fuse_ino_t, int, off_t, off_t, fuse_file_info*);

// Names.
void Lookup(fuse_req_t, fuse_ino_t, const char*);
void Forget(fuse_req_t, fuse_ino_t, std::uint64_t);
void ForgetMany(fuse_req_t, std::size_t, fuse_forget_data*);
void MakeNode(fuse_req_t, fuse_ino_t, const char*, mode_t, dev_t);
void MakeFolder(fuse_req_t, fuse_ino_t, const char*, mode_t);
void Unlink(fuse_req_t, fuse_ino_t, const char*);
void RemoveFolder(fuse_req_t, fuse_ino_t, const char*);
void Rename(fuse_req_t, fuse_ino_t, const char*, fuse_ino_t, const char*, unsigned);
void SymbolicLink(fuse_req_t, const char*, fuse_ino_t, const char*);
void HardLink(fuse_req_t, fuse_ino_t, fuse_ino_t, const char*);
void OpenFolder(fuse_req_t, fuse_ino_t, fuse_file_info*);
void ReadFolder(fuse_req_t, fuse_ino_t, std::size_t, off_t, fuse_file_info*);
void ReadFolderPlus(fuse_req_t, fuse_ino_t, std::size_t, off_t, fuse_file_info*);
void ReleaseFolder(fuse_req_t, fuse_ino_t, fuse_file_info*);

}  // namespace cloud_filter::fuse

#endif  // NIMBRA_SIMULATOR_FILTER_FUSE_REQUESTS_H_
