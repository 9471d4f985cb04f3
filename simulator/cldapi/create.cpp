// CfCreatePlaceholders.

#include <algorithm>
#include <span>
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

using Entries = std::span<CF_PLACEHOLDER_CREATE_INFO>;

// Entries of one request; with names and identities of full length it stays well below the
// protocol's limit.
constexpr std::size_t kBatch = 1024;

wire::CreateEntry EntryOf(const CF_PLACEHOLDER_CREATE_INFO& from) {
  wire::CreateEntry entry;
  if (from.RelativeFileName != nullptr) entry.relativeName = ToUtf8(from.RelativeFileName);
  entry.metadata = MetadataOf(from.FsMetadata);
  entry.identity = IdentityOf(from.FileIdentity, from.FileIdentityLength);
  entry.flags = from.Flags;
  return entry;
}

// Takes the results out of an answer; false when it is not one.
bool TakeResults(std::string_view payload, Entries entries, DWORD& processed) {
  wire::Reader reader(payload);
  const auto count = reader.Get<std::uint32_t>();
  for (auto& entry : entries) {
    entry.Result = reader.Get<std::int32_t>();
    entry.CreateUsn = reader.Get<std::int64_t>();
  }
  if (!reader.Good()) return false;
  processed += count;
  return true;
}

HRESULT CreateBatch(const std::string& folder, Entries entries, CF_CREATE_FLAGS flags,
                    DWORD& processed) {
  wire::Writer fields;
  fields.PutBytes(folder).Put(static_cast<std::uint32_t>(flags));
  fields.Put(static_cast<std::uint32_t>(entries.size()));
  for (const auto& entry : entries) Put(fields, EntryOf(entry));
  std::string payload;
  const HRESULT result = TheFilter().Request(wire::Op::kCreatePlaceholders, fields, &payload);
  // A refusal of the whole call comes without results.
  if (payload.empty() && FAILED(result)) return result;
  return TakeResults(payload, entries, processed) ? result : result::kInvalidData;
}

HRESULT Create(const std::string& folder, Entries entries, CF_CREATE_FLAGS flags,
               DWORD& processed) {
  HRESULT first = S_OK;
  do {
    const auto batch = entries.first(std::min(entries.size(), kBatch));
    entries = entries.subspan(batch.size());
    const HRESULT result = CreateBatch(folder, batch, flags, processed);
    if (SUCCEEDED(first)) first = result;
    if (FAILED(result) && (flags & CF_CREATE_FLAG_STOP_ON_ERROR)) break;
    if (result == result::kFilterNotRunning) break;
  } while (!entries.empty());
  return first;
}

}  // namespace
}  // namespace cldapi

extern "C" HRESULT WINAPI CfCreatePlaceholders(LPCWSTR BaseDirectoryPath,
                                               CF_PLACEHOLDER_CREATE_INFO* PlaceholderArray,
                                               DWORD PlaceholderCount, CF_CREATE_FLAGS CreateFlags,
                                               PDWORD EntriesProcessed) {
  return cldapi::Guarded([&]() -> HRESULT {
    DWORD processed = 0;
    if (EntriesProcessed != nullptr) *EntriesProcessed = 0;
    const cldapi::Entries entries(PlaceholderArray, PlaceholderCount);
    const bool consistent =
        PlaceholderArray != nullptr &&
        std::all_of(entries.begin(), entries.end(), [](const CF_PLACEHOLDER_CREATE_INFO& entry) {
          return cldapi::IsConsistent(entry.FileIdentity, entry.FileIdentityLength);
        });
    if (!consistent) return cldapi::result::kInvalidParameter;
    std::string folder;
    const HRESULT found = cldapi::UnixPathOf(BaseDirectoryPath, folder);
    if (FAILED(found)) return found;
    const HRESULT result = cldapi::Create(folder, entries, CreateFlags, processed);
    if (EntriesProcessed != nullptr) *EntriesProcessed = processed;
    return result;
  });
}
