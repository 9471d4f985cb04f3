#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include "fuse-requests.h"

namespace cloud_filter::fuse {
namespace {

// Flags of the program's open that mean nothing for the file behind it.
constexpr int kOwnFlags = O_CREAT | O_EXCL | O_TRUNC | O_NOFOLLOW | O_APPEND | O_DIRECT;

ItemPtr ItemOf(fuse_req_t request, const OpenFile& file) {
  auto item = MountOf(request).Files().ItemOf(file.File());
  return item != nullptr ? item : file.item;
}

// Runs `next` once the whole file is present; answers with the error when that fails.
template <class Next>
void WhenWritable(fuse_req_t request, const ItemPtr& item, Next next) {
  auto& mount = MountOf(request);
  auto debt = std::make_shared<FuseMount::Debt>(mount);
  mount.Files().WhenWritable(item, AboutToWait(request), [=](int error) {
    if (error != 0) return ReplyError(request, error);
    next();
    static_cast<void>(debt);
  });
}

void SendData(fuse_req_t request, const OpenFile& file, std::size_t size, off_t offset) {
  struct stat facts {};
  if (fstat(file.fd.Get(), &facts) != 0) return ReplyError(request, errno);
  if (facts.st_size <= offset) {
    fuse_reply_buf(request, nullptr, 0);
    return;
  }
  fuse_bufvec data{};
  data.count = 1;
  // No more than is there: the FUSE library corrects its answer when there is less, but may have
  // given the kernel the wrong one already.
  data.buf[0].size = std::min(size, static_cast<std::size_t>(facts.st_size - offset));
  data.buf[0].flags =
      static_cast<fuse_buf_flags>(FUSE_BUF_IS_FD | FUSE_BUF_FD_SEEK | FUSE_BUF_FD_RETRY);
  data.buf[0].fd = file.fd.Get();
  data.buf[0].pos = offset;
  // The FUSE library keeps a pipe for each thread that answers so, and frees those of its workers.
  fuse_reply_data(request, &data,
                  FuseMount::IsWorker() ? FUSE_BUF_SPLICE_MOVE : FUSE_BUF_NO_SPLICE);
}

void ReadWhenPresent(fuse_req_t request, OpenFile& file, std::size_t size, off_t offset) {
  auto& mount = MountOf(request);
  auto& files = mount.Files();
  std::shared_lock<std::shared_mutex> hold;
  const Range range{offset, offset + static_cast<off_t>(size)};
  const auto item = ItemOf(request, file);
  if (item == nullptr || files.TryRead(item, range, hold)) {
    return SendData(request, file, size, offset);
  }
  const auto thread = fuse_req_ctx(request)->pid;
  if (const auto error = file.failedRead.TakeErrorOf(thread, range)) {
    return ReplyError(request, error);
  }
  auto debt = std::make_shared<FuseMount::Debt>(mount);
  files.WhenReadable(item, range, AboutToWait(request), [=, &file](int error) {
    if (error != 0) {
      file.failedRead.Remember(thread, range, error);
      return ReplyError(request, error);
    }
    ReadWhenPresent(request, file, size, offset);
    static_cast<void>(debt);
  });
}

void WriteWhenPresent(fuse_req_t request, const OpenFile& file, const char* bytes, std::size_t size,
                      off_t offset) {
  auto& files = MountOf(request).Files();
  const auto item = ItemOf(request, file);
  std::unique_lock<std::shared_mutex> hold;
  if (item != nullptr) {
    if (!files.TryWrite(item, hold)) {
      // The kernel's buffer is used again once this returns.
      auto copy = std::make_shared<std::string>(bytes, size);
      return WhenWritable(request, item, [=, &file] {
        WriteWhenPresent(request, file, copy->data(), copy->size(), offset);
      });
    }
    const Range range{offset, offset + static_cast<off_t>(size)};
    const auto error = files.AboutToChange(item, range, fuse_req_ctx(request)->pid);
    if (error != 0) return ReplyError(request, error);
  }
  const auto error = WriteAll(file.fd.Get(), {bytes, size}, offset);
  if (error != 0) return ReplyError(request, error);
  fuse_reply_write(request, size);
}

int Truncate(const HeldNode& node, const fuse_file_info* info, off_t size) {
  // The open file was opened when that was allowed; its mode may have changed since.
  if (info != nullptr) {
    return ftruncate(OpenFileOf(*info).fd.Get(), size) == 0 ? 0 : errno;
  }
  return truncate(ProcPath(node.Fd()).c_str(), size) == 0 ? 0 : errno;
}

int Shrink(FileService& files, const ItemPtr& item, const HeldNode& node,
           const fuse_file_info* info, off_t size, pid_t thread) {
  std::unique_lock hold(item->data);
  auto error = files.AboutToShrink(item, size, thread);
  if (error == 0) error = Truncate(node, info, size);
  // Those who now have all they waited for go on at once, and need the data.
  hold.unlock();
  files.Shrunk(item);
  return error;
}

struct AttributeChange {
  struct stat values {};
  int which = 0;
  std::optional<fuse_file_info> info;

  [[nodiscard]] const fuse_file_info* Info() const { return info ? &*info : nullptr; }
  [[nodiscard]] bool Has(int bit) const { return (which & bit) != 0; }
};

int ChangeTimes(const std::string& path, const AttributeChange& change) {
  timespec times[2] = {{0, UTIME_OMIT}, {0, UTIME_OMIT}};
  if (change.Has(FUSE_SET_ATTR_ATIME)) times[0] = change.values.st_atim;
  if (change.Has(FUSE_SET_ATTR_MTIME)) times[1] = change.values.st_mtim;
  if (change.Has(FUSE_SET_ATTR_ATIME_NOW)) times[0].tv_nsec = UTIME_NOW;
  if (change.Has(FUSE_SET_ATTR_MTIME_NOW)) times[1].tv_nsec = UTIME_NOW;
  return utimensat(AT_FDCWD, path.c_str(), times, 0) == 0 ? 0 : errno;
}

int ChangeOwner(int reference, const AttributeChange& change) {
  const auto user = change.Has(FUSE_SET_ATTR_UID) ? change.values.st_uid : static_cast<uid_t>(-1);
  const auto group = change.Has(FUSE_SET_ATTR_GID) ? change.values.st_gid : static_cast<gid_t>(-1);
  return fchownat(reference, "", user, group, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
}

// All but the size.
int ChangeTheRest(FileService& files, const HeldNode& node, const AttributeChange& change,
                  pid_t thread) {
  const auto path = ProcPath(node.Fd());
  if (change.Has(FUSE_SET_ATTR_MODE)) {
    if (chmod(path.c_str(), change.values.st_mode & 07777U) != 0) return errno;
    files.MetadataChanged(node.File(), policy::kTrackFileReadonly, policy::kTrackDirectoryReadonly,
                          thread);
  }
  if (change.Has(FUSE_SET_ATTR_UID | FUSE_SET_ATTR_GID)) {
    if (const auto error = ChangeOwner(node.Fd(), change)) return error;
  }
  if (!change.Has(FUSE_SET_ATTR_ATIME | FUSE_SET_ATTR_MTIME)) return 0;
  if (const auto error = ChangeTimes(path, change)) return error;
  if (change.Has(FUSE_SET_ATTR_MTIME)) {
    files.MetadataChanged(node.File(), policy::kTrackFileLastWriteTime,
                          policy::kTrackDirectoryLastWriteTime, thread);
  }
  return 0;
}

void ApplyChange(fuse_req_t request, const HeldNode& node, const AttributeChange& change);

// True when the request is answered, or will be.
bool ChangeSize(fuse_req_t request, const HeldNode& node, const AttributeChange& change) {
  auto& files = MountOf(request).Files();
  const auto thread = fuse_req_ctx(request)->pid;
  auto item = files.ItemOf(node.File());
  if (item == nullptr && change.info) item = OpenFileOf(*change.info).item;
  const auto size = change.values.st_size;
  auto error = 0;
  std::unique_lock<std::shared_mutex> hold;
  if (item == nullptr) {
    error = Truncate(node, change.Info(), size);
  } else if (const auto before = item->Size(); size < before) {
    error = Shrink(files, item, node, change.Info(), size, thread);
  } else if (!files.TryWrite(item, hold)) {
    WhenWritable(request, item, [=] { ApplyChange(request, node, change); });
    return true;
  } else if (size > before) {
    error = files.AboutToChange(item, {before, size}, thread);
    if (error == 0) error = Truncate(node, change.Info(), size);
  }
  if (error != 0) ReplyError(request, error);
  return error != 0;
}

void ApplyChange(fuse_req_t request, const HeldNode& node, const AttributeChange& change) {
  if (change.Has(FUSE_SET_ATTR_SIZE) && ChangeSize(request, node, change)) return;
  auto& files = MountOf(request).Files();
  const auto error = ChangeTheRest(files, node, change, fuse_req_ctx(request)->pid);
  if (error != 0) return ReplyError(request, error);
  ReplyAttributes(request, node.Fd());
}

bool HasNoName(const UniqueFd& file) {
  struct stat facts {};
  return fstat(file.Get(), &facts) != 0 || facts.st_nlink == 0;
}

// Hands the open file to the kernel. When the program has given up meanwhile, it is closed again.
void GiveOpenFile(fuse_req_t request, Node& node, UniqueFd fd, ItemPtr item, fuse_file_info* info,
                  const fuse_entry_param* created) {
  auto& mount = MountOf(request);
  const auto thread = fuse_req_ctx(request)->pid;
  const auto file = std::make_shared<OpenFile>();
  file->fd = std::move(fd);
  file->node = &node;
  file->item = std::move(item);
  info->fh = mount.Keep(file);
  // Otherwise the kernel empties the file's cache at every open, and for that the open waits for
  // the reads under way: the server of a Wine prefix would wait for its own provider.
  info->keep_cache = 1;
  // Who cannot write has no errors of late writes to be told at its close.
  info->noflush = (info->flags & O_ACCMODE) == O_RDONLY ? 1 : 0;
  mount.Files().Opened(file->File(), thread);
  const auto result = created == nullptr ? fuse_reply_open(request, info)
                                         : fuse_reply_create(request, created, info);
  if (result != -ENOENT) return;
  mount.Files().Closed(file->File(), thread);
  mount.GiveBack(info->fh);
}

}  // namespace

void FailedRead::Remember(pid_t thread, Range range, int error) {
  const std::lock_guard lock(mutex_);
  thread_ = thread;
  range_ = range;
  error_ = error;
  when_ = std::chrono::steady_clock::now();
}

int FailedRead::TakeErrorOf(pid_t thread, Range range) {
  // The second try follows at once; a program that tries again later is taken seriously.
  constexpr std::chrono::seconds kAtOnce{1};
  const std::lock_guard lock(mutex_);
  const auto same = thread == thread_ && range_.Overlaps(range) &&
                    std::chrono::steady_clock::now() - when_ < kAtOnce;
  return same ? std::exchange(error_, 0) : 0;
}

OpenFile& OpenFileOf(const fuse_file_info& info) { return *reinterpret_cast<OpenFile*>(info.fh); }

void SetAttributes(fuse_req_t request, fuse_ino_t id, struct stat* values, int which,
                   fuse_file_info* info) {
  if (id == kWhoAmINode) return ReplyError(request, EACCES);
  AttributeChange change{*values, which, std::nullopt};
  if (info != nullptr) change.info = *info;
  ApplyChange(request, Hold(request, id), change);
}

void Open(fuse_req_t request, fuse_ino_t id, fuse_file_info* info) {
  if (id == kWhoAmINode) {
    info->direct_io = 1;
    fuse_reply_open(request, info);
    return;
  }
  const auto node = Hold(request, id);
  // Asked for before the file is looked at: one that is deleted meanwhile keeps what it was.
  auto item = MountOf(request).Files().ItemOf(node.File());
  UniqueFd fd;
  const auto error = OpenData(node.Fd(), info->flags & ~kOwnFlags, fd);
  if (error != 0) return ReplyError(request, error);
  // Nobody knows any more what was deleted since the program found it; its gaps would pass for
  // data.
  if (item == nullptr && HasNoName(fd)) return ReplyError(request, ENOENT);
  GiveOpenFile(request, *node.node, std::move(fd), std::move(item), info, nullptr);
}

void Create(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode,
            fuse_file_info* info) {
  if (IsWhoAmI(folder, name)) return ReplyError(request, EACCES);
  auto& mount = MountOf(request);
  const auto parent = Hold(request, folder);
  const auto flags = (info->flags & ~(kOwnFlags & ~(O_CREAT | O_EXCL))) | O_CREAT | O_CLOEXEC;
  UniqueFd fd(openat(parent.Fd(), name, flags | O_NOFOLLOW, mode));
  if (!fd) return ReplyError(request, errno);
  fuse_entry_param entry{};
  const auto error = LookUp(mount, parent, name, entry);
  if (error != 0) return ReplyError(request, error);
  auto& node = mount.NodeOf(entry.ino);
  auto item = mount.Files().ItemOf({fd.Get(), node.inode});
  GiveOpenFile(request, node, std::move(fd), std::move(item), info, &entry);
}

void Read(fuse_req_t request, fuse_ino_t id, std::size_t size, off_t offset, fuse_file_info* info) {
  if (id != kWhoAmINode) return ReadWhenPresent(request, OpenFileOf(*info), size, offset);
  const auto text = std::to_string(ProcessOfThread(fuse_req_ctx(request)->pid));
  const auto start = std::min(text.size(), static_cast<std::size_t>(offset));
  fuse_reply_buf(request, text.data() + start, std::min(size, text.size() - start));
}

void Write(fuse_req_t request, fuse_ino_t, const char* bytes, std::size_t size, off_t offset,
           fuse_file_info* info) {
  WriteWhenPresent(request, OpenFileOf(*info), bytes, size, offset);
}

void Flush(fuse_req_t request, fuse_ino_t id, fuse_file_info* info) {
  if (id == kWhoAmINode) return ReplyError(request, 0);
  // Errors of late writes come out at close.
  const auto closed = close(dup(OpenFileOf(*info).fd.Get()));
  ReplyError(request, closed == 0 ? 0 : errno);
}

void Release(fuse_req_t request, fuse_ino_t id, fuse_file_info* info) {
  if (id == kWhoAmINode) return ReplyError(request, 0);
  auto& mount = MountOf(request);
  auto& file = OpenFileOf(*info);
  mount.Files().Closed(file.File(), fuse_req_ctx(request)->pid);
  mount.GiveBack(info->fh);
  ReplyError(request, 0);
}

void Sync(fuse_req_t request, fuse_ino_t, int dataOnly, fuse_file_info* info) {
  const auto fd = OpenFileOf(*info).fd.Get();
  const auto result = dataOnly != 0 ? fdatasync(fd) : fsync(fd);
  ReplyError(request, result == 0 ? 0 : errno);
}

void Allocate(fuse_req_t request, fuse_ino_t id, int mode, off_t offset, off_t length,
              fuse_file_info* info) {
  const auto& file = OpenFileOf(*info);
  auto& files = MountOf(request).Files();
  const auto item = ItemOf(request, file);
  std::unique_lock<std::shared_mutex> hold;
  if (item != nullptr) {
    if (!files.TryWrite(item, hold)) {
      return WhenWritable(request, item, [=, kept = *info] {
        auto copy = kept;
        Allocate(request, id, mode, offset, length, &copy);
      });
    }
    const auto error =
        files.AboutToChange(item, {offset, offset + length}, fuse_req_ctx(request)->pid);
    if (error != 0) return ReplyError(request, error);
  }
  ReplyError(request, fallocate(file.fd.Get(), mode, offset, length) == 0 ? 0 : errno);
}

}  // namespace cloud_filter::fuse
