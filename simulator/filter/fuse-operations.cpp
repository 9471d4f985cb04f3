#include <fcntl.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <exception>

#include "fuse-requests.h"

namespace cloud_filter {
namespace fuse {

FuseMount& MountOf(fuse_req_t request) {
  return *static_cast<FuseMount*>(fuse_req_userdata(request));
}

HeldNode Hold(fuse_req_t request, fuse_ino_t id) {
  auto& mount = MountOf(request);
  auto& node = mount.NodeOf(id);
  auto reference = mount.Nodes().Open(node);
  if (reference == nullptr) throw FileError(errno == ENOENT ? ESTALE : errno);
  return {&node, std::move(reference)};
}

namespace {

// The request may be answered already: only its number is used.
void OnInterrupt(fuse_req_t request, void* waiterId) {
  MountOf(request).Files().Interrupt(reinterpret_cast<std::uintptr_t>(waiterId));
}

constexpr unsigned kMaxBackground = 512;
// What Wine keeps a file's DOS attributes in.
constexpr char kDosAttributes[] = "user.DOSATTRIB";

}  // namespace

Waiting AboutToWait(fuse_req_t request) {
  const auto id = MountOf(request).Files().NextWaiterId();
  fuse_req_interrupt_func(request, OnInterrupt, reinterpret_cast<void*>(id));
  return {fuse_req_ctx(request)->pid, id, [request] { return fuse_req_interrupted(request) != 0; }};
}

void ReplyError(fuse_req_t request, int error) { fuse_reply_err(request, error); }

void ReplyAttributes(fuse_req_t request, int reference) {
  struct stat facts {};
  if (fstatat(reference, "", &facts, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW) != 0) {
    return ReplyError(request, errno);
  }
  fuse_reply_attr(request, &facts, KeptSeconds(facts));
}

double KeptSeconds(const struct stat& facts) { return S_ISDIR(facts.st_mode) ? 1 : 0; }

bool IsWhoAmI(fuse_ino_t folder, const char* name) {
  return folder == FUSE_ROOT_ID && std::strcmp(name, wire::kWhoAmIName) == 0;
}

struct stat WhoAmIAttributes() {
  struct stat facts {};
  facts.st_ino = kWhoAmINode;
  facts.st_mode = S_IFREG | S_IRUSR | S_IRGRP | S_IROTH;
  facts.st_nlink = 1;
  facts.st_uid = geteuid();
  facts.st_gid = getegid();
  return facts;
}

namespace {

void Initialize(void*, fuse_conn_info* connection) {
  // A read in the background is not interrupted when its reader is killed, so reads stay with their
  // readers. Truncation at open comes as a change of size, which may wait. The cache is emptied
  // when the filter says so, not when the times that a query sees have changed.
  connection->want &= ~(static_cast<unsigned>(FUSE_CAP_ASYNC_READ) | FUSE_CAP_ATOMIC_O_TRUNC |
                        FUSE_CAP_WRITEBACK_CACHE | FUSE_CAP_SPLICE_READ | FUSE_CAP_AUTO_INVAL_DATA);
  if ((connection->capable & FUSE_CAP_EXPLICIT_INVAL_DATA) != 0) {
    connection->want |= FUSE_CAP_EXPLICIT_INVAL_DATA;
  }
  // The data of a read goes from the file to the kernel without a buffer of our own.
  connection->want |= connection->capable & FUSE_CAP_SPLICE_WRITE;
  connection->max_background = kMaxBackground;
}

void GetAttributes(fuse_req_t request, fuse_ino_t id, fuse_file_info*) {
  if (id == kWhoAmINode) {
    const auto facts = WhoAmIAttributes();
    fuse_reply_attr(request, &facts, 0);
    return;
  }
  ReplyAttributes(request, Hold(request, id).Fd());
}

void ReadLink(fuse_req_t request, fuse_ino_t id) {
  char target[PATH_MAX + 1];
  const auto length = readlinkat(Hold(request, id).Fd(), "", target, sizeof target - 1);
  if (length < 0) return ReplyError(request, errno);
  target[length] = '\0';
  fuse_reply_readlink(request, target);
}

void StatFileSystem(fuse_req_t request, fuse_ino_t) {
  struct statvfs facts {};
  if (fstatvfs(MountOf(request).TheRoot().folder.Get(), &facts) != 0) {
    return ReplyError(request, errno);
  }
  fuse_reply_statfs(request, &facts);
}

// Answers the two forms of a request for a value or a list: its size, or its bytes.
template <class Get>
void ReplyExtended(fuse_req_t request, std::size_t size, Get get) {
  std::string bytes(size, '\0');
  const auto length = get(size == 0 ? nullptr : bytes.data(), size);
  if (length < 0) return ReplyError(request, errno);
  if (size == 0) {
    fuse_reply_xattr(request, static_cast<std::size_t>(length));
  } else {
    fuse_reply_buf(request, bytes.data(), static_cast<std::size_t>(length));
  }
}

void GetExtended(fuse_req_t request, fuse_ino_t id, const char* name, std::size_t size) {
  if (id == kWhoAmINode) return ReplyError(request, ENODATA);
  const auto node = Hold(request, id);
  const auto path = ProcPath(node.Fd());
  ReplyExtended(request, size, [&](char* buffer, std::size_t room) {
    return getxattr(path.c_str(), name, buffer, room);
  });
}

void ListExtended(fuse_req_t request, fuse_ino_t id, std::size_t size) {
  if (id == kWhoAmINode) return ReplyError(request, ENOTSUP);
  const auto node = Hold(request, id);
  const auto path = ProcPath(node.Fd());
  ReplyExtended(request, size, [&](char* buffer, std::size_t room) {
    return listxattr(path.c_str(), buffer, room);
  });
}

void DosAttributesChanged(fuse_req_t request, const HeldNode& node) {
  MountOf(request).Files().MetadataChanged(
      node.File(), policy::kTrackFileHidden | policy::kTrackFileSystem,
      policy::kTrackDirectoryHidden | policy::kTrackDirectorySystem, fuse_req_ctx(request)->pid);
}

void SetExtended(fuse_req_t request, fuse_ino_t id, const char* name, const char* value,
                 std::size_t size, int flags) {
  if (id == kWhoAmINode) return ReplyError(request, EACCES);
  const auto node = Hold(request, id);
  const auto path = ProcPath(node.Fd());
  if (setxattr(path.c_str(), name, value, size, flags) != 0) return ReplyError(request, errno);
  if (std::strcmp(name, kDosAttributes) == 0) DosAttributesChanged(request, node);
  ReplyError(request, 0);
}

void RemoveExtended(fuse_req_t request, fuse_ino_t id, const char* name) {
  if (id == kWhoAmINode) return ReplyError(request, EACCES);
  const auto node = Hold(request, id);
  const auto path = ProcPath(node.Fd());
  if (removexattr(path.c_str(), name) != 0) return ReplyError(request, errno);
  if (std::strcmp(name, kDosAttributes) == 0) DosAttributesChanged(request, node);
  ReplyError(request, 0);
}

// The library is C: nothing may be thrown through it. What throws (the store, memory) does so
// before the answer.
template <auto Handler>
struct Safe;
template <class... Arguments, void (*Handler)(fuse_req_t, Arguments...)>
struct Safe<Handler> {
  static void Call(fuse_req_t request, Arguments... arguments) {
    try {
      Handler(request, arguments...);
    } catch (const FileError& error) {
      fuse_reply_err(request, error.Error());
    } catch (const std::exception& error) {
      std::fprintf(stderr, "cloud-filterd: a file operation failed: %s\n", error.what());
      fuse_reply_err(request, EIO);
    }
  }
};

fuse_lowlevel_ops MakeOperations() {
  fuse_lowlevel_ops operations{};
  operations.init = Initialize;
  operations.lookup = Safe<Lookup>::Call;
  operations.forget = Forget;
  operations.forget_multi = ForgetMany;
  operations.getattr = Safe<GetAttributes>::Call;
  operations.setattr = Safe<SetAttributes>::Call;
  operations.readlink = Safe<ReadLink>::Call;
  operations.mknod = Safe<MakeNode>::Call;
  operations.mkdir = Safe<MakeFolder>::Call;
  operations.unlink = Safe<Unlink>::Call;
  operations.rmdir = Safe<RemoveFolder>::Call;
  operations.symlink = Safe<SymbolicLink>::Call;
  operations.rename = Safe<Rename>::Call;
  operations.link = Safe<HardLink>::Call;
  operations.open = Safe<Open>::Call;
  operations.read = Safe<Read>::Call;
  operations.write = Safe<Write>::Call;
  operations.flush = Safe<Flush>::Call;
  operations.release = Safe<Release>::Call;
  operations.fsync = Safe<Sync>::Call;
  operations.opendir = Safe<OpenFolder>::Call;
  operations.readdir = Safe<ReadFolder>::Call;
  operations.readdirplus = Safe<ReadFolderPlus>::Call;
  operations.releasedir = Safe<ReleaseFolder>::Call;
  operations.statfs = Safe<StatFileSystem>::Call;
  operations.getxattr = Safe<GetExtended>::Call;
  operations.listxattr = Safe<ListExtended>::Call;
  operations.setxattr = Safe<SetExtended>::Call;
  operations.removexattr = Safe<RemoveExtended>::Call;
  operations.create = Safe<Create>::Call;
  operations.fallocate = Safe<Allocate>::Call;
  return operations;
}

}  // namespace
}  // namespace fuse

const fuse_lowlevel_ops& FuseOperations() {
  static const auto operations = fuse::MakeOperations();
  return operations;
}

}  // namespace cloud_filter
