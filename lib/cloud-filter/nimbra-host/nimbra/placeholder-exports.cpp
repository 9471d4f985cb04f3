
#include "common/cldapi-table.h"
#include "common/text.h"
#include "nimbra-host/nimbra/handles.h"
#include "win-cf/placeholder-info.h"

// NOLINTNEXTLINE(google-build-using-namespace): the exports are C functions, in no namespace.
using namespace corvdrive::cloud_filter;

namespace {

// The common part of the exports that work on a placeholder handle.
template <typename Operation>
CORVWinCFStatus WithPlaceholder(CORVWinCFPlaceholderHandle handle, Operation&& operation) {
  if (IsGateClosed() || handle == nullptr) {
    return kFailed;
  }
  return Guarded(kFailed, [&] { return ToStatus(operation(**ToCell(handle))); });
}

// The common part of those that ask about a path: an object for the one question.
template <typename Question>
CORVWinCFStatus WithPath(const char* path, Question&& question) {
  if (IsGateClosed() || path == nullptr) {
    return kFailed;
  }
  return Guarded(kFailed, [&] {
    PlaceholderWinCF placeholder(path);
    return ToStatus(placeholder.Open() && question(placeholder));
  });
}

CORVWinCFStatus SetInSyncState(CORVWinCFPlaceholderHandle handle, CF_IN_SYNC_STATE state) {
  return WithPlaceholder(handle, [&](PlaceholderWinCF& placeholder) {
    return SUCCEEDED(
        Cloud().CfSetInSyncState(placeholder.Handle(), state, CF_SET_IN_SYNC_FLAG_NONE, nullptr));
  });
}

}  // namespace

CORVWinCFStatus CORVWinCFIsPlaceholder(const char* path) {
  return WithPath(path, [](PlaceholderWinCF& item) { return item.IsPlaceholder(); });
}

CORVWinCFStatus CORVWinCFIsPlaceholderByFindData(const struct _WIN32_FIND_DATAW* findData) {
  if (IsGateClosed() || findData == nullptr) {
    return kFailed;
  }
  return Guarded(kFailed, [&] {
    const CF_PLACEHOLDER_STATE state = Cloud().CfGetPlaceholderStateFromFindData(findData);
    // "Invalid" is all bits set.
    return ToStatus(state != CF_PLACEHOLDER_STATE_INVALID &&
                    (state & CF_PLACEHOLDER_STATE_PLACEHOLDER) != 0);
  });
}

CORVWinCFStatus CORVWinCFIsFullyHydrated(const char* path) {
  return WithPath(path, [](PlaceholderBase& item) { return item.IsFullyHydrated(); });
}

CORVWinCFStatus CORVWinCFIsFullyHydratedW(const wchar_t* path) {
  if (IsGateClosed() || path == nullptr) {
    return kFailed;
  }
  return Guarded(kFailed, [&] { return CORVWinCFIsFullyHydrated(WideToUtf8(path).c_str()); });
}

CORVWinCFStatus CORVWinCFPlaceholderNew(CORVWinCFPlaceholderHandle* handleOut, const char* path) {
  if (IsGateClosed() || handleOut == nullptr || path == nullptr) {
    return kFailed;
  }
  PlaceholderCell* const cell = NewCell<PlaceholderWinCF>();
  *handleOut = reinterpret_cast<CORVWinCFPlaceholderHandle>(cell);
  if (cell == nullptr) {
    return kFailed;
  }
  const CORVWinCFStatus status = Guarded(kFailed, [&] {
    *cell = std::make_shared<PlaceholderWinCF>(path);
    return kSucceeded;
  });
  if (status == kFailed) {
    DropCell(cell);
    *handleOut = nullptr;
  }
  return status;
}

CORVWinCFStatus CORVWinCFPlaceholderOpen(CORVWinCFPlaceholderHandle handle) {
  return WithPlaceholder(handle, [](PlaceholderBase& placeholder) { return placeholder.Open(); });
}

CORVWinCFStatus CORVWinCFPlaceholderCreate(CORVWinCFPlaceholderHandle handle, const char* identity,
                                           CORVWinCFPlaceholderMetaHandle meta) {
  return WithPlaceholder(handle, [&](PlaceholderWinCF& placeholder) {
    const auto metadata = MetaOf(meta);
    return metadata != nullptr && identity != nullptr && placeholder.Create(*metadata, identity);
  });
}

CORVWinCFStatus CORVWinCFPlaceholderUpdate(CORVWinCFPlaceholderHandle handle, const char* identity,
                                           CORVWinCFPlaceholderMetaHandle meta) {
  return WithPlaceholder(handle, [&](PlaceholderWinCF& placeholder) {
    // Shared for the call, so that a release of the metadata handle meanwhile does no harm.
    const auto metadata = MetaOf(meta);
    if (metadata == nullptr && meta != nullptr) {
      // Not one of ours: taking it for none would empty the file.
      return false;
    }
    PlaceholderMetaWinCF none;
    none.isEmpty = true;
    return identity != nullptr &&
           placeholder.Update(metadata == nullptr ? none : *metadata, identity);
  });
}

CORVWinCFStatus CORVWinCFPlaceholderConvertToPlaceholder(CORVWinCFPlaceholderHandle handle,
                                                         const char* identity) {
  return WithPlaceholder(handle, [&](PlaceholderBase& placeholder) {
    return identity != nullptr && placeholder.ConvertToPlaceholder(identity);
  });
}

CORVWinCFStatus CORVWinCFPlaceholderRevertToNormal(CORVWinCFPlaceholderHandle handle) {
  return WithPlaceholder(handle,
                         [](PlaceholderBase& placeholder) { return placeholder.RevertToNormal(); });
}

CORVWinCFStatus CORVWinCFPlaceholderIsPlaceholder(CORVWinCFPlaceholderHandle handle) {
  return WithPlaceholder(handle,
                         [](PlaceholderWinCF& placeholder) { return placeholder.IsPlaceholder(); });
}

CORVWinCFStatus CORVWinCFPlaceholderIsFullyHydrated(CORVWinCFPlaceholderHandle handle) {
  return WithPlaceholder(
      handle, [](PlaceholderBase& placeholder) { return placeholder.IsFullyHydrated(); });
}

CORVWinCFStatus CORVWinCFPlaceholderIsPinned(CORVWinCFPlaceholderHandle handle) {
  return WithPlaceholder(handle, [](PlaceholderWinCF& placeholder) {
    return PlaceholderInfoWinCF(&placeholder).PinState() == CF_PIN_STATE_PINNED;
  });
}

CORVWinCFStatus CORVWinCFPlaceholderIsExcluded(CORVWinCFPlaceholderHandle handle) {
  return WithPlaceholder(handle, [](PlaceholderWinCF& placeholder) {
    return PlaceholderInfoWinCF(&placeholder).PinState() == CF_PIN_STATE_EXCLUDED;
  });
}

CORVWinCFStatus CORVWinCFPlaceholderIsInSync(CORVWinCFPlaceholderHandle handle) {
  return WithPlaceholder(handle, [](PlaceholderWinCF& placeholder) {
    return PlaceholderInfoWinCF(&placeholder).InSyncState() == CF_IN_SYNC_STATE_IN_SYNC;
  });
}

void CORVWinCFPlaceholderGetFileIdentity(CORVWinCFPlaceholderHandle handle, void* buffer) {
  static_cast<void>(WithPlaceholder(handle, [&](PlaceholderWinCF& placeholder) {
    const PlaceholderInfoWinCF info(&placeholder);
    if (buffer != nullptr) {
      info.FileIdentity().copy(static_cast<char*>(buffer), info.FileIdentity().size());
    }
    return info.IsValid();
  }));
}

CORVWinCFStatus CORVWinCFPlaceholderHydrateAll(CORVWinCFPlaceholderHandle handle) {
  return WithPlaceholder(handle,
                         [](PlaceholderBase& placeholder) { return placeholder.HydrateAll(); });
}

CORVWinCFStatus CORVWinCFPlaceholderHydrateAllAsync(CORVWinCFPlaceholderHandle handle) {
  return WithPlaceholder(
      handle, [](PlaceholderWinCF& placeholder) { return placeholder.HydrateAllAsync(); });
}

CORVWinCFStatus CORVWinCFPlaceholderDehydrate(CORVWinCFPlaceholderHandle handle, int64_t offset,
                                              int64_t length) {
  return WithPlaceholder(
      handle, [&](PlaceholderBase& placeholder) { return placeholder.Dehydrate(offset, length); });
}

CORVWinCFStatus CORVWinCFPlaceholderDehydrateAll(CORVWinCFPlaceholderHandle handle) {
  return WithPlaceholder(handle,
                         [](PlaceholderWinCF& placeholder) { return placeholder.DehydrateAll(); });
}

CORVWinCFStatus CORVWinCFPlaceholderPinToLocal(CORVWinCFPlaceholderHandle handle) {
  return WithPlaceholder(
      handle, [](PlaceholderWinCF& placeholder) { return placeholder.SetPinState(true, false); });
}

CORVWinCFStatus CORVWinCFPlaceholderUnpin(CORVWinCFPlaceholderHandle handle) {
  return WithPlaceholder(
      handle, [](PlaceholderWinCF& placeholder) { return placeholder.SetPinState(false, false); });
}

CORVWinCFStatus CORVWinCFPlaceholderForceUnpin(CORVWinCFPlaceholderHandle handle) {
  return WithPlaceholder(
      handle, [](PlaceholderWinCF& placeholder) { return placeholder.SetPinState(false, true); });
}

CORVWinCFStatus CORVWinCFPlaceholderSetInSync(CORVWinCFPlaceholderHandle handle) {
  return SetInSyncState(handle, CF_IN_SYNC_STATE_IN_SYNC);
}

CORVWinCFStatus CORVWinCFPlaceholderSetNotInSync(CORVWinCFPlaceholderHandle handle) {
  return SetInSyncState(handle, CF_IN_SYNC_STATE_NOT_IN_SYNC);
}

CORVWinCFStatus CORVWinCFPlaceholderSetExcluded(CORVWinCFPlaceholderHandle handle) {
  return WithPlaceholder(handle,
                         [](PlaceholderWinCF& placeholder) { return placeholder.SetExcluded(); });
}

void CORVWinCFPlaceholderRelease(CORVWinCFPlaceholderHandle handle) {
  if (handle != nullptr) {
    DropCell(ToCell(handle));
  }
}
