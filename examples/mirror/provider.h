#ifndef NIMBRA_EXAMPLES_MIRROR_PROVIDER_H_
#define NIMBRA_EXAMPLES_MIRROR_PROVIDER_H_

// Serves a sync root from another folder: what a client of Nimbra does while it is connected.

#include <fcntl.h>
#include <io.h>
#include <nimbra/nimbra.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

namespace mirror {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

inline fs::path Path(std::string_view text) { return std::u8string(text.begin(), text.end()); }
inline std::string Utf8(const fs::path& path) {
  const auto text = path.u8string();
  return {text.begin(), text.end()};
}

inline std::string Number(double value, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}
inline std::string Size(std::int64_t bytes) {
  if (bytes < 1 << 20) return std::to_string(bytes) + " B";
  return Number(static_cast<double>(bytes) / (1 << 20), 1) + " MiB";
}

// A platform result with the system's words for it, where it has any.
inline std::string ResultText(CORVWinCFHresult result) {
  char code[16];
  std::snprintf(code, sizeof code, "(0x%08X", static_cast<unsigned>(result));
  const auto words = std::system_category().message(result & 0xFFFF);
  return code + (words.find("nknown error") == std::string::npos ? ": " + words : "") + ")";
}

// One line for each event, and a summary that stays at the bottom of a terminal.
class Console {
 public:
  void Line(const std::string& text) {
    const std::lock_guard lock(mutex_);
    Show(text + "\n", summary_);
  }
  void Summary(const std::string& text, bool isLast) {
    const std::lock_guard lock(mutex_);
    isTerminal && !isLast ? Show("", text) : Show(text + "\n", "");
  }
  const bool isTerminal = _isatty(_fileno(stdout)) != 0;

 private:
  void Show(const std::string& lines, const std::string& summary) {
    if (!summary_.empty()) std::printf("\r%*s\r", static_cast<int>(summary_.size()), "");
    std::printf("%s%s", lines.c_str(), summary.c_str());
    std::fflush(stdout);
    summary_ = summary;
  }
  std::mutex mutex_;
  std::string summary_;
};

template <class T>
using Owner = std::unique_ptr<T, void (*)(T*)>;  // of a handle and of what gives it back

inline auto NewSyncRoot(const fs::path& root, std::uint64_t session) {
  CORVWinCFSyncRootHandle handle = nullptr;
  if (CORVWinCFSyncRootNew(&handle, Utf8(root).c_str(), session) != 0) throw std::bad_alloc();
  return Owner<CORVWinCFSyncRootHandleRecord>(handle,
                                              [](auto* it) { CORVWinCFSyncRootRelease(&it); });
}

// A placeholder's name is what follows the last "/" of its path.
inline auto NewPlaceholder(const fs::path& path) {
  CORVWinCFPlaceholderHandle handle = nullptr;
  const auto name = Utf8(path.generic_wstring());
  if (CORVWinCFPlaceholderNew(&handle, name.c_str()) != 0) throw std::bad_alloc();
  return Owner<CORVWinCFPlaceholderHandleRecord>(handle, CORVWinCFPlaceholderRelease);
}

// All that lies below a folder, folders before their contents; links are not followed.
inline void Walk(const fs::path& top, const auto& visit) {
  for (fs::recursive_directory_iterator at(top), end; at != end; ++at) {
    WIN32_FILE_ATTRIBUTE_DATA found{};
    if (!GetFileAttributesExW(at->path().c_str(), GetFileExInfoStandard, &found)) continue;
    if (found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) at.disable_recursion_pending();
    visit(at->path(), found);
  }
}

class Provider {
 public:
  // `bytesPerSecond` is for each transfer; 0: as fast as it goes.
  Provider(fs::path source, fs::path root, std::uint64_t session, double bytesPerSecond,
           Console& console)
      : source_(std::move(source)),
        root_(std::move(root)),
        rate_(bytesPerSecond),
        console_(console),
        syncRoot_(NewSyncRoot(root_, session)) {}
  ~Provider() { Disconnect(); }

  [[nodiscard]] CORVWinCFHresult Register() {
    return CORVWinCFSyncRootRegister(syncRoot_.get(), Utf8(source_.filename()).c_str());
  }

  [[nodiscard]] CORVWinCFHresult Connect() {
    CORVWinCFCallbackDelegatorHandle handle = nullptr;
    if (CORVWinCFCallbackDelegatorNew(&handle, this) != 0) throw std::bad_alloc();
    delegator_.reset(handle);
    CORVWinCFCallbackDelegatorSetFetchCallback(handle, [](auto* r) { Of(*r).OnFetch(*r); });
    CORVWinCFCallbackDelegatorSetFetchCancelCallback(handle, [](auto* r) { Of(*r).OnCancel(*r); });
    CORVWinCFCallbackDelegatorSetRenameCallback(handle, [](auto* r) { Of(*r).OnRename(*r); });
    CORVWinCFCallbackDelegatorSetDeleteCallback(handle, [](auto* r) { Of(*r).OnDelete(*r); });
    const auto result = CORVWinCFSyncRootConnect(syncRoot_.get(), handle);
    connected_ = result >= 0;
    return result;
  }

  // Creates what the sync root does not have yet.
  void Populate(const std::atomic<bool>& stop) {
    Walk(source_, [&](const fs::path& path, const auto& found) {
      if (!stop) Add(Utf8(path.lexically_relative(source_).generic_wstring()), found);
    });
  }

  // Fetches that are still open are answered as aborted, so that nobody is left waiting.
  void Disconnect() {
    if (!std::exchange(connected_, false)) return;
    stopping_ = true;
    WaitForFetches();
    const auto result = CORVWinCFSyncRootDisconnect(syncRoot_.get());
    WaitForFetches();  // of callbacks that were still on their way
    if (result < 0) console_.Line("cannot disconnect " + ResultText(result));
  }

  [[nodiscard]] std::string Summary() {
    const std::lock_guard lock(mutex_);
    std::int64_t size = 0, onDisk = 0;
    for (const auto& [identity, item] : items_) size += item.size, onDisk += item.onDisk;
    const auto now = Clock::now();
    const Seconds time = now - std::exchange(lastSummary_, now);
    const auto megabytes = static_cast<double>(sent_ - std::exchange(sentBefore_, sent_)) / 1e6;
    return std::to_string(items_.size()) + " items, " + Size(onDisk) + " of " + Size(size) +
           " on disk, " + std::to_string(fetchCount_) + " fetches (" +
           std::to_string(fetches_.size()) + " open, " + std::to_string(failures_) + " failed), " +
           Number(megabytes / std::max(time.count(), 1e-3), 1) + " MB/s";
  }

 private:
  struct Item {
    std::int64_t size, onDisk;
  };
  struct Fetch {
    explicit Fetch(const CORVWinCFCallbackRecord& r)
        : key(r.transferKey),
          offset(r.parameters[0]),
          length(r.parameters[1]),
          identity(r.fileIdentity),
          fullPath(r.fullPath),
          program(r.imagePath) {}

    const std::int64_t key, offset, length;
    const std::string identity, fullPath, program;
    std::atomic<bool> isCancelled = false;
  };
  struct Stop {
    std::string why;
    std::optional<std::uint32_t> answer = CORVWinCFTransferUnsuccessful;  // none: nothing is owed
  };

  static Provider& Of(const CORVWinCFCallbackRecord& r) {
    return *static_cast<Provider*>(r.context);
  }

  void WaitForFetches() {
    std::unique_lock lock(mutex_);
    served_.wait(lock, [this] { return fetches_.empty(); });
  }

  // A callback holds up a program, and its record is gone when it returns: copy what is needed,
  // leave the rest to another thread, return.
  void OnFetch(const CORVWinCFCallbackRecord& r) noexcept try {
    std::list<std::shared_ptr<Fetch>> fetch{std::make_shared<Fetch>(r)};
    const std::lock_guard lock(mutex_);
    std::thread([this, copy = fetch.front()] { Serve(*copy); }).detach();
    fetches_.splice(fetches_.end(), fetch);
    ++fetchCount_;
  } catch (const std::exception&) {
    Fail(r.transferKey, r.parameters[0], r.parameters[1], CORVWinCFTransferUnsuccessful);
  }

  // The program that waits for the range is told at once that it will not come.
  void Fail(std::int64_t key, std::int64_t offset, std::int64_t length, std::uint32_t status) {
    CORVWinCFSyncRootTransferData(syncRoot_.get(), key, 0, nullptr, offset, length, status);
    ++failures_;
  }

  // Callbacks come in no order. Only the oldest fetch that matches is stopped: a newer one may be a
  // new request, and if it is not, its next transfer is refused.
  void OnCancel(const CORVWinCFCallbackRecord& r) noexcept {
    const std::lock_guard lock(mutex_);
    const auto begin = r.parameters[0], end = begin + r.parameters[1];
    const auto at = std::find_if(fetches_.begin(), fetches_.end(), [&](const auto& fetch) {
      return fetch->key == r.transferKey && !fetch->isCancelled && fetch->offset < end &&
             begin < fetch->offset + fetch->length;
    });
    if (at != fetches_.end()) (*at)->isCancelled = true;
  }

  void OnRename(const CORVWinCFCallbackRecord& r) noexcept try {
    CORVWinCFSyncRootAckRename(syncRoot_.get(), r.transferKey);
    const auto target = r.targetPath != nullptr ? Local(r.targetPath) : "out of the sync root";
    console_.Line("renamed " + Local(r.fullPath) + " -> " + target);
    if (r.targetPath == nullptr) Forget(r.fileIdentity);
  } catch (const std::exception&) {  // only the console and the map are behind
  }

  void OnDelete(const CORVWinCFCallbackRecord& r) noexcept try {
    CORVWinCFSyncRootAckDelete(syncRoot_.get(), r.transferKey, 0, CORVWinCFTransferSucceeded);
    console_.Line("deleted " + Local(r.fullPath));
    Forget(r.fileIdentity);
  } catch (const std::exception&) {
  }

  void Forget(const std::string& identity) {
    const std::lock_guard lock(mutex_);
    std::erase_if(items_, [&](const auto& item) {
      return item.first == identity || item.first.starts_with(identity + "/");
    });
  }

  // The system may spell the sync root with other capitals than we do, but no longer or shorter.
  [[nodiscard]] std::string Local(const std::string& fullPath) const {
    const auto path = Path(fullPath).generic_wstring();
    return Utf8(path.substr(std::min(path.size(), root_.native().size() + 1)));
  }

  void Add(const std::string& name, const WIN32_FILE_ATTRIBUTE_DATA& source) {
    const auto path = root_ / Path(name);
    const bool isFolder = source.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY;
    const bool isNew = !fs::exists(path);
    if (isNew && !Create(path, name, source)) {
      return console_.Line("skipped " + name + ": no placeholder (the debugger output says why)");
    }
    const auto size = isFolder ? 0 : static_cast<std::int64_t>(fs::file_size(path));
    const bool isOnDisk = !isNew && CORVWinCFIsFullyHydratedW(path.c_str()) == 0;
    const std::lock_guard lock(mutex_);
    items_[name] = {size, isOnDisk ? size : 0};
  }

  static bool Create(const fs::path& path, const std::string& name,
                     const WIN32_FILE_ATTRIBUTE_DATA& source) {
    const auto join = [](std::int64_t high, DWORD low) { return (high << 32) | low; };
    const auto unixTime = [&](FILETIME time) {
      return join(time.dwHighDateTime, time.dwLowDateTime) / 10'000'000 - 11'644'473'600;
    };
    const auto written = unixTime(source.ftLastWriteTime);
    const bool isFolder = source.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY;
    const auto size = isFolder ? 0 : join(source.nFileSizeHigh, source.nFileSizeLow);
    const Owner<__tag_PlaceholderMetaWrap> metadata(
        CORVWinCFPlaceholderMetaNew(unixTime(source.ftLastAccessTime), written,
                                    unixTime(source.ftCreationTime), written, size, isFolder),
        CORVWinCFPlaceholderMetaRelease);
    const auto placeholder = NewPlaceholder(path);
    return CORVWinCFPlaceholderCreate(placeholder.get(), name.c_str(), metadata.get()) == 0;
  }

  void Serve(const Fetch& fetch) noexcept {
    try {
      Serve(fetch, Local(fetch.fullPath));
    } catch (const std::exception&) {  // out of memory
      Fail(fetch.key, fetch.offset, fetch.length, CORVWinCFTransferUnsuccessful);
    }
    const std::lock_guard lock(mutex_);
    fetches_.remove_if([&](const auto& other) { return other.get() == &fetch; });
    served_.notify_all();
  }

  void Serve(const Fetch& fetch, const std::string& name) try {
    const auto start = Clock::now();
    console_.Line("fetch   " + name + "  " + Size(fetch.length) + " at " + Size(fetch.offset) +
                  " for " + Utf8(Path(fetch.program).filename()));
    Send(fetch);
    console_.Line("sent    " + name + "  in " + Number(Seconds(Clock::now() - start).count(), 3) +
                  " s");
  } catch (const Stop& stop) {
    console_.Line((stop.answer ? "failed  " : "stopped ") + name + ": " + stop.why);
    if (stop.answer) Fail(fetch.key, fetch.offset, fetch.length, *stop.answer);
  }

  void Send(const Fetch& fetch) {
    const auto path = source_ / Path(fetch.identity);
    std::error_code error;
    const auto size = static_cast<std::int64_t>(fs::file_size(path, error));
    std::ifstream file(path, std::ios::binary);
    if (error || !file) throw Stop{"cannot open its source (" + error.message() + ")"};
    if (fs::file_size(Path(fetch.fullPath), error) != static_cast<std::uintmax_t>(size)) {
      throw Stop{"its source has changed its size; delete it here and start again"};
    }
    Account(fetch, 0, fetch.length);
    SendPieces(fetch, file.seekg(fetch.offset), std::min(fetch.offset + fetch.length, size));
  }

  // Every piece but the last of a file begins and ends at a multiple of 4096: the system insists.
  void SendPieces(const Fetch& fetch, std::istream& file, std::int64_t end) {
    constexpr std::int64_t kPage = 4096, kPiece = 4 << 20;
    const auto tenth = static_cast<std::int64_t>(rate_ / 10) / kPage * kPage;
    const auto piece = rate_ > 0 ? std::clamp(tenth, kPage, kPiece) : kPiece;
    const auto room = static_cast<std::size_t>(std::min(piece, end - fetch.offset));
    const auto buffer = std::make_unique_for_overwrite<char[]>(room);
    const auto start = Clock::now();
    auto reported = start;
    for (auto offset = fetch.offset; offset < end; offset += piece) {
      const auto length = std::min(piece, end - offset), done = offset + length - fetch.offset;
      const Seconds due(rate_ > 0 ? static_cast<double>(done) / rate_ : 0);
      while (Clock::now() - start < due && !fetch.isCancelled && !stopping_) Sleep(10);
      if (fetch.isCancelled) throw Stop{"cancelled", std::nullopt};
      if (stopping_) throw Stop{"mirror is stopping", CORVWinCFTransferAborted};
      if (!file.read(buffer.get(), length)) throw Stop{"its source cannot be read to the end"};
      HandOver(fetch, buffer.get(), offset, length);
      Account(fetch, length, end - offset - length);
      // Seldom, as a report costs time, and never the total, which would end the request.
      if (offset + length == end || Clock::now() - reported < Seconds(0.1)) continue;
      reported = Clock::now();
      CORVWinCFSyncRootReportTransferProgress(syncRoot_.get(), fetch.key, end - fetch.offset, done);
    }
  }

  void HandOver(const Fetch& fetch, const char* data, std::int64_t offset, std::int64_t length) {
    constexpr auto kDiskFull = static_cast<CORVWinCFHresult>(0x80070070);
    constexpr auto kCancelled = static_cast<CORVWinCFHresult>(0x8007018E);
    const auto result = CORVWinCFSyncRootTransferData(syncRoot_.get(), fetch.key, 0, data, offset,
                                                      length, CORVWinCFTransferSucceeded);
    if (result == kCancelled) throw Stop{"cancelled", std::nullopt};
    if (result == kDiskFull) throw Stop{"the disk is full; make room", CORVWinCFTransferDiskFull};
    if (result < 0) throw Stop{"the system refused its data " + ResultText(result)};
  }

  // `missing` is known not to be on disk, whatever was thought before.
  void Account(const Fetch& fetch, std::int64_t sent, std::int64_t missing) {
    const std::lock_guard lock(mutex_);
    sent_ += sent;
    const auto at = items_.find(fetch.identity);
    if (at == items_.end()) return;
    auto& item = at->second;
    item.onDisk = std::clamp<std::int64_t>(item.size - missing, 0, item.onDisk + sent);
  }

  const fs::path source_, root_;
  const double rate_;
  Console& console_;
  const Owner<CORVWinCFSyncRootHandleRecord> syncRoot_;
  Owner<CORVWinCFCallbackDelegatorHandleRecord> delegator_{nullptr,
                                                           CORVWinCFCallbackDelegatorRelease};
  bool connected_ = false;
  std::atomic<bool> stopping_ = false;
  std::atomic<long long> failures_ = 0;
  std::mutex mutex_;  // guards what follows
  std::condition_variable served_;
  std::map<std::string, Item> items_;  // by identity, which no rename changes
  std::list<std::shared_ptr<Fetch>> fetches_;
  Clock::time_point lastSummary_ = Clock::now();
  long long fetchCount_ = 0, sent_ = 0, sentBefore_ = 0;
};

}  // namespace mirror

#endif  // NIMBRA_EXAMPLES_MIRROR_PROVIDER_H_
