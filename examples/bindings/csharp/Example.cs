// Shows one local file in a folder, as a file that takes no room until it is opened. Like
// examples/minimal, in C#.
//
//     Example <empty folder> <local file>

using System;
using System.IO;
using System.Runtime.InteropServices;

namespace NimbraBinding
{
    public sealed class Example
    {
        private const int Piece = 1 << 20; // bytes handed over at once: a multiple of 4096

        private readonly string folder;
        private readonly FileInfo source;
        private readonly long size;
        private readonly long changed;
        private IntPtr root;

        // Kept here, as the library only keeps their addresses.
        private readonly Callback onFetch;
        private readonly Callback onRename;
        private readonly Callback onDelete;

        private Example(string folder, string file)
        {
            this.folder = folder;
            source = new FileInfo(file);
            size = source.Length;
            changed = new DateTimeOffset(source.LastWriteTimeUtc).ToUnixTimeSeconds();
            onFetch = OnFetch;
            onRename = OnRename;
            onDelete = OnDelete;
        }

        // Callbacks come on the system's threads. No exception may leave them, and every fetch is
        // answered: the program that reads waits.
        private void OnFetch(IntPtr address)
        {
            var record = Marshal.PtrToStructure<CallbackRecord>(address);
            long offset = record.parameters[0], length = record.parameters[1], end = size;
            if (length >= 0 && length < end - offset)
            {
                end = offset + length;
            }
            try
            {
                Send(record.transferKey, ref offset, end);
            }
            catch (Exception error)
            {
                Console.Error.WriteLine("a fetch failed: " + error.Message);
                Native.CORVWinCFSyncRootTransferData(root, record.transferKey, 0, IntPtr.Zero,
                    offset, end - offset, Native.TransferUnsuccessful);
            }
        }

        private void Send(long key, ref long offset, long end)
        {
            var piece = new byte[Piece];
            var pinned = GCHandle.Alloc(piece, GCHandleType.Pinned);
            try
            {
                using (var file = source.OpenRead())
                {
                    file.Seek(offset, SeekOrigin.Begin);
                    while (offset < end)
                    {
                        int length = ReadFully(file, piece, (int)Math.Min(Piece, end - offset));
                        Require(Native.CORVWinCFSyncRootTransferData(root, key, 0,
                            pinned.AddrOfPinnedObject(), offset, length,
                            Native.TransferSucceeded), "not transferred");
                        offset += length;
                    }
                }
            }
            finally
            {
                pinned.Free();
            }
        }

        private static int ReadFully(Stream file, byte[] piece, int length)
        {
            for (int done = 0; done < length;)
            {
                int count = file.Read(piece, done, length - done);
                if (count == 0)
                {
                    throw new EndOfStreamException("the file has become shorter");
                }
                done += count;
            }
            return length;
        }

        private void OnRename(IntPtr address)
        {
            var record = Marshal.PtrToStructure<CallbackRecord>(address);
            Native.CORVWinCFSyncRootAckRename(root, record.transferKey);
        }

        private void OnDelete(IntPtr address)
        {
            var record = Marshal.PtrToStructure<CallbackRecord>(address);
            Native.CORVWinCFSyncRootAckDelete(root, record.transferKey, 0,
                Native.TransferSucceeded);
        }

        private static void Require(int result, string what)
        {
            if (result < 0)
            {
                throw new IOException(what + " (0x" + result.ToString("X8") + ")");
            }
        }

        // What a placeholder is called follows the last "/" of its path.
        private void CreatePlaceholder()
        {
            IntPtr item;
            IntPtr meta = Native.CORVWinCFPlaceholderMetaNew(changed, changed, changed, changed,
                size, 0);
            int status = Native.CORVWinCFPlaceholderNew(out item, folder + "/" + source.Name);
            if (status == 0)
            {
                status = Native.CORVWinCFPlaceholderCreate(item, source.Name, meta);
            }
            Native.CORVWinCFPlaceholderRelease(item);
            Native.CORVWinCFPlaceholderMetaRelease(meta);
            Require(status, "no placeholder: is there a file " + source.Name + " already?");
        }

        private void Serve(IntPtr delegator)
        {
            Native.CORVWinCFCallbackDelegatorSetFetchCallback(delegator, onFetch);
            Native.CORVWinCFCallbackDelegatorSetRenameCallback(delegator, onRename);
            Native.CORVWinCFCallbackDelegatorSetDeleteCallback(delegator, onDelete);
            Require(Native.CORVWinCFSyncRootConnect(root, delegator), "not connected");
            try
            {
                CreatePlaceholder();
                Console.WriteLine("serving " + folder + ", press Enter to stop");
                Console.In.ReadLine();
            }
            finally
            {
                Native.CORVWinCFSyncRootDisconnect(root);
            }
        }

        private void Run()
        {
            IntPtr delegator;
            Require(Native.CORVWinCFSyncRootNew(out root, folder, 1), "no sync root");
            Require(Native.CORVWinCFCallbackDelegatorNew(out delegator, IntPtr.Zero),
                "no delegator");
            try
            {
                Require(Native.CORVWinCFSyncRootRegister(root, "C#"), "not registered");
                try
                {
                    Serve(delegator);
                }
                finally
                {
                    // A real client does this only when its user gives the folder up.
                    Native.CORVWinCFSyncRootUnregister(root);
                }
            }
            finally
            {
                Native.CORVWinCFCallbackDelegatorRelease(delegator);
                Native.CORVWinCFSyncRootRelease(ref root);
            }
        }

        public static int Main(string[] arguments)
        {
            if (arguments.Length != 2)
            {
                Console.Error.WriteLine("Example <empty folder> <local file>");
                return 2;
            }
            if (!Native.CORVWinCFIsWinVersionSupportFileStreaming())
            {
                Console.Error.WriteLine(
                    "it takes Windows 10, version 1803, and a manifest that names it");
                return 1;
            }
            try
            {
                new Example(arguments[0], arguments[1]).Run();
                return 0;
            }
            catch (IOException error)
            {
                Console.Error.WriteLine("Example: " + error.Message);
                return 1;
            }
        }
    }
}
