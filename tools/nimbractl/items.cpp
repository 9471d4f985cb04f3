#include "items.h"

#include <windows.h>

#include <new>
#include <utility>

#include "console.h"
#include "identity.h"
#include "owners.h"
#include "results.h"

namespace nimbractl {
namespace {

// A placeholder's name is what follows the last "/" of its path.
std::string PlaceholderPath(const std::wstring& path) {
  auto text = Utf8(path);
  for (auto& character : text) {
    if (character == '\\') character = '/';
  }
  return text;
}

std::wstring Join(const std::wstring& folder, const std::wstring& name) {
  return folder.ends_with(L'\\') ? folder + name : folder + L'\\' + name;
}

std::int64_t Size(DWORD high, DWORD low) { return (static_cast<std::int64_t>(high) << 32) | low; }

bool IsFolder(DWORD attributes) { return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }

// A link leads elsewhere. What cloud folders have as a reparse point does not.
bool IsLink(const WIN32_FIND_DATAW& found) {
  constexpr DWORD kNameSurrogate = 0x20000000;
  return (found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 &&
         (found.dwReserved0 & kNameSurrogate) != 0;
}

Item MakeItem(std::wstring path, const WIN32_FIND_DATAW& found) {
  const bool isFolder = IsFolder(found.dwFileAttributes);
  return {std::move(path), isFolder, false,
          isFolder ? 0 : Size(found.nFileSizeHigh, found.nFileSizeLow)};
}

// Calls visit(item, whether it is a link) for what a pattern in a folder matches.
template <class Visit>
void List(const std::wstring& folder, const std::wstring& pattern, const Visit& visit) {
  WIN32_FIND_DATAW found{};
  const UniqueSearch search(FindFirstFileExW(Join(folder, pattern).c_str(), FindExInfoBasic, &found,
                                             FindExSearchNameMatch, nullptr,
                                             FIND_FIRST_EX_LARGE_FETCH));
  DWORD error = GetLastError();
  if (search) {
    do {
      const std::wstring name = found.cFileName;
      if (name != L"." && name != L"..") visit(MakeItem(Join(folder, name), found), IsLink(found));
    } while (FindNextFileW(search.get(), &found));
    error = GetLastError();
  }
  if (error != ERROR_NO_MORE_FILES && error != ERROR_FILE_NOT_FOUND) {
    throw Failure(Utf8(folder) + " cannot be listed: " + ErrorText(error),
                  ResultAdvice(HRESULT_FROM_WIN32(error)));
  }
}

class Walk {
 public:
  Walk(bool recursive, const Work& work, const OnFailure& onFailure)
      : recursive_(recursive), work_(work), onFailure_(onFailure) {}

  void Start(const std::string& given) {
    const auto path = AbsolutePath(given);
    const auto separator = path.rfind(L'\\');
    const bool isPattern = path.find_first_of(L"*?", separator + 1) != std::wstring::npos;
    Guard(Utf8(path), [&] {
      isPattern ? StartAll(path.substr(0, separator), path.substr(separator + 1))
                : Visit(FindItem(path));
    });
  }

  [[nodiscard]] const Tally& Result() const { return tally_; }

 private:
  void StartAll(const std::wstring& folder, const std::wstring& pattern) {
    std::vector<Item> found;
    List(folder, pattern, [&](Item item, bool) { found.push_back(std::move(item)); });
    if (found.empty()) {
      throw Failure("nothing matches " + Utf8(Join(folder, pattern)), "check the path");
    }
    for (auto& item : found) {
      item.wasNamed = true;
      Guard(item.Name(), [&] { Visit(item); });
    }
  }

  void Visit(const Item& item, bool isLink = false) {
    Guard(item.Name(), [&] { work_(item) == Outcome::kDone ? ++tally_.done : ++tally_.skipped; });
    if (!recursive_ || !item.isFolder || isLink) return;
    List(item.path, L"*", [&](const Item& child, bool childIsLink) { Visit(child, childIsLink); });
  }

  template <class Function>
  void Guard(const std::string& path, const Function& function) {
    try {
      function();
    } catch (const Failure& failure) {
      ++tally_.failed;
      PrintFailure(failure);
      if (onFailure_) onFailure_(path, failure);
    }
  }

  bool recursive_;
  const Work& work_;
  const OnFailure& onFailure_;
  Tally tally_;
};

}  // namespace

std::wstring AbsolutePath(const std::string& path) {
  const auto given = Wide(path);
  std::wstring full(given.size() + MAX_PATH, L'\0');
  auto length =
      GetFullPathNameW(given.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
  if (length > full.size()) {
    full.resize(length);
    length = GetFullPathNameW(given.c_str(), length, full.data(), nullptr);
  }
  full.resize(length);
  constexpr std::size_t kDriveRoot = 3;  // "C:\"
  while (full.size() > kDriveRoot && full.back() == L'\\') full.pop_back();
  return full;
}

Item FindItem(const std::wstring& path) {
  WIN32_FILE_ATTRIBUTE_DATA found{};
  if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &found)) {
    const DWORD error = GetLastError();
    throw Failure(Utf8(path) + ": " + ErrorText(error), ResultAdvice(HRESULT_FROM_WIN32(error)));
  }
  const bool isFolder = IsFolder(found.dwFileAttributes);
  return {path, isFolder, true, isFolder ? 0 : Size(found.nFileSizeHigh, found.nFileSizeLow)};
}

Tally ForEachItem(const std::vector<std::string>& paths, bool recursive, const Work& work,
                  const OnFailure& onFailure) {
  Walk walk(recursive, work, onFailure);
  for (const auto& path : paths) walk.Start(path);
  return walk.Result();
}

void PrintFailure(const Failure& failure) {
  Write(Stream::kError,
        std::string("nimbractl: ") + failure.what() + "\n  " + failure.advice + "\n");
}

OpenItem::OpenItem(const Item& item) : name_(item.Name()), item_(PlaceholderPath(item.path)) {
  if (!item_) throw std::bad_alloc();
  Do(CORVWinCFPlaceholderOpen, "cannot be opened");
}

void OpenItem::Do(CORVWinCFStatus (*function)(CORVWinCFPlaceholderHandle),
                  const std::string& whatFailed) const {
  LibraryLogCapture log;
  if (function(Handle()) == 0) return;
  auto result = log.Result();
  if (!result) {
    // Not every failure is told; what is no placeholder is the usual reason, and asking tells that.
    static_cast<void>(item_.IsPlaceholder());
    result = log.Result();
  }
  const auto what = name_ + " " + whatFailed;
  if (!result) throw Failure(what, "the library gives no reason; try again");
  throw Failure(what + ": " + ResultText(*result), ResultAdvice(*result));
}

std::optional<std::int64_t> BytesOnDisk(const std::wstring& path) {
  constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  constexpr DWORD kFlags =
      FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_OPEN_NO_RECALL;
  const UniqueFile file(
      CreateFileW(path.c_str(), 0, kShareAll, nullptr, OPEN_EXISTING, kFlags, nullptr));
  FILE_STANDARD_INFO info{};
  if (!file || !GetFileInformationByHandleEx(file.get(), FileStandardInfo, &info, sizeof info)) {
    return std::nullopt;
  }
  return info.AllocationSize.QuadPart;
}

std::optional<std::string> SyncRootIdentity(const std::wstring& path) {
  constexpr std::size_t kMost = 65536;  // more than the library gives
  const auto name = Utf8(path);
  bool found = true;
  auto identity = BytesWritten(kMost, [&](void* buffer) {
    found = found && CORVWinCFGetSyncRootIdentityByPath(name.c_str(), buffer) == 0;
  });
  return found ? std::optional(std::move(identity)) : std::nullopt;
}

}  // namespace nimbractl
