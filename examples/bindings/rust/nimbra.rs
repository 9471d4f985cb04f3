//! The functions of Nimbra.dll. nimbra.h says what they do.
//!
//! Written by scripts/bindings.py: do not change it by hand.
//!
//! No panic may leave a callback. `CORVWinCFPlaceholderMetaNew` and `CORVWinCFStartShellServices`
//! abort the process where nimbra.h speaks of a C++ exception.

#![allow(dead_code, non_camel_case_types, non_snake_case, non_upper_case_globals)]

use std::os::raw::{c_char, c_void};

#[repr(C)]
pub struct CORVWinCFSyncRootHandleRecord {
    _opaque: [u8; 0],
}
pub type CORVWinCFSyncRootHandle = *mut CORVWinCFSyncRootHandleRecord;

#[repr(C)]
pub struct CORVWinCFCallbackDelegatorHandleRecord {
    _opaque: [u8; 0],
}
pub type CORVWinCFCallbackDelegatorHandle = *mut CORVWinCFCallbackDelegatorHandleRecord;

#[repr(C)]
pub struct CORVWinCFPlaceholderHandleRecord {
    _opaque: [u8; 0],
}
pub type CORVWinCFPlaceholderHandle = *mut CORVWinCFPlaceholderHandleRecord;

#[repr(C)]
pub struct __tag_PlaceholderMetaWrap {
    _opaque: [u8; 0],
}
pub type CORVWinCFPlaceholderMetaHandle = *mut __tag_PlaceholderMetaWrap;

#[repr(C)]
#[derive(Clone, Copy)]
pub struct CORVWinCFPlatformInfo {
    pub buildNumber: u32,
    pub revisionNumber: u32,
    pub integrationNumber: u32,
}

#[repr(C)]
#[derive(Clone, Copy)]
pub struct CORVWinCFCallbackRecord {
    pub sessionNumber: i64,
    pub transferKey: i64,
    pub processId: i64,
    pub fileId: i64,
    pub fileIdentity: *const c_char,
    pub fullPath: *const c_char,
    pub targetPath: *const c_char,
    pub parameters: [i64; 4],
    pub reserved: i64,
    pub context: *mut c_void,
    pub imagePath: *const c_char,
}

pub const CORVWinCFTransferSucceeded: u32 = 0;
pub const CORVWinCFTransferUnsuccessful: u32 = 1;
pub const CORVWinCFTransferDiskFull: u32 = 2;
pub const CORVWinCFTransferAborted: u32 = 3;

pub type CORVWinCFCallback =
    Option<unsafe extern "C" fn(record: *const CORVWinCFCallbackRecord)>;

pub type CORVWinCFThumbRetriever =
    Option<unsafe extern "C" fn(item_path: *const u16, image_path: *mut u16) -> bool>;

#[link(name = "Nimbra")]
extern "C" {
    pub fn CORVWinCFIsWinVersionSupportFileStreaming() -> bool;
    pub fn CORVWinCFIsWinVersionDisableUIFileStreamingOption() -> bool;
    pub fn CORVWinCFIsWinVersionDefaultFileStreaming() -> bool;
    pub fn CORVWinCFGetPlatformInfo(info: *mut CORVWinCFPlatformInfo) -> i32;
    pub fn CORVWinCFGetSyncRootIdentityByPath(path: *const c_char, identity: *mut c_void) -> i32;
    pub fn CORVWinCFIsPathUnderCorvDriveSyncRoot(path: *const c_char) -> i32;
    pub fn CORVWinCFSyncRootNew(
        handle_out: *mut CORVWinCFSyncRootHandle,
        path: *const c_char,
        session_id: u64,
    ) -> i32;
    pub fn CORVWinCFSyncRootRegister(handle: CORVWinCFSyncRootHandle, text: *const c_char) -> i32;
    pub fn CORVWinCFSyncRootReregister(handle: CORVWinCFSyncRootHandle, text: *const c_char) -> i32;
    pub fn CORVWinCFSyncRootUnregister(handle: CORVWinCFSyncRootHandle) -> i32;
    pub fn CORVWinCFSyncRootConnect(
        sync_root_handle: CORVWinCFSyncRootHandle,
        delegator_handle: CORVWinCFCallbackDelegatorHandle,
    ) -> i32;
    pub fn CORVWinCFSyncRootDisconnect(handle: CORVWinCFSyncRootHandle) -> i32;
    pub fn CORVWinCFSyncRootTransferData(
        handle: CORVWinCFSyncRootHandle,
        transfer_key: i64,
        unused: i64,
        buffer: *const c_void,
        offset: i64,
        length: i64,
        status: u32,
    ) -> i32;
    pub fn CORVWinCFSyncRootReportTransferProgress(
        handle: CORVWinCFSyncRootHandle,
        transfer_key: i64,
        total: i64,
        completed: i64,
    ) -> i32;
    pub fn CORVWinCFSyncRootProactiveTransferToPlaceholder(
        handle: CORVWinCFSyncRootHandle,
        placeholder_handle: CORVWinCFPlaceholderHandle,
        local_path: *const c_char,
    ) -> i32;
    pub fn CORVWinCFSyncRootAckRename(handle: CORVWinCFSyncRootHandle, transfer_key: i64) -> i32;
    pub fn CORVWinCFSyncRootAckDelete(
        handle: CORVWinCFSyncRootHandle,
        transfer_key: i64,
        unused: i64,
        status: u32,
    ) -> i32;
    pub fn CORVWinCFSyncRootRelease(handle_variable: *mut CORVWinCFSyncRootHandle);
    pub fn CORVWinCFCallbackDelegatorNew(
        handle_out: *mut CORVWinCFCallbackDelegatorHandle,
        context: *mut c_void,
    ) -> i32;
    pub fn CORVWinCFCallbackDelegatorSetFetchCallback(
        handle: CORVWinCFCallbackDelegatorHandle,
        callback: CORVWinCFCallback,
    ) -> i32;
    pub fn CORVWinCFCallbackDelegatorSetFetchCancelCallback(
        handle: CORVWinCFCallbackDelegatorHandle,
        callback: CORVWinCFCallback,
    ) -> i32;
    pub fn CORVWinCFCallbackDelegatorSetDeleteCallback(
        handle: CORVWinCFCallbackDelegatorHandle,
        callback: CORVWinCFCallback,
    ) -> i32;
    pub fn CORVWinCFCallbackDelegatorSetRenameCallback(
        handle: CORVWinCFCallbackDelegatorHandle,
        callback: CORVWinCFCallback,
    ) -> i32;
    pub fn CORVWinCFCallbackDelegatorSetRenameCompletionCallback(
        handle: CORVWinCFCallbackDelegatorHandle,
        callback: CORVWinCFCallback,
    ) -> i32;
    pub fn CORVWinCFCallbackDelegatorSetOpenCompletionCallback(
        handle: CORVWinCFCallbackDelegatorHandle,
        callback: CORVWinCFCallback,
    ) -> i32;
    pub fn CORVWinCFCallbackDelegatorRelease(handle: CORVWinCFCallbackDelegatorHandle);
    pub fn CORVWinCFIsPlaceholder(path: *const c_char) -> i32;
    pub fn CORVWinCFIsPlaceholderByFindData(find_data: *const c_void) -> i32;
    pub fn CORVWinCFIsFullyHydrated(path: *const c_char) -> i32;
    pub fn CORVWinCFIsFullyHydratedW(path: *const u16) -> i32;
    pub fn CORVWinCFPlaceholderNew(
        handle_out: *mut CORVWinCFPlaceholderHandle,
        path: *const c_char,
    ) -> i32;
    pub fn CORVWinCFPlaceholderOpen(handle: CORVWinCFPlaceholderHandle) -> i32;
    pub fn CORVWinCFPlaceholderCreate(
        handle: CORVWinCFPlaceholderHandle,
        identity: *const c_char,
        meta: CORVWinCFPlaceholderMetaHandle,
    ) -> i32;
    pub fn CORVWinCFPlaceholderUpdate(
        handle: CORVWinCFPlaceholderHandle,
        identity: *const c_char,
        meta: CORVWinCFPlaceholderMetaHandle,
    ) -> i32;
    pub fn CORVWinCFPlaceholderConvertToPlaceholder(
        handle: CORVWinCFPlaceholderHandle,
        identity: *const c_char,
    ) -> i32;
    pub fn CORVWinCFPlaceholderRevertToNormal(handle: CORVWinCFPlaceholderHandle) -> i32;
    pub fn CORVWinCFPlaceholderIsPlaceholder(handle: CORVWinCFPlaceholderHandle) -> i32;
    pub fn CORVWinCFPlaceholderIsFullyHydrated(handle: CORVWinCFPlaceholderHandle) -> i32;
    pub fn CORVWinCFPlaceholderIsPinned(handle: CORVWinCFPlaceholderHandle) -> i32;
    pub fn CORVWinCFPlaceholderIsExcluded(handle: CORVWinCFPlaceholderHandle) -> i32;
    pub fn CORVWinCFPlaceholderIsInSync(handle: CORVWinCFPlaceholderHandle) -> i32;
    pub fn CORVWinCFPlaceholderGetFileIdentity(
        handle: CORVWinCFPlaceholderHandle,
        buffer: *mut c_void,
    );
    pub fn CORVWinCFPlaceholderHydrateAll(handle: CORVWinCFPlaceholderHandle) -> i32;
    pub fn CORVWinCFPlaceholderHydrateAllAsync(handle: CORVWinCFPlaceholderHandle) -> i32;
    pub fn CORVWinCFPlaceholderDehydrate(
        handle: CORVWinCFPlaceholderHandle,
        offset: i64,
        length: i64,
    ) -> i32;
    pub fn CORVWinCFPlaceholderDehydrateAll(handle: CORVWinCFPlaceholderHandle) -> i32;
    pub fn CORVWinCFPlaceholderPinToLocal(handle: CORVWinCFPlaceholderHandle) -> i32;
    pub fn CORVWinCFPlaceholderUnpin(handle: CORVWinCFPlaceholderHandle) -> i32;
    pub fn CORVWinCFPlaceholderForceUnpin(handle: CORVWinCFPlaceholderHandle) -> i32;
    pub fn CORVWinCFPlaceholderSetInSync(handle: CORVWinCFPlaceholderHandle) -> i32;
    pub fn CORVWinCFPlaceholderSetNotInSync(handle: CORVWinCFPlaceholderHandle) -> i32;
    pub fn CORVWinCFPlaceholderSetExcluded(handle: CORVWinCFPlaceholderHandle) -> i32;
    pub fn CORVWinCFPlaceholderRelease(handle: CORVWinCFPlaceholderHandle);
    pub fn CORVWinCFPlaceholderMetaNew(
        last_access_time: i64,
        change_time: i64,
        creation_time: i64,
        last_write_time: i64,
        file_size: i64,
        r#type: i32,
    ) -> CORVWinCFPlaceholderMetaHandle;
    pub fn CORVWinCFPlaceholderMetaRelease(handle: CORVWinCFPlaceholderMetaHandle);
    pub fn CORVWinCFGenerateGuid(out: *mut *mut c_char) -> i32;
    pub fn CORVWinCFReleaseGuid(guid: *mut c_void);
    pub fn CORVWinCFSyncEngineRegister(
        sync_root_path: *const c_char,
        clsid: *const c_char,
        system_folder_id: u64,
        display_name: *const c_char,
        share_name: *const c_char,
        remote_path: *const c_char,
    ) -> i32;
    pub fn CORVWinCFSyncEngineUnregister(
        sync_root_path: *const c_char,
        clsid: *const c_char,
        system_folder_id: u64,
        display_name: *const c_char,
        share_name: *const c_char,
        remote_path: *const c_char,
    ) -> i32;
    pub fn CORVWinCFSyncEngineUnregisterSystemFolder(clsid: *const c_char) -> i32;
    pub fn CORVWinCFSetThumbRetrieverCb(retriever: CORVWinCFThumbRetriever);
    pub fn CORVWinCFStartShellServices();
}
