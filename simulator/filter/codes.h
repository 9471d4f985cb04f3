#ifndef NIMBRA_SIMULATOR_FILTER_CODES_H_
#define NIMBRA_SIMULATOR_FILTER_CODES_H_

// The platform's numbers that the filter deals in: results, statuses, flags and states.

#include <cstdint>

namespace cloud_filter {

using Hresult = std::int32_t;

constexpr Hresult FromWin32(std::uint32_t code) {
  return code == 0 ? 0 : static_cast<Hresult>(0x80070000U | code);
}

namespace hr {
inline constexpr Hresult kOk = 0;
// Not a result of a call: the answer comes later.
inline constexpr Hresult kPending = FromWin32(997);
inline constexpr Hresult kFileNotFound = FromWin32(2);
inline constexpr Hresult kPathNotFound = FromWin32(3);
inline constexpr Hresult kGeneralFailure = FromWin32(31);
inline constexpr Hresult kHandleEof = FromWin32(38);
inline constexpr Hresult kInvalidParameter = FromWin32(87);
inline constexpr Hresult kDiskFull = FromWin32(112);
inline constexpr Hresult kInvalidName = FromWin32(123);
inline constexpr Hresult kAlreadyExists = FromWin32(183);
inline constexpr Hresult kNotADirectory = FromWin32(267);
inline constexpr Hresult kInterrupted = FromWin32(995);  // whoever asked has gone
inline constexpr Hresult kProviderNotRunning = FromWin32(362);
inline constexpr Hresult kMetadataCorrupt = FromWin32(363);
inline constexpr Hresult kNotACloudFile = FromWin32(376);
inline constexpr Hresult kNotInSync = FromWin32(377);
inline constexpr Hresult kAlreadyConnected = FromWin32(378);
inline constexpr Hresult kNotSupported = FromWin32(379);
inline constexpr Hresult kInvalidRequest = FromWin32(380);
inline constexpr Hresult kUnsuccessful = FromWin32(389);
inline constexpr Hresult kNotUnderSyncRoot = FromWin32(390);
inline constexpr Hresult kInUse = FromWin32(391);
inline constexpr Hresult kPinned = FromWin32(392);
inline constexpr Hresult kRequestAborted = FromWin32(393);
inline constexpr Hresult kAccessDenied = FromWin32(395);
inline constexpr Hresult kRequestCanceled = FromWin32(398);
inline constexpr Hresult kProviderTerminated = FromWin32(404);
inline constexpr Hresult kRequestTimeout = FromWin32(426);
inline constexpr Hresult kDehydrationDisallowed = FromWin32(434);
}  // namespace hr

namespace callback {
enum Type : std::uint32_t {
  kFetchData = 0,
  kValidateData = 1,
  kCancelFetchData = 2,
  kFetchPlaceholders = 3,
  kFileOpenCompletion = 5,
  kFileCloseCompletion = 6,
  kDehydrate = 7,
  kDehydrateCompletion = 8,
  kDelete = 9,
  kDeleteCompletion = 10,
  kRename = 11,
  kRenameCompletion = 12,
};
inline constexpr std::uint32_t kCancelIoTimeout = 1;
inline constexpr std::uint32_t kCancelIoAborted = 2;
inline constexpr std::uint32_t kFetchRecovery = 1;
inline constexpr std::uint32_t kFetchExplicitHydration = 2;
inline constexpr std::uint32_t kValidateExplicitHydration = 2;
inline constexpr std::uint32_t kCloseDeleted = 1;
inline constexpr std::uint32_t kDehydrateBackground = 1;
inline constexpr std::uint32_t kDehydrated = 2;
inline constexpr std::uint32_t kIsDirectory = 1;  // delete and rename
inline constexpr std::uint32_t kSourceInScope = 2;
inline constexpr std::uint32_t kTargetInScope = 4;
inline constexpr std::int64_t kReasonUserManual = 1;
}  // namespace callback

namespace policy {
inline constexpr std::uint16_t kHydrationPartial = 0;
inline constexpr std::uint16_t kHydrationProgressive = 1;
inline constexpr std::uint16_t kHydrationFull = 2;
inline constexpr std::uint16_t kHydrationAlwaysFull = 3;
inline constexpr std::uint16_t kValidationRequired = 1;
inline constexpr std::uint16_t kStreamingAllowed = 2;
inline constexpr std::uint16_t kHydrationModifiers = 0xF;
inline constexpr std::uint16_t kPopulationFull = 2;
inline constexpr std::uint16_t kPopulationAlwaysFull = 3;
inline constexpr std::uint32_t kTrackFileReadonly = 0x2;
inline constexpr std::uint32_t kTrackFileHidden = 0x4;
inline constexpr std::uint32_t kTrackFileSystem = 0x8;
inline constexpr std::uint32_t kTrackDirectoryReadonly = 0x20;
inline constexpr std::uint32_t kTrackDirectoryHidden = 0x40;
inline constexpr std::uint32_t kTrackDirectorySystem = 0x80;
inline constexpr std::uint32_t kTrackFileLastWriteTime = 0x100;
inline constexpr std::uint32_t kTrackDirectoryLastWriteTime = 0x200;
inline constexpr std::uint32_t kPreserveForSyncEngine = 0x80000000U;
inline constexpr std::uint32_t kHardLinkAllowed = 1;
}  // namespace policy

namespace flag {
inline constexpr std::uint32_t kRegisterUpdate = 1;
inline constexpr std::uint32_t kRegisterRootPopulated = 2;
inline constexpr std::uint32_t kRegisterRootInSync = 4;
inline constexpr std::uint32_t kConnectBlockSelf = 8;
inline constexpr std::uint32_t kConnectAll = 2 | 4 | 8;
inline constexpr std::uint32_t kStopOnError = 1;  // of a create call
inline constexpr std::uint32_t kCreatePopulated = 1;
inline constexpr std::uint32_t kCreateInSync = 2;
inline constexpr std::uint32_t kCreateSupersede = 4;
inline constexpr std::uint32_t kCreateAlwaysFull = 8;
inline constexpr std::uint32_t kConvertInSync = 1;
inline constexpr std::uint32_t kConvertDehydrate = 2;
inline constexpr std::uint32_t kConvertEnablePopulation = 4;
inline constexpr std::uint32_t kConvertAlwaysFull = 8;
inline constexpr std::uint32_t kConvertAll = 0x1F;
inline constexpr std::uint32_t kUpdateVerifyInSync = 0x1;
inline constexpr std::uint32_t kUpdateInSync = 0x2;
inline constexpr std::uint32_t kUpdateDehydrate = 0x4;
inline constexpr std::uint32_t kUpdateEnablePopulation = 0x8;
inline constexpr std::uint32_t kUpdateDisablePopulation = 0x10;
inline constexpr std::uint32_t kUpdateRemoveIdentity = 0x20;
inline constexpr std::uint32_t kUpdateClearInSync = 0x40;
inline constexpr std::uint32_t kUpdateAlwaysFull = 0x200;
inline constexpr std::uint32_t kUpdateAllowPartial = 0x400;
inline constexpr std::uint32_t kUpdateAll = 0x7FF;
inline constexpr std::uint32_t kDehydrateBackground = 1;
inline constexpr std::uint32_t kRestartInSync = 1;
inline constexpr std::uint32_t kPinRecurse = 1;
inline constexpr std::uint32_t kPinRecurseOnly = 2;
inline constexpr std::uint32_t kPinStopOnError = 4;
}  // namespace flag

enum class PinState : std::uint32_t {
  kUnspecified = 0,
  kPinned = 1,
  kUnpinned = 2,
  kExcluded = 3,
  kInherit = 4,  // only ever set, never kept
};

namespace attribute {
inline constexpr std::uint32_t kReadonly = 0x1;
inline constexpr std::uint32_t kHidden = 0x2;
inline constexpr std::uint32_t kSystem = 0x4;
inline constexpr std::uint32_t kDirectory = 0x10;
inline constexpr std::uint32_t kArchive = 0x20;
inline constexpr std::uint32_t kSparse = 0x200;
inline constexpr std::uint32_t kReparsePoint = 0x400;
inline constexpr std::uint32_t kOffline = 0x1000;
inline constexpr std::uint32_t kPinned = 0x80000;
inline constexpr std::uint32_t kUnpinned = 0x100000;
inline constexpr std::uint32_t kRecallOnDataAccess = 0x400000;
// What a provider may set on a placeholder and the filter keeps: read-only, hidden, system,
// archive, temporary, not content indexed.
inline constexpr std::uint32_t kKept = 0x2127;
}  // namespace attribute

// The tag of placeholders. Its four free bits are the filter's own; the two that cldapi.dll reads
// states from are invented.
namespace reparse {
inline constexpr std::uint32_t kCloud = 0x9000001A;
inline constexpr std::uint32_t kSyncRoot = 0x1000;
inline constexpr std::uint32_t kInSync = 0x8000;
}  // namespace reparse

namespace state {
inline constexpr std::uint32_t kPlaceholder = 0x1;
inline constexpr std::uint32_t kSyncRoot = 0x2;
inline constexpr std::uint32_t kInSync = 0x8;
inline constexpr std::uint32_t kPartial = 0x10;
inline constexpr std::uint32_t kPartiallyOnDisk = 0x20;
}  // namespace state

namespace range_class {
inline constexpr std::uint32_t kOnDisk = 1;
inline constexpr std::uint32_t kValidated = 2;
inline constexpr std::uint32_t kModified = 3;
}  // namespace range_class

inline constexpr std::int64_t kPage = 4096;
inline constexpr std::size_t kMaxFileIdentity = 4096;
inline constexpr std::size_t kMaxRootIdentity = 64 << 10;
inline constexpr std::size_t kMaxProviderText = 255;

// Documented: a failure status outside the cloud-file family counts as "unsuccessful"; success
// passes.
Hresult HresultOfStatus(std::uint32_t ntstatus);

// What a program sees when the filter refuses or fails its operation.
int ErrnoOf(Hresult result);

// What an API caller sees when the backing file system refuses.
Hresult HresultOfErrno(int error);

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_CODES_H_
