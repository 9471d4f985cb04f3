#ifndef NIMBRA_NIMBRA_HOST_HANDLES_H_
#define NIMBRA_NIMBRA_HOST_HANDLES_H_

#include "nimbra-host/nimbra/export-support.h"
#include "win-cf/callback-delegator.h"
#include "win-cf/placeholder.h"
#include "win-cf/sync-root.h"

// What the client's opaque handles stand for.

namespace corvdrive::cloud_filter {

using SyncRootCell = HandleCell<SyncRootWinCF>;
using DelegatorCell = HandleCell<CallbackDelegatorWinCF>;
using PlaceholderCell = HandleCell<PlaceholderWinCF>;

[[nodiscard]] inline SyncRootCell* ToCell(CORVWinCFSyncRootHandle handle) {
  return reinterpret_cast<SyncRootCell*>(handle);
}
[[nodiscard]] inline DelegatorCell* ToCell(CORVWinCFCallbackDelegatorHandle handle) {
  return reinterpret_cast<DelegatorCell*>(handle);
}
[[nodiscard]] inline PlaceholderCell* ToCell(CORVWinCFPlaceholderHandle handle) {
  return reinterpret_cast<PlaceholderCell*>(handle);
}

}  // namespace corvdrive::cloud_filter

// The handle of a metadata object is polymorphic, so that a release can tell a foreign one.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name is part of the binary interface.
struct __tag_PlaceholderMetaWrap {
  virtual ~__tag_PlaceholderMetaWrap() = default;
  virtual void Unused() = 0;
};

namespace corvdrive::cloud_filter {

template <typename Meta>
struct PlaceholderMeta : __tag_PlaceholderMetaWrap {
  void Unused() override {}

  std::shared_ptr<Meta> meta;
};

// The metadata object behind a handle; empty for null.
[[nodiscard]] inline std::shared_ptr<PlaceholderMetaWinCF> MetaOf(
    CORVWinCFPlaceholderMetaHandle handle) {
  const auto* wrapper = dynamic_cast<PlaceholderMeta<PlaceholderMetaWinCF>*>(handle);
  return wrapper == nullptr ? nullptr : wrapper->meta;
}

}  // namespace corvdrive::cloud_filter

#endif
