"""A folder in which much happens at once: programs read, rename and delete, and some are killed."""

import os
import signal
import subprocess
import time

from .content import write_content
from .waiting import wait_until

SIZES = (0, 1, 4095, 4096, 4097, 65_537, 300_001, 1 << 20)


def difference(got, wanted):
    if len(got) != len(wanted):
        return f"{len(got)} in place of {len(wanted)}"
    wrong = [at for at in range(len(wanted)) if got[at] != wanted[at]]
    kind = "all zero" if not any(got[at] for at in wrong) else "not zero"
    return f"{len(wrong)} of {len(wanted)}, the first at +{wrong[0]}, {kind}"


class File:
    """One file of the folder, by its identity. Its name is known when nobody is changing it."""

    def __init__(self, identity, data):
        self.identity = identity
        self.data = data
        self.names = [identity]  # that it may have; the first is the one known last
        self.may_be_gone = False
        self.must_be_gone = False

    @property
    def name(self):
        return self.names[0]


class Reader:
    """A program that copies a part of a file."""

    def __init__(self, path, file, offset, length, copy):
        self.file = file
        self.offset = offset
        self.length = length
        self.copy = copy
        self.killed = False
        self.process = subprocess.Popen(
            ["dd", f"if={path}", f"of={copy}", "bs=64K", "iflag=skip_bytes,count_bytes,fullblock"]
            + [f"skip={offset}", f"count={length}", "status=none"],
            stdin=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
        )

    def kill(self, how):
        self.killed = True
        self.process.send_signal(how)

    def outcome(self):
        """What is wrong with what it got, or None; the program has ended."""
        got = self.copy.read_bytes() if self.copy.exists() else b""
        self.copy.unlink(missing_ok=True)
        wanted = self.file.data[self.offset : self.offset + self.length]
        where = f"{self.file.identity} [{self.offset}, +{self.length})"
        if self.process.returncode == 0 and got != wanted:
            return f"{where}: a reader got other bytes, {difference(got, wanted)}"
        if not wanted.startswith(got):
            return f"{where}: a reader that failed got wrong bytes before"
        return None


class Churn:
    """Everything random comes from the one generator."""

    def __init__(self, root, source, scratch):
        self.root = root
        self.random = source
        self.scratch = scratch
        self.files = []
        self.readers = []
        self.changes = []  # (process, file, new name or None)
        self.commands = []
        self.good = self.failed = 0
        self._count = 0

    def make_files(self, count, sizes=SIZES):
        for _ in range(count):
            self._count += 1
            name = f"file{self._count}"
            size = self.random.choice(sizes)
            self.files.append(File(name, self.root.create(name, size)))

    def living(self):
        return [file for file in self.files if not file.may_be_gone]

    # What happens; nothing here waits.

    def read(self):
        file = self.random.choice(self.files)
        size = max(1, len(file.data))
        offset = self.random.choice((0, self.random.randrange(size)))
        length = self.random.choice((size, self.random.randrange(1, size + 1)))
        self._count += 1
        copy = self.scratch / f"copy-{self.root.name}-{self._count}"
        self.readers.append(Reader(self.root.path / file.name, file, offset, length, copy))

    def kill_reader(self):
        """Whether there was one."""
        running = [reader for reader in self.readers if reader.process.poll() is None]
        if running:
            how = self.random.choice((signal.SIGKILL, signal.SIGINT, signal.SIGTERM))
            self.random.choice(running).kill(how)
        return bool(running)

    def _unchanging(self):
        busy = {id(file) for _, file, _ in self.changes}
        return [file for file in self.living() if id(file) not in busy]

    def rename(self):
        files = self._unchanging()
        if not files:
            return
        file = self.random.choice(files)
        self._count += 1
        name = f"renamed{self._count}"
        command = ["mv", "-T", self.root.path / file.name, self.root.path / name]
        file.names.append(name)
        self._change(command, file, name)

    def delete(self):
        files = self._unchanging()
        if len(files) > 1:
            file = self.random.choice(files)
            file.may_be_gone = True
            self._change(["rm", "-f", self.root.path / file.name], file, None)

    def _change(self, command, file, name):
        process = subprocess.Popen(command, stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL)
        self.changes.append((process, file, name))

    def create_meanwhile(self):
        """A file that is there as a whole afterwards, or not at all."""
        self._count += 1
        name = f"file{self._count}"
        size = self.random.choice((1, 4096, 70_000))
        file = File(name, write_content(self.root.source / name, size, name))
        file.may_be_gone = True
        self.files.append(file)
        path = self.root.client_path(name)
        self._start("create", path=path, identity=name, size=size)

    def command(self, name, **arguments):
        """Has the client do something to a file, whatever comes of it."""
        files = self.living()
        if files:
            path = self.root.client_path(self.random.choice(files).name)
            self._start(name, path=path, **arguments)

    def _start(self, name, **arguments):
        try:
            self.commands.append(self.root.provider.start(name, **arguments))
        except (OSError, ValueError):
            pass  # the client was killed

    # The end of it

    def settle(self, seconds):
        """Waits until all have ended; gives what was wrong."""
        end = time.monotonic() + seconds
        wrong = []
        for reader in self.readers:
            left = max(0.01, end - time.monotonic())
            try:
                reader.process.wait(left)
            except subprocess.TimeoutExpired:
                wrong.append(f"{reader.file.identity}: a reader hangs")
                reader.process.kill()
                reader.process.wait()
            outcome = reader.outcome()
            if outcome:
                wrong.append(outcome)
            self.good += reader.process.returncode == 0
            self.failed += reader.process.returncode != 0
        self.readers = []
        for process, file, name in self.changes:
            try:
                code = process.wait(max(0.01, end - time.monotonic()))
            except subprocess.TimeoutExpired:
                wrong.append(f"{file.identity}: a rename or delete hangs")
                process.kill()
                code = process.wait()
            self._note_change(file, name, code)
        self.changes = []
        for pending in self.commands:
            wait_until(pending.answered, max(0.01, end - time.monotonic()), "the client's answers")
        self.commands = []
        return wrong

    def _note_change(self, file, name, code):
        if code == 0 and name is None:
            file.must_be_gone = True
        elif code == 0:
            file.names = [name]

    def resolve_names(self):
        """Fixes which names and files there are now; gives what cannot be."""
        there = set(os.listdir(self.root.path))
        wrong = []
        for file in list(self.files):
            found = [name for name in file.names if name in there]
            if len(found) > 1 or (found and file.must_be_gone):
                wrong.append(f"{file.identity} is there as {found}")
            if not found:
                if not file.may_be_gone:
                    wrong.append(f"{file.identity} is gone, was {file.names}")
                self.files.remove(file)
                continue
            file.names = found
            file.may_be_gone = False
        left = there - {file.name for file in self.files}
        if left:
            wrong.append(f"left behind: {sorted(left)}")
        return wrong

    def wrong_files(self, may_fail=False):
        """Reads everything; gives what is wrong."""
        wrong = []
        for file in self.files:
            result = subprocess.run(
                ["cat", self.root.path / file.name], capture_output=True, timeout=30
            )
            if result.returncode == 0 and result.stdout != file.data:
                wrong.append(f"{file.identity} differs from its source")
            if result.returncode != 0 and not may_fail:
                wrong.append(f"{file.identity} cannot be read: {result.stderr.decode()}")
        return wrong

    def wrong_identities(self):
        wrong = []
        for file in self.files:
            state = self.root.state(file.name)
            if not state["placeholder"] or state["identity"] != file.identity:
                wrong.append(f"{file.identity} has become {state}")
        return wrong
