#ifndef NIMBRA_SIMULATOR_FILTER_ROOT_SERVICE_H_
#define NIMBRA_SIMULATOR_FILTER_ROOT_SERVICE_H_

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "core.h"

namespace cloud_filter {

struct Registration {
  std::string path;
  std::string providerName;
  std::string providerVersion;
  std::string identity;
  std::string rootFileIdentity;
  std::string providerId;
  wire::Policies policies;
  std::uint32_t flags = 0;
};

struct Connected {
  std::int64_t key = 0;
  std::string rootPath;
  std::string rootIdentity;
  std::int64_t rootFileId = 0;
};

// Sync roots and the providers connected to them.
class RootService {
 public:
  explicit RootService(Core& core) : core_(core) {}

  Hresult Register(const Registration& registration);
  Hresult Unregister(const std::string& path);
  Hresult Connect(const std::string& path, std::uint32_t callbackMask, std::uint32_t flags,
                  const wire::ProviderProcess& provider, std::shared_ptr<CallbackSink> sink,
                  Connected& connected);
  Hresult Disconnect(std::int64_t connectionKey);
  // The channel of a connection closed without a disconnect.
  void ProviderDied(std::int64_t connectionKey);
  void ProviderHeard(std::int64_t connectionKey);

  Hresult GetRootInfo(const wire::ItemRef& ref, wire::RootInfo& info);
  Hresult SetProviderStatus(std::int64_t connectionKey, std::uint32_t status);
  Hresult QueryProviderStatus(std::int64_t connectionKey, std::uint32_t& status);
  // Without a code the path's status is cleared.
  Hresult ReportSyncStatus(const std::string& path, const std::uint32_t* code,
                           const std::string& description);

 private:
  Hresult UpdateRegistration(Guard& guard, const RootPtr& root, const Registration& registration);
  Hresult AddRoot(Guard& guard, const std::string& path, const Registration& registration,
                  RootPtr& root);
  void SaveRootItem(Guard& guard, const RootPtr& root, const Registration& registration);
  void RevertTree(const RootPtr& root);
  Hresult ForgetVanished(const std::string& path);
  RootPtr Exactly(Guard& guard, const std::string& path);

  Core& core_;
  std::mutex registrations_;  // one change of the set of roots at a time
};

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_ROOT_SERVICE_H_
