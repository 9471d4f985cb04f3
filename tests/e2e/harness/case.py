"""The base of all end-to-end tests: one daemon, one Wine prefix and one client for each class."""

import itertools
import os
import pathlib
import re
import shutil
import tempfile
import unittest

from .daemon import FilterDaemon, clean_up_mounts, fuse_is_usable, mounts_below
from .processes import wait_for_no_processes
from .roots import SyncRoot
from .settings import SETTINGS
from .waiting import time_limit, wait_until
from .wine import WinePrefix

def signed(code):
    """An HRESULT as the library's functions return it."""
    return code - (1 << 32) if code >= 1 << 31 else code


class EndToEndCase(unittest.TestCase):
    build = 19045  # the Windows that the client sees
    daemon_options = ()
    needs_fuse = True
    needs_daemon = True
    needs_provider = True
    seconds = 30  # that one test may take
    longMessage = True
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        if cls.needs_fuse and not fuse_is_usable():
            if os.environ.get("NIMBRA_NO_FUSE") == "1":
                raise unittest.SkipTest("/dev/fuse cannot be used here")
            raise AssertionError("/dev/fuse cannot be used; set NIMBRA_NO_FUSE=1 to go without")
        cls.folder = pathlib.Path(tempfile.mkdtemp(prefix="e2e-", dir=SETTINGS.work))
        cls.addClassCleanup(cls._clean_up)
        cls._sessions = itertools.count(1)
        cls._programs = []
        with time_limit(120, "setting up"):
            cls.bin = cls._stage()
            cls.prefix = cls.new_prefix("prefix")
            cls.daemon = FilterDaemon(cls.folder, cls.daemon_options)
            if cls.needs_daemon:
                cls.daemon.start()
            if cls.needs_provider:
                cls.provider = cls.start_provider()

    @classmethod
    def _stage(cls):
        """All Windows files in one folder, as an installer would leave them."""
        folder = cls.folder / "bin"
        folder.mkdir()
        for path in SETTINGS.files:
            (folder / path.name).symlink_to(path)
        return folder

    @classmethod
    def new_prefix(cls, name, build=None):
        prefix = WinePrefix(cls.folder / name, build or cls.build)
        cls.addClassCleanup(prefix.stop)
        prefix.start()
        return prefix

    @classmethod
    def start_program(cls, name, prefix=None):
        program = (prefix or cls.prefix).program(
            cls.bin / name,
            cls.folder / f"{name}.log",
            CLOUD_FILTER_ENDPOINT=str(cls.daemon.endpoint),
        )
        cls._programs.append(program)
        return program

    @classmethod
    def start_provider(cls, prefix=None):
        return cls.start_program("e2e-provider.exe", prefix)

    @classmethod
    def start_reader(cls, prefix=None):
        return cls.start_program("e2e-reader.exe", prefix)

    @classmethod
    def tearDownClass(cls):
        with time_limit(60, "shutting down"):
            for program in cls._programs:
                program.close()
            if cls.daemon.running():
                code = cls.daemon.stop()
                assert code == 0, f"the daemon ended with {code}:\n{cls.daemon.log()}"
            left = mounts_below(cls.folder)
            assert not left, f"left mounted: {left}"

    @classmethod
    def _clean_up(cls):
        """Runs last, whatever failed before: nothing of the class may stay behind."""
        if cls.daemon_was_started() and cls.daemon.running():
            cls.daemon.kill()
        mounts = clean_up_mounts(cls.folder)
        processes = wait_for_no_processes(cls.folder)
        if os.environ.get("NIMBRA_KEEP_E2E") != "1":
            shutil.rmtree(cls.folder, ignore_errors=True)
        assert not mounts, f"left mounted: {mounts}"
        assert not processes, f"left running: {processes}"

    @classmethod
    def daemon_was_started(cls):
        return getattr(cls, "daemon", None) is not None

    def run(self, result=None):
        with time_limit(self.seconds, self.id()):
            return super().run(result)

    def new_root(self, name=None, provider=None, up=True):
        """A sync root of this test's own, registered and connected."""
        name = name or re.sub(r"\W+", "-", self._testMethodName)[:60]
        root = SyncRoot.in_new_folder(
            provider or self.provider, self.folder / name, self.new_session()
        )
        if up:
            root.bring_up()
            self.addCleanup(self._take_down, root)
        return root

    def new_session(self):
        return next(self._sessions)

    def _take_down(self, root):
        if root.provider.process.poll() is None:
            root.call("disconnect")
            root.call("unregister")

    # Checks that many tests share

    def assert_status(self, result, expected=0):
        self.assertEqual(f"{result & 0xFFFFFFFF:#x}", f"{expected & 0xFFFFFFFF:#x}")

    def assert_content(self, root, name, data):
        read = root.read(name)
        self.assertEqual(len(read), len(data))
        if read != data:
            at = next(index for index, pair in enumerate(zip(read, data)) if pair[0] != pair[1])
            self.fail(f"{name} differs from its source from byte {at} on")

    def assert_online_only(self, root, name):
        self.assertEqual(root.bytes_on_disk(name), 0)
        self.assertFalse(root.state(name)["hydrated"])

    def assert_hydrated(self, root, name, size):
        self.assertGreaterEqual(root.bytes_on_disk(name), size)
        self.assertTrue(root.state(name)["hydrated"])

    def fetched_ranges(self, root, identity, since=0):
        """The (offset, length) of each fetch of a file, in order."""
        fetches = root.provider.events("fetch", since, root=root.name, identity=identity)
        return [(fetch.number("offset"), fetch.number("length")) for fetch in fetches]

    def assert_transfers(self, root, identity, expected):
        """The data went over in these (offset, length) pieces, each of which was accepted."""
        program = root.provider

        # The program that reads may have its data before the client hears that it arrived.
        def sent():
            found = program.events("transfer", identity=identity)
            return found if len(found) >= len(expected) else None

        transfers = wait_until(sent, what=f"{len(expected)} transfers") if expected else []
        pieces = [(event.number("offset"), event.number("length")) for event in transfers]
        self.assertEqual(pieces, expected)
        self.assertEqual({event["result"] for event in transfers} - {"0"}, set())
