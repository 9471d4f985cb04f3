"""The processes that a test class has started, directly or not."""

import os
import pathlib
import signal
import time


def processes_of(folder):
    """{process id: command line} of all that name the folder there or run in a prefix in it."""
    found = {}
    needle = str(folder).encode()
    for entry in pathlib.Path("/proc").iterdir():
        if not entry.name.isdigit() or int(entry.name) == os.getpid():
            continue
        try:
            command = (entry / "cmdline").read_bytes()
            environment = (entry / "environ").read_bytes()
        except OSError:
            continue
        if needle in command or b"WINEPREFIX=" + needle in environment:
            found[int(entry.name)] = command.replace(b"\0", b" ").decode(errors="replace").strip()
    return found


def wait_for_no_processes(folder, seconds=10):
    """Gives those that are still there afterwards."""
    end = time.monotonic() + seconds
    while (left := processes_of(folder)) and time.monotonic() < end:
        time.sleep(0.02)
    return left


def kill_processes(folder):
    for process_id in processes_of(folder):
        try:
            os.kill(process_id, signal.SIGKILL)
        except ProcessLookupError:
            pass
    return wait_for_no_processes(folder)
