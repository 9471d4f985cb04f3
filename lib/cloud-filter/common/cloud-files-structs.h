#ifndef NIMBRA_COMMON_CLOUD_FILES_STRUCTS_H_
#define NIMBRA_COMMON_CLOUD_FILES_STRUCTS_H_

// Structures of the Cloud Files interface; see cloud-files.h.

#include <windows.h>

#include "common/cloud-files-enums.h"
#include "common/cloud-files-errors.h"

#ifndef RTL_CORRELATION_VECTOR_STRING_LENGTH
#define RTL_CORRELATION_VECTOR_STRING_LENGTH 129
struct CORRELATION_VECTOR {
  CHAR Version;
  CHAR Vector[RTL_CORRELATION_VECTOR_STRING_LENGTH];
};
typedef CORRELATION_VECTOR* PCORRELATION_VECTOR;
#endif

#define CF_EOF (-1)
#define CF_REQUEST_KEY_DEFAULT (0)
#define CF_PLACEHOLDER_MAX_FILE_IDENTITY_LENGTH (4096)
#define CF_MAX_PRIORITY_HINT (15)
#define CF_MAX_PROVIDER_NAME_LENGTH (255)
#define CF_MAX_PROVIDER_VERSION_LENGTH (255)

// Keys. They travel in one register only while the types stay trivially copyable.

struct CF_CONNECTION_KEY {
  LONGLONG Internal;
};
typedef LARGE_INTEGER CF_TRANSFER_KEY;
typedef LARGE_INTEGER CF_REQUEST_KEY;

struct CF_PLATFORM_INFO {
  DWORD BuildNumber;
  DWORD RevisionNumber;
  DWORD IntegrationNumber;
};

struct CF_FS_METADATA {
  FILE_BASIC_INFO BasicInfo;
  LARGE_INTEGER FileSize;
};

struct CF_FILE_RANGE {
  LARGE_INTEGER StartingOffset;
  LARGE_INTEGER Length;
};

struct CF_SYNC_STATUS {
  ULONG StructSize;
  ULONG Code;
  ULONG DescriptionOffset;
  ULONG DescriptionLength;
  ULONG DeviceIdOffset;
  ULONG DeviceIdLength;
};

// Registration. The policy members are 16 bits wide, unlike the enumerations they take.

struct CF_HYDRATION_POLICY_PRIMARY_USHORT {
  USHORT us;
};
struct CF_HYDRATION_POLICY_MODIFIER_USHORT {
  USHORT us;
};
struct CF_HYDRATION_POLICY {
  CF_HYDRATION_POLICY_PRIMARY_USHORT Primary;
  CF_HYDRATION_POLICY_MODIFIER_USHORT Modifier;
};

struct CF_POPULATION_POLICY_PRIMARY_USHORT {
  USHORT us;
};
struct CF_POPULATION_POLICY_MODIFIER_USHORT {
  USHORT us;
};
struct CF_POPULATION_POLICY {
  CF_POPULATION_POLICY_PRIMARY_USHORT Primary;
  CF_POPULATION_POLICY_MODIFIER_USHORT Modifier;
};

struct CF_SYNC_POLICIES {
  ULONG StructSize;
  CF_HYDRATION_POLICY Hydration;
  CF_POPULATION_POLICY Population;
  CF_INSYNC_POLICY InSync;
  CF_HARDLINK_POLICY HardLink;
  CF_PLACEHOLDER_MANAGEMENT_POLICY PlaceholderManagement;
};

struct CF_SYNC_REGISTRATION {
  ULONG StructSize;
  LPCWSTR ProviderName;
  LPCWSTR ProviderVersion;
  LPCVOID SyncRootIdentity;
  DWORD SyncRootIdentityLength;
  LPCVOID FileIdentity;
  DWORD FileIdentityLength;
  GUID ProviderId;
};

// Callbacks.

struct CF_PROCESS_INFO {
  ULONG StructSize;
  ULONG ProcessId;
  PCWSTR ImagePath;
  PCWSTR PackageName;
  PCWSTR ApplicationId;
  PCWSTR CommandLine;
  ULONG SessionId;
};

struct CF_CALLBACK_INFO {
  ULONG StructSize;
  CF_CONNECTION_KEY ConnectionKey;
  LPVOID CallbackContext;
  PCWSTR VolumeGuidName;
  PCWSTR VolumeDosName;
  DWORD VolumeSerialNumber;
  LARGE_INTEGER SyncRootFileId;
  LPCVOID SyncRootIdentity;
  DWORD SyncRootIdentityLength;
  LARGE_INTEGER FileId;
  LARGE_INTEGER FileSize;
  LPCVOID FileIdentity;
  DWORD FileIdentityLength;
  PCWSTR NormalizedPath;
  CF_TRANSFER_KEY TransferKey;
  UCHAR PriorityHint;
  PCORRELATION_VECTOR CorrelationVector;
  CF_PROCESS_INFO* ProcessInfo;
  CF_REQUEST_KEY RequestKey;
};

struct CF_CALLBACK_PARAMETERS {
  struct CancelFetchDataArm {
    LARGE_INTEGER FileOffset;
    LARGE_INTEGER Length;
  };
  struct CancelArm {
    CF_CALLBACK_CANCEL_FLAGS Flags;
    union {
      CancelFetchDataArm FetchData;
    };
  };
  struct FetchDataArm {
    CF_CALLBACK_FETCH_DATA_FLAGS Flags;
    LARGE_INTEGER RequiredFileOffset;
    LARGE_INTEGER RequiredLength;
    LARGE_INTEGER OptionalFileOffset;
    LARGE_INTEGER OptionalLength;
    LARGE_INTEGER LastDehydrationTime;
    CF_CALLBACK_DEHYDRATION_REASON LastDehydrationReason;
  };
  struct ValidateDataArm {
    CF_CALLBACK_VALIDATE_DATA_FLAGS Flags;
    LARGE_INTEGER RequiredFileOffset;
    LARGE_INTEGER RequiredLength;
  };
  struct FetchPlaceholdersArm {
    CF_CALLBACK_FETCH_PLACEHOLDERS_FLAGS Flags;
    PCWSTR Pattern;
  };
  struct OpenCompletionArm {
    CF_CALLBACK_OPEN_COMPLETION_FLAGS Flags;
  };
  struct CloseCompletionArm {
    CF_CALLBACK_CLOSE_COMPLETION_FLAGS Flags;
  };
  struct DehydrateArm {
    CF_CALLBACK_DEHYDRATE_FLAGS Flags;
    CF_CALLBACK_DEHYDRATION_REASON Reason;
  };
  struct DehydrateCompletionArm {
    CF_CALLBACK_DEHYDRATE_COMPLETION_FLAGS Flags;
    CF_CALLBACK_DEHYDRATION_REASON Reason;
  };
  struct DeleteArm {
    CF_CALLBACK_DELETE_FLAGS Flags;
  };
  struct DeleteCompletionArm {
    CF_CALLBACK_DELETE_COMPLETION_FLAGS Flags;
  };
  struct RenameArm {
    CF_CALLBACK_RENAME_FLAGS Flags;
    PCWSTR TargetPath;
  };
  struct RenameCompletionArm {
    CF_CALLBACK_RENAME_COMPLETION_FLAGS Flags;
    PCWSTR SourcePath;
  };

  ULONG ParamSize;
  union {
    CancelArm Cancel;
    FetchDataArm FetchData;
    ValidateDataArm ValidateData;
    FetchPlaceholdersArm FetchPlaceholders;
    OpenCompletionArm OpenCompletion;
    CloseCompletionArm CloseCompletion;
    DehydrateArm Dehydrate;
    DehydrateCompletionArm DehydrateCompletion;
    DeleteArm Delete;
    DeleteCompletionArm DeleteCompletion;
    RenameArm Rename;
    RenameCompletionArm RenameCompletion;
  };
};

typedef VOID(CALLBACK* CF_CALLBACK)(const CF_CALLBACK_INFO* CallbackInfo,
                                    const CF_CALLBACK_PARAMETERS* CallbackParameters);

struct CF_CALLBACK_REGISTRATION {
  CF_CALLBACK_TYPE Type;
  CF_CALLBACK Callback;
};

// Placeholders.

struct CF_PLACEHOLDER_CREATE_INFO {
  LPCWSTR RelativeFileName;
  CF_FS_METADATA FsMetadata;
  LPCVOID FileIdentity;
  DWORD FileIdentityLength;
  CF_PLACEHOLDER_CREATE_FLAGS Flags;
  HRESULT Result;
  USN CreateUsn;
};

struct CF_PLACEHOLDER_BASIC_INFO {
  CF_PIN_STATE PinState;
  CF_IN_SYNC_STATE InSyncState;
  LARGE_INTEGER FileId;
  LARGE_INTEGER SyncRootFileId;
  ULONG FileIdentityLength;
  BYTE FileIdentity[1];
};

struct CF_PLACEHOLDER_STANDARD_INFO {
  LARGE_INTEGER OnDiskDataSize;
  LARGE_INTEGER ValidatedDataSize;
  LARGE_INTEGER ModifiedDataSize;
  LARGE_INTEGER PropertiesSize;
  CF_PIN_STATE PinState;
  CF_IN_SYNC_STATE InSyncState;
  LARGE_INTEGER FileId;
  LARGE_INTEGER SyncRootFileId;
  ULONG FileIdentityLength;
  BYTE FileIdentity[1];
};

struct CF_SYNC_ROOT_BASIC_INFO {
  LARGE_INTEGER SyncRootFileId;
};

struct CF_SYNC_ROOT_PROVIDER_INFO {
  CF_SYNC_PROVIDER_STATUS ProviderStatus;
  WCHAR ProviderName[CF_MAX_PROVIDER_NAME_LENGTH + 1];
  WCHAR ProviderVersion[CF_MAX_PROVIDER_VERSION_LENGTH + 1];
};

struct CF_SYNC_ROOT_STANDARD_INFO {
  LARGE_INTEGER SyncRootFileId;
  CF_HYDRATION_POLICY HydrationPolicy;
  CF_POPULATION_POLICY PopulationPolicy;
  CF_INSYNC_POLICY InSyncPolicy;
  CF_HARDLINK_POLICY HardLinkPolicy;
  CF_SYNC_PROVIDER_STATUS ProviderStatus;
  WCHAR ProviderName[CF_MAX_PROVIDER_NAME_LENGTH + 1];
  WCHAR ProviderVersion[CF_MAX_PROVIDER_VERSION_LENGTH + 1];
  ULONG SyncRootIdentityLength;
  BYTE SyncRootIdentity[1];
};

// Operations.

struct CF_OPERATION_INFO {
  ULONG StructSize;
  CF_OPERATION_TYPE Type;
  CF_CONNECTION_KEY ConnectionKey;
  CF_TRANSFER_KEY TransferKey;
  const CORRELATION_VECTOR* CorrelationVector;
  const CF_SYNC_STATUS* SyncStatus;
  CF_REQUEST_KEY RequestKey;
};

struct CF_OPERATION_PARAMETERS {
  struct TransferDataArm {
    CF_OPERATION_TRANSFER_DATA_FLAGS Flags;
    NTSTATUS CompletionStatus;
    LPCVOID Buffer;
    LARGE_INTEGER Offset;
    LARGE_INTEGER Length;
  };
  struct RetrieveDataArm {
    CF_OPERATION_RETRIEVE_DATA_FLAGS Flags;
    LPVOID Buffer;
    LARGE_INTEGER Offset;
    LARGE_INTEGER Length;
    LARGE_INTEGER ReturnedLength;
  };
  struct AckDataArm {
    CF_OPERATION_ACK_DATA_FLAGS Flags;
    NTSTATUS CompletionStatus;
    LARGE_INTEGER Offset;
    LARGE_INTEGER Length;
  };
  struct RestartHydrationArm {
    CF_OPERATION_RESTART_HYDRATION_FLAGS Flags;
    const CF_FS_METADATA* FsMetadata;
    LPCVOID FileIdentity;
    DWORD FileIdentityLength;
  };
  struct TransferPlaceholdersArm {
    CF_OPERATION_TRANSFER_PLACEHOLDERS_FLAGS Flags;
    NTSTATUS CompletionStatus;
    LARGE_INTEGER PlaceholderTotalCount;
    CF_PLACEHOLDER_CREATE_INFO* PlaceholderArray;
    DWORD PlaceholderCount;
    DWORD EntriesProcessed;
  };
  struct AckDehydrateArm {
    CF_OPERATION_ACK_DEHYDRATE_FLAGS Flags;
    NTSTATUS CompletionStatus;
    LPCVOID FileIdentity;
    DWORD FileIdentityLength;
  };
  struct AckRenameArm {
    CF_OPERATION_ACK_RENAME_FLAGS Flags;
    NTSTATUS CompletionStatus;
  };
  struct AckDeleteArm {
    CF_OPERATION_ACK_DELETE_FLAGS Flags;
    NTSTATUS CompletionStatus;
  };

  ULONG ParamSize;
  union {
    TransferDataArm TransferData;
    RetrieveDataArm RetrieveData;
    AckDataArm AckData;
    RestartHydrationArm RestartHydration;
    TransferPlaceholdersArm TransferPlaceholders;
    AckDehydrateArm AckDehydrate;
    AckRenameArm AckRename;
    AckDeleteArm AckDelete;
  };
};

#endif
