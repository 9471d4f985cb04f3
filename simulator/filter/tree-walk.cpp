#include "tree-walk.h"

#include <dirent.h>
#include <fcntl.h>

#include <cstring>
#include <memory>
#include <vector>

namespace cloud_filter {
namespace {

std::vector<std::string> NamesIn(int folder) {
  std::vector<std::string> names;
  UniqueFd fd(openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) return names;
  const std::unique_ptr<DIR, int (*)(DIR*)> listing(fdopendir(fd.Get()), closedir);
  if (listing == nullptr) return names;
  static_cast<void>(fd.Release());
  while (const auto* entry = readdir(listing.get())) {
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
      names.emplace_back(entry->d_name);
    }
  }
  return names;
}

}  // namespace

bool WalkTree(int folder, WalkOrder order, const std::function<bool(const TreeEntry&)>& visit) {
  for (auto& name : NamesIn(folder)) {
    TreeEntry entry{folder, std::move(name), UniqueFd(), {}};
    entry.reference.Reset(openat(folder, entry.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!entry.reference || GetFacts(entry.reference.Get(), entry.facts) != 0) continue;
    if (order == WalkOrder::kFolderFirst && !visit(entry)) return false;
    if (entry.facts.IsDirectory() && !WalkTree(entry.reference.Get(), order, visit)) return false;
    if (order == WalkOrder::kContentFirst && !visit(entry)) return false;
  }
  return true;
}

}  // namespace cloud_filter
