#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "fuse-requests.h"

namespace cloud_filter::fuse {
namespace {

struct CloseFolder {
  void operator()(DIR* folder) const { closedir(folder); }
};

// A folder that a program is listing.
struct OpenedFolder {
  std::unique_ptr<DIR, CloseFolder> listing;
  off_t position = 0;
  dirent* next = nullptr;  // read but not handed over
};

OpenedFolder& FolderOf(const fuse_file_info& info) {
  return *reinterpret_cast<OpenedFolder*>(info.fh);
}

std::string Join(const std::string& folder, const char* name) { return folder + "/" + name; }

std::string BelowRoot(const FuseMount& mount, const std::string& path) {
  const auto& top = mount.TheRoot().record.path;
  return path.size() > top.size() ? path.substr(top.size() + 1) : std::string();
}

// A name that is about to be removed or moved, held so that the file keeps its identity.
struct Victim {
  Reference reference;
  struct stat facts {};
  ItemPtr item;

  [[nodiscard]] FileRef File() const { return {reference->Get(), facts.st_ino}; }
};

int Seize(FuseMount& mount, const HeldNode& folder, const char* name, Victim& victim) {
  UniqueFd file(openat(folder.Fd(), name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (!file || fstat(file.Get(), &victim.facts) != 0) return errno;
  victim.reference = std::make_shared<UniqueFd>(std::move(file));
  victim.item = mount.Files().ItemOf(victim.File());
  return 0;
}

void ReplyEntry(fuse_req_t request, const HeldNode& folder, const char* name) {
  fuse_entry_param entry{};
  const auto error = LookUp(MountOf(request), folder, name, entry);
  if (error != 0) return ReplyError(request, error);
  fuse_reply_entry(request, &entry);
}

void Remove(fuse_req_t request, fuse_ino_t folder, const char* name, int flags) {
  if (IsWhoAmI(folder, name)) return ReplyError(request, EACCES);
  auto& mount = MountOf(request);
  const auto parent = Hold(request, folder);
  auto victim = std::make_shared<Victim>();
  if (const auto error = Seize(mount, parent, name, *victim)) return ReplyError(request, error);
  const auto thread = fuse_req_ctx(request)->pid;
  const auto finish = [=, &mount, leaf = std::string(name)](int error) {
    const auto path = Join(PathOf(parent.Fd()), leaf.c_str());
    if (error == 0 && unlinkat(parent.Fd(), leaf.c_str(), flags) != 0) error = errno;
    if (error == 0) {
      mount.Nodes().Unlinked(victim->facts, victim->reference);
      mount.Files().Deleted(victim->item, victim->facts.st_ino, BelowRoot(mount, path), thread);
    }
    ReplyError(request, error);
  };
  if (victim->item == nullptr) return finish(0);
  auto debt = std::make_shared<FuseMount::Debt>(mount);
  mount.Files().AskDelete(victim->File(), AboutToWait(request),
                          [finish, debt](int error) { finish(error); });
}

struct Move {
  HeldNode from;
  std::string name;
  HeldNode to;
  std::string newName;
  unsigned flags = 0;
  pid_t thread = 0;
  Victim moved;
};

void NoteNewPlaces(FuseMount& mount, const Move& move, const Victim* replaced) {
  auto& nodes = mount.Nodes();
  nodes.Moved(move.moved.facts, *move.to.node, move.newName);
  if (replaced == nullptr || replaced->facts.st_ino == move.moved.facts.st_ino) return;
  if ((move.flags & RENAME_EXCHANGE) != 0) {
    nodes.Moved(replaced->facts, *move.from.node, move.name);
    return;
  }
  nodes.Unlinked(replaced->facts, replaced->reference);
  if (replaced->item != nullptr) mount.Files().Replaced(replaced->File());
}

int DoMove(FuseMount& mount, const Move& move) {
  const auto source = Join(PathOf(move.from.Fd()), move.name.c_str());
  Victim replaced;
  const auto replaces = Seize(mount, move.to, move.newName.c_str(), replaced) == 0;
  if (renameat2(move.from.Fd(), move.name.c_str(), move.to.Fd(), move.newName.c_str(),
                move.flags) != 0) {
    return errno;
  }
  NoteNewPlaces(mount, move, replaces ? &replaced : nullptr);
  mount.Files().Renamed(move.moved.item, source, move.to.File(), move.thread);
  return 0;
}

template <class AddEntry>
void List(fuse_req_t request, std::size_t size, off_t offset, fuse_file_info* info,
          AddEntry addEntry) {
  auto& folder = FolderOf(*info);
  std::vector<char> buffer(size);
  std::size_t used = 0;
  if (offset != folder.position) {
    seekdir(folder.listing.get(), offset);
    folder.next = nullptr;
    folder.position = offset;
  }
  auto error = 0;
  while (true) {
    if (folder.next == nullptr) {
      errno = 0;
      folder.next = readdir(folder.listing.get());
      if (folder.next == nullptr) {
        error = errno;
        break;
      }
    }
    const auto needed = addEntry(buffer.data() + used, size - used, *folder.next);
    if (needed > size - used) break;
    used += needed;
    folder.position = folder.next->d_off;
    folder.next = nullptr;
  }
  if (error != 0 && used == 0) return ReplyError(request, error);
  fuse_reply_buf(request, buffer.data(), used);
}

bool IsDots(const char* name) {
  return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

}  // namespace

int LookUp(FuseMount& mount, const HeldNode& folder, const char* name, fuse_entry_param& entry) {
  UniqueFd reference(openat(folder.Fd(), name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (!reference) return errno;
  if (fstatat(reference.Get(), "", &entry.attr, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW) != 0) {
    return errno;
  }
  entry.ino = reinterpret_cast<fuse_ino_t>(
      mount.Nodes().Intern(*folder.node, name, std::move(reference), entry.attr));
  entry.attr_timeout = entry.entry_timeout = KeptSeconds(entry.attr);
  return 0;
}

void Lookup(fuse_req_t request, fuse_ino_t folder, const char* name) {
  if (IsWhoAmI(folder, name)) {
    fuse_entry_param entry{};
    entry.ino = kWhoAmINode;
    entry.attr = WhoAmIAttributes();
    fuse_reply_entry(request, &entry);
    return;
  }
  ReplyEntry(request, Hold(request, folder), name);
}

void Forget(fuse_req_t request, fuse_ino_t id, std::uint64_t lookups) {
  if (id != FUSE_ROOT_ID && id != kWhoAmINode) {
    MountOf(request).Nodes().Forget(MountOf(request).NodeOf(id), lookups);
  }
  fuse_reply_none(request);
}

void ForgetMany(fuse_req_t request, std::size_t count, fuse_forget_data* forgets) {
  for (std::size_t i = 0; i < count; ++i) {
    if (forgets[i].ino == FUSE_ROOT_ID || forgets[i].ino == kWhoAmINode) continue;
    MountOf(request).Nodes().Forget(MountOf(request).NodeOf(forgets[i].ino), forgets[i].nlookup);
  }
  fuse_reply_none(request);
}

void MakeNode(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode, dev_t device) {
  if (IsWhoAmI(folder, name)) return ReplyError(request, EACCES);
  const auto parent = Hold(request, folder);
  if (mknodat(parent.Fd(), name, mode, device) != 0) return ReplyError(request, errno);
  ReplyEntry(request, parent, name);
}

void MakeFolder(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode) {
  if (IsWhoAmI(folder, name)) return ReplyError(request, EACCES);
  const auto parent = Hold(request, folder);
  if (mkdirat(parent.Fd(), name, mode) != 0) return ReplyError(request, errno);
  ReplyEntry(request, parent, name);
}

void Unlink(fuse_req_t request, fuse_ino_t folder, const char* name) {
  Remove(request, folder, name, 0);
}

void RemoveFolder(fuse_req_t request, fuse_ino_t folder, const char* name) {
  Remove(request, folder, name, AT_REMOVEDIR);
}

void Rename(fuse_req_t request, fuse_ino_t folder, const char* name, fuse_ino_t newFolder,
            const char* newName, unsigned flags) {
  if (IsWhoAmI(folder, name) || IsWhoAmI(newFolder, newName)) return ReplyError(request, EACCES);
  auto& mount = MountOf(request);
  auto move = std::make_shared<Move>();
  move->from = Hold(request, folder);
  move->name = name;
  move->to = Hold(request, newFolder);
  move->newName = newName;
  move->flags = flags;
  move->thread = fuse_req_ctx(request)->pid;
  if (const auto error = Seize(mount, move->from, name, move->moved)) {
    return ReplyError(request, error);
  }
  if (move->moved.item == nullptr) return ReplyError(request, DoMove(mount, *move));
  const auto target = Join(PathOf(move->to.Fd()), newName);
  auto debt = std::make_shared<FuseMount::Debt>(mount);
  mount.Files().AskRename(move->moved.File(), target, AboutToWait(request),
                          [request, &mount, move, debt](int error) {
                            ReplyError(request, error != 0 ? error : DoMove(mount, *move));
                          });
}

void SymbolicLink(fuse_req_t request, const char* target, fuse_ino_t folder, const char* name) {
  if (IsWhoAmI(folder, name)) return ReplyError(request, EACCES);
  const auto parent = Hold(request, folder);
  if (symlinkat(target, parent.Fd(), name) != 0) return ReplyError(request, errno);
  ReplyEntry(request, parent, name);
}

void HardLink(fuse_req_t request, fuse_ino_t id, fuse_ino_t newFolder, const char* newName) {
  if (id == kWhoAmINode || IsWhoAmI(newFolder, newName)) return ReplyError(request, EACCES);
  const auto node = Hold(request, id);
  // Documented: links to placeholders only where the policy allows them.
  if (!MountOf(request).Files().HardLinkAllowed(node.File())) return ReplyError(request, EPERM);
  const auto parent = Hold(request, newFolder);
  if (linkat(AT_FDCWD, ProcPath(node.Fd()).c_str(), parent.Fd(), newName, AT_SYMLINK_FOLLOW) != 0) {
    return ReplyError(request, errno);
  }
  ReplyEntry(request, parent, newName);
}

void OpenFolder(fuse_req_t request, fuse_ino_t id, fuse_file_info* info) {
  UniqueFd fd(openat(Hold(request, id).Fd(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) return ReplyError(request, errno);
  const auto folder = std::make_shared<OpenedFolder>();
  folder->listing.reset(fdopendir(fd.Get()));
  if (folder->listing == nullptr) return ReplyError(request, errno);
  static_cast<void>(fd.Release());
  auto& mount = MountOf(request);
  info->fh = mount.Keep(folder);
  if (fuse_reply_open(request, info) == -ENOENT) mount.GiveBack(info->fh);
}

void ReadFolder(fuse_req_t request, fuse_ino_t, std::size_t size, off_t offset,
                fuse_file_info* info) {
  List(request, size, offset, info, [=](char* at, std::size_t room, const dirent& entry) {
    struct stat facts {};
    facts.st_ino = entry.d_ino;
    facts.st_mode = static_cast<mode_t>(entry.d_type) << 12U;
    return fuse_add_direntry(request, at, room, entry.d_name, &facts, entry.d_off);
  });
}

void ReadFolderPlus(fuse_req_t request, fuse_ino_t id, std::size_t size, off_t offset,
                    fuse_file_info* info) {
  auto& mount = MountOf(request);
  const auto folder = Hold(request, id);
  List(request, size, offset, info, [&](char* at, std::size_t room, const dirent& entry) {
    fuse_entry_param found{};
    found.attr.st_ino = entry.d_ino;
    found.attr.st_mode = static_cast<mode_t>(entry.d_type) << 12U;
    // An entry that vanished meanwhile goes without its look-up.
    if (!IsDots(entry.d_name)) LookUp(mount, folder, entry.d_name, found);
    const auto needed =
        fuse_add_direntry_plus(request, at, room, entry.d_name, &found, entry.d_off);
    if (needed > room && found.ino != 0) mount.Nodes().Forget(mount.NodeOf(found.ino), 1);
    return needed;
  });
}

void ReleaseFolder(fuse_req_t request, fuse_ino_t, fuse_file_info* info) {
  MountOf(request).GiveBack(info->fh);
  ReplyError(request, 0);
}

}  // namespace cloud_filter::fuse
