#ifndef NIMBRA_SIMULATOR_FILTER_ITEM_TABLE_H_
#define NIMBRA_SIMULATOR_FILTER_ITEM_TABLE_H_

#include <cstdint>
#include <memory>
#include <shared_mutex>
#include <string>
#include <unordered_map>

#include "backing-file.h"
#include "store.h"
#include "unique-fd.h"

namespace cloud_filter {

struct Job;
struct Root;

// A placeholder that is in use. All fields but `data` are guarded by the core's lock.
struct Item : std::enable_shared_from_this<Item> {
  Item();
  ~Item();

  std::shared_ptr<Root> root;
  ItemRecord record;
  UniqueFd reference;  // keeps the inode from being reused
  bool deleted = false;
  std::string lastPath;  // of one that was deleted, below the root

  // Shared while data is read, exclusive while data or the ranges present change. Taken before the
  // core's lock, never while it is held.
  std::shared_mutex data;

  std::int64_t transferKey = 0;
  bool canceled = false;      // a fetch was given up and no new one began
  bool lostProvider = false;  // a provider died while it owed data
  std::unique_ptr<Job> job;

  [[nodiscard]] std::int64_t Size() const;
  // How often programs have it open through the mount.
  [[nodiscard]] int Opens() const;
  // Whether programs may see these bytes.
  [[nodiscard]] bool Usable(Range range) const;
  [[nodiscard]] RangeSet UsableRanges() const;
  [[nodiscard]] RangeSet PresentRanges() const;
  [[nodiscard]] std::string RelativePath() const;

  // Replaces the ranges present of a file of this size.
  void SetPresent(RangeSet present, std::int64_t size);
  // Notices when nothing is missing any more.
  void Settle(std::int64_t size);
};
using ItemPtr = std::shared_ptr<Item>;

// The placeholders in use, loaded from the store when first asked for. Each holds a descriptor, so
// those that nobody uses are dropped beyond a limit. Guarded by the core's lock.
class ItemTable {
 public:
  ItemTable(Store& store, std::size_t limit)
      : store_(store), usn_(store.HighestUsn()), limit_(limit), dropAt_(limit) {}
  ItemTable(const ItemTable&) = delete;
  ItemTable& operator=(const ItemTable&) = delete;

  // Null when the file is not a placeholder. `reference` may be any descriptor of it.
  ItemPtr Find(const std::shared_ptr<Root>& root, int reference, ino_t inode);
  ItemPtr Find(const std::shared_ptr<Root>& root, int reference, const FileFacts& facts);
  // Makes a placeholder of the file: saves `record` (whose root, inode and birth time are filled in
  // here).
  ItemPtr Add(const std::shared_ptr<Root>& root, int reference, const FileFacts& facts,
              ItemRecord record);
  // As Add, without taking the item into use.
  void AddUnused(const Root& root, const FileFacts& facts, ItemRecord& record);
  // A change of the item that others may notice: gives it a new sequence number and saves it.
  void Save(Item& item);
  // Saves ranges only.
  void SaveQuietly(Item& item);
  // The file is no placeholder any more. One that was only unlinked keeps its transfer key, for
  // those who still have it open.
  void Forget(const Root& root, ino_t inode, bool unlinked);
  void ForgetRoot(const Root& root);

  // A file keeps its key for the life of this process.
  std::int64_t TransferKeyOf(const ItemPtr& item);
  // Null when the key is unknown, or its file has been out of use.
  ItemPtr ByTransferKey(std::int64_t key);
  // Keeps an item in use for as long as a client holds its key.
  void HoldKey(const ItemPtr& item);
  // False when nobody holds it.
  bool ReleaseKey(std::int64_t key);

 private:
  struct Key {
    std::int64_t root;
    ino_t inode;
    friend bool operator==(const Key&, const Key&) = default;
  };
  struct HashKey {
    std::size_t operator()(const Key& key) const {
      return static_cast<std::size_t>(key.inode) * 31 + static_cast<std::size_t>(key.root);
    }
  };
  static Key KeyOf(const Item& item) { return {item.record.rootId, item.record.inode}; }
  void DropUnused();

  Store& store_;
  std::int64_t usn_;
  const std::size_t limit_;
  std::size_t dropAt_;
  // Null: known not to be a placeholder.
  std::unordered_map<Key, ItemPtr, HashKey> items_;
  std::unordered_map<Key, std::int64_t, HashKey> transferKeys_;
  std::unordered_map<std::int64_t, std::weak_ptr<Item>> byTransferKey_;
  std::unordered_multimap<std::int64_t, ItemPtr> heldKeys_;
  std::int64_t nextKey_ = 0;
};

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_ITEM_TABLE_H_
