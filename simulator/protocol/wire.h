#ifndef NIMBRA_SIMULATOR_PROTOCOL_WIRE_H_
#define NIMBRA_SIMULATOR_PROTOCOL_WIRE_H_

// The language that cldapi.dll (under Wine) and cloud-filterd (on Linux) speak with each other over
// a loopback TCP connection. Both ends compile this one header.
//
// A frame is a `FrameHeader` followed by `payloadLength` bytes. Integers are little-endian, texts
// are UTF-8. The daemon writes "<port> <token>\n" into its endpoint file, readable by its user
// only; the first frame on every connection is a `Hello` that carries the token. A connection that
// sends anything else, or a frame that breaks a limit below, is closed.
//
// A client has one request outstanding per connection and opens as many connections as it has
// callers. `Connect` is special: from its successful answer on, that connection is the callback
// channel of the sync root. The daemon then sends `Callback` frames and nothing else; the client
// sends `Alive` once a second. When the channel closes without `Disconnect`, the provider has died.
//
// Paths are absolute Unix paths. Items are named by path; `fileId`, where the client knows it (the
// inode number of an open handle), must then match or the call fails with ERROR_FILE_NOT_FOUND.

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace cloud_filter::wire {

inline constexpr std::uint32_t kProtocolVersion = 1;
inline constexpr std::uint32_t kMaxPayload = 72U << 20;  // one transfer of 64 MiB and its header
inline constexpr char kEndpointVariable[] = "CLOUD_FILTER_ENDPOINT";
// Used when the variable is unset: this file below the user's home directory.
inline constexpr char kDefaultEndpoint[] = ".cloud-filter/endpoint";
// Reading this name in a mounted sync root's top folder gives the reader's own Unix process id in
// decimal, which a program under Wine cannot learn otherwise. It is in no directory listing.
inline constexpr char kWhoAmIName[] = ".cloud-filter-whoami";

enum class Op : std::uint16_t {
  // request -> payload                                             answer's payload after HRESULT 0
  kHello = 1,  // u32 version, str token                 u32 build, u32 revision, u32 integration
  kRegisterRoot = 2,    // str path, str providerName, str providerVersion, bytes identity,
                        // bytes rootFileIdentity, bytes providerId(16), Policies, u32 flags     -
  kUnregisterRoot = 3,  // str path                               -
  kConnect =
      4,  // str path, u32 callbackTypeMask (1 << CF_CALLBACK_TYPE), u32 flags, ProviderProcess
          //                                        i64 connectionKey, str rootPath,
          //                                        bytes rootIdentity, i64 rootFileId
  kDisconnect = 5,          // i64 connectionKey                      -
  kGetTransferKey = 6,      // ItemRef                                i64 transferKey
  kReleaseTransferKey = 7,  // i64 transferKey                      -
  kTransferData =
      8,  // Target, u32 ntstatus, i64 offset, i64 length, bytes data (empty on failure)   -
  kRetrieveData = 9,  // Target, i64 offset, i64 length         bytes data
  kAckData = 10,      // Target, u32 ntstatus, i64 offset, i64 length                        -
  kRestartHydration =
      11,              // Target, u32 flags, u8 hasMetadata, [Metadata], u8 hasIdentity, [bytes]   -
  kAckDehydrate = 12,  // Target, u32 ntstatus, u8 hasIdentity, [bytes]                       -
  kAckDelete = 13,     // Target, u32 ntstatus                   -
  kAckRename = 14,     // Target, u32 ntstatus                   -
  kReportProgress =
      15,  // i64 connectionKey, i64 transferKey, i64 requestKey, i64 total, i64 completed  -
  kCreatePlaceholders = 16,  // str baseDir, u32 flags, u32 count, count x CreateEntry
                             //      (answered with HRESULT of the call; payload always present:)
                             //      u32 entriesProcessed, count x {i32 result, i64 usn}
  kConvert = 17,             // ItemRef, bytes identity, u32 flags     i64 usn
  kUpdate = 18,              // ItemRef, u8 hasMetadata, [Metadata], bytes identity, u32 rangeCount,
  // rangeCount x {i64 start, i64 length}, u32 flags, i64 usn (0: none)   i64 usn
  kRevert = 19,       // ItemRef, u32 flags                     -
  kHydrate = 20,      // ItemRef, i64 offset, i64 length, u32 flags     - (answered when done)
  kDehydrate = 21,    // ItemRef, i64 offset, i64 length, u32 flags     - (answered when done)
  kSetPinState = 22,  // ItemRef, u32 state, u32 flags          -
  kSetInSync = 23,    // ItemRef, u32 state, u32 flags, i64 usn (0: none)   i64 usn
  kGetPlaceholderInfo = 24,  // ItemRef                             PlaceholderInfo
  kGetRangeInfo =
      25,  // ItemRef, u32 class, i64 offset, i64 length     u32 count, count x {i64,i64}
  kGetRangeInfoByKey =
      26,  // i64 connectionKey, i64 transferKey, i64 fileId, u32 class, i64 offset,
           // i64 length                             as kGetRangeInfo
  kGetItemState =
      27,  // ItemRef                                u32 attributes, u32 reparseTag, u32 state
  kGetRootInfo = 28,          // ItemRef                                RootInfo
  kSetProviderStatus = 29,    // i64 connectionKey, u32 status        -
  kQueryProviderStatus = 30,  // i64 connectionKey                  u32 status
  kReportSyncStatus = 31,  // str path, u8 present, [u32 code, str description, str deviceId]    -
  // frames on a callback channel
  kCallback = 64,  // daemon -> client: CallbackEvent; no answer
  kAlive = 65,     // client -> daemon: empty; no answer
  // for scripts and people
  kStatus = 96,  // -                                      str json
};

struct FrameHeader {
  std::uint32_t payloadLength;
  std::uint16_t op;        // of a request; an answer repeats it
  std::uint16_t unused;    // 0
  std::int32_t result;     // HRESULT of an answer; 0 in a request
  std::uint32_t sequence;  // chosen by the requester, repeated in the answer
};
static_assert(sizeof(FrameHeader) == 16 && std::is_trivially_copyable_v<FrameHeader>);

// Builds a payload.
class Writer {
 public:
  template <class T>
  requires std::is_integral_v<T> || std::is_enum_v<T> Writer& Put(T value) {
    const auto at = bytes_.size();
    bytes_.resize(at + sizeof value);
    std::memcpy(bytes_.data() + at, &value, sizeof value);
    return *this;
  }
  Writer& PutBytes(std::string_view bytes) {
    Put(static_cast<std::uint32_t>(bytes.size()));
    bytes_.append(bytes);
    return *this;
  }
  [[nodiscard]] const std::string& Bytes() const { return bytes_; }
  [[nodiscard]] std::string Take() { return std::move(bytes_); }

 private:
  std::string bytes_;
};

// Reads a payload. Reading past the end gives zeros and makes `Good()` false; check it once at the
// end.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : rest_(bytes) {}

  template <class T>
  requires std::is_integral_v<T> || std::is_enum_v<T>
  [[nodiscard]] T Get() {
    T value{};
    if (rest_.size() < sizeof value) {
      good_ = false;
      rest_ = {};
      return value;
    }
    std::memcpy(&value, rest_.data(), sizeof value);
    rest_.remove_prefix(sizeof value);
    return value;
  }
  // A view into the payload.
  [[nodiscard]] std::string_view GetBytes() {
    const auto length = Get<std::uint32_t>();
    if (rest_.size() < length) {
      good_ = false;
      rest_ = {};
      return {};
    }
    const auto bytes = rest_.substr(0, length);
    rest_.remove_prefix(length);
    return bytes;
  }
  [[nodiscard]] std::string GetString() { return std::string(GetBytes()); }
  [[nodiscard]] bool Good() const { return good_; }
  [[nodiscard]] bool AtEnd() const { return good_ && rest_.empty(); }

 private:
  std::string_view rest_;
  bool good_ = true;
};

// The composite parts of payloads. Each has `Put(Writer&, const T&)` and `Get(Reader&, T&)`.

struct ItemRef {
  std::string path;
  std::int64_t fileId = 0;  // 0: not known
};

struct Target {
  std::int64_t connectionKey = 0;
  std::int64_t transferKey = 0;
  std::int64_t requestKey = 0;  // 0: whatever is pending for the transfer key
};

struct Policies {
  std::uint16_t hydrationPrimary = 0;
  std::uint16_t hydrationModifier = 0;
  std::uint16_t populationPrimary = 0;
  std::uint16_t populationModifier = 0;
  std::uint32_t inSync = 0;
  std::uint32_t hardLink = 0;
  std::uint32_t placeholderManagement = 0;
};

struct ProviderProcess {
  std::uint32_t windowsProcessId = 0;
  std::int32_t unixProcessId = 0;  // 0: not known (see kWhoAmIName)
  std::string imagePath;           // NT path
  std::string commandLine;
  std::string systemDriveUnixPath;  // what "C:\" is on Linux: tells the Wine prefix
};

// FILETIME counts; 0 keeps what is there.
struct Metadata {
  std::int64_t creationTime = 0;
  std::int64_t lastAccessTime = 0;
  std::int64_t lastWriteTime = 0;
  std::int64_t changeTime = 0;
  std::uint32_t attributes = 0;
  std::int64_t fileSize = 0;
};

struct CreateEntry {
  std::string relativeName;
  Metadata metadata;
  std::string identity;
  std::uint32_t flags = 0;
};

struct PlaceholderInfo {
  std::int64_t onDiskDataSize = 0;
  std::int64_t validatedDataSize = 0;
  std::int64_t modifiedDataSize = 0;
  std::int64_t propertiesSize = 0;
  std::uint32_t pinState = 0;
  std::uint32_t inSyncState = 0;
  std::int64_t fileId = 0;
  std::int64_t syncRootFileId = 0;
  std::string identity;
};

struct RootInfo {
  std::int64_t fileId = 0;
  Policies policies;
  std::uint32_t providerStatus = 0;
  std::string providerName;
  std::string providerVersion;
  std::string identity;
};

struct CallbackEvent {
  std::uint32_t type = 0;  // CF_CALLBACK_TYPE
  std::int64_t transferKey = 0;
  std::int64_t requestKey = 0;
  std::int64_t fileId = 0;
  std::int64_t fileSize = 0;
  std::string relativePath;  // below the sync root, '/'-separated, empty for the root itself
  std::string fileIdentity;
  std::uint32_t processId = 0;  // Unix id of the program that caused it
  std::string processImage;     // Unix path
  std::string commandLine;
  std::uint32_t flags = 0;
  // fetch: required offset, required length, optional offset, optional length;
  // cancel: offset, length; dehydrate and its completion: the reason
  std::int64_t range[4] = {0, 0, 0, 0};
  // rename: the target; rename completion: the source. Absolute Unix path.
  std::string otherPath;
};

inline void Put(Writer& w, const ItemRef& v) { w.PutBytes(v.path).Put(v.fileId); }
inline void Get(Reader& r, ItemRef& v) {
  v.path = r.GetString();
  v.fileId = r.Get<std::int64_t>();
}

inline void Put(Writer& w, const Target& v) {
  w.Put(v.connectionKey).Put(v.transferKey).Put(v.requestKey);
}
inline void Get(Reader& r, Target& v) {
  v.connectionKey = r.Get<std::int64_t>();
  v.transferKey = r.Get<std::int64_t>();
  v.requestKey = r.Get<std::int64_t>();
}

inline void Put(Writer& w, const Policies& v) {
  w.Put(v.hydrationPrimary).Put(v.hydrationModifier);
  w.Put(v.populationPrimary).Put(v.populationModifier);
  w.Put(v.inSync).Put(v.hardLink).Put(v.placeholderManagement);
}
inline void Get(Reader& r, Policies& v) {
  v.hydrationPrimary = r.Get<std::uint16_t>();
  v.hydrationModifier = r.Get<std::uint16_t>();
  v.populationPrimary = r.Get<std::uint16_t>();
  v.populationModifier = r.Get<std::uint16_t>();
  v.inSync = r.Get<std::uint32_t>();
  v.hardLink = r.Get<std::uint32_t>();
  v.placeholderManagement = r.Get<std::uint32_t>();
}

inline void Put(Writer& w, const ProviderProcess& v) {
  w.Put(v.windowsProcessId).Put(v.unixProcessId);
  w.PutBytes(v.imagePath).PutBytes(v.commandLine).PutBytes(v.systemDriveUnixPath);
}
inline void Get(Reader& r, ProviderProcess& v) {
  v.windowsProcessId = r.Get<std::uint32_t>();
  v.unixProcessId = r.Get<std::int32_t>();
  v.imagePath = r.GetString();
  v.commandLine = r.GetString();
  v.systemDriveUnixPath = r.GetString();
}

inline void Put(Writer& w, const Metadata& v) {
  w.Put(v.creationTime).Put(v.lastAccessTime).Put(v.lastWriteTime).Put(v.changeTime);
  w.Put(v.attributes).Put(v.fileSize);
}
inline void Get(Reader& r, Metadata& v) {
  v.creationTime = r.Get<std::int64_t>();
  v.lastAccessTime = r.Get<std::int64_t>();
  v.lastWriteTime = r.Get<std::int64_t>();
  v.changeTime = r.Get<std::int64_t>();
  v.attributes = r.Get<std::uint32_t>();
  v.fileSize = r.Get<std::int64_t>();
}

inline void Put(Writer& w, const CreateEntry& v) {
  w.PutBytes(v.relativeName);
  Put(w, v.metadata);
  w.PutBytes(v.identity).Put(v.flags);
}
inline void Get(Reader& r, CreateEntry& v) {
  v.relativeName = r.GetString();
  Get(r, v.metadata);
  v.identity = r.GetString();
  v.flags = r.Get<std::uint32_t>();
}

inline void Put(Writer& w, const PlaceholderInfo& v) {
  w.Put(v.onDiskDataSize).Put(v.validatedDataSize).Put(v.modifiedDataSize).Put(v.propertiesSize);
  w.Put(v.pinState).Put(v.inSyncState).Put(v.fileId).Put(v.syncRootFileId);
  w.PutBytes(v.identity);
}
inline void Get(Reader& r, PlaceholderInfo& v) {
  v.onDiskDataSize = r.Get<std::int64_t>();
  v.validatedDataSize = r.Get<std::int64_t>();
  v.modifiedDataSize = r.Get<std::int64_t>();
  v.propertiesSize = r.Get<std::int64_t>();
  v.pinState = r.Get<std::uint32_t>();
  v.inSyncState = r.Get<std::uint32_t>();
  v.fileId = r.Get<std::int64_t>();
  v.syncRootFileId = r.Get<std::int64_t>();
  v.identity = r.GetString();
}

inline void Put(Writer& w, const RootInfo& v) {
  w.Put(v.fileId);
  Put(w, v.policies);
  w.Put(v.providerStatus);
  w.PutBytes(v.providerName).PutBytes(v.providerVersion).PutBytes(v.identity);
}
inline void Get(Reader& r, RootInfo& v) {
  v.fileId = r.Get<std::int64_t>();
  Get(r, v.policies);
  v.providerStatus = r.Get<std::uint32_t>();
  v.providerName = r.GetString();
  v.providerVersion = r.GetString();
  v.identity = r.GetString();
}

inline void Put(Writer& w, const CallbackEvent& v) {
  w.Put(v.type).Put(v.transferKey).Put(v.requestKey).Put(v.fileId).Put(v.fileSize);
  w.PutBytes(v.relativePath).PutBytes(v.fileIdentity);
  w.Put(v.processId).PutBytes(v.processImage).PutBytes(v.commandLine).Put(v.flags);
  for (const auto number : v.range) w.Put(number);
  w.PutBytes(v.otherPath);
}
inline void Get(Reader& r, CallbackEvent& v) {
  v.type = r.Get<std::uint32_t>();
  v.transferKey = r.Get<std::int64_t>();
  v.requestKey = r.Get<std::int64_t>();
  v.fileId = r.Get<std::int64_t>();
  v.fileSize = r.Get<std::int64_t>();
  v.relativePath = r.GetString();
  v.fileIdentity = r.GetString();
  v.processId = r.Get<std::uint32_t>();
  v.processImage = r.GetString();
  v.commandLine = r.GetString();
  v.flags = r.Get<std::uint32_t>();
  for (auto& number : v.range) number = r.Get<std::int64_t>();
  v.otherPath = r.GetString();
}

}  // namespace cloud_filter::wire

#endif  // NIMBRA_SIMULATOR_PROTOCOL_WIRE_H_
