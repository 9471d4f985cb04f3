// The functions of Nimbra.dll. nimbra.h says what they do.
//
// Written by scripts/bindings.py: do not change it by hand.
//
// Handles are IntPtr, and so is the record of a callback: Marshal.PtrToStructure<CallbackRecord> reads
// it. A delegate must be kept in a field for as long as the library may call it, and no
// exception may leave it. CORVWinCFPlaceholderMetaNew and CORVWinCFStartShellServices can end the
// process where nimbra.h speaks of a C++ exception.

using System;
using System.Runtime.InteropServices;

namespace NimbraBinding
{
    [StructLayout(LayoutKind.Sequential)]
    public struct PlatformInfo
    {
        public uint buildNumber;
        public uint revisionNumber;
        public uint integrationNumber;
    }

    [StructLayout(LayoutKind.Sequential)]
    public struct CallbackRecord
    {
        public long sessionNumber;
        public long transferKey;
        public long processId;
        public long fileId;
        public IntPtr fileIdentity;
        public IntPtr fullPath;
        public IntPtr targetPath;
        [MarshalAs(UnmanagedType.ByValArray, SizeConst = 4)]
        public long[] parameters;
        public long reserved;
        public IntPtr context;
        public IntPtr imagePath;
    }

    [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
    public delegate void Callback(IntPtr record);

    [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
    [return: MarshalAs(UnmanagedType.I1)]
    public delegate bool ThumbRetriever(
        [MarshalAs(UnmanagedType.LPWStr)] string itemPath,
        IntPtr imagePath);

    public static class Native
    {
        private const string Library = "Nimbra";

        public const uint TransferSucceeded = 0;
        public const uint TransferUnsuccessful = 1;
        public const uint TransferDiskFull = 2;
        public const uint TransferAborted = 3;

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        public static extern bool CORVWinCFIsWinVersionSupportFileStreaming();

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        public static extern bool CORVWinCFIsWinVersionDisableUIFileStreamingOption();

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        [return: MarshalAs(UnmanagedType.I1)]
        public static extern bool CORVWinCFIsWinVersionDefaultFileStreaming();

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFGetPlatformInfo(out PlatformInfo info);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFGetSyncRootIdentityByPath(
            [MarshalAs(UnmanagedType.LPUTF8Str)] string path,
            IntPtr identity);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFIsPathUnderCorvDriveSyncRoot(
            [MarshalAs(UnmanagedType.LPUTF8Str)] string path);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFSyncRootNew(
            out IntPtr handleOut,
            [MarshalAs(UnmanagedType.LPUTF8Str)] string path,
            ulong sessionId);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFSyncRootRegister(
            IntPtr handle,
            [MarshalAs(UnmanagedType.LPUTF8Str)] string text);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFSyncRootReregister(
            IntPtr handle,
            [MarshalAs(UnmanagedType.LPUTF8Str)] string text);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFSyncRootUnregister(IntPtr handle);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFSyncRootConnect(
            IntPtr syncRootHandle,
            IntPtr delegatorHandle);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFSyncRootDisconnect(IntPtr handle);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFSyncRootTransferData(
            IntPtr handle,
            long transferKey,
            long unused,
            IntPtr buffer,
            long offset,
            long length,
            uint status);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFSyncRootReportTransferProgress(
            IntPtr handle,
            long transferKey,
            long total,
            long completed);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFSyncRootProactiveTransferToPlaceholder(
            IntPtr handle,
            IntPtr placeholderHandle,
            [MarshalAs(UnmanagedType.LPUTF8Str)] string localPath);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFSyncRootAckRename(IntPtr handle, long transferKey);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFSyncRootAckDelete(
            IntPtr handle,
            long transferKey,
            long unused,
            uint status);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void CORVWinCFSyncRootRelease(ref IntPtr handleVariable);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFCallbackDelegatorNew(
            out IntPtr handleOut,
            IntPtr context);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFCallbackDelegatorSetFetchCallback(
            IntPtr handle,
            Callback callback);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFCallbackDelegatorSetFetchCancelCallback(
            IntPtr handle,
            Callback callback);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFCallbackDelegatorSetDeleteCallback(
            IntPtr handle,
            Callback callback);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFCallbackDelegatorSetRenameCallback(
            IntPtr handle,
            Callback callback);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFCallbackDelegatorSetRenameCompletionCallback(
            IntPtr handle,
            Callback callback);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFCallbackDelegatorSetOpenCompletionCallback(
            IntPtr handle,
            Callback callback);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void CORVWinCFCallbackDelegatorRelease(IntPtr handle);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFIsPlaceholder(
            [MarshalAs(UnmanagedType.LPUTF8Str)] string path);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFIsPlaceholderByFindData(IntPtr findData);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFIsFullyHydrated(
            [MarshalAs(UnmanagedType.LPUTF8Str)] string path);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFIsFullyHydratedW(
            [MarshalAs(UnmanagedType.LPWStr)] string path);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFPlaceholderNew(
            out IntPtr handleOut,
            [MarshalAs(UnmanagedType.LPUTF8Str)] string path);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFPlaceholderOpen(IntPtr handle);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFPlaceholderCreate(
            IntPtr handle,
            [MarshalAs(UnmanagedType.LPUTF8Str)] string identity,
            IntPtr meta);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFPlaceholderUpdate(
            IntPtr handle,
            [MarshalAs(UnmanagedType.LPUTF8Str)] string identity,
            IntPtr meta);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFPlaceholderConvertToPlaceholder(
            IntPtr handle,
            [MarshalAs(UnmanagedType.LPUTF8Str)] string identity);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFPlaceholderRevertToNormal(IntPtr handle);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFPlaceholderIsPlaceholder(IntPtr handle);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFPlaceholderIsFullyHydrated(IntPtr handle);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFPlaceholderIsPinned(IntPtr handle);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFPlaceholderIsExcluded(IntPtr handle);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFPlaceholderIsInSync(IntPtr handle);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void CORVWinCFPlaceholderGetFileIdentity(IntPtr handle, IntPtr buffer);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFPlaceholderHydrateAll(IntPtr handle);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFPlaceholderHydrateAllAsync(IntPtr handle);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFPlaceholderDehydrate(
            IntPtr handle,
            long offset,
            long length);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFPlaceholderDehydrateAll(IntPtr handle);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFPlaceholderPinToLocal(IntPtr handle);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFPlaceholderUnpin(IntPtr handle);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFPlaceholderForceUnpin(IntPtr handle);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFPlaceholderSetInSync(IntPtr handle);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFPlaceholderSetNotInSync(IntPtr handle);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFPlaceholderSetExcluded(IntPtr handle);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void CORVWinCFPlaceholderRelease(IntPtr handle);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern IntPtr CORVWinCFPlaceholderMetaNew(
            long lastAccessTime,
            long changeTime,
            long creationTime,
            long lastWriteTime,
            long fileSize,
            int type);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void CORVWinCFPlaceholderMetaRelease(IntPtr handle);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFGenerateGuid(out IntPtr @out);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void CORVWinCFReleaseGuid(IntPtr guid);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFSyncEngineRegister(
            [MarshalAs(UnmanagedType.LPUTF8Str)] string syncRootPath,
            [MarshalAs(UnmanagedType.LPUTF8Str)] string clsid,
            ulong systemFolderId,
            [MarshalAs(UnmanagedType.LPUTF8Str)] string displayName,
            [MarshalAs(UnmanagedType.LPUTF8Str)] string shareName,
            [MarshalAs(UnmanagedType.LPUTF8Str)] string remotePath);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFSyncEngineUnregister(
            [MarshalAs(UnmanagedType.LPUTF8Str)] string syncRootPath,
            [MarshalAs(UnmanagedType.LPUTF8Str)] string clsid,
            ulong systemFolderId,
            [MarshalAs(UnmanagedType.LPUTF8Str)] string displayName,
            [MarshalAs(UnmanagedType.LPUTF8Str)] string shareName,
            [MarshalAs(UnmanagedType.LPUTF8Str)] string remotePath);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern int CORVWinCFSyncEngineUnregisterSystemFolder(
            [MarshalAs(UnmanagedType.LPUTF8Str)] string clsid);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void CORVWinCFSetThumbRetrieverCb(ThumbRetriever retriever);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void CORVWinCFStartShellServices();
    }
}
