"""Programs, clients and the filter die or fall silent; the data comes through all the same."""

import os
import pathlib
import random
import signal
import subprocess
import time

from harness.case import EndToEndCase, signed
from harness.daemon import mounts_below
from harness.waiting import wait_until

MIB = 1 << 20
REQUEST_CANCELED = signed(0x8007018E)


class Readers(EndToEndCase):
    """A program goes away, or the client cannot help it."""

    def start_slow_read(self, root, name, size):
        """A program that waits in the middle of a slow fetch."""
        root.serve(pieceSize=64 << 10, delayMs=100)
        data = root.create(name, size)
        reader = root.start_reading(name)
        self.provider.wait_for("transfer", identity=name)
        return data, reader

    def has_open(self, process_id, path):
        files = pathlib.Path(f"/proc/{process_id}/fd")
        return str(path) in (os.readlink(file) for file in files.iterdir())

    def test_when_the_only_reader_is_killed_the_client_is_told_to_stop(self):
        root = self.new_root()
        data, reader = self.start_slow_read(root, "slow.bin", 2 * MIB)
        reader.send_signal(signal.SIGKILL)
        reader.communicate(timeout=10)
        cancel = self.provider.wait_for("cancel", root=root.name, identity="slow.bin")
        fetch = self.provider.wait_for("fetch", root=root.name, identity="slow.bin")
        self.assertEqual(cancel["key"], fetch["key"])
        self.assertEqual(cancel["session"], str(root.session))
        self.assertGreater(cancel.number("length"), 0)
        self.assertEqual(cancel.number("offset") + cancel.number("length"), len(data))
        root.serve()
        self.assert_content(root, "slow.bin", data)

    def test_a_transfer_that_comes_after_the_cancel_is_told_so_and_does_no_harm(self):
        root = self.new_root()
        root.serve(pieceSize=64 << 10, delayMs=60, heedCancel=False)
        data = root.create("late.bin", MIB)
        reader = root.start_reading("late.bin")
        self.provider.wait_for("transfer", identity="late.bin")
        reader.kill()
        reader.communicate(timeout=10)
        self.provider.wait_for("cancel", root=root.name, identity="late.bin")
        self.provider.wait_for("transfer", identity="late.bin", result=REQUEST_CANCELED)
        root.serve()
        self.assert_content(root, "late.bin", data)

    def test_an_interrupted_reader_stops_at_once_while_another_gets_its_data(self):
        root = self.new_root()
        data, reader = self.start_slow_read(root, "shared.bin", MIB)
        # Its end: two programs that want the same page are one to the filter.
        command = ["tail", "-c", "1000", root.path / "shared.bin"]
        other = subprocess.Popen(command, stdout=subprocess.PIPE)
        wait_until(lambda: self.has_open(other.pid, root.path / "shared.bin"), what="its open")
        time.sleep(0.1)  # the read follows the open at once
        reader.send_signal(signal.SIGINT)
        self.assertEqual(reader.wait(2), -signal.SIGINT)
        reader.communicate()
        self.assertEqual(other.communicate(timeout=20)[0], data[-1000:])
        self.assertEqual(self.provider.events("cancel", identity="shared.bin"), [])

    def test_a_failed_fetch_fails_the_reader_and_the_next_read_asks_again(self):
        root = self.new_root()
        for status in (1, 2, 3, 77):
            with self.subTest(status=status):
                name = f"fails-{status}.bin"
                data = root.create(name, 300_000)
                root.serve(failStatus=status)
                self.assertIn("Input/output error", root.reading_fails(name))
                root.serve()
                since = self.provider.mark()
                self.assert_content(root, name, data)
                self.assertEqual(self.fetched_ranges(root, name, since), [(0, 300_000)])
                keys = {event["key"] for event in self.provider.events("fetch", identity=name)}
                self.assertEqual(len(keys), 1, "the same transfer key names the file again")

    def test_hydrating_fails_when_the_client_s_source_has_vanished(self):
        root = self.new_root()
        data = root.create("gone.bin", 300_000)
        (root.source / "gone.bin").rename(root.source / "moved.bin")
        self.assertIn("Input/output error", root.reading_fails("gone.bin"))
        since = self.provider.mark()
        self.assertEqual(root.item_status("hydrate", "gone.bin"), -1)
        self.assertTrue(
            any(") | hydration failed -" in line for line in self.provider.log_lines(since)),
            self.provider.log_lines(since),
        )
        (root.source / "moved.bin").rename(root.source / "gone.bin")
        self.assert_content(root, "gone.bin", data)

    def test_a_misaligned_transfer_is_refused_and_the_refusal_passed_on(self):
        root = self.new_root()
        root.serve(stopAfterBytes=0)
        root.create("a.bin", 100_000)
        reader = root.start_reading("a.bin")
        fetch = self.provider.wait_for("fetch", identity="a.bin")
        since = self.provider.mark()
        result = root.status("transfer", key=fetch["key"], offset=100, length=4096)
        self.assert_status(result, 0x8007017C)
        self.assertTrue(
            self.provider.log_lines(since)[0].endswith(f") | Failed: {signed(0x8007017C)}\r\n")
        )
        reader.kill()
        reader.communicate()

    def test_without_a_client_a_read_of_missing_data_fails_at_once(self):
        root = self.new_root()
        data = root.create("a.bin", 100_000)
        present = root.create("present.bin", 100_000)
        self.assert_content(root, "present.bin", present)
        self.assertEqual(root.status("disconnect"), 0)
        self.assertIn("Input/output error", root.reading_fails("a.bin", timeout=5))
        self.assert_content(root, "present.bin", present)
        self.assertEqual(root.status("connect"), 0)
        self.assert_content(root, "a.bin", data)


class SilentClients(EndToEndCase):
    """With a request timer of two seconds."""

    daemon_options = ("--request-timeout", 2)

    def test_a_reader_whose_fetch_is_never_answered_fails_when_the_timer_ends(self):
        root = self.new_root()
        root.serve(stopAfterBytes=0)
        data = root.create("silent.bin", 100_000)
        self.assertIsNotNone(root.reading_fails("silent.bin", timeout=8))
        self.provider.wait_for("cancel", root=root.name, identity="silent.bin")
        root.serve()
        self.assert_content(root, "silent.bin", data)

    def test_a_client_that_stops_in_the_middle_fails_the_reader_but_loses_nothing(self):
        root = self.new_root()
        root.serve(pieceSize=64 << 10, stopAfterBytes=128 << 10)
        data = root.create("half.bin", 300_000)
        self.assertIsNotNone(root.reading_fails("half.bin", timeout=8))
        cancel = self.provider.wait_for("cancel", root=root.name, identity="half.bin")
        self.assertEqual(cancel.number("offset"), 128 << 10)
        root.serve()
        since = self.provider.mark()
        self.assert_content(root, "half.bin", data)
        self.assertEqual(
            self.fetched_ranges(root, "half.bin", since), [(128 << 10, 300_000 - (128 << 10))]
        )

    def test_each_transfer_starts_the_timer_anew(self):
        root = self.new_root()
        root.serve(pieceSize=64 << 10, delayMs=700)
        data = root.create("steady.bin", 5 * (64 << 10))
        self.assert_content(root, "steady.bin", data)

    def test_a_rename_that_is_never_acknowledged_fails_and_changes_nothing(self):
        root = self.new_root()
        root.serve(acknowledges=False)
        data = root.create("a.bin", 1000)
        result = subprocess.run(
            ["mv", root.path / "a.bin", root.path / "b.bin"], capture_output=True, timeout=10
        )
        self.assertNotEqual(result.returncode, 0)
        self.assertEqual([path.name for path in root.path.iterdir()], ["a.bin"])
        root.serve(acknowledges=True)
        self.assert_content(root, "a.bin", data)


class Crashes(EndToEndCase):
    """The client or the filter dies at any point."""

    seconds = 90

    def make_files(self, root):
        return {
            f"file-{number}.bin": root.create(f"file-{number}.bin", number * 130_003)
            for number in range(8)
        }

    def restart_provider(self, root):
        provider = self.start_provider()
        root.attach(provider)
        self.assert_status(root.status("connect"))
        return provider

    def test_a_client_that_dies_in_mid_transfer_leaves_every_file_readable(self):
        root = self.new_root(provider=self.start_provider())
        files = self.make_files(root)
        for attempt in range(4):
            crash_at = random.Random(attempt).randrange(1, 12)
            with self.subTest(crash_at=crash_at):
                provider = root.provider
                root.serve(pieceSize=64 << 10, crashAtTransfer=crash_at)
                reader = subprocess.Popen(
                    ["cat", *(root.path / name for name in files)],
                    stdout=subprocess.DEVNULL,
                    stderr=subprocess.PIPE,
                )
                provider.wait_for_exit(20)
                complaint = reader.communicate(timeout=10)[1]
                self.assertIn(b"Input/output error", complaint)
                self.restart_provider(root)
                if attempt % 2:
                    for name, data in files.items():
                        self.assert_content(root, name, data)
                        self.assert_status(root.item_status("dehydrateAll", name))
        root.serve()
        for name, data in files.items():
            self.assert_content(root, name, data)

    def test_a_killed_client_s_root_can_be_connected_by_the_next_one_at_once(self):
        root = self.new_root(provider=self.start_provider())
        data = root.create("a.bin", 1000)
        root.provider.kill()
        self.restart_provider(root)
        self.assert_content(root, "a.bin", data)

    def test_after_the_filter_was_killed_every_file_and_every_state_is_as_before(self):
        root = self.new_root(provider=self.start_provider())
        files = self.make_files(root)
        root.create_folder("pinned")
        self.assertEqual(root.item_status("pin", "pinned"), 0)
        files["pinned/kept.bin"] = root.create("pinned/kept.bin", 70_000)
        self.assertEqual(root.item_status("exclude", "file-2.bin"), 0)
        self.assertEqual(root.item_status("setNotInSync", "file-3.bin"), 0)
        self.assert_content(root, "file-4.bin", files["file-4.bin"])
        names = [*files, "pinned"]
        before = {name: root.state(name) for name in names}
        on_disk = {name: root.bytes_on_disk(name) for name in files}
        root.serve(pieceSize=64 << 10, delayMs=50)
        reader = root.start_reading("file-7.bin")
        root.provider.wait_for("transfer", identity="file-7.bin")
        self.daemon.kill()
        self.assertTrue(reader.communicate(timeout=10)[1], "the reader was not let go")
        root.provider.close()
        self.daemon.start()
        self.assertIn(str(root.path), mounts_below(self.folder))
        self.restart_provider(root)
        self.assertEqual({name: root.state(name) for name in names}, before)
        for name in files:
            if name != "file-7.bin":
                self.assertEqual(root.bytes_on_disk(name), on_disk[name], name)
        for name, data in files.items():
            self.assert_content(root, name, data)
        # What had arrived before the filter died is not asked for again.
        offset, length = self.fetched_ranges(root, "file-7.bin")[0]
        self.assertGreaterEqual(offset, 64 << 10)
        self.assertEqual(offset + length, len(files["file-7.bin"]))

    def test_filters_killed_at_random_points_never_spoil_a_file(self):
        root = self.new_root(provider=self.start_provider())
        files = self.make_files(root)
        for attempt in range(3):
            root.serve(pieceSize=32 << 10, threads=2)
            reader = subprocess.Popen(
                ["cat", *(root.path / name for name in files)],
                stdout=subprocess.DEVNULL,
                stderr=subprocess.DEVNULL,
            )
            wanted = 3 + attempt * 11
            wait_until(
                lambda: len(root.provider.events("transfer")) >= wanted
                or reader.poll() is not None,
                what="some transfers",
            )
            self.daemon.kill()
            reader.wait(10)
            root.provider.close()
            self.daemon.start()
            self.restart_provider(root)
        for name, data in files.items():
            self.assert_content(root, name, data)

    def test_the_filter_leaves_nothing_mounted_when_it_is_stopped(self):
        root = self.new_root(provider=self.start_provider())
        data = root.create("a.bin", 5000)
        self.assertEqual(self.daemon.stop(), 0)
        self.assertEqual(mounts_below(self.folder), [])
        self.assertFalse(self.daemon.endpoint.exists())
        root.provider.close()
        self.daemon.start()
        self.restart_provider(root)
        self.assert_content(root, "a.bin", data)
        self.assertTrue(os.path.ismount(root.path))
