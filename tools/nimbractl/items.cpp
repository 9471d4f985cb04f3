#include "items.h"

#include <windows.h>

#include <new>
#include <utility>

#include "console.h"
#include "identity.h"
#include "owners.h"
#include "platform.h"
#include "results.h"

namespace nimbractl {
namespace {

constexpr std::wstring_view kVerbatim = LR"(\\?\)";

bool IsVerbatim(std::wstring_view path) { return path.starts_with(kVerbatim); }

// Windows takes what follows as it is, of any length.
std::wstring Verbatim(const std::wstring& path) {
  if (IsVerbatim(path)) return path;
  const bool isOnServer = path.starts_with(LR"(\\)");
  return std::wstring(kVerbatim) + (isOnServer ? L"UNC" + path.substr(1) : path);
}

// As the library takes a path: with slashes, as its clients give them, where Windows takes those.
std::string ForLibrary(const std::wstring& path) {
  auto text = Utf8(ForWindows(path));
  if (IsVerbatim(ForWindows(path))) return text;
  for (auto& character : text) {
    if (character == '\\') character = '/';
  }
  return text;
}

// A name that ends so is another one to Windows, unless the path is verbatim.
std::wstring Join(const std::wstring& folder, const std::wstring& name) {
  const auto path = folder.ends_with(L'\\') ? folder + name : folder + L'\\' + name;
  return name.ends_with(L'.') || name.ends_with(L' ') ? Verbatim(path) : path;
}

std::int64_t Size(DWORD high, DWORD low) { return (static_cast<std::int64_t>(high) << 32) | low; }

bool IsFolder(DWORD attributes) { return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }

// Without links and dots; empty if Windows does not tell.
std::wstring FinalPath(const std::wstring& path) {
  constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  const UniqueFile file(CreateFileW(ForWindows(path).c_str(), 0, kShareAll, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  std::wstring text(32768, L'\0');
  text.resize(
      file ? GetFinalPathNameByHandleW(file.get(), text.data(), static_cast<DWORD>(text.size()), 0)
           : 0);
  return text;
}

// A link leads elsewhere. What cloud folders have as a reparse point does not, and Wine does not
// tell which it is.
bool IsLink(const std::wstring& folder, const WIN32_FIND_DATAW& found) {
  constexpr DWORD kNameSurrogate = 0x20000000;
  if ((found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) return false;
  if (found.dwReserved0 != 0) return (found.dwReserved0 & kNameSurrogate) != 0;
  return FinalPath(Join(folder, found.cFileName)) != Join(FinalPath(folder), found.cFileName);
}

Item MakeItem(const std::wstring& folder, const WIN32_FIND_DATAW& found) {
  const bool isFolder = IsFolder(found.dwFileAttributes);
  return {Join(folder, found.cFileName), isFolder, IsLink(folder, found), false,
          isFolder ? 0 : Size(found.nFileSizeHigh, found.nFileSizeLow)};
}

// Calls visit(item) for what a pattern in a folder matches.
template <class Visit>
void List(const std::wstring& folder, const std::wstring& pattern, const Visit& visit) {
  WIN32_FIND_DATAW found{};
  const UniqueSearch search(FindFirstFileExW(ForWindows(Join(folder, pattern)).c_str(),
                                             FindExInfoBasic, &found, FindExSearchNameMatch,
                                             nullptr, FIND_FIRST_EX_LARGE_FETCH));
  DWORD error = GetLastError();
  if (search) {
    do {
      const std::wstring_view name = found.cFileName;
      if (name != L"." && name != L"..") visit(MakeItem(folder, found));
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
  Walk(bool recursive, const Work& work, const OnFailure& onFailure, const OnLink& onLink)
      : recursive_(recursive), work_(work), onFailure_(onFailure), onLink_(onLink) {}

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
    List(folder, pattern, [&](Item item) { found.push_back(std::move(item)); });
    if (found.empty()) {
      throw Failure("nothing matches " + Utf8(Join(folder, pattern)), "check the path");
    }
    for (auto& item : found) {
      item.wasNamed = true;
      Guard(item.Name(), [&] { Visit(item); });
    }
  }

  void Visit(const Item& item) {
    if (item.isLink) {
      ++tally_.skipped;
      if (onLink_) onLink_(item);
      return;
    }
    Guard(item.Name(), [&] { work_(item) == Outcome::kDone ? ++tally_.done : ++tally_.skipped; });
    if (!recursive_ || !item.isFolder) return;
    // Here, so that one that cannot be listed does not end those above it.
    Guard(item.Name(), [&] { List(item.path, L"*", [&](const Item& child) { Visit(child); }); });
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
  const OnLink& onLink_;
  Tally tally_;
};

}  // namespace

std::wstring ForWindows(const std::wstring& path) {
  // What folders may have at most, and files a little more, unless both the manifest and the
  // registry say that long paths are welcome.
  constexpr std::size_t kLong = 248;
  return path.size() < kLong ? path : Verbatim(path);
}

std::wstring AbsolutePath(const std::string& path) {
  const auto given = Wide(path);
  constexpr std::size_t kDriveRoot = 3;  // "C:\"
  auto shortest = kDriveRoot;
  std::wstring full = given;
  if (IsVerbatim(given)) {
    shortest += kVerbatim.size();
  } else {
    full.resize(given.size() + MAX_PATH);
    auto length =
        GetFullPathNameW(given.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    if (length > full.size()) {
      full.resize(length);
      length = GetFullPathNameW(given.c_str(), length, full.data(), nullptr);
    }
    full.resize(length);
  }
  while (full.size() > shortest && full.back() == L'\\') full.pop_back();
  return full;
}

Item FindItem(const std::wstring& path) {
  WIN32_FILE_ATTRIBUTE_DATA found{};
  if (!GetFileAttributesExW(ForWindows(path).c_str(), GetFileExInfoStandard, &found)) {
    const DWORD error = GetLastError();
    throw Failure(Utf8(path) + ": " + ErrorText(error), ResultAdvice(HRESULT_FROM_WIN32(error)));
  }
  const bool isFolder = IsFolder(found.dwFileAttributes);
  return {path, isFolder, false, true,
          isFolder ? 0 : Size(found.nFileSizeHigh, found.nFileSizeLow)};
}

bool OtherProviders::Own(const Item& item) {
  // A file is in the root that its folder is in. Asking is not for nothing.
  const auto folder = item.isFolder ? item.path : item.path.substr(0, item.path.rfind(L'\\') + 1);
  if (folder != folder_) {
    ownFolder_ = nimbra::IsInForeignSyncRoot(Utf8(ForWindows(folder)));
    folder_ = folder;
  }
  if (ownFolder_ && item.wasNamed) {
    const auto identity = SyncRootIdentity(item.path).value_or("");
    throw Failure(item.Name() + " lies in a sync root of another provider" +
                      (!identity.empty() && IsText(identity) ? ", " + identity : ""),
                  "leave it to that provider's own program");
  }
  return ownFolder_;
}

Tally ForEachItem(const std::vector<std::string>& paths, bool recursive, const Work& work,
                  const OnFailure& onFailure, const OnLink& onLink) {
  Walk walk(recursive, work, onFailure, onLink);
  for (const auto& path : paths) walk.Start(path);
  return walk.Result();
}

void PrintFailure(const Failure& failure) {
  Write(Stream::kError,
        std::string("nimbractl: ") + failure.what() + "\n  " + failure.advice + "\n");
}

OpenItem::OpenItem(const Item& item) : name_(item.Name()), item_(ForLibrary(item.path)) {
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
  if (!result && GetFileAttributesW(ForWindows(Wide(name_)).c_str()) == INVALID_FILE_ATTRIBUTES) {
    result = HRESULT_FROM_WIN32(GetLastError());
  }
  if (!result && !FindCloudFilesDll().missing.empty()) {
    result = HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND);
  }
  if (!result) throw Failure(what, "the library gives no reason; try again");
  throw Failure(what + ": " + ResultText(*result), ResultAdvice(*result));
}

std::optional<std::int64_t> BytesOnDisk(const std::wstring& path) {
  constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  constexpr DWORD kFlags =
      FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_OPEN_NO_RECALL;
  const UniqueFile file(
      CreateFileW(ForWindows(path).c_str(), 0, kShareAll, nullptr, OPEN_EXISTING, kFlags, nullptr));
  FILE_STANDARD_INFO info{};
  if (!file || !GetFileInformationByHandleEx(file.get(), FileStandardInfo, &info, sizeof info)) {
    return std::nullopt;
  }
  return info.AllocationSize.QuadPart;
}

std::optional<std::string> SyncRootIdentity(const std::wstring& path) {
  constexpr std::size_t kMost = 65536;  // more than the library gives
  const auto name = Utf8(ForWindows(path));
  bool found = true;
  auto identity = BytesWritten(kMost, [&](void* buffer) {
    found = found && CORVWinCFGetSyncRootIdentityByPath(name.c_str(), buffer) == 0;
  });
  return found ? std::optional(std::move(identity)) : std::nullopt;
}

}  // namespace nimbractl
