#include "win-cf/placeholder.h"

#include <optional>
#include <utility>

#include "common/cldapi-table.h"
#include "common/debug-log.h"
#include "common/text.h"
#include "win-cf/pending-requests.h"
#include "win-cf/placeholder-info.h"

namespace corvdrive::cloud_filter {
namespace {

constexpr char kSource[] = R"(lib\cloud-filter\win-cf\placeholder)";

// The numbers of this file's messages in the log. They are part of the messages and do not move
// with the code.
constexpr int kHydrateAllSizeLine = 95;
constexpr int kHydrateAllAsyncSizeLine = 107;
constexpr int kHydrationFailedLine = 135;
constexpr int kDehydrateAllFailedLine = 183;
constexpr int kHydratedSizeLine = 195;
constexpr int kNotAPlaceholderLine = 202;
constexpr int kAttributesFailedLine = 213;
constexpr int kSetExcludedFailedLine = 256;
constexpr int kSetPinFailedLine = 273;
constexpr int kRevertFailedLine = 313;
constexpr int kConvertFailedLine = 332;
constexpr int kCreateFailedLine = 357;
constexpr int kOpenAfterCreateFailedLine = 366;
constexpr int kHydrateAfterCreateFailedLine = 374;
constexpr int kUpdateClosedLine = 389;
constexpr int kUpdateFailedLine = 409;
constexpr int kOpenFailedLine = 464;

constexpr HRESULT kIoPending = HRESULT_FROM_WIN32(ERROR_IO_PENDING);

// What unpinning asks for: the item takes the state that its parent would give it.
constexpr CF_PIN_STATE kUnpinned = CF_PIN_STATE_INHERIT;
static_assert(kUnpinned == 4);

bool SucceededOrPending(HRESULT result) { return SUCCEEDED(result) || result == kIoPending; }

LARGE_INTEGER ToLargeInteger(std::int64_t value) {
  LARGE_INTEGER large;
  large.QuadPart = value;
  return large;
}

DWORD Length(std::string_view identity) { return static_cast<DWORD>(identity.size()); }

// Splits a path with "/" separators into its directory and its last component.
std::pair<std::string_view, std::string_view> SplitPath(std::string_view path) {
  const auto separator = path.rfind('/');
  if (separator == std::string_view::npos) {
    return {"/", path};
  }
  return {separator == 0 ? "/" : path.substr(0, separator), path.substr(separator + 1)};
}

// Holds a protected handle against being closed by the platform.
class ProtectedHandleReference {
 public:
  explicit ProtectedHandleReference(HANDLE handle) : handle_(handle) {
    Cloud().CfReferenceProtectedHandle(handle_);
  }
  ~ProtectedHandleReference() { Cloud().CfReleaseProtectedHandle(handle_); }
  ProtectedHandleReference(const ProtectedHandleReference&) = delete;
  ProtectedHandleReference& operator=(const ProtectedHandleReference&) = delete;

  [[nodiscard]] HANDLE Win32Handle() const {
    return Cloud().CfGetWin32HandleFromProtectedHandle(handle_);
  }

 private:
  HANDLE handle_;
};

}  // namespace

PlaceholderWinCF::PlaceholderWinCF(std::string itemPath) : path(std::move(itemPath)) {}

bool PlaceholderWinCF::Open() {
  handle.Reset();
  constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  // Directories open too, the placeholder itself rather than what it points to, and without
  // recalling its data.
  constexpr DWORD kFlags = FILE_FLAG_OVERLAPPED | FILE_FLAG_BACKUP_SEMANTICS |
                           FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_OPEN_NO_RECALL;
  static_assert(kFlags == 0x42300000);
  handle.Reset(
      CreateFileW(WideText(path).Get(), 0, kShareAll, nullptr, OPEN_EXISTING, kFlags, nullptr));
  if (handle.IsValid()) {
    return true;
  }
  const DWORD error = GetLastError();
  if (error != ERROR_FILE_NOT_FOUND) {
    Log(kSource, kOpenFailedLine, "Failed call on CreateFile on path ", path,
        ", ec: ", ErrorNumber(error));
  }
  return false;
}

bool PlaceholderWinCF::Create(const PlaceholderMetaWinCF& meta, std::string_view identity) {
  if (!CreateOnDisk(meta, identity)) {
    return false;
  }
  if (!Open()) {
    Log(kSource, kOpenAfterCreateFailedLine, "Failed to open placeholder\n");
    return false;
  }
  if (PlaceholderInfoWinCF(this).PinState() == CF_PIN_STATE_PINNED && !Hydrate(0, meta.fileSize)) {
    Log(kSource, kHydrateAfterCreateFailedLine, "Failed to hydrate placeholder after creation");
  }
  handle.Reset();
  return true;
}

bool PlaceholderWinCF::CreateOnDisk(const PlaceholderMetaWinCF& meta, std::string_view identity) {
  const auto [directory, name] = SplitPath(path);
  const WideText wideName(name);
  CF_PLACEHOLDER_CREATE_INFO entry{};
  entry.RelativeFileName = wideName.Get();
  entry.FsMetadata = meta.ToFsMetadata();
  entry.FileIdentity = identity.data();
  entry.FileIdentityLength = Length(identity);
  entry.Flags = CF_PLACEHOLDER_CREATE_FLAG_DISABLE_ON_DEMAND_POPULATION |
                CF_PLACEHOLDER_CREATE_FLAG_MARK_IN_SYNC;
  const HRESULT result = Cloud().CfCreatePlaceholders(WideText(directory).Get(), &entry, 1,
                                                      CF_CREATE_FLAG_NONE, nullptr);
  if (FAILED(result) || FAILED(entry.Result)) {
    Log(kSource, kCreateFailedLine, "Create placeholder failed ", path, " ", result, " ",
        entry.Result);
    return false;
  }
  return true;
}

bool PlaceholderWinCF::Update(const PlaceholderMetaWinCF& meta, std::string_view identity) {
  if (!IsOpen()) {
    Log(kSource, kUpdateClosedLine, "Handle is invalid value");
    return false;
  }
  const bool wasPinned = PlaceholderInfoWinCF(this).PinState() == CF_PIN_STATE_PINNED;
  const CF_FS_METADATA metadata = meta.ToFsMetadata();
  const HRESULT result =
      Cloud().CfUpdatePlaceholder(handle.Get(), &metadata, identity.data(), Length(identity),
                                  nullptr, 0, CF_UPDATE_FLAG_MARK_IN_SYNC, nullptr, nullptr);
  if (FAILED(result)) {
    Log(kSource, kUpdateFailedLine, "Failed to update placeholder, path: ", path, " ", result);
    return false;
  }
  if (wasPinned) {
    SetPinState(true, false);
  }
  return true;
}

bool PlaceholderWinCF::ConvertToPlaceholder(std::string_view identity) {
  const HRESULT result =
      Cloud().CfConvertToPlaceholder(handle.Get(), identity.data(), Length(identity),
                                     CF_CONVERT_FLAG_MARK_IN_SYNC, nullptr, nullptr);
  if (FAILED(result)) {
    Log(kSource, kConvertFailedLine, "Failed to convert to placeholder. ", result);
    return false;
  }
  SetPinState(false, false);
  return true;
}

bool PlaceholderWinCF::RevertToNormal() {
  const HRESULT result = Cloud().CfRevertPlaceholder(handle.Get(), CF_REVERT_FLAG_NONE, nullptr);
  if (FAILED(result)) {
    Log(kSource, kRevertFailedLine, "Failed to revert placeholder to normal file, hr=", result);
    return false;
  }
  return true;
}

bool PlaceholderWinCF::IsPlaceholder() const { return PlaceholderInfoWinCF(this).IsValid(); }

bool PlaceholderWinCF::IsFullyHydrated() {
  LARGE_INTEGER size{};
  if (!GetFileSizeEx(handle.Get(), &size)) {
    const DWORD error = GetLastError();
    Log(kSource, kHydratedSizeLine, "Failed to get filesize [", path,
        "] error: ", ErrorNumber(error));
    return false;
  }
  const PlaceholderInfoWinCF info(this);
  if (!info.IsValid()) {
    Log(kSource, kNotAPlaceholderLine, path, " is not a placeholder, so it is fully hydrated");
    return true;
  }
  if (size.QuadPart != 0) {
    return info.OnDiskDataSize() == size.QuadPart;
  }
  const DWORD attributes = GetFileAttributesW(WideText(path).Get());
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    const DWORD error = GetLastError();
    Log(kSource, kAttributesFailedLine, "Failed to get file attr ", path,
        ", ec: ", ErrorNumber(error));
    return true;
  }
  return (attributes & FILE_ATTRIBUTE_OFFLINE) == 0;
}

bool PlaceholderWinCF::Hydrate(std::int64_t offset, std::int64_t length) {
  return HydrateRange(offset, length, false);
}

bool PlaceholderWinCF::HydrateAll() { return HydrateWhole(false, kHydrateAllSizeLine); }

bool PlaceholderWinCF::HydrateAllAsync() { return HydrateWhole(true, kHydrateAllAsyncSizeLine); }

bool PlaceholderWinCF::HydrateWhole(bool async, int sizeFailedLine) {
  LARGE_INTEGER size{};
  if (!GetFileSizeEx(handle.Get(), &size)) {
    Log(kSource, sizeFailedLine, "Failed to get filesize\n");
    return false;
  }
  return HydrateRange(0, size.QuadPart, async);
}

bool PlaceholderWinCF::HydrateRange(std::int64_t offset, std::int64_t length, bool async) {
  std::optional<PendingRequests::Request> request;
  if (async) {
    request = PendingRequests::Instance().Add();
  }
  const HRESULT result =
      Cloud().CfHydratePlaceholder(handle.Get(), ToLargeInteger(offset), ToLargeInteger(length),
                                   CF_HYDRATE_FLAG_NONE, request ? &(*request)->record : nullptr);
  if (request) {
    if (result == kIoPending) {
      PendingRequests::Instance().LeavePending(*request);
    } else {
      PendingRequests::Instance().Remove(*request);
    }
  }
  if (SucceededOrPending(result)) {
    return true;
  }
  Log(kSource, kHydrationFailedLine, "hydration failed ", result, " ", handle.Get());
  return false;
}

bool PlaceholderWinCF::Dehydrate(std::int64_t offset, std::int64_t length) {
  PendingRequests& requests = PendingRequests::Instance();
  const auto request = requests.Add();
  OVERLAPPED* const record = &request->record;
  const ProtectedHandleReference reference(handle.Get());
  const HRESULT result =
      Cloud().CfDehydratePlaceholder(reference.Win32Handle(), ToLargeInteger(offset),
                                     ToLargeInteger(length), CF_DEHYDRATE_FLAG_NONE, record);
  if (SucceededOrPending(result)) {
    DWORD transferred = 0;
    GetOverlappedResult(handle.Get(), record, &transferred, TRUE);
    // Without an event the wait is for the file, which another request on it can end early: then
    // the platform still writes into the record.
    requests.Settle(request);
  } else {
    requests.Remove(request);
  }
  return false;
}

bool PlaceholderWinCF::DehydrateAll() {
  const HRESULT result = Cloud().CfUpdatePlaceholder(handle.Get(), nullptr, nullptr, 0, nullptr, 0,
                                                     CF_UPDATE_FLAG_DEHYDRATE, nullptr, nullptr);
  if (FAILED(result)) {
    Log(kSource, kDehydrateAllFailedLine, "Failed to dehydrate all, reason: ", result);
    return false;
  }
  return true;
}

bool PlaceholderWinCF::SetPinState(bool pin, bool force) {
  const CF_PIN_STATE unpinned = force ? CF_PIN_STATE_UNSPECIFIED : kUnpinned;
  const HRESULT result = Cloud().CfSetPinState(handle.Get(), pin ? CF_PIN_STATE_PINNED : unpinned,
                                               CF_SET_PIN_FLAG_RECURSE, nullptr);
  if (FAILED(result)) {
    Log(kSource, kSetPinFailedLine, "Failed to pin to local: ", path);
    return false;
  }
  return true;
}

bool PlaceholderWinCF::SetExcluded() {
  const HRESULT result =
      Cloud().CfSetPinState(handle.Get(), CF_PIN_STATE_EXCLUDED, CF_SET_PIN_FLAG_RECURSE, nullptr);
  if (FAILED(result)) {
    Log(kSource, kSetExcludedFailedLine, "Failed to set excluded.", result);
    return false;
  }
  return true;
}

}  // namespace corvdrive::cloud_filter
