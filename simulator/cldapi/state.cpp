// CfGetPlaceholderStateFrom…: what attributes and a reparse tag say by themselves.

#include "common/cloud-files.h"

namespace cldapi {
namespace {

// The system does not tell what the four free bits of the tag mean. This filter keeps two states
// there (guessed).
constexpr DWORD kTagIsRoot = 0x1000;
constexpr DWORD kTagInSync = 0x8000;
constexpr DWORD kTagFreeBits = 0xF000;

bool IsCloudTag(DWORD tag) noexcept { return (tag & ~kTagFreeBits) == IO_REPARSE_TAG_CLOUD; }

CF_PLACEHOLDER_STATE StateOf(DWORD attributes, DWORD tag) noexcept {
  if (!(attributes & FILE_ATTRIBUTE_REPARSE_POINT) || !IsCloudTag(tag)) {
    return CF_PLACEHOLDER_STATE_NO_STATES;
  }
  ULONG state = CF_PLACEHOLDER_STATE_PLACEHOLDER;
  if (attributes & FILE_ATTRIBUTE_RECALL_ON_DATA_ACCESS) {
    state |= CF_PLACEHOLDER_STATE_PARTIAL | CF_PLACEHOLDER_STATE_PARTIALLY_ON_DISK;
  }
  if (tag & kTagIsRoot) state |= CF_PLACEHOLDER_STATE_SYNC_ROOT;
  if (tag & kTagInSync) state |= CF_PLACEHOLDER_STATE_IN_SYNC;
  return static_cast<CF_PLACEHOLDER_STATE>(state);
}

// Entries of directory listings carry the tag where others carry the size of extended attributes.
template <class Entry>
CF_PLACEHOLDER_STATE StateOfEntry(LPCVOID buffer) noexcept {
  const auto* entry = static_cast<const Entry*>(buffer);
  return StateOf(entry->FileAttributes, entry->EaSize);
}

CF_PLACEHOLDER_STATE Invalid() noexcept {
  SetLastError(ERROR_INVALID_PARAMETER);
  return CF_PLACEHOLDER_STATE_INVALID;
}

}  // namespace
}  // namespace cldapi

extern "C" {

CF_PLACEHOLDER_STATE WINAPI CfGetPlaceholderStateFromAttributeTag(DWORD FileAttributes,
                                                                  DWORD ReparseTag) {
  return cldapi::StateOf(FileAttributes, ReparseTag);
}

CF_PLACEHOLDER_STATE WINAPI CfGetPlaceholderStateFromFindData(const WIN32_FIND_DATAW* FindData) {
  if (FindData == nullptr) return cldapi::Invalid();
  return cldapi::StateOf(FindData->dwFileAttributes, FindData->dwReserved0);
}

CF_PLACEHOLDER_STATE WINAPI CfGetPlaceholderStateFromFileInfo(LPCVOID InfoBuffer,
                                                              FILE_INFO_BY_HANDLE_CLASS InfoClass) {
  if (InfoBuffer == nullptr) return cldapi::Invalid();
  switch (InfoClass) {
    case FileAttributeTagInfo: {
      const auto* info = static_cast<const FILE_ATTRIBUTE_TAG_INFO*>(InfoBuffer);
      return cldapi::StateOf(info->FileAttributes, info->ReparseTag);
    }
    case FileIdBothDirectoryInfo:
    case FileIdBothDirectoryRestartInfo:
      return cldapi::StateOfEntry<FILE_ID_BOTH_DIR_INFO>(InfoBuffer);
    case FileFullDirectoryInfo:
    case FileFullDirectoryRestartInfo:
      return cldapi::StateOfEntry<FILE_FULL_DIR_INFO>(InfoBuffer);
    case FileIdExtdDirectoryInfo:
    case FileIdExtdDirectoryRestartInfo: {
      const auto* info = static_cast<const FILE_ID_EXTD_DIR_INFO*>(InfoBuffer);
      return cldapi::StateOf(info->FileAttributes, info->ReparsePointTag);
    }
    default:
      return cldapi::Invalid();
  }
}

}  // extern "C"
