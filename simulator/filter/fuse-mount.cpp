#include "fuse-mount.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace cloud_filter {
namespace {

// None of them ever waits for a provider.
constexpr int kWorkers = 4;
// The kernel waits for the reads of a page under way before it drops the page, and such a read can
// wait for the very provider that asked for this.
constexpr std::chrono::milliseconds kInvalidationPatience{500};

thread_local bool isWorker = false;

bool Add(int epoll, int fd, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  return epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

}  // namespace

std::string WhyNoFuse() {
  const UniqueFd device(open("/dev/fuse", O_RDWR | O_CLOEXEC));
  return device ? std::string() : std::string("/dev/fuse: ") + std::strerror(errno);
}

FuseMount::Debt::Debt(FuseMount& mount) : mount_(mount) {
  std::lock_guard lock(mount_.debtMutex_);
  ++mount_.debts_;
}

FuseMount::Debt::~Debt() {
  std::lock_guard lock(mount_.debtMutex_);
  --mount_.debts_;
  mount_.debtPaid_.notify_all();
}

std::shared_ptr<FuseMount> FuseMount::Create(Core& core, const RootPtr& root, std::string& error) {
  std::shared_ptr<FuseMount> mount(new FuseMount(core, root));
  return mount->Mount(error) ? mount : nullptr;
}

FuseMount::FuseMount(Core& core, const RootPtr& root)
    : core_(core),
      root_(root),
      files_(core, root),
      nodes_(UniqueFd(openat(root->folder.Get(), ".", O_PATH | O_DIRECTORY | O_CLOEXEC)),
             root->inode, core.options.idleFiles),
      stop_(eventfd(0, EFD_CLOEXEC)) {}

bool FuseMount::Mount(std::string& error) {
  std::string program = "cloud-filterd";
  std::string option = "-o";
  std::string values = "default_permissions,fsname=cloud-filter";
  char* arguments[] = {program.data(), option.data(), values.data(), nullptr};
  fuse_args args{3, arguments, 0};
  session_ = fuse_session_new(&args, &FuseOperations(), sizeof(fuse_lowlevel_ops), this);
  fuse_opt_free_args(&args);
  if (session_ == nullptr) {
    error = "the FUSE library refused the session";
    return false;
  }
  if (fuse_session_mount(session_, root_->record.path.c_str()) != 0) {
    error = "the mount was refused";
    return false;
  }
  const auto fd = fuse_session_fd(session_);
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  for (int i = 0; i < kWorkers; ++i) {
    UniqueFd requests(epoll_create1(EPOLL_CLOEXEC));
    // A request wakes one worker, not all of them.
    if (!requests || !Add(requests.Get(), fd, EPOLLIN | EPOLLEXCLUSIVE) ||
        !Add(requests.Get(), stop_.Get(), EPOLLIN)) {
      error = "the system gives nothing to wait for requests with";
      return false;
    }
    requests_.push_back(std::move(requests));
  }
  for (const auto& requests : requests_) {
    workers_.emplace_back([this, &requests] { Work(requests.Get()); });
  }
  invalidator_ = std::thread([this] { WorkOnInvalidations(); });
  return true;
}

bool FuseMount::IsWorker() { return isWorker; }

void FuseMount::Work(int requests) {
  isWorker = true;
  fuse_buf buffer{};
  while (!fuse_session_exited(session_)) {
    epoll_event event{};
    const auto count = epoll_wait(requests, &event, 1, -1);
    if (count < 0 && errno != EINTR) break;
    if (count <= 0) continue;
    if (event.data.fd == stop_.Get()) break;
    const auto got = fuse_session_receive_buf(session_, &buffer);
    if (got == -EINTR || got == -EAGAIN) continue;
    if (got <= 0) break;
    fuse_session_process_buf(session_, &buffer);
  }
  std::free(buffer.mem);
}

FuseMount::~FuseMount() {
  if (session_ == nullptr) return;
  {
    Guard guard(core_);
    core_.hydration.RootGone(guard, *root_, hr::kProviderTerminated);
    core_.notifications.RootGone(guard, *root_, hr::kProviderTerminated);
  }
  {
    const std::lock_guard lock(invalidationMutex_);
    ending_ = true;
    invalidationChanged_.notify_all();
  }
  // The kernel may first want answers to reads, so the workers go on meanwhile.
  if (invalidator_.joinable()) invalidator_.join();
  eventfd_write(stop_.Get(), 1);
  for (auto& worker : workers_) worker.join();
  {
    std::unique_lock lock(debtMutex_);
    debtPaid_.wait(lock, [this] { return debts_ == 0; });
  }
  // The mount is detached and the device closed, so programs that still have files open get errors
  // and none hangs.
  fuse_session_unmount(session_);
  fuse_session_destroy(session_);
}

void FuseMount::Invalidate(ino_t inode) {
  std::unique_lock lock(invalidationMutex_);
  if (ending_) return;
  invalidations_.push_back(inode);
  const auto mine = ++invalidationsAsked_;
  invalidationChanged_.notify_all();
  invalidationChanged_.wait_for(lock, kInvalidationPatience,
                                [&] { return invalidationsDone_ >= mine || ending_; });
}

void FuseMount::FolderChanged(ino_t inode) {
  const auto* node = inode == root_->inode ? &nodes_.Root() : nodes_.Find(inode);
  if (node == nullptr) return;
  const auto id = node == &nodes_.Root() ? FUSE_ROOT_ID : reinterpret_cast<fuse_ino_t>(node);
  // Attributes alone: for them the kernel waits for nobody.
  fuse_lowlevel_notify_inval_inode(session_, id, -1, 0);
}

void FuseMount::WorkOnInvalidations() {
  std::unique_lock lock(invalidationMutex_);
  while (true) {
    invalidationChanged_.wait(lock, [this] { return ending_ || !invalidations_.empty(); });
    if (invalidations_.empty()) return;
    const auto inode = invalidations_.front();
    invalidations_.pop_front();
    lock.unlock();
    const auto* node = nodes_.Find(inode);
    if (node != nullptr) {
      fuse_lowlevel_notify_inval_inode(session_, reinterpret_cast<fuse_ino_t>(node), 0, 0);
    }
    lock.lock();
    ++invalidationsDone_;
    invalidationChanged_.notify_all();
  }
}

std::uint64_t FuseMount::Keep(std::shared_ptr<void> opened) {
  const auto handle = reinterpret_cast<std::uint64_t>(opened.get());
  const std::lock_guard lock(openedMutex_);
  opened_[handle] = std::move(opened);
  return handle;
}

std::shared_ptr<void> FuseMount::GiveBack(std::uint64_t handle) {
  const std::lock_guard lock(openedMutex_);
  const auto found = opened_.find(handle);
  if (found == opened_.end()) return nullptr;
  auto opened = std::move(found->second);
  opened_.erase(found);
  return opened;
}

Node& FuseMount::NodeOf(fuse_ino_t id) {
  return id == FUSE_ROOT_ID ? nodes_.Root() : *reinterpret_cast<Node*>(id);
}

}  // namespace cloud_filter
