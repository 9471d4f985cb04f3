#include "item-table.h"

#include <fcntl.h>

#include <chrono>
#include <utility>

#include "core.h"
#include "hydration.h"

namespace cloud_filter {

Item::Item() = default;
Item::~Item() = default;

std::int64_t Item::Size() const {
  FileFacts facts;
  return GetFacts(reference.Get(), facts) == 0 ? facts.size : 0;
}

bool Item::Usable(Range range) const {
  if (record.full || range.Empty()) return true;
  return root->ValidationRequired() ? UsableRanges().Contains(range)
                                    : record.present.Contains(range);
}

RangeSet Item::UsableRanges() const {
  if (record.full) return RangeSet({0, Size()});
  if (!root->ValidationRequired()) return record.present;
  auto usable = record.validated;
  for (const auto& run : record.modified.Runs()) usable.Add(run);
  return usable;
}

RangeSet Item::PresentRanges() const {
  return record.full ? RangeSet({0, Size()}) : record.present;
}

std::string Item::RelativePath() const {
  if (deleted) return lastPath;
  const auto base = PathOf(root->folder.Get());
  const auto path = PathOf(reference.Get());
  return path.size() > base.size() ? path.substr(base.size() + 1) : std::string();
}

void Item::SetPresent(RangeSet present, std::int64_t size) {
  if (record.full && root->ValidationRequired()) record.validated = present;
  record.full = false;
  record.present = std::move(present);
  Settle(size);
}

void Item::Settle(std::int64_t size) {
  if (record.full || !Usable({0, size})) return;
  record.full = true;
  record.present.Clear();
  record.validated.Clear();
}

int Item::Opens() const {
  const auto found = root->opens.find(record.inode);
  return found == root->opens.end() ? 0 : found->second;
}

ItemPtr ItemTable::Find(const std::shared_ptr<Root>& root, int reference, ino_t inode) {
  const auto known = items_.find({root->record.id, inode});
  if (known != items_.end()) return known->second;
  FileFacts facts;
  return GetFacts(reference, facts) == 0 ? Find(root, reference, facts) : nullptr;
}

ItemPtr ItemTable::Find(const std::shared_ptr<Root>& root, int reference, const FileFacts& facts) {
  const Key key{root->record.id, facts.inode};
  const auto known = items_.find(key);
  if (known != items_.end()) return known->second;
  DropUnused();
  auto record = store_.FindItem(key.root, key.inode);
  if (record && record->birthTime != facts.birthTime) {
    store_.RemoveItem(key.root, key.inode);
    record.reset();
  }
  ItemPtr item;
  if (record) {
    item = std::make_shared<Item>();
    item->root = root;
    item->record = std::move(*record);
    item->reference.Reset(fcntl(reference, F_DUPFD_CLOEXEC, 0));
  }
  items_[key] = item;
  return item;
}

void ItemTable::AddUnused(const Root& root, const FileFacts& facts, ItemRecord& record) {
  record.rootId = root.record.id;
  record.inode = facts.inode;
  record.birthTime = facts.birthTime;
  record.usn = ++usn_;
  items_.erase({record.rootId, record.inode});
  store_.SaveItem(record);
}

ItemPtr ItemTable::Add(const std::shared_ptr<Root>& root, int reference, const FileFacts& facts,
                       ItemRecord record) {
  AddUnused(*root, facts, record);
  return Find(root, reference, facts);
}

void ItemTable::Save(Item& item) {
  item.record.usn = ++usn_;
  SaveQuietly(item);
}

void ItemTable::SaveQuietly(Item& item) {
  if (!item.deleted) store_.SaveItem(item.record);
}

void ItemTable::Forget(const Root& root, ino_t inode, bool unlinked) {
  const Key key{root.record.id, inode};
  const auto number = transferKeys_.find(key);
  if (number != transferKeys_.end()) {
    if (!unlinked) byTransferKey_.erase(number->second);
    if (!unlinked) heldKeys_.erase(number->second);
    transferKeys_.erase(number);
  }
  const auto known = items_.find(key);
  if (known != items_.end()) {
    if (known->second != nullptr) known->second->deleted = true;
    items_.erase(known);
  }
  store_.RemoveItem(key.root, key.inode);
}

void ItemTable::ForgetRoot(const Root& root) {
  std::erase_if(heldKeys_, [&](const auto& entry) { return entry.second->root.get() == &root; });
  std::erase_if(transferKeys_, [&](const auto& entry) {
    if (entry.first.root != root.record.id) return false;
    byTransferKey_.erase(entry.second);
    return true;
  });
  std::erase_if(items_, [&](auto& entry) {
    if (entry.first.root != root.record.id) return false;
    if (entry.second != nullptr) entry.second->deleted = true;
    return true;
  });
}

std::int64_t ItemTable::TransferKeyOf(const ItemPtr& item) {
  if (item->transferKey != 0) return item->transferKey;
  // Keys of an earlier life of this process are not to be mistaken for ours.
  if (nextKey_ == 0) nextKey_ = std::chrono::system_clock::now().time_since_epoch().count() | 1;
  if (item->deleted) {
    item->transferKey = nextKey_++;
  } else {
    const auto [number, isNew] = transferKeys_.try_emplace(KeyOf(*item), nextKey_);
    if (isNew) ++nextKey_;
    item->transferKey = number->second;
  }
  byTransferKey_[item->transferKey] = item;
  return item->transferKey;
}

ItemPtr ItemTable::ByTransferKey(std::int64_t key) {
  const auto found = byTransferKey_.find(key);
  return found == byTransferKey_.end() ? nullptr : found->second.lock();
}

void ItemTable::HoldKey(const ItemPtr& item) { heldKeys_.emplace(TransferKeyOf(item), item); }

bool ItemTable::ReleaseKey(std::int64_t key) {
  const auto held = heldKeys_.find(key);
  if (held == heldKeys_.end()) return false;
  heldKeys_.erase(held);
  return true;
}

void ItemTable::DropUnused() {
  if (items_.size() < dropAt_) return;
  std::erase_if(items_, [](const auto& entry) {
    return entry.second == nullptr || entry.second.use_count() == 1;
  });
  std::erase_if(byTransferKey_, [](const auto& entry) { return entry.second.expired(); });
  dropAt_ = items_.size() + limit_;
}

}  // namespace cloud_filter
