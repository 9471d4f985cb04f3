#include "core.h"

#include <fcntl.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <list>
#include <system_error>
#include <thread>

#include "stale-mount.h"

namespace cloud_filter {
namespace {

constexpr std::chrono::milliseconds kTick{50};

bool LiesUnder(const std::string& path, const std::string& root) {
  return path == root || (path.starts_with(root) && path[root.size()] == '/');
}

// The path with the links on the way to a sync root resolved, or those of its folder where it leads
// to none; empty where it leads nowhere. Nothing at or below a root is asked for: that question
// would come to this very process, whose lock the caller holds.
template <class IsRoot>
std::string Resolved(const std::string& path, const IsRoot& isRoot) {
  constexpr int kMostLinks = 40;
  const std::filesystem::path given(path);
  std::list<std::filesystem::path> rest(given.begin(), given.end());
  std::filesystem::path done("/");
  for (int links = 0; !rest.empty();) {
    const auto name = rest.front();
    rest.pop_front();
    if (name == "/" || name == "." || name.empty()) continue;
    if (name == "..") {
      done = done.parent_path();
      continue;
    }
    auto next = done / name;
    if (isRoot(next.string()) || rest.empty()) {
      for (const auto& below : rest) next /= below;
      return next.lexically_normal().string();
    }
    std::error_code error;
    const auto target = std::filesystem::read_symlink(next, error);
    if (error == std::errc::invalid_argument) {
      done = std::move(next);
      continue;
    }
    if (error || ++links > kMostLinks) return {};
    if (target.is_absolute()) done = "/";
    rest.insert(rest.begin(), target.begin(), target.end());
  }
  return done.string();
}

std::string WithoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

bool Connection::SameProcess(const Connection& other) const {
  return provider.windowsProcessId == other.provider.windowsProcessId &&
         provider.unixProcessId == other.provider.unixProcessId &&
         provider.systemDriveUnixPath == other.provider.systemDriveUnixPath;
}

bool Root::ValidationRequired() const {
  return (record.policies.hydrationModifier & policy::kValidationRequired) != 0;
}

Deferred::~Deferred() {
  for (const auto& work : work_) {
    try {
      work();
    } catch (const std::exception& error) {
      std::fprintf(stderr, "cloud-filterd: an answer could not be given: %s\n", error.what());
    }
  }
}

Guard::Guard(Core& theCore) : core(theCore), lock_(theCore.mutex) {}

Core::Core(CoreOptions coreOptions, const std::filesystem::path& database, FrontEndFactory factory)
    : options(coreOptions),
      store(database),
      items(store, coreOptions.idleFiles),
      factory_(std::move(factory)),
      // A request key of an earlier life of this process never means one of ours.
      lastRequestKey_(std::chrono::system_clock::now().time_since_epoch().count()) {
  lastConnectionKey = lastRequestKey_;
}

Core::~Core() { Stop(); }

void Core::Start() {
  for (auto& record : store.Roots()) {
    auto root = std::make_shared<Root>();
    root->record = std::move(record);
    if (OpenRoot(root) != hr::kOk) {
      std::fprintf(stderr,
                   "cloud-filterd: %s cannot be opened and stays out of service; restore the "
                   "folder and start again, or unregister it\n",
                   root->record.path.c_str());
      continue;
    }
    roots[root->record.id] = root;
    Mount(root);
  }
  clock_ = std::thread([this] { RunClock(); });
}

void Core::Stop() {
  std::vector<RootPtr> all;
  {
    Guard guard(*this);
    stopping_ = true;
    for (const auto& [id, root] : roots) {
      EndConnection(guard, root, hr::kProviderTerminated);
      all.push_back(root);
    }
    roots.clear();
    changed.notify_all();
  }
  if (clock_.joinable()) clock_.join();
  for (const auto& root : all) Unmount(root);
}

void Core::RunClock() {
  while (true) {
    Guard guard(*this);
    changed.wait_for(guard.Lock(), kTick, [this] { return stopping_; });
    if (stopping_) return;
    const auto now = Clock::now();
    hydration.Expire(guard, now);
    notifications.Expire(guard, now);
  }
}

RootPtr Core::RootOf(Guard&, const std::string& path, std::string& relative) {
  const auto find = [&](const std::string& wanted) -> RootPtr {
    for (const auto& [id, root] : roots) {
      const auto& top = root->record.path;
      if (!LiesUnder(wanted, top)) continue;
      relative = wanted.size() > top.size() ? wanted.substr(top.size() + 1) : std::string();
      return root;
    }
    return nullptr;
  };
  const auto plain = WithoutTrailingSlashes(path);
  if (auto root = find(plain)) return root;
  return find(Resolved(plain, [this](const std::string& folder) {
    return std::any_of(roots.begin(), roots.end(),
                       [&](const auto& entry) { return entry.second->record.path == folder; });
  }));
}

Hresult Core::Locate(Guard& guard, const wire::ItemRef& ref, Located& located) {
  std::string relative;
  located.root = RootOf(guard, ref.path, relative);
  if (located.root == nullptr) return hr::kNotUnderSyncRoot;
  const auto error = OpenReference(located.root->folder.Get(), relative, located.reference);
  if (error != 0) return HresultOfErrno(error);
  const auto factsError = GetFacts(located.reference.Get(), located.facts);
  if (factsError != 0) return HresultOfErrno(factsError);
  if (ref.fileId != 0 && static_cast<ino_t>(ref.fileId) != located.facts.inode) {
    return hr::kFileNotFound;
  }
  located.item = items.Find(located.root, located.reference.Get(), located.facts);
  return hr::kOk;
}

Hresult Core::LocateItem(Guard& guard, const wire::ItemRef& ref, Located& located) {
  const auto result = Locate(guard, ref, located);
  if (result != hr::kOk) return result;
  return located.item == nullptr ? hr::kNotACloudFile : hr::kOk;
}

RootPtr Core::RootOfConnection(std::int64_t key) {
  for (const auto& [id, root] : roots) {
    if (root->connection != nullptr && root->connection->key == key) return root;
  }
  return nullptr;
}

std::shared_ptr<Connection> Core::ConnectionOf(std::int64_t key) {
  const auto root = RootOfConnection(key);
  return root == nullptr ? nullptr : root->connection;
}

Hresult Core::OpenRoot(const RootPtr& root) {
  RemoveStaleMount(root->record.path);
  root->folder.Reset(open(root->record.path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  FileFacts facts;
  if (!root->folder) return HresultOfErrno(errno);
  const auto error = GetFacts(root->folder.Get(), facts);
  root->inode = facts.inode;
  return HresultOfErrno(error);
}

void Core::Mount(const RootPtr& root) {
  if (!options.mount || !factory_) return;
  auto frontEnd = factory_(*this, root);
  Guard guard(*this);
  root->frontEnd = std::move(frontEnd);
}

void Core::Unmount(const RootPtr& root) {
  std::shared_ptr<FrontEnd> dropped;
  {
    Guard guard(*this);
    dropped = std::move(root->frontEnd);
  }
  // Whoever is just telling the kernel something holds it too; the mount must be gone on return.
  while (dropped.use_count() > 1) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void Core::Invalidate(const ItemPtr& item) {
  std::shared_ptr<FrontEnd> frontEnd;
  {
    Guard guard(*this);
    frontEnd = item->root->frontEnd;
  }
  if (frontEnd != nullptr) frontEnd->Invalidate(item->record.inode);
}

void Core::FolderChanged(const RootPtr& root, ino_t inode) {
  std::shared_ptr<FrontEnd> frontEnd;
  {
    Guard guard(*this);
    frontEnd = root->frontEnd;
  }
  if (frontEnd != nullptr) frontEnd->FolderChanged(inode);
}

void Core::EndConnection(Guard& guard, const RootPtr& root, Hresult why) {
  if (root->connection == nullptr) return;
  hydration.RootGone(guard, *root, why);
  notifications.RootGone(guard, *root, why);
  const auto connection = std::move(root->connection);
  root->connection = nullptr;
  guard.Later([connection] { connection->sink->Close(); });
}

void Core::ProviderAnswered(const Connection& connection) {
  const auto deadline = Clock::now() + options.requestTimeout;
  hydration.ResetTimers(connection, deadline);
  notifications.ResetTimers(connection, deadline);
}

wire::CallbackEvent Core::MakeEvent(Item& item, std::uint32_t type, const Cause& cause) {
  wire::CallbackEvent event;
  event.type = type;
  event.transferKey = items.TransferKeyOf(item.shared_from_this());
  event.fileId = static_cast<std::int64_t>(item.record.inode);
  event.fileSize = item.record.directory ? 0 : item.Size();
  event.relativePath = item.RelativePath();
  event.fileIdentity = item.record.identity;
  event.processId = static_cast<std::uint32_t>(cause.processId);
  event.processImage = cause.image;
  event.commandLine = cause.commandLine;
  return event;
}

}  // namespace cloud_filter
