#include "node-table.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

namespace cloud_filter {

NodeTable::NodeTable(UniqueFd root, ino_t inode, std::size_t limit) : limit_(limit) {
  root_.inode = inode;
  root_.kept_ = true;
  root_.reference_ = std::make_shared<UniqueFd>(std::move(root));
}

Node* NodeTable::Intern(Node& folder, const char* name, UniqueFd reference,
                        const struct stat& facts) {
  const std::lock_guard lock(mutex_);
  auto& node = nodes_[{facts.st_ino, facts.st_dev}];
  if (node == nullptr) {
    node = std::make_unique<Node>();
    node->inode = facts.st_ino;
    node->device_ = facts.st_dev;
  }
  ++node->lookups_;
  Place(*node, folder, name);
  if (node->reference_ == nullptr) Hold(*node, std::make_shared<UniqueFd>(std::move(reference)));
  return node.get();
}

void NodeTable::Place(Node& node, Node& folder, const std::string& name) {
  if (node.folder_ != &folder) {
    ++folder.children_;
    Leave(std::exchange(node.folder_, &folder));
  }
  node.name_ = name;
}

void NodeTable::Leave(Node* folder) {
  if (folder == nullptr) return;
  --folder->children_;
  EraseIfUnknown(*folder);
}

// A folder stays as long as a file is reached through it.
void NodeTable::EraseIfUnknown(Node& node) {
  if (&node == &root_ || node.lookups_ > 0 || node.children_ > 0) return;
  GiveUp(node);
  auto* const folder = node.folder_;
  nodes_.erase({node.inode, node.device_});
  Leave(folder);
}

void NodeTable::Hold(Node& node, Reference reference) {
  node.reference_ = std::move(reference);
  recent_.push_front(&node);
  node.recent_ = recent_.begin();
  while (recent_.size() > limit_) GiveUp(*recent_.back());
}

void NodeTable::GiveUp(Node& node) {
  if (node.reference_ != nullptr && !node.kept_) recent_.erase(node.recent_);
  node.reference_.reset();
}

void NodeTable::Forget(Node& node, std::uint64_t lookups) {
  const std::lock_guard lock(mutex_);
  node.lookups_ -= std::min(lookups, node.lookups_);
  EraseIfUnknown(node);
}

Reference NodeTable::Open(Node& node) {
  const std::lock_guard lock(mutex_);
  return OpenLocked(node);
}

Reference NodeTable::OpenLocked(Node& node) {
  if (node.reference_ != nullptr) {
    if (!node.kept_) recent_.splice(recent_.begin(), recent_, node.recent_);
    return node.reference_;
  }
  if (node.folder_ == nullptr) {
    errno = ESTALE;
    return nullptr;
  }
  const auto folder = OpenLocked(*node.folder_);
  if (folder == nullptr) return nullptr;
  UniqueFd file(openat(folder->Get(), node.name_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat facts {};
  if (!file || fstat(file.Get(), &facts) != 0) return nullptr;
  if (facts.st_ino != node.inode || facts.st_dev != node.device_) {
    errno = ESTALE;
    return nullptr;
  }
  auto reference = std::make_shared<UniqueFd>(std::move(file));
  Hold(node, reference);
  return reference;
}

void NodeTable::Moved(const struct stat& facts, Node& folder, const std::string& name) {
  const std::lock_guard lock(mutex_);
  const auto found = nodes_.find({facts.st_ino, facts.st_dev});
  if (found != nodes_.end()) Place(*found->second, folder, name);
}

void NodeTable::Unlinked(const struct stat& facts, const Reference& reference) {
  const std::lock_guard lock(mutex_);
  const auto found = nodes_.find({facts.st_ino, facts.st_dev});
  if (found == nodes_.end()) return;
  auto& node = *found->second;
  if (node.kept_) return;
  GiveUp(node);
  node.kept_ = true;
  node.reference_ = reference;
}

Node* NodeTable::Find(ino_t inode) {
  const std::lock_guard lock(mutex_);
  const auto found = nodes_.lower_bound({inode, 0});
  return found == nodes_.end() || found->first.first != inode ? nullptr : found->second.get();
}

}  // namespace cloud_filter
