#ifndef NIMBRA_NIMBRACTL_ITEMS_H_
#define NIMBRA_NIMBRACTL_ITEMS_H_

// The files and folders that a command works on.

#include <nimbra/nimbra.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "basics.h"
#include "library-log.h"

namespace nimbractl {

struct Item {
  std::wstring path;  // absolute, with backslashes
  bool isFolder = false;
  bool isLink = false;    // it leads elsewhere; only of what was found
  bool wasNamed = false;  // on the command line; else it was found below a folder
  std::int64_t size = 0;

  [[nodiscard]] std::string Name() const { return Utf8(path); }
};

// An absolute path with backslashes, without one at its end. It begins with \\?\ if that was given.
[[nodiscard]] std::wstring AbsolutePath(const std::string& path);

// The same as Windows' functions and the library's wide ones take it, however long it is.
[[nodiscard]] std::wstring ForWindows(const std::wstring& path);

// The item at a path; throws a Failure if there is none.
[[nodiscard]] Item FindItem(const std::wstring& path);

// How far a command came with its items.
struct Tally {
  std::int64_t done = 0;
  std::int64_t skipped = 0;
  std::int64_t failed = 0;
};

enum class Outcome { kDone, kSkipped };

// Does the work for each item that the paths name (the last component may have wildcards) and, if
// that is wanted, for each below the folders among them; a folder comes before what is in it. A
// Failure of one item is printed, handed to `onFailure`, and the next item's turn. Links that were
// not named are skipped, as what they lead to need not lie in the folder; `onLink` gets them.
using Work = std::function<Outcome(const Item&)>;
using OnFailure = std::function<void(const std::string& path, const Failure&)>;
using OnLink = std::function<void(const Item&)>;
Tally ForEachItem(const std::vector<std::string>& paths, bool recursive, const Work& work,
                  const OnFailure& onFailure = {}, const OnLink& onLink = {});

// Whether an item lies in another provider's sync root, where nothing is to be changed. Such an
// item that was named gives a Failure.
class OtherProviders {
 public:
  [[nodiscard]] bool Own(const Item& item);

 private:
  std::wstring folder_;  // the last one that was asked about
  bool ownFolder_ = false;
};

void PrintFailure(const Failure& failure);

// An open placeholder, or ordinary item, of the library.
class OpenItem {
 public:
  // Throws a Failure if it cannot be opened.
  explicit OpenItem(const Item& item);

  [[nodiscard]] CORVWinCFPlaceholderHandle Handle() const { return item_.Get(); }
  [[nodiscard]] bool Is(CORVWinCFStatus (*question)(CORVWinCFPlaceholderHandle)) const {
    return question(Handle()) == 0;
  }
  // Throws a Failure, "<path> <whatFailed>: <why>", if the function gives anything but 0.
  void Do(CORVWinCFStatus (*function)(CORVWinCFPlaceholderHandle),
          const std::string& whatFailed) const;

 private:
  std::string name_;
  nimbra::Placeholder item_;
};

// Bytes that an item takes on the disk; nothing if Windows does not tell.
[[nodiscard]] std::optional<std::int64_t> BytesOnDisk(const std::wstring& path);

// The identity of the sync root that holds a path; nothing outside of every one.
[[nodiscard]] std::optional<std::string> SyncRootIdentity(const std::wstring& path);

}  // namespace nimbractl

#endif
