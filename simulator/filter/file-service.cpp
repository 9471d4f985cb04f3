#include "file-service.h"

#include <sys/stat.h>

#include <cerrno>
#include <limits>
#include <utility>

namespace cloud_filter {
namespace {

constexpr Range kWholeFile{0, std::numeric_limits<std::int64_t>::max()};

bool IsProvider(const Connection& connection, pid_t process) {
  return process != 0 && process == connection.provider.unixProcessId;
}

// A wineserver works for all programs of its prefix in one thread. Were it to wait for a provider
// in that prefix, neither would ever go on; when in doubt it does not wait.
bool MayWait(const Connection& connection, pid_t process) {
  if (!IsWineServer(process)) return true;
  return ServesPrefixOf(process, connection.provider.systemDriveUnixPath) == false;
}

}  // namespace

PinState InheritedPin(PinState own, PinState parent, bool directory) {
  if (parent == PinState::kExcluded) return PinState::kExcluded;
  if (own == PinState::kPinned || own == PinState::kUnpinned) return own;
  // Documented: a file below an unpinned folder stays unspecified.
  if (parent == PinState::kUnpinned && !directory) return PinState::kUnspecified;
  return parent;
}

ItemPtr FileService::ItemOf(FileRef file) {
  Guard guard(core_);
  return core_.items.Find(root_, file.reference, file.inode);
}

bool FileService::TryRead(const ItemPtr& item, Range range,
                          std::shared_lock<std::shared_mutex>& hold) {
  hold = std::shared_lock(item->data);
  Guard guard(core_);
  if (item->record.full) return true;
  range.end = std::min(range.end, item->Size());
  if (item->Usable(range)) return true;
  hold.unlock();
  return false;
}

bool FileService::TryWrite(const ItemPtr& item, std::unique_lock<std::shared_mutex>& hold) {
  hold = std::unique_lock(item->data);
  Guard guard(core_);
  if (item->Usable({0, item->Size()})) return true;
  hold.unlock();
  return false;
}

void FileService::WhenReadable(const ItemPtr& item, Range range, Waiting waiting, Then then) {
  Wait(item, range, std::move(waiting), std::move(then));
}

void FileService::WhenWritable(const ItemPtr& item, Waiting waiting, Then then) {
  Wait(item, kWholeFile, std::move(waiting), std::move(then));
}

void FileService::Wait(const ItemPtr& item, Range need, Waiting waiting, Then then) {
  const auto process = ProcessOfThread(waiting.thread);
  const auto neverWaits = IsWineServer(process);
  Demand demand;
  demand.need = need;
  demand.background = neverWaits;
  demand.cause = DescribeProcess(process);
  demand.waiterId = waiting.id;
  if (!neverWaits) demand.done = [then](Hresult result) { then(ErrnoOf(result)); };

  Guard guard(core_);
  if (waiting.givenUp && waiting.givenUp()) {
    guard.Later([then] { then(EINTR); });
    return;
  }
  const auto connection = root_->connection;
  // Documented: the provider's own reads do not hydrate when it asked for that. Guessed: the code.
  if (connection != nullptr && (connection->flags & flag::kConnectBlockSelf) != 0 &&
      IsProvider(*connection, process)) {
    guard.Later([then] { then(EACCES); });
    return;
  }
  const auto result = core_.hydration.Require(guard, item, std::move(demand));
  if (result == hr::kPending && !neverWaits) return;
  const auto error = result == hr::kPending ? EIO : ErrnoOf(result);
  guard.Later([then, error] { then(error); });
}

void FileService::Interrupt(std::uint64_t waiterId) {
  Guard guard(core_);
  core_.hydration.Abandon(guard, waiterId, hr::kInterrupted);
  core_.notifications.Abandon(guard, waiterId, hr::kInterrupted);
}

bool FileService::PreservesInSync(pid_t thread) const {
  const auto connection = root_->connection;
  return connection != nullptr &&
         (root_->record.policies.inSync & policy::kPreserveForSyncEngine) != 0 &&
         IsProvider(*connection, ProcessOfThread(thread));
}

int FileService::AboutToChange(const ItemPtr& item, Range range, pid_t thread) {
  Guard guard(core_);
  auto& record = item->record;
  const auto leavesSync = record.inSync && !PreservesInSync(thread);
  if (!leavesSync && record.modified.Contains(range)) return 0;
  record.inSync = record.inSync && !leavesSync;
  record.modified.Add(range);
  try {
    core_.items.Save(*item);
  } catch (const StoreError&) {
    return EIO;
  }
  return 0;
}

int FileService::AboutToShrink(const ItemPtr& item, std::int64_t size, pid_t thread) {
  Guard guard(core_);
  auto& record = item->record;
  const Range lost{size, std::numeric_limits<std::int64_t>::max()};
  if (!PreservesInSync(thread)) record.inSync = false;
  record.present.Remove(lost);
  record.validated.Remove(lost);
  record.modified.Remove(lost);
  try {
    core_.items.Save(*item);
  } catch (const StoreError&) {
    return EIO;
  }
  return 0;
}

void FileService::Shrunk(const ItemPtr& item) {
  Guard guard(core_);
  if (!item->record.full) {
    item->Settle(item->Size());
    core_.items.SaveQuietly(*item);
  }
  core_.hydration.Advance(guard, item);
}

void FileService::MetadataChanged(FileRef file, std::uint32_t trackFile,
                                  std::uint32_t trackDirectory, pid_t thread) {
  Guard guard(core_);
  const auto item = core_.items.Find(root_, file.reference, file.inode);
  if (item == nullptr || !item->record.inSync) return;
  const auto track = item->record.directory ? trackDirectory : trackFile;
  if ((root_->record.policies.inSync & track) == 0 || PreservesInSync(thread)) return;
  item->record.inSync = false;
  core_.items.Save(*item);
}

std::shared_ptr<Connection> FileService::Provider(std::uint32_t callbackType) {
  const auto connection = root_->connection;
  return connection != nullptr && connection->Wants(callbackType) ? connection : nullptr;
}

void FileService::Tell(Guard&, const ItemPtr& item, std::uint32_t type, std::uint32_t flags,
                       const Cause& cause) {
  const auto connection = Provider(type);
  if (connection == nullptr || IsProvider(*connection, cause.processId)) return;
  auto event = core_.MakeEvent(*item, type, cause);
  event.requestKey = core_.NextRequestKey();
  event.flags = flags;
  connection->sink->Send(event);
}

void FileService::Opened(FileRef file, pid_t thread) {
  Guard guard(core_);
  ++root_->opens[file.inode];
  if (Provider(callback::kFileOpenCompletion) == nullptr) return;
  const auto item = core_.items.Find(root_, file.reference, file.inode);
  if (item == nullptr) return;
  Tell(guard, item, callback::kFileOpenCompletion, 0, DescribeProcess(ProcessOfThread(thread)));
}

void FileService::Closed(FileRef file, pid_t thread) {
  Guard guard(core_);
  const auto item = core_.items.Find(root_, file.reference, file.inode);
  auto& opens = root_->opens[file.inode];
  if (--opens <= 0) root_->opens.erase(file.inode);
  core_.changed.notify_all();
  if (item == nullptr) return;
  if (item->Opens() == 0) core_.hydration.LastClosed(guard, item);
  if (Provider(callback::kFileCloseCompletion) == nullptr) return;
  Tell(guard, item, callback::kFileCloseCompletion, item->deleted ? callback::kCloseDeleted : 0,
       DescribeProcess(ProcessOfThread(thread)));
}

void FileService::Ask(const ItemPtr& item, wire::CallbackEvent event, Waiting waiting, Then then) {
  const auto process = static_cast<pid_t>(event.processId);
  Guard guard(core_);
  const auto connection = Provider(event.type);
  // Guessed: the provider is not asked about what it does itself.
  if (connection == nullptr || IsProvider(*connection, process)) {
    guard.Later([then] { then(0); });
    return;
  }
  if (waiting.givenUp && waiting.givenUp()) {
    guard.Later([then] { then(EINTR); });
    return;
  }
  core_.notifications.Ask(guard, item, std::move(event), MayWait(*connection, process), waiting.id,
                          [then](const Verdict& verdict) {
                            // A veto is a refusal, whatever its status; what befell the provider
                            // or the question is not.
                            const auto vetoed = verdict.vetoed && verdict.result != hr::kOk;
                            then(vetoed ? EACCES : ErrnoOf(verdict.result));
                          });
}

void FileService::AskDelete(FileRef file, Waiting waiting, Then then) {
  const auto item = ItemOf(file);
  if (item == nullptr) return then(0);
  const auto cause = DescribeProcess(ProcessOfThread(waiting.thread));
  wire::CallbackEvent event;
  {
    Guard guard(core_);
    event = core_.MakeEvent(*item, callback::kDelete, cause);
    event.flags = item->record.directory ? callback::kIsDirectory : 0;
  }
  Ask(item, std::move(event), std::move(waiting), std::move(then));
}

void FileService::Deleted(const ItemPtr& item, ino_t inode, const std::string& relativePath,
                          pid_t thread) {
  Guard guard(core_);
  struct stat facts {};
  if (item == nullptr) return;
  const auto gone =
      fstat(item->reference.Get(), &facts) != 0 || facts.st_nlink == 0 || item->record.directory;
  if (const auto connection = Provider(callback::kDeleteCompletion)) {
    auto event = core_.MakeEvent(*item, callback::kDeleteCompletion,
                                 DescribeProcess(ProcessOfThread(thread)));
    event.relativePath = relativePath;
    event.requestKey = core_.NextRequestKey();
    if (!IsProvider(*connection, static_cast<pid_t>(event.processId))) {
      connection->sink->Send(event);
    }
  }
  if (!gone) return;
  item->lastPath = relativePath;
  core_.items.Forget(*root_, inode, true);
}

void FileService::AskRename(FileRef file, const std::string& target, Waiting waiting, Then then) {
  const auto item = ItemOf(file);
  if (item == nullptr) return then(0);
  const auto cause = DescribeProcess(ProcessOfThread(waiting.thread));
  wire::CallbackEvent event;
  {
    Guard guard(core_);
    event = core_.MakeEvent(*item, callback::kRename, cause);
    // A rename across the edge of the mount never comes here: it is a copy and a delete.
    event.flags = callback::kSourceInScope | callback::kTargetInScope |
                  (item->record.directory ? callback::kIsDirectory : 0);
    event.otherPath = target;
  }
  Ask(item, std::move(event), std::move(waiting), std::move(then));
}

void FileService::Renamed(const ItemPtr& item, const std::string& source, FileRef newFolder,
                          pid_t thread) {
  if (item == nullptr) return;
  Guard guard(core_);
  const auto folder = core_.items.Find(root_, newFolder.reference, newFolder.inode);
  const auto moved = source.substr(0, source.rfind('/')) != PathOf(newFolder.reference);
  if (folder != nullptr && moved) {
    // Inferred: the inheritance table holds for moves too; a new name alone changes nothing.
    const auto pin = InheritedPin(item->record.pin, folder->record.pin, item->record.directory);
    if (pin != item->record.pin) {
      item->record.pin = pin;
      core_.items.Save(*item);
    }
  }
  const auto connection = Provider(callback::kRenameCompletion);
  if (connection == nullptr) return;
  auto event =
      core_.MakeEvent(*item, callback::kRenameCompletion, DescribeProcess(ProcessOfThread(thread)));
  event.requestKey = core_.NextRequestKey();
  event.otherPath = source;
  if (!IsProvider(*connection, static_cast<pid_t>(event.processId))) connection->sink->Send(event);
}

void FileService::Replaced(FileRef file) {
  struct stat facts {};
  if (fstat(file.reference, &facts) == 0 && facts.st_nlink > 0 && !S_ISDIR(facts.st_mode)) return;
  Guard guard(core_);
  core_.items.Forget(*root_, file.inode, true);
}

bool FileService::HardLinkAllowed(FileRef file) {
  Guard guard(core_);
  return core_.items.Find(root_, file.reference, file.inode) == nullptr ||
         root_->record.policies.hardLink == policy::kHardLinkAllowed;
}

}  // namespace cloud_filter
