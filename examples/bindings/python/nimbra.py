"""The functions of Nimbra.dll through ctypes. nimbra.h says what they do.

Written by scripts/bindings.py: do not change it by hand.

Texts are bytes in UTF-8: "text".encode(). A callback must be kept in a variable for as long as the
library may call it, and an exception that leaves it is printed and goes no further, so that a fetch
has no answer: catch it. CORVWinCFPlaceholderMetaNew and CORVWinCFStartShellServices can end the
process where nimbra.h speaks of a C++ exception.
"""

import ctypes


class SyncRootHandle(ctypes.c_void_p):
    pass


class CallbackDelegatorHandle(ctypes.c_void_p):
    pass


class PlaceholderHandle(ctypes.c_void_p):
    pass


class PlaceholderMetaHandle(ctypes.c_void_p):
    pass


class PlatformInfo(ctypes.Structure):
    _fields_ = [
        ("buildNumber", ctypes.c_uint32),
        ("revisionNumber", ctypes.c_uint32),
        ("integrationNumber", ctypes.c_uint32),
    ]


class CallbackRecord(ctypes.Structure):
    _fields_ = [
        ("sessionNumber", ctypes.c_int64),
        ("transferKey", ctypes.c_int64),
        ("processId", ctypes.c_int64),
        ("fileId", ctypes.c_int64),
        ("fileIdentity", ctypes.c_char_p),
        ("fullPath", ctypes.c_char_p),
        ("targetPath", ctypes.c_char_p),
        ("parameters", ctypes.c_int64 * 4),
        ("reserved", ctypes.c_int64),
        ("context", ctypes.c_void_p),
        ("imagePath", ctypes.c_char_p),
    ]


TransferSucceeded = 0
TransferUnsuccessful = 1
TransferDiskFull = 2
TransferAborted = 3

Callback = ctypes.CFUNCTYPE(None, ctypes.POINTER(CallbackRecord))
ThumbRetriever = ctypes.CFUNCTYPE(ctypes.c_bool, ctypes.c_wchar_p, ctypes.POINTER(ctypes.c_wchar))

# The result's type and those of the parameters.
FUNCTIONS = {
    "CORVWinCFIsWinVersionSupportFileStreaming": (ctypes.c_bool,),
    "CORVWinCFIsWinVersionDisableUIFileStreamingOption": (ctypes.c_bool,),
    "CORVWinCFIsWinVersionDefaultFileStreaming": (ctypes.c_bool,),
    "CORVWinCFGetPlatformInfo": (ctypes.c_int32, ctypes.POINTER(PlatformInfo)),
    "CORVWinCFGetSyncRootIdentityByPath": (ctypes.c_int32, ctypes.c_char_p, ctypes.c_void_p),
    "CORVWinCFIsPathUnderCorvDriveSyncRoot": (ctypes.c_int32, ctypes.c_char_p),
    "CORVWinCFSyncRootNew": (
        ctypes.c_int32,
        ctypes.POINTER(SyncRootHandle),
        ctypes.c_char_p,
        ctypes.c_uint64,
    ),
    "CORVWinCFSyncRootRegister": (ctypes.c_int32, SyncRootHandle, ctypes.c_char_p),
    "CORVWinCFSyncRootReregister": (ctypes.c_int32, SyncRootHandle, ctypes.c_char_p),
    "CORVWinCFSyncRootUnregister": (ctypes.c_int32, SyncRootHandle),
    "CORVWinCFSyncRootConnect": (ctypes.c_int32, SyncRootHandle, CallbackDelegatorHandle),
    "CORVWinCFSyncRootDisconnect": (ctypes.c_int32, SyncRootHandle),
    "CORVWinCFSyncRootTransferData": (
        ctypes.c_int32,
        SyncRootHandle,
        ctypes.c_int64,
        ctypes.c_int64,
        ctypes.c_void_p,
        ctypes.c_int64,
        ctypes.c_int64,
        ctypes.c_uint32,
    ),
    "CORVWinCFSyncRootReportTransferProgress": (
        ctypes.c_int32,
        SyncRootHandle,
        ctypes.c_int64,
        ctypes.c_int64,
        ctypes.c_int64,
    ),
    "CORVWinCFSyncRootProactiveTransferToPlaceholder": (
        ctypes.c_int32,
        SyncRootHandle,
        PlaceholderHandle,
        ctypes.c_char_p,
    ),
    "CORVWinCFSyncRootAckRename": (ctypes.c_int32, SyncRootHandle, ctypes.c_int64),
    "CORVWinCFSyncRootAckDelete": (
        ctypes.c_int32,
        SyncRootHandle,
        ctypes.c_int64,
        ctypes.c_int64,
        ctypes.c_uint32,
    ),
    "CORVWinCFSyncRootRelease": (None, ctypes.POINTER(SyncRootHandle)),
    "CORVWinCFCallbackDelegatorNew": (
        ctypes.c_int32,
        ctypes.POINTER(CallbackDelegatorHandle),
        ctypes.c_void_p,
    ),
    "CORVWinCFCallbackDelegatorSetFetchCallback": (
        ctypes.c_int32,
        CallbackDelegatorHandle,
        Callback,
    ),
    "CORVWinCFCallbackDelegatorSetFetchCancelCallback": (
        ctypes.c_int32,
        CallbackDelegatorHandle,
        Callback,
    ),
    "CORVWinCFCallbackDelegatorSetDeleteCallback": (
        ctypes.c_int32,
        CallbackDelegatorHandle,
        Callback,
    ),
    "CORVWinCFCallbackDelegatorSetRenameCallback": (
        ctypes.c_int32,
        CallbackDelegatorHandle,
        Callback,
    ),
    "CORVWinCFCallbackDelegatorSetRenameCompletionCallback": (
        ctypes.c_int32,
        CallbackDelegatorHandle,
        Callback,
    ),
    "CORVWinCFCallbackDelegatorSetOpenCompletionCallback": (
        ctypes.c_int32,
        CallbackDelegatorHandle,
        Callback,
    ),
    "CORVWinCFCallbackDelegatorRelease": (None, CallbackDelegatorHandle),
    "CORVWinCFIsPlaceholder": (ctypes.c_int32, ctypes.c_char_p),
    "CORVWinCFIsPlaceholderByFindData": (ctypes.c_int32, ctypes.c_void_p),
    "CORVWinCFIsFullyHydrated": (ctypes.c_int32, ctypes.c_char_p),
    "CORVWinCFIsFullyHydratedW": (ctypes.c_int32, ctypes.c_wchar_p),
    "CORVWinCFPlaceholderNew": (ctypes.c_int32, ctypes.POINTER(PlaceholderHandle), ctypes.c_char_p),
    "CORVWinCFPlaceholderOpen": (ctypes.c_int32, PlaceholderHandle),
    "CORVWinCFPlaceholderCreate": (
        ctypes.c_int32,
        PlaceholderHandle,
        ctypes.c_char_p,
        PlaceholderMetaHandle,
    ),
    "CORVWinCFPlaceholderUpdate": (
        ctypes.c_int32,
        PlaceholderHandle,
        ctypes.c_char_p,
        PlaceholderMetaHandle,
    ),
    "CORVWinCFPlaceholderConvertToPlaceholder": (
        ctypes.c_int32,
        PlaceholderHandle,
        ctypes.c_char_p,
    ),
    "CORVWinCFPlaceholderRevertToNormal": (ctypes.c_int32, PlaceholderHandle),
    "CORVWinCFPlaceholderIsPlaceholder": (ctypes.c_int32, PlaceholderHandle),
    "CORVWinCFPlaceholderIsFullyHydrated": (ctypes.c_int32, PlaceholderHandle),
    "CORVWinCFPlaceholderIsPinned": (ctypes.c_int32, PlaceholderHandle),
    "CORVWinCFPlaceholderIsExcluded": (ctypes.c_int32, PlaceholderHandle),
    "CORVWinCFPlaceholderIsInSync": (ctypes.c_int32, PlaceholderHandle),
    "CORVWinCFPlaceholderGetFileIdentity": (None, PlaceholderHandle, ctypes.c_void_p),
    "CORVWinCFPlaceholderHydrateAll": (ctypes.c_int32, PlaceholderHandle),
    "CORVWinCFPlaceholderHydrateAllAsync": (ctypes.c_int32, PlaceholderHandle),
    "CORVWinCFPlaceholderDehydrate": (
        ctypes.c_int32,
        PlaceholderHandle,
        ctypes.c_int64,
        ctypes.c_int64,
    ),
    "CORVWinCFPlaceholderDehydrateAll": (ctypes.c_int32, PlaceholderHandle),
    "CORVWinCFPlaceholderPinToLocal": (ctypes.c_int32, PlaceholderHandle),
    "CORVWinCFPlaceholderUnpin": (ctypes.c_int32, PlaceholderHandle),
    "CORVWinCFPlaceholderForceUnpin": (ctypes.c_int32, PlaceholderHandle),
    "CORVWinCFPlaceholderSetInSync": (ctypes.c_int32, PlaceholderHandle),
    "CORVWinCFPlaceholderSetNotInSync": (ctypes.c_int32, PlaceholderHandle),
    "CORVWinCFPlaceholderSetExcluded": (ctypes.c_int32, PlaceholderHandle),
    "CORVWinCFPlaceholderRelease": (None, PlaceholderHandle),
    "CORVWinCFPlaceholderMetaNew": (
        PlaceholderMetaHandle,
        ctypes.c_int64,
        ctypes.c_int64,
        ctypes.c_int64,
        ctypes.c_int64,
        ctypes.c_int64,
        ctypes.c_int32,
    ),
    "CORVWinCFPlaceholderMetaRelease": (None, PlaceholderMetaHandle),
    "CORVWinCFGenerateGuid": (ctypes.c_int32, ctypes.POINTER(ctypes.c_void_p)),
    "CORVWinCFReleaseGuid": (None, ctypes.c_void_p),
    "CORVWinCFSyncEngineRegister": (
        ctypes.c_int32,
        ctypes.c_char_p,
        ctypes.c_char_p,
        ctypes.c_uint64,
        ctypes.c_char_p,
        ctypes.c_char_p,
        ctypes.c_char_p,
    ),
    "CORVWinCFSyncEngineUnregister": (
        ctypes.c_int32,
        ctypes.c_char_p,
        ctypes.c_char_p,
        ctypes.c_uint64,
        ctypes.c_char_p,
        ctypes.c_char_p,
        ctypes.c_char_p,
    ),
    "CORVWinCFSyncEngineUnregisterSystemFolder": (ctypes.c_int32, ctypes.c_char_p),
    "CORVWinCFSetThumbRetrieverCb": (None, ThumbRetriever),
    "CORVWinCFStartShellServices": (None,),
}


def load(path="Nimbra.dll"):
    """The library with all its functions declared; path is a file, or a name to search for."""
    library = ctypes.CDLL(path)
    for name, (result, *parameters) in FUNCTIONS.items():
        function = getattr(library, name)
        function.restype = result
        function.argtypes = parameters
    return library
