// Placeholders on the filter: made and asked about through the library, beside the platform's own
// functions with ready-made arguments. What the latter take is the platform's (the simulator's) own
// cost.

#include <windows.h>

#include <array>
#include <cstddef>
#include <numeric>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bench/harness/families.h"
#include "bench/harness/report.h"
#include "common/cldapi-table.h"
#include "common/text.h"
#include "nimbra/nimbra.h"
#include "tests/support/sync-root-handles.h"

namespace nimbra_bench {
namespace {

using corvdrive::cloud_filter::Cloud;
using corvdrive::cloud_filter::Utf8ToWide;

constexpr std::int64_t kFileSize = 123'456;
constexpr int kItemsPerFolder = 100;
constexpr int kParts = 20;
// Trees with smaller parts than this are made several times instead.
constexpr int kLeastPart = 10;
constexpr int kSmallTrees = 15;

void Require(bool succeeded, const std::string& what) {
  if (!succeeded) {
    throw std::runtime_error("failed: " + what);
  }
}

HANDLE OpenItem(const std::wstring& path) {
  return CreateFileW(path.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                     nullptr, OPEN_EXISTING,
                     FILE_FLAG_OVERLAPPED | FILE_FLAG_BACKUP_SEMANTICS |
                         FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_OPEN_NO_RECALL,
                     nullptr);
}

void AskInfo(HANDLE item) {
  std::array<std::byte, 4160> info{};
  DWORD length = 0;
  Require(SUCCEEDED(Cloud().CfGetPlaceholderInfo(item, CF_PLACEHOLDER_INFO_STANDARD, info.data(),
                                                 static_cast<DWORD>(info.size()), &length)),
          "asking about a placeholder");
}

// Placeholders in folders of 100 each.
class Tree {
 public:
  explicit Tree(std::string folder) : folder_(std::move(folder)) {
    Require(CreateDirectoryW(Utf8ToWide(folder_).c_str(), nullptr) != 0, folder_);
  }

  // The folder and the name of the next item; a folder is made when it is due.
  std::pair<std::string, std::string> Next() {
    if (count_ % kItemsPerFolder == 0) {
      current_ = folder_ + "/" + std::to_string(count_ / kItemsPerFolder);
      Require(CreateDirectoryW(Utf8ToWide(current_).c_str(), nullptr) != 0, current_);
    }
    return {current_, "item " + std::to_string(count_++) + ".txt"};
  }

 private:
  std::string folder_;
  std::string current_;
  int count_ = 0;
};

void CreateThroughLibrary(const std::string& path, CORVWinCFPlaceholderMetaHandle meta) {
  const nimbra_test::Placeholder placeholder(path);
  Require(CORVWinCFPlaceholderCreate(placeholder.Get(), "identity", meta) == 0, path);
}

// What creating comes down to: make it, look at its pin state.
void CreateDirectly(const std::wstring& folder, const std::wstring& name,
                    const std::wstring& path) {
  static constexpr char kIdentity[] = "identity";
  CF_PLACEHOLDER_CREATE_INFO entry{};
  entry.RelativeFileName = name.c_str();
  entry.FsMetadata.FileSize.QuadPart = kFileSize;
  entry.FsMetadata.BasicInfo.FileAttributes = FILE_ATTRIBUTE_NORMAL;
  entry.FileIdentity = kIdentity;
  entry.FileIdentityLength = sizeof kIdentity - 1;
  entry.Flags = CF_PLACEHOLDER_CREATE_FLAG_DISABLE_ON_DEMAND_POPULATION |
                CF_PLACEHOLDER_CREATE_FLAG_MARK_IN_SYNC;
  Require(SUCCEEDED(Cloud().CfCreatePlaceholders(folder.c_str(), &entry, 1, CF_CREATE_FLAG_NONE,
                                                 nullptr)),
          "creating a placeholder");
  const HANDLE item = OpenItem(path);
  AskInfo(item);
  CloseHandle(item);
}

// The nanoseconds of an item when so many are made.
double TimeLibrary(Tree& tree, int count) {
  CORVWinCFPlaceholderMetaHandle meta = CORVWinCFPlaceholderMetaNew(0, 0, 0, 0, kFileSize, 0);
  double took = 0;
  for (int i = 0; i < count; ++i) {
    const auto [folder, name] = tree.Next();
    const std::string path = folder + "/" + name;
    const auto begun = Clock::now();
    CreateThroughLibrary(path, meta);
    took += NanosecondsSince(begun);
  }
  CORVWinCFPlaceholderMetaRelease(meta);
  return took / count;
}

double TimePlatform(Tree& tree, int count) {
  double took = 0;
  for (int i = 0; i < count; ++i) {
    const auto [folder, name] = tree.Next();
    const std::wstring wideFolder = Utf8ToWide(folder);
    const std::wstring wideName = Utf8ToWide(name);
    const std::wstring path = Utf8ToWide(folder + "/" + name);
    const auto begun = Clock::now();
    CreateDirectly(wideFolder, wideName, path);
    took += NanosecondsSince(begun);
  }
  return took / count;
}

// The nanoseconds of one item, for the parts of a tree one after the other; of several trees of the
// same kind.
using Parts = std::vector<std::vector<double>>;

// Trees grow side by side, a part at a time: what the library makes, what the platform's own
// functions make, and these once more.
struct Growth {
  Parts library;
  Parts platform;
  Parts again;
};

Growth Grow(const std::string& folder, int trees, int parts, int partSize) {
  Growth growth;
  for (int number = 0; number < trees; ++number) {
    const std::string name = folder + " " + std::to_string(number);
    Tree library(name + " a");
    Tree platform(name + " b");
    Tree again(name + " c");
    std::vector<double> subject, baseline, repeated;
    for (int part = 0; part < parts; ++part) {
      baseline.push_back(TimePlatform(platform, partSize));
      subject.push_back(TimeLibrary(library, partSize));
      repeated.push_back(TimePlatform(again, partSize));
    }
    growth.library.push_back(std::move(subject));
    growth.platform.push_back(std::move(baseline));
    growth.again.push_back(std::move(repeated));
  }
  return growth;
}

// What is compared: whole small trees, or the parts of a large one.
std::vector<double> Rounds(const Parts& trees) {
  if (trees.size() == 1) {
    return trees.front();
  }
  std::vector<double> rounds;
  for (const std::vector<double>& parts : trees) {
    rounds.push_back(std::accumulate(parts.begin(), parts.end(), 0.0) /
                     static_cast<double>(parts.size()));
  }
  return rounds;
}

// An item's cost at the end by its cost at the beginning.
double GrowthOf(const Parts& trees) {
  std::vector<double> first, last;
  for (const std::vector<double>& parts : trees) {
    first.push_back(parts.front());
    last.push_back(parts.back());
  }
  return Median(last) / Median(first);
}

void MeasureCreation(const Settings& settings, int count) {
  const bool isSmall = count < kParts * kLeastPart;
  const int parts = isSmall ? count : kParts;
  const int trees = isSmall && !settings.isQuick ? kSmallTrees : 1;
  const Growth growth =
      Grow(settings.folder + "/made " + std::to_string(count), trees, parts, count / parts);
  Row row;
  row.family = "filter";
  row.group = "creating placeholders, each, beside the platform's functions";
  row.name = "one of " + std::to_string(count);
  row.times = Compared(Rounds(growth.library), Rounds(growth.platform), Rounds(growth.again));
  row.more = {{"perSecond", 1e9 / row.times.subject},
              {"growth", GrowthOf(growth.library)},
              {"platformGrowth", GrowthOf(growth.platform)}};
  row.functions = {"CORVWinCFPlaceholderCreate"};
  Write(row);
}

void WriteQuery(const std::string& name, const Comparison& times) {
  Row row;
  row.family = "filter";
  row.group = "asking about a placeholder, beside the platform's functions";
  row.name = name;
  row.times = times;
  row.more = {{"perSecond", 1e9 / times.subject}};
  Write(row);
}

void MeasureQueries(const Settings& settings) {
  const std::string path = settings.folder + "/asked.txt";
  CORVWinCFPlaceholderMetaHandle meta = CORVWinCFPlaceholderMetaNew(0, 0, 0, 0, kFileSize, 0);
  CreateThroughLibrary(path, meta);
  CORVWinCFPlaceholderMetaRelease(meta);
  const std::wstring widePath = Utf8ToWide(path);
  Effort effort = settings.Short();
  effort.batchNanoseconds *= 10;
  effort.rounds = settings.isQuick ? effort.rounds : 31;
  const auto askAll = [&widePath](bool withSize) {
    const HANDLE item = OpenItem(widePath);
    LARGE_INTEGER size{};
    if (withSize) {
      GetFileSizeEx(item, &size);
    }
    AskInfo(item);
    CloseHandle(item);
  };
  WriteQuery("IsPlaceholder", Compare(effort, Repeat([&] { askAll(false); }),
                                      Repeat([&] { CORVWinCFIsPlaceholder(path.c_str()); })));
  WriteQuery("IsFullyHydrated", Compare(effort, Repeat([&] { askAll(true); }),
                                        Repeat([&] { CORVWinCFIsFullyHydrated(path.c_str()); })));
  const nimbra_test::Placeholder placeholder(path);
  CORVWinCFPlaceholderOpen(placeholder.Get());
  const HANDLE item = OpenItem(widePath);
  WriteQuery("PlaceholderIsInSync", Compare(effort, Repeat([item] { AskInfo(item); }), Repeat([&] {
                                              CORVWinCFPlaceholderIsInSync(placeholder.Get());
                                            })));
  CloseHandle(item);
}

}  // namespace

void MeasurePlaceholders(const Settings& settings) {
  std::vector<int> counts = {10, 1000, 3000};
  if (settings.isQuick) {
    counts = {10, 100};
  } else if (settings.isLarge) {
    counts.push_back(100'000);
  }
  for (const int count : counts) {
    MeasureCreation(settings, count);
  }
  MeasureQueries(settings);
}

}  // namespace nimbra_bench
