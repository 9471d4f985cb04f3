// CfRegisterSyncRoot, CfUnregisterSyncRoot, CfGetPlatformInfo.

#include <cstddef>
#include <string>

#include "blob.h"
#include "common/cloud-files.h"
#include "entry.h"
#include "filter.h"
#include "paths.h"
#include "result.h"
#include "text.h"

namespace cldapi {
namespace {

namespace wire = cloud_filter::wire;

// Before the management policies came the record ended in front of them.
constexpr ULONG kShortPolicies = offsetof(CF_SYNC_POLICIES, PlaceholderManagement);

bool IsPresent(LPCWSTR text) noexcept { return text != nullptr && *text != L'\0'; }

bool IsComplete(const CF_SYNC_REGISTRATION* registration, const CF_SYNC_POLICIES* policies) {
  return registration != nullptr && registration->StructSize == sizeof *registration &&
         policies != nullptr &&
         (policies->StructSize == sizeof *policies || policies->StructSize == kShortPolicies) &&
         IsPresent(registration->ProviderName) && IsPresent(registration->ProviderVersion) &&
         IsConsistent(registration->SyncRootIdentity, registration->SyncRootIdentityLength) &&
         IsConsistent(registration->FileIdentity, registration->FileIdentityLength);
}

wire::Policies PoliciesOf(const CF_SYNC_POLICIES& from) {
  wire::Policies policies;
  policies.hydrationPrimary = from.Hydration.Primary.us;
  policies.hydrationModifier = from.Hydration.Modifier.us;
  policies.populationPrimary = from.Population.Primary.us;
  policies.populationModifier = from.Population.Modifier.us;
  policies.inSync = from.InSync;
  policies.hardLink = from.HardLink;
  if (from.StructSize > kShortPolicies) policies.placeholderManagement = from.PlaceholderManagement;
  return policies;
}

wire::Writer RegistrationOf(const std::string& path, const CF_SYNC_REGISTRATION& registration,
                            const CF_SYNC_POLICIES& policies, CF_REGISTER_FLAGS flags) {
  wire::Writer fields;
  fields.PutBytes(path);
  fields.PutBytes(ToUtf8(registration.ProviderName));
  fields.PutBytes(ToUtf8(registration.ProviderVersion));
  fields.PutBytes(BytesOf(registration.SyncRootIdentity, registration.SyncRootIdentityLength,
                          kMaxRootIdentity));
  fields.PutBytes(IdentityOf(registration.FileIdentity, registration.FileIdentityLength));
  fields.PutBytes(
      {reinterpret_cast<const char*>(&registration.ProviderId), sizeof registration.ProviderId});
  Put(fields, PoliciesOf(policies));
  fields.Put(static_cast<std::uint32_t>(flags));
  return fields;
}

// The limit counts UTF-16 units, which the filter does not see.
bool IsWithinLimit(LPCWSTR text) noexcept {
  return std::wstring_view(text).size() <= CF_MAX_PROVIDER_NAME_LENGTH;
}

}  // namespace
}  // namespace cldapi

extern "C" {

HRESULT WINAPI CfGetPlatformInfo(CF_PLATFORM_INFO* PlatformVersion) {
  return cldapi::Guarded([&]() -> HRESULT {
    if (PlatformVersion == nullptr) return cldapi::result::kInvalidParameter;
    cldapi::Platform platform;
    const HRESULT result = cldapi::TheFilter().GetPlatform(platform);
    if (SUCCEEDED(result)) {
      *PlatformVersion = {platform.build, platform.revision, platform.integration};
    }
    return result;
  });
}

HRESULT WINAPI CfRegisterSyncRoot(LPCWSTR SyncRootPath, const CF_SYNC_REGISTRATION* Registration,
                                  const CF_SYNC_POLICIES* Policies,
                                  CF_REGISTER_FLAGS RegisterFlags) {
  return cldapi::Guarded([&]() -> HRESULT {
    if (!cldapi::IsComplete(Registration, Policies) ||
        !cldapi::IsWithinLimit(Registration->ProviderName) ||
        !cldapi::IsWithinLimit(Registration->ProviderVersion)) {
      return cldapi::result::kInvalidParameter;
    }
    std::string path;
    const HRESULT found = cldapi::UnixPathOf(SyncRootPath, path);
    if (FAILED(found)) return found;
    return cldapi::TheFilter().Request(
        cldapi::wire::Op::kRegisterRoot,
        cldapi::RegistrationOf(path, *Registration, *Policies, RegisterFlags));
  });
}

HRESULT WINAPI CfUnregisterSyncRoot(LPCWSTR SyncRootPath) {
  return cldapi::Guarded([&]() -> HRESULT {
    std::string path;
    const HRESULT found = cldapi::UnixPathOf(SyncRootPath, path);
    if (FAILED(found)) return found;
    cldapi::wire::Writer fields;
    fields.PutBytes(path);
    return cldapi::TheFilter().Request(cldapi::wire::Op::kUnregisterRoot, fields);
  });
}

}  // extern "C"
