#ifndef NIMBRA_SIMULATOR_FILTER_NODE_TABLE_H_
#define NIMBRA_SIMULATOR_FILTER_NODE_TABLE_H_

#include <sys/stat.h>

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "unique-fd.h"

namespace cloud_filter {

// A file that is held open as a reference.
using Reference = std::shared_ptr<const UniqueFd>;

// A file or folder that the kernel knows. All but `inode` is the table's own.
struct Node {
  ino_t inode = 0;

 private:
  friend class NodeTable;
  dev_t device_ = 0;
  std::uint64_t lookups_ = 0;
  std::uint64_t children_ = 0;  // nodes that were last seen in this folder
  Node* folder_ = nullptr;      // where it was last seen; null: the root
  std::string name_;
  Reference reference_;  // null: given up for the time being
  bool kept_ = false;    // never given up: its name is gone
  std::list<Node*>::iterator recent_;
};

// The nodes of a mount. The kernel may know far more files than can be open, so references are
// given up when they become too many, and the files opened again by name when needed.
class NodeTable {
 public:
  NodeTable(UniqueFd root, ino_t inode, std::size_t limit);

  // The node of a file that was found as `name` in `folder`; counts one look-up.
  Node* Intern(Node& folder, const char* name, UniqueFd reference, const struct stat& facts);
  void Forget(Node& node, std::uint64_t lookups);
  // Null when the file is not where it was; errno tells why.
  Reference Open(Node& node);
  // The file has a new place.
  void Moved(const struct stat& facts, Node& folder, const std::string& name);
  // The name has gone; who has the file open must still reach it.
  void Unlinked(const struct stat& facts, const Reference& reference);

  [[nodiscard]] Node& Root() { return root_; }
  // Null when the kernel does not know it.
  Node* Find(ino_t inode);

 private:
  using Key = std::pair<ino_t, dev_t>;
  Reference OpenLocked(Node& node);
  void Hold(Node& node, Reference reference);
  void GiveUp(Node& node);
  void Place(Node& node, Node& folder, const std::string& name);
  void Leave(Node* folder);
  void EraseIfUnknown(Node& node);

  std::mutex mutex_;
  const std::size_t limit_;
  Node root_;
  std::map<Key, std::unique_ptr<Node>> nodes_;
  std::list<Node*> recent_;  // those with a reference, the latest first
};

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_NODE_TABLE_H_
