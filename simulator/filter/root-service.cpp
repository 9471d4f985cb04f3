#include "root-service.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "stale-mount.h"
#include "tree-walk.h"

namespace cloud_filter {
namespace {

// A text's length on the platform, which counts UTF-16 units.
std::size_t Utf16Length(const std::string& utf8) {
  std::size_t length = 0;
  for (const auto byte : utf8) {
    const auto value = static_cast<unsigned char>(byte);
    if ((value & 0xC0U) != 0x80U) ++length;
    if (value >= 0xF0U) ++length;
  }
  return length;
}

// Documented, unless marked.
Hresult Validate(const Registration& registration) {
  const auto& policies = registration.policies;
  const auto goodText = [](const std::string& text) {
    return !text.empty() && Utf16Length(text) <= kMaxProviderText;
  };
  constexpr auto kAllFlags =
      flag::kRegisterUpdate | flag::kRegisterRootPopulated | flag::kRegisterRootInSync;
  constexpr auto kContradiction = policy::kStreamingAllowed | policy::kValidationRequired;
  const auto good = goodText(registration.providerName) && goodText(registration.providerVersion) &&
                    registration.identity.size() <= kMaxRootIdentity &&
                    registration.rootFileIdentity.size() <= kMaxFileIdentity &&
                    policies.hydrationPrimary <= policy::kHydrationAlwaysFull &&
                    (policies.hydrationModifier & ~policy::kHydrationModifiers) == 0 &&
                    (policies.hydrationModifier & kContradiction) != kContradiction &&
                    policies.populationPrimary <= policy::kPopulationAlwaysFull &&
                    policies.populationPrimary != 1 &&
                    policies.hardLink <= policy::kHardLinkAllowed &&
                    (registration.flags & ~kAllFlags) == 0;
  return good ? hr::kOk : hr::kInvalidParameter;
}

void Describe(RootRecord& record, const Registration& registration) {
  record.providerName = registration.providerName;
  record.providerVersion = registration.providerVersion;
  record.identity = registration.identity;
  record.providerId = registration.providerId;
  record.policies = registration.policies;
  record.flags = registration.flags;
}

bool Overlap(const std::string& one, const std::string& other) {
  const auto under = [](const std::string& path, const std::string& top) {
    return path.starts_with(top == "/" ? top : top + "/");
  };
  return under(one, other) || under(other, one);
}

std::string Resolve(const std::string& path) {
  std::error_code error;
  const auto resolved = std::filesystem::canonical(path, error);
  return error ? std::string() : resolved.string();
}

}  // namespace

Hresult RootService::Register(const Registration& registration) {
  if (const auto result = Validate(registration)) return result;
  const std::lock_guard oneAtATime(registrations_);
  RemoveStaleMount(registration.path);
  const auto path = Resolve(registration.path);
  if (path.empty()) return hr::kPathNotFound;
  if (!std::filesystem::is_directory(path)) return hr::kNotADirectory;
  RootPtr root;
  {
    Guard guard(core_);
    if (const auto existing = Exactly(guard, path)) {
      // Guessed: the code. Documented: only the flag allows to register again.
      if ((registration.flags & flag::kRegisterUpdate) == 0) return hr::kAlreadyExists;
      return UpdateRegistration(guard, existing, registration);
    }
    if (const auto result = AddRoot(guard, path, registration, root)) return result;
  }
  core_.Mount(root);
  return hr::kOk;
}

RootPtr RootService::Exactly(Guard&, const std::string& path) {
  for (const auto& [id, root] : core_.roots) {
    if (root->record.path == path) return root;
  }
  return nullptr;
}

Hresult RootService::AddRoot(Guard& guard, const std::string& path,
                             const Registration& registration, RootPtr& root) {
  for (const auto& [id, other] : core_.roots) {
    // Documented: roots do not nest. Guessed: the code.
    if (Overlap(path, other->record.path)) return hr::kInvalidRequest;
  }
  root = std::make_shared<Root>();
  root->record.path = path;
  Describe(root->record, registration);
  if (const auto result = core_.OpenRoot(root)) return result;
  if (!MayWrite(root->folder.Get())) return hr::kAccessDenied;
  core_.store.SaveRoot(root->record);
  core_.roots[root->record.id] = root;
  SaveRootItem(guard, root, registration);
  return hr::kOk;
}

// Documented: the root folder itself becomes a placeholder.
void RootService::SaveRootItem(Guard&, const RootPtr& root, const Registration& registration) {
  FileFacts facts;
  GetFacts(root->folder.Get(), facts);
  auto item = core_.items.Find(root, root->folder.Get(), facts);
  if (item == nullptr) {
    ItemRecord record;
    record.directory = true;
    record.creationTime = FileTimeOf(facts.writeTime);
    item = core_.items.Add(root, root->folder.Get(), facts, std::move(record));
  }
  item->record.identity = registration.rootFileIdentity;
  item->record.populated = (registration.flags & flag::kRegisterRootPopulated) != 0 ||
                           registration.policies.populationPrimary == policy::kPopulationAlwaysFull;
  if ((registration.flags & flag::kRegisterRootInSync) != 0) item->record.inSync = true;
  core_.items.Save(*item);
}

Hresult RootService::UpdateRegistration(Guard& guard, const RootPtr& root,
                                        const Registration& registration) {
  if (!MayWrite(root->folder.Get())) return hr::kAccessDenied;
  auto record = root->record;
  Describe(record, registration);
  core_.store.SaveRoot(record);
  // The path stays as it is: the mount reads it without the lock.
  Describe(root->record, registration);
  SaveRootItem(guard, root, registration);
  return hr::kOk;
}

Hresult RootService::Unregister(const std::string& path) {
  const std::lock_guard oneAtATime(registrations_);
  RootPtr root;
  {
    Guard guard(core_);
    std::string relative;
    root = core_.RootOf(guard, path, relative);
    if (root == nullptr) return ForgetVanished(path);
    if (!relative.empty()) return hr::kNotUnderSyncRoot;
    if (root->connection != nullptr) return hr::kInvalidRequest;
    if (!MayWrite(root->folder.Get())) return hr::kAccessDenied;
    core_.roots.erase(root->record.id);
  }
  core_.Unmount(root);
  RevertTree(root);
  Guard guard(core_);
  core_.items.ForgetRoot(*root);
  core_.store.RemoveRoot(root->record.id);
  return hr::kOk;
}

// A root whose folder could not be opened at start is known to the store only.
Hresult RootService::ForgetVanished(const std::string& path) {
  for (const auto& record : core_.store.Roots()) {
    if (record.path != path) continue;
    core_.store.RemoveRoot(record.id);
    return hr::kOk;
  }
  return hr::kNotUnderSyncRoot;
}

// Documented: what is fully there becomes plain, what is not is deleted; what can be neither is
// passed over.
void RootService::RevertTree(const RootPtr& root) {
  WalkTree(root->folder.Get(), WalkOrder::kContentFirst, [&](const TreeEntry& entry) {
    Guard guard(core_);
    const auto item = core_.items.Find(root, entry.reference.Get(), entry.facts);
    if (item == nullptr) return true;
    if (item->record.directory) {
      const auto keep = item->record.populated ||
                        root->record.policies.populationPrimary == policy::kPopulationAlwaysFull;
      if (!keep) unlinkat(entry.folder, entry.name.c_str(), AT_REMOVEDIR);
    } else if (!item->Usable({0, entry.facts.size})) {
      unlinkat(entry.folder, entry.name.c_str(), 0);
    }
    return true;
  });
}

Hresult RootService::Connect(const std::string& path, std::uint32_t callbackMask,
                             std::uint32_t flags, const wire::ProviderProcess& provider,
                             std::shared_ptr<CallbackSink> sink, Connected& connected) {
  Guard guard(core_);
  std::string relative;
  const auto root = core_.RootOf(guard, path, relative);
  if (root == nullptr || !relative.empty()) return hr::kNotUnderSyncRoot;
  if (!MayWrite(root->folder.Get())) return hr::kAccessDenied;
  if ((flags & ~flag::kConnectAll) != 0) return hr::kInvalidParameter;
  // Documented: which callbacks a policy makes necessary. Guessed: the code for a missing one.
  const auto& policies = root->record.policies;
  const auto lacks = [=](bool needed, std::uint32_t type) {
    return needed && (callbackMask & (1U << type)) == 0;
  };
  if (lacks(policies.hydrationPrimary != policy::kHydrationAlwaysFull, callback::kFetchData) ||
      lacks(root->ValidationRequired(), callback::kValidateData) ||
      lacks(policies.populationPrimary != policy::kPopulationAlwaysFull,
            callback::kFetchPlaceholders)) {
    return hr::kInvalidParameter;
  }
  if (root->connection != nullptr) return hr::kAlreadyConnected;
  auto connection = std::make_shared<Connection>();
  connection->key = ++core_.lastConnectionKey;
  connection->callbackMask = callbackMask;
  connection->flags = flags;
  connection->provider = provider;
  connection->sink = std::move(sink);
  connection->lastHeard = Clock::now();
  root->connection = connection;
  connected = {connection->key, root->record.path, root->record.identity,
               static_cast<std::int64_t>(root->inode)};
  return hr::kOk;
}

Hresult RootService::Disconnect(std::int64_t connectionKey) {
  Guard guard(core_);
  const auto root = core_.RootOfConnection(connectionKey);
  if (root == nullptr) return hr::kInvalidParameter;
  core_.EndConnection(guard, root, hr::kProviderNotRunning);
  return hr::kOk;
}

void RootService::ProviderDied(std::int64_t connectionKey) {
  Guard guard(core_);
  const auto root = core_.RootOfConnection(connectionKey);
  if (root != nullptr) core_.EndConnection(guard, root, hr::kProviderTerminated);
}

void RootService::ProviderHeard(std::int64_t connectionKey) {
  Guard guard(core_);
  if (const auto connection = core_.ConnectionOf(connectionKey)) {
    connection->lastHeard = Clock::now();
  }
}

Hresult RootService::GetRootInfo(const wire::ItemRef& ref, wire::RootInfo& info) {
  Guard guard(core_);
  std::string relative;
  const auto root = core_.RootOf(guard, ref.path, relative);
  if (root == nullptr) return hr::kNotUnderSyncRoot;
  info.fileId = static_cast<std::int64_t>(root->inode);
  info.policies = root->record.policies;
  info.providerStatus = root->connection == nullptr ? 0 : root->connection->status;
  info.providerName = root->record.providerName;
  info.providerVersion = root->record.providerVersion;
  info.identity = root->record.identity;
  return hr::kOk;
}

Hresult RootService::SetProviderStatus(std::int64_t connectionKey, std::uint32_t status) {
  Guard guard(core_);
  const auto connection = core_.ConnectionOf(connectionKey);
  if (connection == nullptr) return hr::kInvalidParameter;
  connection->status = status;
  return hr::kOk;
}

Hresult RootService::QueryProviderStatus(std::int64_t connectionKey, std::uint32_t& status) {
  Guard guard(core_);
  const auto connection = core_.ConnectionOf(connectionKey);
  if (connection == nullptr) return hr::kInvalidParameter;
  status = connection->status;
  return hr::kOk;
}

Hresult RootService::ReportSyncStatus(const std::string& path, const std::uint32_t* code,
                                      const std::string& description) {
  Guard guard(core_);
  Located located;
  if (const auto result = core_.Locate(guard, {path, 0}, located)) return result;
  if (code == nullptr) {
    core_.syncStatus.erase(path);
  } else {
    core_.syncStatus[path] = {*code, description};
  }
  return hr::kOk;
}

}  // namespace cloud_filter
