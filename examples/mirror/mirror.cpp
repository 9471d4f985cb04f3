// mirror: shows a folder as files that take no room until a program opens them.

#include <io.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "basics.h"
#include "explorer.h"
#include "thumbnails.h"

namespace mirror {
namespace {

using Clock = std::chrono::steady_clock;
using nimbra::TransferStatus;
using Seconds = std::chrono::duration<double>;

constexpr char kHelp[] = R"(
  mirror [options] <source folder> <sync root>   show the source's files in the sync root
  mirror <action> <file or folder>               act on what lies in a sync root, and exit
  --session N        the root's number, 0 to 2147483647 (default 1)
  --rate N           slow each transfer down to N megabytes a second
  --explorer         show the root in Explorer's navigation pane, and thumbnails of its pictures
  --stop-file PATH   stop as soon as this file exists; without it, serve until Ctrl+C
  --state            show for every item what is on disk, pinned, in sync, and its identity
  --hydrate-all      fetch all of it now
  --dehydrate        give the room back
  --pin, --unpin     keep on this device, or no longer
  --no-explorer      take the sync root out of Explorer's navigation pane
  --unregister       that too, and make it a normal folder; what is not on disk disappears

  mirror --session 7 --explorer C:\Photos C:\Cloud
  mirror --hydrate-all C:\Cloud\2024

The source is only read: what is renamed or deleted in the sync root is back at the next start.)";

Failure Usage(const std::string& what) { return {what, "mirror --help shows how to use it", 2}; }

template <class Owner>  // of a handle, empty where there was no memory for one
Owner NotEmpty(Owner owner) {
  if (!owner) throw std::bad_alloc();
  return owner;
}

auto NewSyncRoot(const fs::path& root, std::uint64_t session) {
  return NotEmpty(nimbra::SyncRoot(Utf8(root), session));
}

// A placeholder's name is what follows the last "/" of its path.
auto NewPlaceholder(const fs::path& path) {
  return NotEmpty(nimbra::Placeholder(Utf8(path.generic_wstring())));
}

// All that lies below a folder, folders before their contents; links are not followed.
void Walk(const fs::path& top, const auto& visit) {
  for (fs::recursive_directory_iterator at(top), end; at != end; ++at) {
    WIN32_FILE_ATTRIBUTE_DATA found{};
    if (!GetFileAttributesExW(at->path().c_str(), GetFileExInfoStandard, &found)) continue;
    if (found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) at.disable_recursion_pending();
    visit(at->path(), found);
  }
}

// Serves a sync root from another folder: what a client of Nimbra does while it is connected.
class Provider {
 public:
  // Connects the sync root. `rate` is in bytes a second, for each transfer; 0: as fast as it goes.
  Provider(fs::path source, const fs::path& root, std::uint64_t number, double rate)
      : source_(std::move(source)), root_(root), rate_(rate), syncRoot_(NewSyncRoot(root, number)) {
    const bool isSet = delegator_.OnFetch<&Provider::OnFetch, &Provider::syncRoot_>() &&
                       delegator_.OnFetchCancel<&Provider::OnCancel>() &&
                       delegator_.OnRename<&Provider::OnRename>() &&
                       delegator_.OnDelete<&Provider::OnDelete, &Provider::syncRoot_>();
    if (!isSet) throw std::bad_alloc();
    connection_ = syncRoot_.Connect(delegator_);
    Require(connection_.GetResult(), "cannot connect " + Utf8(root));
  }

  // Fetches that are still open are answered as aborted, so that nobody is left waiting.
  ~Provider() {
    isStopping_ = true;
    std::unique_lock lock(mutex_);
    auto fetches = std::exchange(fetches_, {});
    lock.unlock();
    fetches.clear();  // asks their threads to stop and waits for them
    static_cast<void>(connection_.Disconnect());
  }

  // Creates the placeholder of an item of the source, if the sync root does not have it yet.
  void Add(const fs::path& source, const WIN32_FILE_ATTRIBUTE_DATA& found) {
    const auto join = [](std::int64_t high, DWORD low) { return (high << 32) | low; };
    const auto unixTime = [&](FILETIME time) {
      return join(time.dwHighDateTime, time.dwLowDateTime) / 10'000'000 - 11'644'473'600;
    };
    const auto written = unixTime(found.ftLastWriteTime);
    const bool isFolder = found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY;
    const auto size = isFolder ? 0 : join(found.nFileSizeHigh, found.nFileSizeLow);
    const nimbra::PlaceholderMetadata metadata({.lastAccessTime = unixTime(found.ftLastAccessTime),
                                                .changeTime = written,
                                                .creationTime = unixTime(found.ftCreationTime),
                                                .lastWriteTime = written,
                                                .fileSize = size,
                                                .isFolder = isFolder});
    const auto name = source.lexically_relative(source_), path = root_ / name;
    const auto identity = Utf8(name.generic_wstring());
    auto item = NewPlaceholder(path);
    const bool isNew = !fs::exists(path);
    if (isNew && !item.Create(identity, metadata)) {
      return Print("skipped " + identity + ": no placeholder (the debugger output says why)");
    }
    const bool isOnDisk = !isNew && nimbra::IsFullyHydrated(path.native());
    const std::lock_guard lock(mutex_);
    missing_[identity] = isOnDisk ? 0 : size;
    size_ += static_cast<double>(size);
  }

  std::string Summary() {
    const std::lock_guard lock(mutex_);
    double onDisk = size_;
    for (const auto& [identity, bytes] : missing_) onDisk -= static_cast<double>(bytes);
    const auto before = std::exchange(lastSummary_, Clock::now());
    const auto speed = std::exchange(sent_, 0) / Seconds(lastSummary_ - before).count();
    char text[200];
    std::snprintf(text, sizeof text, "%zu items, %.1f of %.1f MB on disk, %d fetches, %.1f MB/s",
                  missing_.size(), onDisk / 1e6, size_ / 1e6, fetchCount_, speed / 1e6);
    return text;
  }

 private:
  struct Fetch {
    std::int64_t key, offset, length;
    std::string identity, name, program;
    std::atomic<bool> isDone = false;
    std::jthread thread = {};  // is asked to stop when nobody wants the range any more
  };
  struct Stop {
    std::string why;
    std::optional<TransferStatus> answer = TransferStatus::kUnsuccessful;  // none: nothing is owed
  };

  // A callback holds up a program, and its record is gone when it returns: copy what is needed,
  // leave the rest to another thread, return. An exception fails the fetch.
  void OnFetch(const nimbra::CallbackRecord& r) {
    std::unique_ptr<Fetch> fetch(new Fetch{r.transferKey, r.parameters[0], r.parameters[1],
                                           r.fileIdentity, Local(r.fullPath), r.imagePath});
    const std::lock_guard lock(mutex_);
    std::erase_if(fetches_, [](const auto& other) { return other->isDone.load(); });
    auto& added = *fetches_.emplace_back(std::move(fetch));
    added.thread = std::jthread([this, &added](const std::stop_token& stop) {
      Serve(added, stop);
      added.isDone = true;
    });
    ++fetchCount_;
  }

  // Callbacks come in no order. Only the oldest fetch that matches is stopped: a newer one may be a
  // new request, and if it is not, its next transfer is refused.
  void OnCancel(const nimbra::CallbackRecord& r) {
    const std::lock_guard lock(mutex_);
    const auto begin = r.parameters[0], end = begin + r.parameters[1];
    for (const auto& fetch : fetches_) {
      const bool matches = fetch->key == r.transferKey && fetch->offset < end &&
                           begin < fetch->offset + fetch->length && !fetch->isDone;
      if (matches && fetch->thread.request_stop()) return;  // it had not been asked before
    }
  }

  void OnRename(const nimbra::CallbackRecord& r) {
    static_cast<void>(syncRoot_.AcknowledgeRename(r.transferKey));
    const auto target = r.targetPath != nullptr ? Local(r.targetPath) : "out of the sync root";
    Print("renamed " + Local(r.fullPath) + " -> " + target);
  }

  void OnDelete(const nimbra::CallbackRecord& r) {
    static_cast<void>(syncRoot_.AcknowledgeDelete(r.transferKey));
    Print("deleted " + Local(r.fullPath));
  }

  // The system may spell the sync root with other capitals than we do, but no longer or shorter.
  std::string Local(const std::string& fullPath) const {
    const auto path = Path(fullPath).generic_wstring();
    return Utf8(path.substr(std::min(path.size(), root_.native().size() + 1)));
  }

  void Serve(const Fetch& fetch, const std::stop_token& stop) noexcept try {
    Print("fetch   " + fetch.name + "  " + std::to_string(fetch.length) + " bytes at " +
          std::to_string(fetch.offset) + " for " + Utf8(Path(fetch.program).filename()));
    Send(fetch, stop);
    Print("sent    " + fetch.name);
  } catch (const Stop& end) {
    if (end.answer) Fail(fetch, *end.answer);
    Print((end.answer ? "failed  " : "stopped ") + fetch.name + ": " + end.why);
  } catch (const std::exception&) {  // out of memory
    Fail(fetch, TransferStatus::kUnsuccessful);
  }

  // The program that waits for the range is told at once that it will not come.
  void Fail(const Fetch& fetch, TransferStatus status) noexcept {
    static_cast<void>(syncRoot_.FailTransfer(fetch.key, fetch.offset, fetch.length, status));
  }

  // Every piece but the last of a file begins and ends at a multiple of 4096: the system insists.
  void Send(const Fetch& fetch, const std::stop_token& stop) {
    constexpr std::int64_t kPage = 4096, kPiece = 4 << 20;
    const auto tenth = static_cast<std::int64_t>(rate_ / 10) / kPage * kPage;
    const auto piece = rate_ > 0 ? std::clamp(tenth, kPage, kPiece) : kPiece;
    const auto buffer = std::make_unique_for_overwrite<char[]>(static_cast<std::size_t>(piece));
    std::ifstream file(source_ / Path(fetch.identity), std::ios::binary | std::ios::ate);
    if (!file) throw Stop{"cannot open its source; is it still there?"};
    const std::int64_t size = file.tellg();
    if (fs::file_size(root_ / Path(fetch.name)) != static_cast<std::uintmax_t>(size)) {
      throw Stop{"its source has changed its size; delete it here and start again"};
    }
    file.seekg(fetch.offset);
    const auto total = std::min(fetch.length, size - fetch.offset);
    const auto start = Clock::now();
    auto reported = start;
    for (std::int64_t done = 0; done < total;) {
      const auto offset = fetch.offset + done, length = std::min(piece, total - done);
      done += length;
      Wait(start + Seconds(rate_ > 0 ? static_cast<double>(done) / rate_ : 0), stop);
      if (!file.read(buffer.get(), length)) throw Stop{"its source cannot be read to the end"};
      HandOver(fetch, buffer.get(), offset, length);
      // Seldom, as a report costs time, and never the total, which would end the request.
      if (done == total || Clock::now() - reported < Seconds(0.1)) continue;
      reported = Clock::now();
      static_cast<void>(syncRoot_.ReportProgress(fetch.key, total, done));
    }
  }

  void Wait(const auto& due, const std::stop_token& stop) const {
    while (Clock::now() < due && !stop.stop_requested() && !isStopping_) Sleep(10);
    if (isStopping_) throw Stop{"mirror is stopping", TransferStatus::kAborted};
    if (stop.stop_requested()) throw Stop{"cancelled", std::nullopt};
  }

  void HandOver(const Fetch& fetch, const char* data, std::int64_t offset, std::int64_t length) {
    constexpr auto kDiskFull = static_cast<CORVWinCFHresult>(0x80070070);
    const auto result =
        syncRoot_.TransferData(fetch.key, offset, {data, static_cast<std::size_t>(length)});
    if (result.IsCancelled()) throw Stop{"cancelled", std::nullopt};
    if (result.Code() == kDiskFull) {
      throw Stop{"the disk is full; make room", TransferStatus::kDiskFull};
    }
    if (!result) throw Stop{"the system refused its data" + ResultText(result)};
    const std::lock_guard lock(mutex_);
    sent_ += static_cast<double>(length);
    auto& missing = missing_[fetch.identity];  // the rest of the range, at least
    missing = std::max(missing - length, fetch.offset + fetch.length - offset - length);
  }

  const fs::path source_, root_;
  const double rate_;
  nimbra::SyncRoot syncRoot_;
  nimbra::CallbackDelegator<Provider> delegator_{*this};
  std::atomic<bool> isStopping_ = false;
  std::mutex mutex_;                             // guards what follows
  std::map<std::string, std::int64_t> missing_;  // bytes not on disk by identity, which stays
  double size_ = 0, sent_ = 0;                   // bytes: of all, and since the last summary
  Clock::time_point lastSummary_ = Clock::now();
  int fetchCount_ = 0;
  std::vector<std::unique_ptr<Fetch>> fetches_;  // after what it uses: waits for those still there
  nimbra::Connection connection_;                // the last, as callbacks use all else
};

// Without its manifest a program is told that Windows is an older one; the registry knows better.
void RequirePlatform() {
  const auto info = nimbra::GetPlatformInfo();
  if (info && info->buildNumber != 0) return;
  const auto advice = "cldapi.dll is missing, or the cloud filter is not running: start it first";
  if (info) throw Failure("the Cloud Files platform does not answer", advice);
  wchar_t build[16] = L"";
  DWORD size = sizeof build;
  RegGetValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion",
               L"CurrentBuildNumber", RRF_RT_REG_SZ, nullptr, build, &size);
  throw Failure("this is Windows build " + Utf8(build) + ", and Nimbra takes it for too old",
                "you need Windows 10, version 1803, and mirror.exe its supportedOS manifest");
}

// Empty outside every sync root.
std::string RootIdentity(const fs::path& path) {
  return nimbra::GetSyncRootIdentity(Utf8(path)).value_or("");
}

// Only a file that is not empty has data to fetch or to drop.
template <auto kMethod, bool kIsForData = false>
bool Do(const fs::path& path) {
  if (kIsForData && (fs::is_directory(path) || fs::file_size(path) == 0)) return true;
  auto item = NewPlaceholder(path);
  return item.Open() && (item.*kMethod)();
}

bool PrintState(const fs::path& path) {
  auto item = NewPlaceholder(path);
  if (!item.Open()) return false;
  std::string line;
  for (const bool answer : {item.IsPlaceholder(), item.IsFullyHydrated(), item.IsPinned(),
                            item.IsExcluded(), item.IsInSync()}) {
    line += answer ? "yes          " : "no           ";
  }
  Print(line + Utf8(path) + " = " + item.GetIdentity());
  return true;
}

bool Unregister(const fs::path& root) {
  const auto identity = RootIdentity(root);
  const auto session = std::strtoull(&identity[identity.rfind('.') + 1], nullptr, 10);
  const auto result = NewSyncRoot(root, session).Unregister();
  if (RootIdentity(root).empty()) HideFromExplorer(root);
  Require(result, "cannot unregister " + Utf8(root));
  return true;
}

struct Action {
  bool (*run)(const fs::path& path);
  bool goesDown;       // to every item below; for the others the platform does
  const char* advice;  // when it fails
  bool isForRoots = true;
};
const std::map<std::string, Action> kActions{
    {"--state", {PrintState, true, "it cannot be opened"}},
    {"--hydrate-all", {Do<&nimbra::Placeholder::Hydrate, true>, true, "is it being served?"}},
    {"--dehydrate", {Do<&nimbra::Placeholder::Dehydrate, true>, true, "it is pinned or in use"}},
    {"--pin", {Do<&nimbra::Placeholder::Pin>, false, "the system refused it"}},
    {"--unpin", {Do<&nimbra::Placeholder::ForceUnpin>, false, "the system refused it"}},
    {"--no-explorer", {HideFromExplorer, false, "mirror has made no entry for it", false}},
    {"--unregister", {Unregister, false, ""}}};

// What is done to a sync root from outside the program that serves it.
int Act(const std::string& name, const fs::path& top) {
  const auto advice = "serve it once with mirror <source folder> <sync root>";
  const auto& action = kActions.at(name);
  if (action.isForRoots && RootIdentity(top).empty()) {
    throw Failure(Utf8(top) + " lies in no sync root", advice);
  }
  int done = 0, failed = 0;
  const auto visit = [&](const fs::path& path, const auto&...) {
    if (action.run(path)) return void(++done);
    ++failed;
    Print("failed  " + Utf8(path) + ": " + action.advice);
  };
  if (name == "--state") {
    Print("placeholder  on disk      pinned       excluded     in sync      path = identity");
  }
  (action.goesDown && fs::is_directory(top)) ? Walk(top, visit) : visit(top);
  const auto counts = std::to_string(done) + " done, " + std::to_string(failed) + " failed";
  Print(name.substr(2) + ": " + counts);
  return failed == 0 ? 0 : 1;
}

void RequireSyncRoot(const fs::path& source, const fs::path& root, std::uint64_t session) {
  for (const auto& [folder, other] : {std::pair{source, root}, std::pair{root, source}}) {
    const bool isInside = Utf8(folder / "").starts_with(Utf8(other / ""));
    if (!fs::is_directory(folder)) throw Failure("there is no folder " + Utf8(folder), "create it");
    if (isInside) throw Failure(Utf8(folder) + " lies in " + Utf8(other), "choose two apart");
  }
  const auto identity = RootIdentity(root);
  if (identity.ends_with(".session." + std::to_string(session))) return;  // by an earlier run
  const auto advice = "give that number with --session, or --unregister it first";
  if (!identity.empty()) throw Failure(Utf8(root) + " is registered as " + identity, advice);
  const auto name = Utf8(source.filename());  // which the shell shows
  const auto result = NewSyncRoot(root, session).Register(name);
  Require(result, "cannot register " + Utf8(root));
}

std::atomic<bool> stopRequested = false;
BOOL WINAPI OnConsoleEvent(DWORD event) {
  stopRequested = true;
  // Of the other events Windows gives notice only: it ends the program once this returns.
  if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) Sleep(INFINITE);
  return TRUE;
}

using Options = std::map<std::string, std::string>;
double NumberOf(const Options& options, const std::string& name, int most) {
  const auto& text = options.at(name);
  char* end = nullptr;
  const double number = std::strtod(text.c_str(), &end);
  if (!text.empty() && *end == 0 && number >= 0 && number <= most) return number;
  throw Usage(name + " takes a number from 0 to " + std::to_string(most));
}

void Serve(const Options& options, const fs::path& source, const fs::path& root) {
  const auto session = static_cast<unsigned>(NumberOf(options, "--session", 2147483647));
  const auto rate = NumberOf(options, "--rate", 1'000'000) * 1e6;
  RequireSyncRoot(source, root, session);
  Provider provider(source, root, session, rate);
  SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
  Walk(source, [&](const auto&... item) { stopRequested ? void() : provider.Add(item...); });
  std::optional<Thumbnails> thumbnails;
  if (!options.at("--explorer").empty()) {
    ShowInExplorer(source, root);
    thumbnails.emplace(source, root);
  }
  Print("mirror: ready");
  const bool isTerminal = _isatty(_fileno(stdout)) != 0;
  const auto stopFile = Path(options.at("--stop-file"));
  for (int round = 0; !stopRequested && !fs::exists(stopFile); ++round, Sleep(50)) {
    if (round % (isTerminal ? 4 : 100) == 0) Print(provider.Summary(), !isTerminal);
  }
  Print(provider.Summary());
}

int Run(const std::vector<fs::path>& arguments) {
  Options options{{"--session", "1"}, {"--rate", "0"}, {"--stop-file", ""}, {"--explorer", ""}};
  std::string action;
  std::vector<fs::path> paths;
  for (auto at = arguments.begin(); at != arguments.end(); ++at) {
    const auto text = Utf8(*at);
    if (text == "--explorer") {
      options[text] = "yes";
    } else if (const auto option = options.find(text); option != options.end()) {
      if (++at == arguments.end()) throw Usage(text + " needs a value");
      option->second = Utf8(*at);
    } else if (!text.starts_with("--")) {
      const auto path = fs::absolute(*at).lexically_normal().make_preferred();
      paths.push_back(path.has_filename() ? path : path.parent_path());
    } else if (text == "--help") {
      return Print(kHelp), 0;
    } else if (!kActions.contains(text) || !action.empty()) {
      throw Usage((action.empty() ? "unknown option " : "not one action, but also ") + text);
    } else {
      action = text;
    }
  }
  const auto needed = action.empty() ? "two folders are needed: the source and the sync root"
                                     : action + " needs one file or folder";
  if (paths.size() != (action.empty() ? 2 : 1)) throw Usage(needed);
  RequirePlatform();
  if (!action.empty()) return Act(action, paths[0]);
  Serve(options, paths[0], paths[1]);
  return Print("mirror: stopped"), 0;
}

}  // namespace
}  // namespace mirror

int wmain(int count, wchar_t** texts) try {
  SetConsoleOutputCP(CP_UTF8);
  std::setvbuf(stdout, nullptr, _IOFBF, 1 << 16);  // no character of several bytes is cut in two
  return mirror::Run({texts + 1, texts + count});
} catch (const mirror::Failure& failure) {
  std::fprintf(stderr, "mirror: %s\n", failure.what());
  return failure.code;
} catch (const std::exception& error) {  // of the file system, which names the path
  std::fprintf(stderr, "mirror: %s\n  check that it is there and may be read\n", error.what());
  return 1;
}
