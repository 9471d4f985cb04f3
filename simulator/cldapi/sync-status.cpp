// CfReportSyncStatus.

#include <optional>
#include <string>
#include <string_view>

#include "common/cloud-files.h"
#include "entry.h"
#include "filter.h"
#include "paths.h"
#include "result.h"
#include "text.h"

namespace cldapi {
namespace {

namespace wire = cloud_filter::wire;

// A text that lies behind the record's fields; nothing when it does not lie inside the record.
// Offsets count from the record's start, lengths are in bytes and include the terminator.
std::optional<std::string> TextInside(const CF_SYNC_STATUS& status, ULONG offset, ULONG length) {
  if (length == 0) return std::string();
  const bool inside = offset >= sizeof status && offset <= status.StructSize &&
                      length <= status.StructSize - offset && length % sizeof(WCHAR) == 0 &&
                      offset % alignof(WCHAR) == 0;
  if (!inside) return std::nullopt;
  const auto* text =
      reinterpret_cast<const WCHAR*>(reinterpret_cast<const char*>(&status) + offset);
  std::wstring_view view(text, length / sizeof(WCHAR));
  if (const auto end = view.find(L'\0'); end != std::wstring_view::npos) view = view.substr(0, end);
  return ToUtf8(view);
}

HRESULT Describe(const CF_SYNC_STATUS& status, wire::Writer& fields) {
  if (status.StructSize < sizeof status) return result::kInvalidParameter;
  const auto text = TextInside(status, status.DescriptionOffset, status.DescriptionLength);
  const auto device = TextInside(status, status.DeviceIdOffset, status.DeviceIdLength);
  if (!text || !device) return result::kInvalidParameter;
  fields.Put(static_cast<std::uint32_t>(status.Code)).PutBytes(*text).PutBytes(*device);
  return S_OK;
}

}  // namespace
}  // namespace cldapi

extern "C" HRESULT WINAPI CfReportSyncStatus(LPCWSTR SyncRootPath, CF_SYNC_STATUS* SyncStatus) {
  return cldapi::Guarded([&]() -> HRESULT {
    std::string path;
    const HRESULT found = cldapi::UnixPathOf(SyncRootPath, path);
    if (FAILED(found)) return found;
    cldapi::wire::Writer fields;
    fields.PutBytes(path).Put<std::uint8_t>(SyncStatus != nullptr);
    if (SyncStatus != nullptr) {
      const HRESULT described = cldapi::Describe(*SyncStatus, fields);
      if (FAILED(described)) return described;
    }
    return cldapi::TheFilter().Request(cldapi::wire::Op::kReportSyncStatus, fields);
  });
}
