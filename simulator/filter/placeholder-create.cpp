#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "file-service.h"
#include "placeholder-service.h"
#include "tree-walk.h"

namespace cloud_filter {
namespace {

constexpr std::size_t kMaxBatch = 256;
constexpr std::size_t kMaxCachedFolders = 64;

std::string FoldCase(std::string name) {
  for (auto& letter : name) {
    if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
  }
  return name;
}

bool IsLeafName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name != wire::kWhoAmIName &&
         name.find_first_of(std::string_view("/\\\0", 3)) == std::string::npos;
}

bool IsDirectory(const wire::CreateEntry& entry) {
  return (entry.metadata.attributes & attribute::kDirectory) != 0;
}

// What new items take from where they come to be.
struct Surroundings {
  PinState parentPin = PinState::kUnspecified;
  bool alwaysPopulated = false;
};

ItemRecord RecordOf(const wire::CreateEntry& entry, const Surroundings& surroundings) {
  ItemRecord record;
  record.directory = IsDirectory(entry);
  record.identity = entry.identity;
  const auto now = FileTimeNow();
  record.creationTime = entry.metadata.creationTime != 0 ? entry.metadata.creationTime : now;
  record.changeTime = entry.metadata.changeTime != 0 ? entry.metadata.changeTime : now;
  record.attributes = entry.metadata.attributes & attribute::kKept;
  record.inSync = (entry.flags & flag::kCreateInSync) != 0;
  record.alwaysFull = (entry.flags & flag::kCreateAlwaysFull) != 0;
  record.populated = (entry.flags & flag::kCreatePopulated) != 0 || surroundings.alwaysPopulated;
  record.full = record.directory || entry.metadata.fileSize == 0;
  // Inferred: the inheritance table holds for new items too.
  record.pin = InheritedPin(PinState::kUnspecified, surroundings.parentPin, record.directory);
  return record;
}

Hresult CheckEntry(const wire::CreateEntry& entry) {
  constexpr auto kAllFlags = flag::kCreatePopulated | flag::kCreateInSync | flag::kCreateSupersede |
                             flag::kCreateAlwaysFull;
  if (!IsLeafName(entry.relativeName)) return hr::kInvalidName;
  const auto good = (IsDirectory(entry) || !entry.identity.empty()) &&
                    entry.identity.size() <= kMaxFileIdentity && entry.metadata.fileSize >= 0 &&
                    (!IsDirectory(entry) || entry.metadata.fileSize == 0) &&
                    entry.metadata.creationTime >= 0 && entry.metadata.lastAccessTime >= 0 &&
                    entry.metadata.lastWriteTime >= 0 && entry.metadata.changeTime >= 0 &&
                    (entry.flags & ~kAllFlags) == 0;
  // Guessed: a file that must always be full cannot begin as a placeholder without data.
  const auto contradicts = (entry.flags & flag::kCreateAlwaysFull) != 0 && !IsDirectory(entry) &&
                           entry.metadata.fileSize > 0;
  if (contradicts) return hr::kInvalidRequest;
  return good ? hr::kOk : hr::kInvalidParameter;
}

// A placeholder that exists on disk but has no name yet.
struct Prepared {
  const wire::CreateEntry* entry = nullptr;
  CreateResult* result = nullptr;
  UniqueFd file;
  FileFacts facts;
  ItemRecord record;
};

int MakeFile(int folder, const wire::CreateEntry& entry, Prepared& prepared) {
  if (IsDirectory(entry)) {
    if (mkdirat(folder, entry.relativeName.c_str(), 0755) != 0) return errno;
    prepared.file.Reset(openat(folder, entry.relativeName.c_str(), O_RDONLY | O_CLOEXEC));
  } else {
    prepared.file.Reset(openat(folder, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0644));
  }
  if (!prepared.file) return errno;
  const auto fd = prepared.file.Get();
  if (!IsDirectory(entry) && ftruncate(fd, entry.metadata.fileSize) != 0) return errno;
  if (const auto error = GetFacts(fd, prepared.facts)) return error;
  constexpr auto kInFile = attribute::kReadonly | attribute::kHidden | attribute::kSystem;
  if ((entry.metadata.attributes & kInFile) != 0) {
    SetDosAttributes(fd, prepared.facts, entry.metadata.attributes);
  }
  return SetTimes(fd, entry.metadata.lastAccessTime, entry.metadata.lastWriteTime);
}

int NameFile(int folder, const Prepared& prepared) {
  const auto& entry = *prepared.entry;
  if (IsDirectory(entry)) return 0;
  const auto* name = entry.relativeName.c_str();
  const auto path = ProcPath(prepared.file.Get());
  if (linkat(AT_FDCWD, path.c_str(), folder, name, AT_SYMLINK_FOLLOW) == 0) return 0;
  if (errno != EEXIST || (entry.flags & flag::kCreateSupersede) == 0) return errno;
  // Guessed: superseding replaces a file by a new one.
  if (unlinkat(folder, name, 0) != 0) return errno;
  return linkat(AT_FDCWD, path.c_str(), folder, name, AT_SYMLINK_FOLLOW) == 0 ? 0 : errno;
}

}  // namespace

PlaceholderService::FolderNames& PlaceholderService::NamesOf(int folder, const FileFacts& facts) {
  if (folderNames_.size() > kMaxCachedFolders) folderNames_.clear();
  auto& cached = folderNames_[{facts.device, facts.inode}];
  if (cached.changed.tv_sec == facts.writeTime.tv_sec &&
      cached.changed.tv_nsec == facts.writeTime.tv_nsec) {
    return cached;
  }
  cached.names.clear();
  UniqueFd fd(openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::unique_ptr<DIR, int (*)(DIR*)> listing(fdopendir(fd.Get()), closedir);
  if (listing == nullptr) return cached;
  static_cast<void>(fd.Release());
  while (const auto* entry = readdir(listing.get())) cached.names.insert(FoldCase(entry->d_name));
  cached.changed = facts.writeTime;
  return cached;
}

void PlaceholderService::Refresh(int folder, FolderNames& names) {
  FileFacts facts;
  if (GetFacts(folder, facts) == 0) names.changed = facts.writeTime;
}

// A run of entries that reach the store together. A file gets its name only when the store knows
// what it is: one that is found by its name is never a row of zeros that passes for data.
class PlaceholderService::Batch {
 public:
  Batch(Core& core, const Located& folder, FolderNames& names)
      : core_(core), folder_(folder), names_(names) {}

  // False when the entry failed.
  bool Add(const wire::CreateEntry& entry, CreateResult& result, const Surroundings& surroundings) {
    result.result = CheckEntry(entry);
    if (result.result != hr::kOk) return false;
    const auto supersedes = (entry.flags & flag::kCreateSupersede) != 0;
    // Guessed: names are one when they differ in case only, as on Windows.
    if (!supersedes && names_.names.contains(FoldCase(entry.relativeName))) {
      result.result = hr::kAlreadyExists;
      return false;
    }
    Prepared prepared;
    prepared.entry = &entry;
    prepared.result = &result;
    prepared.record = RecordOf(entry, surroundings);
    result.result = HresultOfErrno(MakeFile(folder_.reference.Get(), entry, prepared));
    if (result.result != hr::kOk) return false;
    // A folder could be seen before it had its times.
    if (prepared.facts.IsDirectory()) core_.FolderChanged(folder_.root, prepared.facts.inode);
    names_.names.insert(FoldCase(entry.relativeName));
    prepared_.push_back(std::move(prepared));
    return true;
  }

  // Saves and names what was added. False when something failed.
  bool Flush() {
    auto good = true;
    {
      Guard guard(core_);
      Store::Transaction transaction(core_.store);
      for (auto& prepared : prepared_) {
        core_.items.AddUnused(*folder_.root, prepared.facts, prepared.record);
        prepared.result->usn = prepared.record.usn;
      }
      transaction.Commit();
    }
    for (const auto& prepared : prepared_) {
      const auto error = NameFile(folder_.reference.Get(), prepared);
      if (error == 0) continue;
      good = false;
      *prepared.result = {HresultOfErrno(error), 0};
      Guard guard(core_);
      core_.items.Forget(*folder_.root, prepared.facts.inode, false);
    }
    prepared_.clear();
    Refresh(folder_.reference.Get(), names_);
    return good;
  }

  [[nodiscard]] bool IsFull() const { return prepared_.size() >= limit_; }

 private:
  Core& core_;
  const Located& folder_;
  FolderNames& names_;
  // Each holds its file open.
  const std::size_t limit_ = std::clamp<std::size_t>(core_.options.idleFiles, 1, kMaxBatch);
  std::vector<Prepared> prepared_;
};

Hresult PlaceholderService::Create(const std::string& folder, std::uint32_t flags,
                                   const std::vector<wire::CreateEntry>& entries,
                                   std::uint32_t& processed, std::vector<CreateResult>& results) {
  processed = 0;
  results.assign(entries.size(), {});
  if ((flags & ~flag::kStopOnError) != 0) return hr::kInvalidParameter;
  Located located;
  Surroundings surroundings;
  {
    Guard guard(core_);
    if (const auto result = core_.Locate(guard, {folder, 0}, located)) {
      return result == hr::kFileNotFound ? hr::kPathNotFound : result;
    }
    if (!located.facts.IsDirectory()) return hr::kNotADirectory;
    if (located.root->Hydration() == policy::kHydrationAlwaysFull) return hr::kNotSupported;
    if (!MayWrite(located.reference.Get())) return hr::kAccessDenied;
    if (located.item != nullptr) surroundings.parentPin = located.item->record.pin;
    surroundings.alwaysPopulated =
        located.root->record.policies.populationPrimary == policy::kPopulationAlwaysFull;
  }
  const std::lock_guard oneAtATime(creating_);
  Batch batch(core_, located, NamesOf(located.reference.Get(), located.facts));
  const auto stops = (flags & flag::kStopOnError) != 0;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    ++processed;
    const auto good = batch.Add(entries[i], results[i], surroundings);
    if (!good && stops) break;
    if (batch.IsFull() && !batch.Flush() && stops) break;
  }
  batch.Flush();
  core_.FolderChanged(located.root, located.facts.inode);
  // Documented: the call's result is the first failure.
  for (const auto& row : results) {
    if (row.result != hr::kOk) return row.result;
  }
  return hr::kOk;
}

}  // namespace cloud_filter
