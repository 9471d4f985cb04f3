#ifndef NIMBRA_SIMULATOR_FILTER_FILE_SERVICE_H_
#define NIMBRA_SIMULATOR_FILTER_FILE_SERVICE_H_

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <shared_mutex>
#include <string>

#include "core.h"

namespace cloud_filter {

// A file as the mount knows it.
struct FileRef {
  int reference = -1;
  ino_t inode = 0;
};

// A program's operation that may have to wait.
struct Waiting {
  pid_t thread = 0;  // of the program
  std::uint64_t id = 0;
  // Whether the program has given up before the wait began.
  std::function<bool()> givenUp;
};

// What the filter does when programs use files: lets them wait for data, notices their changes and
// asks the provider about renames and deletes. Continuations get 0 or an errno and are called once,
// possibly before the function returns, and from any thread.
class FileService {
 public:
  using Then = std::function<void(int error)>;

  FileService(Core& core, RootPtr root) : core_(core), root_(std::move(root)) {}

  ItemPtr ItemOf(FileRef file);

  // Holds the data of the file for a read of `range`. False when some of it is missing.
  bool TryRead(const ItemPtr& item, Range range, std::shared_lock<std::shared_mutex>& hold);
  // Holds the data for a change. False when the file is not fully present.
  bool TryWrite(const ItemPtr& item, std::unique_lock<std::shared_mutex>& hold);
  // Waits until a read of `range` can succeed.
  void WhenReadable(const ItemPtr& item, Range range, Waiting waiting, Then then);
  // Waits until the whole file is present.
  void WhenWritable(const ItemPtr& item, Waiting waiting, Then then);
  void Interrupt(std::uint64_t waiterId);

  // Before bytes change, with the data held: what is not in sync is recorded first. 0 or an errno.
  int AboutToChange(const ItemPtr& item, Range range, pid_t thread);
  int AboutToShrink(const ItemPtr& item, std::int64_t size, pid_t thread);
  void Shrunk(const ItemPtr& item);
  // Attributes or times of a file changed; `track` are the policy bits that this concerns.
  void MetadataChanged(FileRef file, std::uint32_t trackFile, std::uint32_t trackDirectory,
                       pid_t thread);

  void Opened(FileRef file, pid_t thread);
  void Closed(FileRef file, pid_t thread);

  void AskDelete(FileRef file, Waiting waiting, Then then);
  void Deleted(const ItemPtr& item, ino_t inode, const std::string& relativePath, pid_t thread);
  void AskRename(FileRef file, const std::string& target, Waiting waiting, Then then);
  void Renamed(const ItemPtr& item, const std::string& source, FileRef newFolder, pid_t thread);
  // A rename put another file in the place of this one.
  void Replaced(FileRef file);

  [[nodiscard]] bool HardLinkAllowed(FileRef file);
  [[nodiscard]] std::uint64_t NextWaiterId() { return core_.NextWaiterId(); }
  [[nodiscard]] Core& TheCore() { return core_; }

 private:
  void Wait(const ItemPtr& item, Range need, Waiting waiting, Then then);
  bool PreservesInSync(pid_t thread) const;
  void Ask(const ItemPtr& item, wire::CallbackEvent event, Waiting waiting, Then then);
  void Tell(Guard& guard, const ItemPtr& item, std::uint32_t type, std::uint32_t flags,
            const Cause& cause);
  [[nodiscard]] std::shared_ptr<Connection> Provider(std::uint32_t callbackType);

  Core& core_;
  RootPtr root_;
};

// Documented table: what an item's pin state becomes when it comes into a folder.
PinState InheritedPin(PinState own, PinState parent, bool directory);

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_FILE_SERVICE_H_
