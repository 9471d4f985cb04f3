#include "nimbra-host/nimbra/handles.h"

// NOLINTNEXTLINE(google-build-using-namespace): the exports are C functions, in no namespace.
using namespace corvdrive::cloud_filter;

CORVWinCFPlaceholderMetaHandle CORVWinCFPlaceholderMetaNew(int64_t lastAccessTime,
                                                           int64_t changeTime, int64_t creationTime,
                                                           int64_t lastWriteTime, int64_t fileSize,
                                                           int32_t type) {
  if (IsGateClosed()) {
    return nullptr;
  }
  std::unique_ptr<PlaceholderMeta<PlaceholderMetaWinCF>> wrapper(
      new (std::nothrow) PlaceholderMeta<PlaceholderMetaWinCF>);
  if (wrapper == nullptr) {
    return nullptr;
  }
  wrapper->meta = std::make_shared<PlaceholderMetaWinCF>();
  PlaceholderMetaWinCF& meta = *wrapper->meta;
  meta.lastAccessTime = lastAccessTime;
  meta.lastWriteTime = lastWriteTime;
  meta.creationTime = creationTime;
  meta.changeTime = changeTime;
  meta.fileSize = fileSize;
  meta.isDirectory = type == 1;
  return wrapper.release();
}

void CORVWinCFPlaceholderMetaRelease(CORVWinCFPlaceholderMetaHandle handle) {
  // Null and foreign handles cast to null, which delete ignores.
  delete dynamic_cast<PlaceholderMeta<PlaceholderMetaWinCF>*>(handle);
}
