#ifndef NIMBRA_TESTS_SUPPORT_SNAPSHOTS_H_
#define NIMBRA_TESTS_SUPPORT_SNAPSHOTS_H_

#include <map>
#include <string>
#include <vector>

namespace nimbra_test {

// What a tree held at some moment: each item's name with everything that belongs to it.
using Snapshot = std::map<std::wstring, std::string>;

// Every key ("key") and value ("key|name") of the current user's registry.
Snapshot RegistrySnapshot();
// Every file and folder below a folder, by its path in it, with attributes and content.
Snapshot FolderSnapshot(const std::wstring& folder);

// Throws when the file cannot be read.
std::string FileContent(const std::wstring& path);

// In UTF-8 and in order: "+ name" for what came, "- name" for what went, "~ name" for what changed.
std::vector<std::string> Changes(const Snapshot& before, const Snapshot& after);

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_SNAPSHOTS_H_
