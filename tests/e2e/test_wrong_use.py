"""Wrong use and bad luck: the documented result, and one line that says what failed."""

import os
import subprocess
import unittest

from harness.case import EndToEndCase, signed
from harness.roots import SyncRoot
from harness.wine import dos_path

INVALID_REQUEST = 0x8007017C
ALREADY_CONNECTED = 0x8007017A
NOT_UNDER_SYNC_ROOT = 0x80070186
INVALID_PARAMETER = 0x80070057
DISK_FULL = 0x80070070
SOURCE = "lib\\cloud-filter\\win-cf\\sync-root ("


class WrongUse(EndToEndCase):
    def assert_one_line(self, since, ending):
        lines = self.provider.log_lines(since)
        self.assertEqual(len(lines), 1, lines)
        self.assertTrue(lines[0].startswith(SOURCE), lines)
        self.assertTrue(lines[0].endswith(f") | {ending}\r\n"), lines)

    def root_in(self, path):
        return SyncRoot.in_new_folder(self.provider, path, self.new_session())

    def test_an_unregistered_folder_cannot_be_connected(self):
        root = self.new_root(up=False)
        since = self.provider.mark()
        self.assert_status(root.status("connect"), NOT_UNDER_SYNC_ROOT)
        self.assert_one_line(
            since,
            f"Failed to connect to syncroot {dos_path(root.path)}, err: "
            f"{signed(NOT_UNDER_SYNC_ROOT)}",
        )

    def test_an_unregistered_folder_cannot_be_unregistered(self):
        root = self.new_root(up=False)
        since = self.provider.mark()
        self.assert_status(root.status("unregister"), NOT_UNDER_SYNC_ROOT)
        self.assert_one_line(
            since, f"Failed to unregister sync root {signed(NOT_UNDER_SYNC_ROOT)}"
        )

    def test_a_root_is_registered_once_and_registered_again_by_reregistering(self):
        root = self.new_root()
        result = root.status("register")
        self.assertLess(result, 0)
        self.assertIn(
            f"Failed to register sync root {result}\r\n", self.provider.log_lines()[-1]
        )
        self.assertEqual(root.status("reregister"), 0)
        self.assertIn(
            f"Succeed to register sync root: {dos_path(root.path)} identity: "
            f"Corvane.Drive.FileStreaming.session.{root.session}\r\n",
            self.provider.log_lines()[-1],
        )

    def test_a_root_inside_a_root_is_refused(self):
        outer = self.new_root()
        inner = self.root_in(outer.path / "inner")
        result = inner.status("register")
        self.assertLess(result, 0)
        self.assertIn(f"Failed to register sync root {result}", self.provider.log_lines()[-1])

    def test_a_root_around_a_root_is_refused(self):
        outer = self.root_in(self.folder / "outer")
        inner = self.root_in(outer.path / "inner")
        inner.bring_up()
        self.addCleanup(self._take_down, inner)
        self.assertLess(outer.status("register"), 0)

    def test_a_root_is_connected_once(self):
        root = self.new_root()
        data = root.create("a.bin", 5000)
        since = self.provider.mark()
        second = SyncRoot(self.provider, root.path, root.session, name="second")
        self.assert_status(second.status("connect"), ALREADY_CONNECTED)
        self.assert_one_line(
            since,
            f"Failed to connect to syncroot {dos_path(root.path)}, err: "
            f"{signed(ALREADY_CONNECTED)}",
        )
        self.assert_content(root, "a.bin", data)

    def test_a_connected_root_is_not_unregistered(self):
        root = self.new_root()
        data = root.create("a.bin", 5000)
        since = self.provider.mark()
        self.assert_status(root.status("unregister"), INVALID_REQUEST)
        self.assert_one_line(since, f"Failed to unregister sync root {signed(INVALID_REQUEST)}")
        self.assert_content(root, "a.bin", data)

    def test_a_root_is_disconnected_once(self):
        root = self.new_root()
        self.assertEqual(root.status("disconnect"), 0)
        since = self.provider.mark()
        self.assert_status(root.status("disconnect"), INVALID_PARAMETER)
        self.assert_one_line(
            since, f"Failed to disconnected from syncroot, err: {signed(INVALID_PARAMETER)}"
        )
        self.assertEqual(root.status("connect"), 0)

    def test_a_missing_folder_is_not_registered(self):
        root = self.new_root(up=False)
        root.path.rmdir()
        result = root.status("register")
        self.assertLess(result, 0)
        self.assertIn(f"Failed to register sync root {result}", self.provider.log_lines()[-1])

    def test_a_placeholder_outside_every_root_is_not_created(self):
        path = f"Z:{self.folder}/stray.bin"
        since = self.provider.mark()
        status = self.provider.status("create", path=path, identity="stray", size=10)
        self.assertEqual(status, -1)
        self.assertEqual(
            self.provider.log_lines(since),
            [f"lib\\cloud-filter\\win-cf\\placeholder (357) | Create placeholder failed {path} "
             f"{signed(NOT_UNDER_SYNC_ROOT)} 0\r\n"],
        )
        self.assertFalse((self.folder / "stray.bin").exists())

    def test_unregistering_keeps_what_is_hydrated_and_deletes_what_is_online_only(self):
        root = self.new_root()
        root.create_folder("folder")
        data = root.create("folder/here.bin", 5000)
        self.assert_content(root, "folder/here.bin", data)
        root.create("folder/there.bin", 5000)
        (root.path / "ordinary.txt").write_text("mine")
        self.assertEqual(root.status("disconnect"), 0)
        self.assertEqual(root.status("unregister"), 0)
        self.assertFalse(os.path.ismount(root.path))
        self.assertEqual((root.path / "folder" / "here.bin").read_bytes(), data)
        self.assertFalse((root.path / "folder" / "there.bin").exists())
        self.assertEqual((root.path / "ordinary.txt").read_text(), "mine")


class FullDisk(EndToEndCase):
    def setUp(self):
        self.disk = self.folder / "small disk"
        self.disk.mkdir(exist_ok=True)
        command = ["mount", "-t", "tmpfs", "-o", "size=2m", "nimbra-e2e", str(self.disk)]
        if subprocess.run(command, capture_output=True, timeout=10).returncode != 0:
            raise unittest.SkipTest("this user may not mount a small disk")
        self.addCleanup(subprocess.run, ["umount", "-l", str(self.disk)], timeout=10)

    def test_a_file_that_does_not_fit_fails_and_others_are_still_served(self):
        root = SyncRoot.in_new_folder(
            self.provider, self.disk / "root", self.new_session(), source=self.folder / "source"
        )
        root.serve(pieceSize=1 << 20)
        root.bring_up()
        self.addCleanup(self._take_down, root)
        small = root.create("small.bin", 100_000)
        root.create("big.bin", 8 << 20)
        self.assertIsNotNone(root.reading_fails("big.bin"))
        self.provider.wait_for("transfer", identity="big.bin", result=signed(DISK_FULL))
        self.assertFalse(root.state("big.bin")["hydrated"])
        os.unlink(root.path / "big.bin")
        self.assert_content(root, "small.bin", small)


class NoFilter(EndToEndCase):
    def test_without_the_filter_every_operation_fails_and_none_hangs(self):
        root = self.new_root()
        root.create("a.bin", 5000)
        self.assertEqual(root.status("disconnect"), 0)
        self.assertEqual(self.daemon.stop(), 0)
        since = self.provider.mark()
        self.assertLess(root.status("connect", 10), 0)
        self.assertLess(root.status("reregister", 10), 0)
        self.assertEqual(root.item_status("hydrate", "a.bin", 10), -1)
        self.assertFalse(root.state("a.bin")["placeholder"])
        answer = self.provider.call("platform", 10)
        self.assertEqual(
            [answer[name] for name in ("status", "build", "revision", "integration")], ["0"] * 4
        )
        self.assertTrue(self.provider.log_lines(since))
        self.daemon.start()
        self.assertEqual(root.status("connect", 10), 0)
        self.assertTrue(root.state("a.bin")["placeholder"])
