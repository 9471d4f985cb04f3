#ifndef NIMBRA_NIMBRA_HPP_
#define NIMBRA_NIMBRA_HPP_

/*
 * Nimbra for C++17 and later: the functions of nimbra.h with owners, text views and results as
 * values. Header only; everything here is a call or two of that interface, and what is said there
 * (the gate and the host's manifest, what a function does, what it leaves behind) holds here too.
 *
 * Conventions that hold for everything here:
 *
 *  1. Owners (SyncRoot, CallbackDelegator, Connection, Placeholder, PlaceholderMetadata) can be
 *     moved but not copied. Each gives back what it holds when it ends, exactly once. One that
 * could not be made is empty, and so is one that was moved from: `if (owner)` tells, and what is
 * asked of an empty one fails as a null handle does. Get() lends the C handle.
 *  2. Text is a std::string_view of UTF-8 that needs no terminator: it is copied for the call. Text
 *     with a zero byte inside is a failure, as it cannot be handed on whole.
 *  3. Results. A `bool` from an action is true for success; where the platform's HRESULT is known
 * it is a Result, which is true for success too. Questions are answered with std::optional or with
 *     a `bool` that is true for yes; false means no or not known, as with the C functions.
 *  4. Exceptions. No function throws but for want of memory (std::bad_alloc), or where its
 *     description says so. Two exceptions come out of the DLL itself, of PlaceholderMetadata's
 *     constructor and StartShellServices: a client built with the DLL's own kind of compiler
 *     (MinGW's GCC) can catch them; with any other, expect the process to end. Those that are
 *     declared noexcept do not throw at all. Callbacks that are set through CallbackDelegator may
 *     throw: it ends in this header, not in the platform.
 *  5. Threads. As for nimbra.h: any function may be called from any thread, but one Placeholder
 *     by one thread at a time, and callbacks are set before they are connected. Moving an owner, or
 *     ending it, while another thread uses it is the caller's mistake, as with any other object.
 */

#include <nimbra/nimbra.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace nimbra {

/** Whether the platform did something, and its HRESULT. */
class [[nodiscard]] Result {
 public:
  constexpr explicit Result(CORVWinCFHresult code) noexcept : code_(code) {}

  /** True for success. */
  constexpr explicit operator bool() const noexcept { return code_ >= 0; }
  /** The HRESULT. */
  [[nodiscard]] constexpr CORVWinCFHresult Code() const noexcept { return code_; }
  /** Whether a transfer failed because its fetch was cancelled, which is no error of the client. */
  [[nodiscard]] constexpr bool IsCancelled() const noexcept {
    return static_cast<std::uint32_t>(code_) == 0x8007018EU;
  }

 private:
  CORVWinCFHresult code_;
};

/** What a transfer that fails, or the answer to a delete, tells the platform. */
enum class TransferStatus : std::uint32_t {
  kSucceeded = CORVWinCFTransferSucceeded,
  kUnsuccessful = CORVWinCFTransferUnsuccessful,
  kDiskFull = CORVWinCFTransferDiskFull,
  kAborted = CORVWinCFTransferAborted
};

/** What a callback is told. It and everything in it are valid during the callback only. */
using CallbackRecord = CORVWinCFCallbackRecord;
/** The version of the Cloud Files platform. */
using PlatformInfo = CORVWinCFPlatformInfo;

namespace detail {

template <typename Record, void (*kRelease)(Record*)>
struct Releaser {
  void operator()(Record* record) const noexcept { kRelease(record); }
};

template <typename Record, void (*kRelease)(Record*)>
using Owner = std::unique_ptr<Record, Releaser<Record, kRelease>>;

/** Text for one call: terminated, or null if it cannot be, which every function takes for a
 * failure.
 */
class Text {
 public:
  explicit Text(std::string_view text) : copy_(text) {}
  [[nodiscard]] const char* Get() const noexcept {
    return copy_.find('\0') == std::string::npos ? copy_.c_str() : nullptr;
  }

 private:
  std::string copy_;
};

/** What stands before the zero bytes at the end of a buffer: the library tells no length. */
inline std::string WithoutZerosAtEnd(const std::string& buffer) {
  return buffer.substr(0, buffer.find_last_not_of('\0') + 1);
}

inline void ReleaseSyncRoot(CORVWinCFSyncRootHandle handle) noexcept {
  CORVWinCFSyncRootRelease(&handle);
}

inline void DisconnectSyncRoot(CORVWinCFSyncRootHandle handle) noexcept {
  static_cast<void>(CORVWinCFSyncRootDisconnect(handle));
}

}  // namespace detail

/* ---- Platform and version ------------------------------------------------------------------- */

/** Whether file streaming can run here. If it says no on a Windows 10, build 17134 or later, the
 * program has no manifest with Windows 10's `supportedOS`. */
[[nodiscard]] inline bool IsFileStreamingSupported() noexcept {
  return CORVWinCFIsWinVersionSupportFileStreaming();
}

/** Whether a client should hide the option of file streaming in its user interface. */
[[nodiscard]] inline bool IsFileStreamingOptionHidden() noexcept {
  return CORVWinCFIsWinVersionDisableUIFileStreamingOption();
}

/** Whether file streaming is a client's default. */
[[nodiscard]] inline bool IsFileStreamingDefault() noexcept {
  return CORVWinCFIsWinVersionDefaultFileStreaming();
}

/** The platform's version: nothing when the gate is closed, all zero when it does not tell. */
[[nodiscard]] inline std::optional<PlatformInfo> GetPlatformInfo() noexcept {
  PlatformInfo info{};
  return CORVWinCFGetPlatformInfo(&info) == 0 ? std::optional(info) : std::nullopt;
}

/* ---- Questions about a path ----------------------------------------------------------------- */

/** Whether a path lies in a sync root, whoever's it is. */
[[nodiscard]] inline bool IsInSyncRoot(std::string_view path) {
  return CORVWinCFGetSyncRootIdentityByPath(detail::Text(path).Get(), nullptr) == 0;
}

/** The identity of the sync root that holds a path; nothing when there is none. Zero bytes at the
 * end of an identity are left out. */
[[nodiscard]] inline std::optional<std::string> GetSyncRootIdentity(std::string_view path) {
  std::string identity(65536, '\0');  // more than the library ever writes
  if (CORVWinCFGetSyncRootIdentityByPath(detail::Text(path).Get(), identity.data()) != 0) {
    return std::nullopt;
  }
  return detail::WithoutZerosAtEnd(identity);
}

/** Whether a path lies in a sync root of another provider. No when it cannot be found out. */
[[nodiscard]] inline bool IsInForeignSyncRoot(std::string_view path) {
  return CORVWinCFIsPathUnderCorvDriveSyncRoot(detail::Text(path).Get()) != 0;
}

/** Whether the item at a path is a placeholder. */
[[nodiscard]] inline bool IsPlaceholder(std::string_view path) {
  return CORVWinCFIsPlaceholder(detail::Text(path).Get()) == 0;
}

/** Whether an entry of a directory listing is a placeholder, as far as Windows shows it. */
[[nodiscard]] inline bool IsPlaceholder(const _WIN32_FIND_DATAW& findData) noexcept {
  return CORVWinCFIsPlaceholderByFindData(&findData) == 0;
}

/** Whether all data of the item at a path is on the disk. */
[[nodiscard]] inline bool IsFullyHydrated(std::string_view path) {
  return CORVWinCFIsFullyHydrated(detail::Text(path).Get()) == 0;
}

/** The same for a UTF-16 path. */
[[nodiscard]] inline bool IsFullyHydrated(std::wstring_view path) {
  const bool isWhole = path.find(L'\0') == std::wstring_view::npos;
  return CORVWinCFIsFullyHydratedW(isWhole ? std::wstring(path).c_str() : nullptr) == 0;
}

/* ---- Placeholders --------------------------------------------------------------------------- */

/** Times, size and type of a placeholder. Any number of threads and calls may use one. */
class PlaceholderMetadata {
 public:
  /** Times are seconds since 1970-01-01 in UTC; 0 means not given. */
  struct Values {
    std::int64_t lastAccessTime = 0;
    std::int64_t changeTime = 0;
    std::int64_t creationTime = 0;
    std::int64_t lastWriteTime = 0;
    std::int64_t fileSize = 0;
    bool isFolder = false;
  };

  explicit PlaceholderMetadata(const Values& values)
      : handle_(CORVWinCFPlaceholderMetaNew(values.lastAccessTime, values.changeTime,
                                            values.creationTime, values.lastWriteTime,
                                            values.fileSize, values.isFolder ? 1 : 0)) {}

  explicit operator bool() const noexcept { return handle_ != nullptr; }
  [[nodiscard]] CORVWinCFPlaceholderMetaHandle Get() const noexcept { return handle_.get(); }

 private:
  detail::Owner<__tag_PlaceholderMetaWrap, CORVWinCFPlaceholderMetaRelease> handle_;
};

/** One file or folder below a sync root. One thread at a time may use it; ending it closes the item
 * and leaves it on disk as it is. */
class Placeholder {
 public:
  Placeholder() noexcept = default;
  /** Nothing on disk changes. Where an item is created, "/" must stand before the last component of
   * its path. */
  explicit Placeholder(std::string_view path) {
    CORVWinCFPlaceholderHandle handle = nullptr;
    if (CORVWinCFPlaceholderNew(&handle, detail::Text(path).Get()) == 0) {
      handle_.reset(handle);
    }
  }

  explicit operator bool() const noexcept { return handle_ != nullptr; }
  [[nodiscard]] CORVWinCFPlaceholderHandle Get() const noexcept { return handle_.get(); }

  /** Opens the item for all that follows but Create. */
  [[nodiscard]] bool Open() noexcept { return CORVWinCFPlaceholderOpen(Get()) == 0; }

  /** Creates the item on disk. The identity has at most 4096 bytes and, for a file, at least one.
   */
  [[nodiscard]] bool Create(std::string_view identity, const PlaceholderMetadata& metadata) {
    return CORVWinCFPlaceholderCreate(Get(), detail::Text(identity).Get(), metadata.Get()) == 0;
  }

  /** Replaces identity and metadata, the size too. Fails for empty metadata, which the C function
   * would take for a size of 0. */
  [[nodiscard]] bool Update(std::string_view identity, const PlaceholderMetadata& metadata) {
    return metadata &&
           CORVWinCFPlaceholderUpdate(Get(), detail::Text(identity).Get(), metadata.Get()) == 0;
  }

  /** Turns an ordinary item into a placeholder. */
  [[nodiscard]] bool ConvertToPlaceholder(std::string_view identity) {
    return CORVWinCFPlaceholderConvertToPlaceholder(Get(), detail::Text(identity).Get()) == 0;
  }

  /** Turns a placeholder into an ordinary item. */
  [[nodiscard]] bool RevertToNormal() noexcept {
    return CORVWinCFPlaceholderRevertToNormal(Get()) == 0;
  }

  [[nodiscard]] bool IsPlaceholder() const noexcept {
    return CORVWinCFPlaceholderIsPlaceholder(Get()) == 0;
  }
  [[nodiscard]] bool IsFullyHydrated() const noexcept {
    return CORVWinCFPlaceholderIsFullyHydrated(Get()) == 0;
  }
  [[nodiscard]] bool IsPinned() const noexcept { return CORVWinCFPlaceholderIsPinned(Get()) == 0; }
  [[nodiscard]] bool IsExcluded() const noexcept {
    return CORVWinCFPlaceholderIsExcluded(Get()) == 0;
  }
  [[nodiscard]] bool IsInSync() const noexcept { return CORVWinCFPlaceholderIsInSync(Get()) == 0; }

  /** The item's identity, without the zero bytes at its end; empty on failure. */
  [[nodiscard]] std::string GetIdentity() const {
    std::string identity(4096, '\0');
    CORVWinCFPlaceholderGetFileIdentity(Get(), identity.data());
    return detail::WithoutZerosAtEnd(identity);
  }

  /** Brings all data onto the disk and waits for it: never call it in a callback. */
  [[nodiscard]] bool Hydrate() noexcept { return CORVWinCFPlaceholderHydrateAll(Get()) == 0; }
  /** Starts to bring all data onto the disk, which goes on whatever becomes of this object. */
  [[nodiscard]] bool HydrateAsync() noexcept {
    return CORVWinCFPlaceholderHydrateAllAsync(Get()) == 0;
  }
  /** Drops all data from the disk. */
  [[nodiscard]] bool Dehydrate() noexcept { return CORVWinCFPlaceholderDehydrateAll(Get()) == 0; }
  /** Drops a range of the data, to the end with a length of -1. The library does not tell whether
   * it went: ask the item. */
  void DehydrateRange(std::int64_t offset, std::int64_t length) noexcept {
    static_cast<void>(CORVWinCFPlaceholderDehydrate(Get(), offset, length));
  }

  /** Keeps the item, and all below it, on the disk; fetches nothing. */
  [[nodiscard]] bool Pin() noexcept { return CORVWinCFPlaceholderPinToLocal(Get()) == 0; }
  /** Lets the item, and all below it, take the pin state that its folder gives it. */
  [[nodiscard]] bool Unpin() noexcept { return CORVWinCFPlaceholderUnpin(Get()) == 0; }
  /** Takes every pin state from the item and all below it. */
  [[nodiscard]] bool ForceUnpin() noexcept { return CORVWinCFPlaceholderForceUnpin(Get()) == 0; }
  /** Excludes the item, and all below it, from synchronisation. */
  [[nodiscard]] bool Exclude() noexcept { return CORVWinCFPlaceholderSetExcluded(Get()) == 0; }
  /** Marks the item as in sync, or as not. */
  [[nodiscard]] bool SetInSync(bool isInSync) noexcept {
    return (isInSync ? CORVWinCFPlaceholderSetInSync(Get())
                     : CORVWinCFPlaceholderSetNotInSync(Get())) == 0;
  }

 private:
  detail::Owner<CORVWinCFPlaceholderHandleRecord, CORVWinCFPlaceholderRelease> handle_;
};

/* ---- Sync roots and callbacks --------------------------------------------------------------- */

/** A sync root's connection, which ends with this object. Declare it after the SyncRoot and the
 * CallbackDelegator that it is made of, which must outlive it. */
class [[nodiscard]] Connection {
 public:
  /** None. */
  Connection() noexcept = default;

  Connection(Connection&& other) noexcept
      : root_(std::move(other.root_)), result_(std::exchange(other.result_, kNone)) {}
  /** Ends the connection that there was. If it was of the same root, it goes on as the new one. */
  Connection& operator=(Connection&& other) noexcept {
    if (this != &other) {
      if (root_ == other.root_) {
        static_cast<void>(root_.release());  // to end it would end the new one
      }
      root_ = std::move(other.root_);
      result_ = std::exchange(other.result_, kNone);
    }
    return *this;
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() = default;

  /** Whether there is one. */
  explicit operator bool() const noexcept { return root_ != nullptr; }
  /** How connecting went; E_POINTER where nothing was connected, or no longer is: after Disconnect,
   * and after a move to another object. */
  Result GetResult() const noexcept { return result_; }

  /** Ends it. Callbacks may run meanwhile, but none after it succeeded. On failure there still is
   * one, and E_POINTER says that there was none. */
  Result Disconnect() noexcept {
    const Result result(CORVWinCFSyncRootDisconnect(root_.get()));
    if (result) {
      static_cast<void>(root_.release());
      result_ = kNone;
    }
    return result;
  }

 private:
  friend class SyncRoot;
  static constexpr Result kNone{static_cast<CORVWinCFHresult>(0x80004003)};

  Connection(CORVWinCFSyncRootHandle root, CORVWinCFHresult result) noexcept
      : root_(result >= 0 ? root : nullptr), result_(result) {}

  detail::Owner<CORVWinCFSyncRootHandleRecord, detail::DisconnectSyncRoot> root_;
  Result result_ = kNone;
};

template <typename Client>
class CallbackDelegator;

/** A folder that the client serves on demand. Ending this object neither unregisters the folder nor
 * ends its connection. Any thread may call, also from a callback, what is const here. */
class SyncRoot {
 public:
  SyncRoot() noexcept = default;
  /** The path has backslashes; the session number is at most 2147483647. Nothing on disk changes.
   */
  SyncRoot(std::string_view path, std::uint64_t sessionId) {
    CORVWinCFSyncRootHandle handle = nullptr;
    if (CORVWinCFSyncRootNew(&handle, detail::Text(path).Get(), sessionId) == 0) {
      handle_.reset(handle);
    }
  }

  explicit operator bool() const noexcept { return handle_ != nullptr; }
  [[nodiscard]] CORVWinCFSyncRootHandle Get() const noexcept { return handle_.get(); }

  /** Registers the folder; needs the right to write to HKEY_LOCAL_MACHINE. */
  Result Register(std::string_view text) {
    return Result(CORVWinCFSyncRootRegister(Get(), detail::Text(text).Get()));
  }
  /** Registers a registered folder anew. */
  Result Reregister(std::string_view text) {
    return Result(CORVWinCFSyncRootReregister(Get(), detail::Text(text).Get()));
  }
  /** Unregisters the folder. FILES THAT ARE NOT FULLY HYDRATED ARE DELETED. */
  Result Unregister() noexcept { return Result(CORVWinCFSyncRootUnregister(Get())); }

  /** Has the callbacks called from now on, already before it returns, until the connection ends.
   * Connect a root once: it has one connection at a time, and keep one Connection for it. */
  template <typename Client>
  Connection Connect(const CallbackDelegator<Client>& callbacks) noexcept {
    return {Get(), CORVWinCFSyncRootConnect(Get(), callbacks.Get())};
  }

  /** Answers a fetch, or a part of it. The data is not copied. Offset and size are multiples of
   * 4096, but where they reach the end of the file. */
  Result TransferData(std::int64_t transferKey, std::int64_t offset,
                      std::string_view data) const noexcept {
    return Result(CORVWinCFSyncRootTransferData(Get(), transferKey, 0, data.data(), offset,
                                                static_cast<std::int64_t>(data.size()),
                                                CORVWinCFTransferSucceeded));
  }
  /** Says that a range of a fetch does not come. */
  Result FailTransfer(std::int64_t transferKey, std::int64_t offset, std::int64_t length,
                      TransferStatus status = TransferStatus::kUnsuccessful) const noexcept {
    return Result(CORVWinCFSyncRootTransferData(Get(), transferKey, 0, nullptr, offset, length,
                                                static_cast<std::uint32_t>(status)));
  }
  /** Reports progress: keep `completed` below `total` until the data is transferred. */
  Result ReportProgress(std::int64_t transferKey, std::int64_t total,
                        std::int64_t completed) const noexcept {
    return Result(CORVWinCFSyncRootReportTransferProgress(Get(), transferKey, total, completed));
  }
  /** Fills an open placeholder from a local file, without having been asked, and waits for it. */
  [[nodiscard]] bool TransferFile(const Placeholder& placeholder,
                                  std::string_view localPath) const {
    return CORVWinCFSyncRootProactiveTransferToPlaceholder(Get(), placeholder.Get(),
                                                           detail::Text(localPath).Get()) == 0;
  }
  /** Accepts a rename. */
  [[nodiscard]] bool AcknowledgeRename(std::int64_t transferKey) const noexcept {
    return CORVWinCFSyncRootAckRename(Get(), transferKey) == 0;
  }
  /** Answers a delete: anything but kSucceeded keeps the item. */
  [[nodiscard]] bool AcknowledgeDelete(
      std::int64_t transferKey, TransferStatus status = TransferStatus::kSucceeded) const noexcept {
    return CORVWinCFSyncRootAckDelete(Get(), transferKey, 0, static_cast<std::uint32_t>(status)) ==
           0;
  }

 private:
  detail::Owner<CORVWinCFSyncRootHandleRecord, detail::ReleaseSyncRoot> handle_;
};

/**
 * The client's callbacks: methods of an object of the client's, which this refers to and which must
 * not move or end while there is a connection. A method is called with the record, on one of the
 * platform's threads, at the same time as others:
 *
 *     class Client {
 *       Client(const Client&) = delete;  // nor can it be moved
 *       Client& operator=(const Client&) = delete;
 *       void OnFetch(const nimbra::CallbackRecord& record);
 *       nimbra::SyncRoot root_{R"(C:\Cloud)", 1};
 *       nimbra::CallbackDelegator<Client> callbacks_{*this};
 *       nimbra::Connection connection_;  // the last: ends before what it needs
 *     };
 *     callbacks_.OnFetch<&Client::OnFetch, &Client::root_>();
 *     connection_ = root_.Connect(callbacks_);
 *
 * Set the methods before connecting. Setting gives true for success; setting one again replaces it.
 *
 * An exception that leaves a method goes no further. Where the method owed an answer that can say
 * no, it is given through the sync root that is named beside the method (a member, or a function of
 * the client that gives it): the fetch fails over the required range, the deleted item is kept.
 */
template <typename Client>
class CallbackDelegator {
 public:
  CallbackDelegator() noexcept = default;
  explicit CallbackDelegator(Client& client) noexcept {
    CORVWinCFCallbackDelegatorHandle handle = nullptr;
    if (CORVWinCFCallbackDelegatorNew(&handle, std::addressof(client)) == 0) {
      handle_.reset(handle);
    }
  }

  explicit operator bool() const noexcept { return handle_ != nullptr; }
  [[nodiscard]] CORVWinCFCallbackDelegatorHandle Get() const noexcept { return handle_.get(); }

  /** Data of a placeholder is needed: answer with SyncRoot::TransferData, at once or later. */
  template <auto kMethod, auto kRoot>
  [[nodiscard]] bool OnFetch() noexcept {
    return CORVWinCFCallbackDelegatorSetFetchCallback(Get(), Call<kMethod, FailFetch<kRoot>>) == 0;
  }
  /** Nobody waits for a range any more. */
  template <auto kMethod>
  [[nodiscard]] bool OnFetchCancel() noexcept {
    return CORVWinCFCallbackDelegatorSetFetchCancelCallback(Get(), Call<kMethod, Ignore>) == 0;
  }
  /** Answer with SyncRoot::AcknowledgeDelete. */
  template <auto kMethod, auto kRoot>
  [[nodiscard]] bool OnDelete() noexcept {
    return CORVWinCFCallbackDelegatorSetDeleteCallback(Get(), Call<kMethod, KeepItem<kRoot>>) == 0;
  }
  /** Answer with SyncRoot::AcknowledgeRename; one that an exception leaves has no answer, as none
   * can say no, and the program that renames waits until the platform gives up. */
  template <auto kMethod>
  [[nodiscard]] bool OnRename() noexcept {
    return CORVWinCFCallbackDelegatorSetRenameCallback(Get(), Call<kMethod, Ignore>) == 0;
  }
  /** A rename is done. */
  template <auto kMethod>
  [[nodiscard]] bool OnRenameCompletion() noexcept {
    return CORVWinCFCallbackDelegatorSetRenameCompletionCallback(Get(), Call<kMethod, Ignore>) == 0;
  }
  /** Kept, but never called. */
  template <auto kMethod>
  [[nodiscard]] bool OnOpenCompletion() noexcept {
    return CORVWinCFCallbackDelegatorSetOpenCompletionCallback(Get(), Call<kMethod, Ignore>) == 0;
  }

 private:
  using Answer = void (*)(Client& client, const CallbackRecord& record) noexcept;

  template <auto kMethod, Answer kAnswerToException>
  static void Call(const CallbackRecord* record) noexcept {
    auto& client = *static_cast<Client*>(record->context);
    try {
      std::invoke(kMethod, client, *record);
    } catch (...) {
      kAnswerToException(client, *record);
    }
  }

  static void Ignore(Client&, const CallbackRecord&) noexcept {}

  template <auto kRoot>
  static void FailFetch(Client& client, const CallbackRecord& record) noexcept {
    const SyncRoot& root = std::invoke(kRoot, client);
    static_cast<void>(
        root.FailTransfer(record.transferKey, record.parameters[0], record.parameters[1]));
  }

  template <auto kRoot>
  static void KeepItem(Client& client, const CallbackRecord& record) noexcept {
    const SyncRoot& root = std::invoke(kRoot, client);
    static_cast<void>(root.AcknowledgeDelete(record.transferKey, TransferStatus::kUnsuccessful));
  }

  detail::Owner<CORVWinCFCallbackDelegatorHandleRecord, CORVWinCFCallbackDelegatorRelease> handle_;
};

/* ---- The Explorer entry --------------------------------------------------------------------- */

/** A new class identifier for an Explorer entry; nothing on failure. */
[[nodiscard]] inline std::optional<std::string> GenerateGuid() {
  char* text = nullptr;
  if (CORVWinCFGenerateGuid(&text) != 0) {
    return std::nullopt;
  }
  const std::unique_ptr<char, detail::Releaser<void, CORVWinCFReleaseGuid>> owner(text);
  return std::string(owner.get());
}

/** A sync root in Explorer's navigation pane. */
struct ExplorerEntry {
  /** With backslashes, spelled as on disk. */
  std::string syncRootPath;
  /** Of GenerateGuid; keep it, as it is what the entry is removed by. */
  std::string clsid;
  /** The client's number for the folder of shortcuts. */
  std::uint64_t systemFolderId = 0;
  std::string displayName = {};
  std::string shareName = {};
  /** "/", or a path whose last component names the shortcut. */
  std::string remotePath = "/";

  /** Shows it. COM is initialised on the calling thread and stays so. */
  [[nodiscard]] bool Register() const { return Call(CORVWinCFSyncEngineRegister); }
  /** Takes it away; the names need not be those of before. */
  [[nodiscard]] bool Unregister() const { return Call(CORVWinCFSyncEngineUnregister); }

 private:
  [[nodiscard]] bool Call(decltype(&CORVWinCFSyncEngineRegister) function) const {
    return function(detail::Text(syncRootPath).Get(), detail::Text(clsid).Get(), systemFolderId,
                    detail::Text(displayName).Get(), detail::Text(shareName).Get(),
                    detail::Text(remotePath).Get()) == 0;
  }
};

/** Removes an entry from Explorer's navigation pane, whatever sync roots it shows. */
[[nodiscard]] inline bool UnregisterSystemFolder(std::string_view clsid) {
  return CORVWinCFSyncEngineUnregisterSystemFolder(detail::Text(clsid).Get()) == 0;
}

/* ---- Thumbnails ----------------------------------------------------------------------------- */

namespace detail {

template <auto kFind>
bool FindImage(const wchar_t* itemPath, wchar_t* imagePath) noexcept {
  constexpr std::size_t kRoom = 260;  // which are all zero
  try {
    const std::optional<std::wstring> found = kFind(std::wstring_view(itemPath));
    if (!found || found->size() >= kRoom) {
      return false;
    }
    found->copy(imagePath, found->size());
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace detail

/** Sets the function that finds an image for an item, `std::optional<std::wstring>
 * Find(std::wstring_view itemPath)`. It is called on COM's threads, several at once, and should not
 * open the item. Nothing, an exception and a path of more than 259 characters mean that there is
 * none. */
template <auto kFind>
void SetThumbnailRetriever() noexcept {
  CORVWinCFSetThumbRetrieverCb(detail::FindImage<kFind>);
}

/** From now on there are no thumbnails. A request that runs already may still use the function. */
inline void ClearThumbnailRetriever() noexcept { CORVWinCFSetThumbRetrieverCb(nullptr); }

/** Serves thumbnails from this process until it ends. Call it once. When its thread cannot be
 * started, std::system_error (or std::bad_alloc) leaves the DLL, for those who can catch it. */
inline void StartShellServices() { CORVWinCFStartShellServices(); }

}  // namespace nimbra

#endif
