#ifndef NIMBRA_SIMULATOR_FILTER_TREE_WALK_H_
#define NIMBRA_SIMULATOR_FILTER_TREE_WALK_H_

#include <functional>
#include <string>

#include "backing-file.h"
#include "unique-fd.h"

namespace cloud_filter {

struct TreeEntry {
  int folder = -1;  // a descriptor of the folder that holds it
  std::string name;
  UniqueFd reference;
  FileFacts facts;
};

enum class WalkOrder { kFolderFirst, kContentFirst };

// Visits everything below `folder`, without following links. Ends early when `visit` returns false.
// What vanishes or cannot be opened is passed over.
bool WalkTree(int folder, WalkOrder order, const std::function<bool(const TreeEntry&)>& visit);

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_TREE_WALK_H_
