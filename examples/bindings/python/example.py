"""Shows one local file in a folder, as a file that takes no room until it is opened. Like
examples/minimal, in Python: Windows 10, version 1803, or later, with the Python of python.org, whose
python.exe has the manifest that Nimbra needs.

    python example.py <empty folder> <local file>

Nimbra.dll is looked for beside this file; the variable NIMBRA_DLL names another.
"""

import ctypes
import os
import pathlib
import sys
import traceback

import nimbra

PIECE = 1 << 20  # bytes handed over at once: a multiple of 4096


class Failure(Exception):
    pass


def require(result, what):
    if result < 0:
        raise Failure(f"{what} (0x{result & 0xFFFFFFFF:08X})")


class Client:
    def __init__(self, library, folder, source):
        self.library = library
        self.folder = folder
        self.source = pathlib.Path(source)
        self.info = self.source.stat()
        self.root = nimbra.SyncRootHandle()
        self.delegator = nimbra.CallbackDelegatorHandle()
        # Kept here, as the library only keeps their addresses.
        self.on_fetch = nimbra.Callback(self._on_fetch)
        self.on_rename = nimbra.Callback(self._on_rename)
        self.on_delete = nimbra.Callback(self._on_delete)

    # Callbacks come on the system's threads. An exception may not leave them, and every fetch is
    # answered: the program that reads waits.

    def _on_fetch(self, record):
        record = record.contents
        offset, length = record.parameters[:2]
        end = self.info.st_size
        if 0 <= length < end - offset:
            end = offset + length
        try:
            self._send(record.transferKey, offset, end)
            outcome = "sent"
        except Exception:
            traceback.print_exc()
            self._transfer(
                record.transferKey, None, offset, end - offset, nimbra.TransferUnsuccessful
            )
            outcome = "failed"
        print(f"fetch {record.fullPath.decode()}: {outcome}", flush=True)

    def _send(self, key, offset, end):
        with self.source.open("rb") as file:
            file.seek(offset)
            while offset < end:
                piece = file.read(min(PIECE, end - offset))
                if not piece:
                    raise Failure(f"{self.source} has become shorter")
                result = self._transfer(key, piece, offset, len(piece), nimbra.TransferSucceeded)
                require(result, "not transferred")
                offset += len(piece)

    def _transfer(self, key, data, offset, length, status):
        return self.library.CORVWinCFSyncRootTransferData(
            self.root, key, 0, data, offset, length, status
        )

    def _on_rename(self, record):
        self.library.CORVWinCFSyncRootAckRename(self.root, record.contents.transferKey)

    def _on_delete(self, record):
        self.library.CORVWinCFSyncRootAckDelete(
            self.root, record.contents.transferKey, 0, nimbra.TransferSucceeded
        )

    def run(self):
        library = self.library
        try:
            status = library.CORVWinCFSyncRootNew(
                ctypes.byref(self.root), self.folder.encode(), 1
            )
            require(status, "no sync root")
            status = library.CORVWinCFCallbackDelegatorNew(ctypes.byref(self.delegator), None)
            require(status, "no delegator")
            require(library.CORVWinCFSyncRootRegister(self.root, b"Python"), "not registered")
            try:
                self._serve()
            finally:
                # A real client does this only when its user gives the folder up.
                require(library.CORVWinCFSyncRootUnregister(self.root), "not unregistered")
        finally:
            library.CORVWinCFCallbackDelegatorRelease(self.delegator)
            library.CORVWinCFSyncRootRelease(ctypes.byref(self.root))

    def _serve(self):
        library, delegator = self.library, self.delegator
        library.CORVWinCFCallbackDelegatorSetFetchCallback(delegator, self.on_fetch)
        library.CORVWinCFCallbackDelegatorSetRenameCallback(delegator, self.on_rename)
        library.CORVWinCFCallbackDelegatorSetDeleteCallback(delegator, self.on_delete)
        require(library.CORVWinCFSyncRootConnect(self.root, delegator), "not connected")
        try:
            self._create_placeholder()
            input(f"serving {self.folder}, press Enter to stop\n")
        finally:
            library.CORVWinCFSyncRootDisconnect(self.root)

    def _create_placeholder(self):
        """Its name is what follows the last "/" of its path."""
        library, name, item = self.library, self.source.name, nimbra.PlaceholderHandle()
        changed = int(self.info.st_mtime)
        meta = library.CORVWinCFPlaceholderMetaNew(
            changed, changed, changed, changed, self.info.st_size, 0
        )
        try:
            path = f"{self.folder}/{name}".encode()
            require(library.CORVWinCFPlaceholderNew(ctypes.byref(item), path), "no memory")
            status = library.CORVWinCFPlaceholderCreate(item, name.encode(), meta)
            require(status, f"no placeholder: is there a file {name} already?")
        finally:
            library.CORVWinCFPlaceholderRelease(item)
            library.CORVWinCFPlaceholderMetaRelease(meta)


def main(arguments):
    if len(arguments) != 2:
        print("python example.py <empty folder> <local file>", file=sys.stderr)
        return 2
    beside = pathlib.Path(__file__).resolve().with_name("Nimbra.dll")
    library = nimbra.load(os.environ.get("NIMBRA_DLL", str(beside)))
    if not library.CORVWinCFIsWinVersionSupportFileStreaming():
        print("it takes Windows 10, version 1803, and a manifest that names it", file=sys.stderr)
        return 1
    try:
        Client(library, *arguments).run()
    except (Failure, OSError) as error:
        print(f"example.py: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
