#ifndef NIMBRA_SIMULATOR_FILTER_PLACEHOLDER_SERVICE_H_
#define NIMBRA_SIMULATOR_FILTER_PLACEHOLDER_SERVICE_H_

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core.h"

namespace cloud_filter {

struct CreateResult {
  Hresult result = hr::kOk;
  std::int64_t usn = 0;
};

struct ItemState {
  std::uint32_t attributes = 0;
  std::uint32_t reparseTag = 0;
  std::uint32_t state = 0;
};

// A length of -1 means to the end.
struct FileRange {
  std::int64_t start = 0;
  std::int64_t length = 0;
};

struct Update {
  std::optional<wire::Metadata> metadata;
  std::string identity;  // empty: keep
  std::vector<FileRange> dehydrate;
  std::uint32_t flags = 0;
  std::int64_t usn = 0;  // 0: do not compare
};

// What is done to placeholders by name.
class PlaceholderService {
 public:
  // Tells a call that waits whether its caller has gone.
  using CallerGone = std::function<bool()>;

  explicit PlaceholderService(Core& core) : core_(core) {}

  // `processed` counts the entries tried; `results` has one row for each entry given.
  Hresult Create(const std::string& folder, std::uint32_t flags,
                 const std::vector<wire::CreateEntry>& entries, std::uint32_t& processed,
                 std::vector<CreateResult>& results);
  Hresult Convert(const wire::ItemRef& ref, const std::string& identity, std::uint32_t flags,
                  std::int64_t& usn, const CallerGone& gone);
  Hresult UpdateItem(const wire::ItemRef& ref, const Update& update, std::int64_t& usn);
  Hresult Revert(const wire::ItemRef& ref, std::uint32_t flags, const CallerGone& gone);
  Hresult Hydrate(const wire::ItemRef& ref, std::int64_t offset, std::int64_t length,
                  std::uint32_t flags, const CallerGone& gone);
  Hresult Dehydrate(const wire::ItemRef& ref, std::int64_t offset, std::int64_t length,
                    std::uint32_t flags, const CallerGone& gone);
  Hresult SetPinState(const wire::ItemRef& ref, std::uint32_t pin, std::uint32_t flags);
  Hresult SetInSync(const wire::ItemRef& ref, std::uint32_t inSync, std::uint32_t flags,
                    std::int64_t& usn);
  Hresult GetInfo(const wire::ItemRef& ref, wire::PlaceholderInfo& info);
  Hresult GetRanges(const wire::ItemRef& ref, std::uint32_t rangeClass, std::int64_t offset,
                    std::int64_t length, std::vector<Range>& ranges);
  Hresult GetState(const wire::ItemRef& ref, ItemState& itemState);

 private:
  class Batch;
  // The names of a folder without regard to case, kept between calls.
  struct FolderNames {
    timespec changed{};
    std::set<std::string> names;
  };
  FolderNames& NamesOf(int folder, const FileFacts& facts);
  // Records that the folder's content is as we know it.
  static void Refresh(int folder, FolderNames& names);

  Hresult HydrateItem(const ItemPtr& item, Range range, const CallerGone& gone);
  Hresult AskDehydrate(const ItemPtr& item, std::uint32_t flags, const CallerGone& gone);
  void TellDehydrated(const ItemPtr& item, std::uint32_t flags, bool hadData);
  // Waits a moment for others to close the file.
  Hresult WaitUntilUnused(Guard& guard, const ItemPtr& item);
  Hresult DropData(const ItemPtr& item, const std::vector<Range>& ranges,
                   const std::optional<std::string>& identity);
  Hresult ApplyUpdate(const ItemPtr& item, const Update& update, const std::vector<Range>& ranges);
  Hresult SetPin(Guard& guard, const RootPtr& root, int reference, const FileFacts& facts,
                 PinState pin, PinState parent);

  Core& core_;
  std::mutex creating_;
  std::map<std::pair<std::int64_t, ino_t>, FolderNames> folderNames_;
};

// Whether data of the item may be dropped, but for what others do with the file. `becomesInSync`:
// the same call marks it so.
Hresult CheckDehydration(const Item& item, bool becomesInSync);

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_PLACEHOLDER_SERVICE_H_
