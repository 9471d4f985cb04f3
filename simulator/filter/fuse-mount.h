#ifndef NIMBRA_SIMULATOR_FILTER_FUSE_MOUNT_H_
#define NIMBRA_SIMULATOR_FILTER_FUSE_MOUNT_H_

#define FUSE_USE_VERSION 312
#include <fuse_lowlevel.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "core.h"
#include "file-service.h"
#include "node-table.h"
#include "unique-fd.h"

namespace cloud_filter {

// Mounts a sync root over its own folder and serves it. Programs see the folder's files; what is
// missing is fetched when it is read.
class FuseMount : public FrontEnd {
 public:
  // Null when it cannot be mounted; `error` says why.
  static std::shared_ptr<FuseMount> Create(Core& core, const RootPtr& root, std::string& error);
  ~FuseMount() override;
  FuseMount(const FuseMount&) = delete;
  FuseMount& operator=(const FuseMount&) = delete;

  void Invalidate(ino_t inode) override;
  void FolderChanged(ino_t inode) override;

  [[nodiscard]] FileService& Files() { return files_; }
  [[nodiscard]] NodeTable& Nodes() { return nodes_; }
  [[nodiscard]] const Root& TheRoot() const { return *root_; }
  Node& NodeOf(fuse_ino_t id);

  // Whether the calling thread is one of those that take the kernel's requests.
  static bool IsWorker();

  // What programs have open. What still is when the mount goes is never closed by the kernel, so it
  // belongs to the mount. The handle is the object's address.
  std::uint64_t Keep(std::shared_ptr<void> opened);
  std::shared_ptr<void> GiveBack(std::uint64_t handle);

  // One answer that is still owed to the kernel. The mount outlives all of them.
  class Debt {
   public:
    explicit Debt(FuseMount& mount);
    ~Debt();
    Debt(const Debt&) = delete;
    Debt& operator=(const Debt&) = delete;

   private:
    FuseMount& mount_;
  };

 private:
  FuseMount(Core& core, const RootPtr& root);
  bool Mount(std::string& error);
  void Work(int requests);
  void WorkOnInvalidations();

  Core& core_;
  RootPtr root_;
  FileService files_;
  NodeTable nodes_;
  fuse_session* session_ = nullptr;
  UniqueFd stop_;
  // What each worker waits with.
  std::vector<UniqueFd> requests_;
  std::vector<std::thread> workers_;
  std::mutex openedMutex_;
  std::unordered_map<std::uint64_t, std::shared_ptr<void>> opened_;
  std::mutex debtMutex_;
  std::condition_variable debtPaid_;
  int debts_ = 0;
  std::mutex invalidationMutex_;
  std::condition_variable invalidationChanged_;
  std::deque<ino_t> invalidations_;
  std::uint64_t invalidationsAsked_ = 0;
  std::uint64_t invalidationsDone_ = 0;
  bool ending_ = false;
  std::thread invalidator_;
};

// The kernel's requests; the session's user data is the mount.
const fuse_lowlevel_ops& FuseOperations();

// The node number of the file that tells a program its own process id.
inline constexpr fuse_ino_t kWhoAmINode = ~fuse_ino_t{0} - 1;

// Why nothing can be mounted here; empty when it can.
std::string WhyNoFuse();

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_FUSE_MOUNT_H_
