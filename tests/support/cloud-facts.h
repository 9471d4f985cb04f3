#ifndef NIMBRA_TESTS_SUPPORT_CLOUD_FACTS_H_
#define NIMBRA_TESTS_SUPPORT_CLOUD_FACTS_H_

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>

#include "common/cloud-files.h"
#include "tests/support/cloud-calls.h"

namespace nimbra_test {

// What CfGetPlaceholderInfo tells of an item.
struct PlaceholderFacts {
  std::int64_t onDiskDataSize = 0;
  std::int64_t validatedDataSize = 0;
  std::int64_t modifiedDataSize = 0;
  std::int64_t propertiesSize = 0;
  std::int32_t pinState = 0;
  std::int32_t inSyncState = 0;
  std::int64_t fileId = 0;
  std::int64_t syncRootFileId = 0;
  Bytes identity = {};
  // A wrong length of the identity, told instead of the true one.
  std::optional<ULONG> statedIdentityLength = std::nullopt;
};

// What CfGetSyncRootInfoByPath tells of a root.
struct SyncRootFacts {
  Bytes identity = {};
  std::wstring providerName = L"CorvaneDrive";
  std::wstring providerVersion = L"1.1";
  std::optional<ULONG> statedIdentityLength = std::nullopt;
};

// Write the facts into a caller's buffer as the platform does: as much as fits, with
// ERROR_MORE_DATA as the result when that is not all.
HRESULT FillPlaceholder(const PlaceholderFacts& facts, void* buffer, DWORD length, DWORD* returned);
HRESULT FillSyncRoot(const SyncRootFacts& facts, CF_SYNC_ROOT_INFO_CLASS infoClass, void* buffer,
                     DWORD length, DWORD* returned);

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_CLOUD_FACTS_H_
