"""The sample client, used as its help says."""

import filecmp
import os
import subprocess

from harness.content import write_content
from harness.daemon import mounts_below
from harness.mirror import FILES, MirrorCase
from harness.wine import dos_path


class Mirror(MirrorCase):
    seconds = 60

    def test_cp_copies_the_served_tree_as_if_it_were_the_source(self):
        self.make_folders()
        mirror = self.serve()
        self.assertEqual(set(self.bytes_on_disk().values()), {0})
        copy = self.folder / "copy"
        subprocess.run(["cp", "-r", self.root, copy], check=True, timeout=30)
        for name in FILES:
            self.assertTrue(filecmp.cmp(self.source / name, copy / name, shallow=False), name)
        for name, on_disk in self.bytes_on_disk().items():
            self.assertGreaterEqual(on_disk, FILES[name], name)
        self.finish(mirror)
        for name in FILES:
            self.assertTrue(filecmp.cmp(self.source / name, self.root / name, shallow=False), name)

    def test_the_times_of_the_source_are_shown(self):
        self.make_folders({"old.txt": 10})
        os.utime(self.source / "old.txt", (1_000_000_000, 1_000_000_000))
        mirror = self.serve()
        self.assertEqual((self.root / "old.txt").stat().st_mtime, 1_000_000_000)
        self.finish(mirror)

    def test_the_actions_hydrate_dehydrate_pin_and_unpin_what_they_are_given(self):
        self.make_folders()
        mirror = self.serve()
        self.run_mirror("--hydrate-all", self.root)
        for name, on_disk in self.bytes_on_disk().items():
            self.assertGreaterEqual(on_disk, FILES[name], name)
        self.run_mirror("--dehydrate", self.root / "folder")
        self.assertEqual(self.bytes_on_disk()["folder/inside.bin"], 0)
        self.assertGreater(self.bytes_on_disk()["page.bin"], 0)
        self.run_mirror("--pin", self.root)
        output = self.run_mirror("--dehydrate", self.root / "page.bin", code=1)
        self.assertIn("it is pinned", output)
        self.assertGreater(self.bytes_on_disk()["page.bin"], 0)
        self.assertNotIn("page.bin", output.splitlines()[-1])
        self.run_mirror("--unpin", self.root)
        self.run_mirror("--dehydrate", self.root / "page.bin")
        self.assertEqual(self.bytes_on_disk()["page.bin"], 0)
        self.finish(mirror)

    def test_the_state_table_tells_of_every_item_what_it_is(self):
        self.make_folders()
        mirror = self.serve()
        (self.root / "page.bin").read_bytes()
        self.run_mirror("--pin", self.root / "one.txt")
        table = {}
        for line in self.run_mirror("--state", self.root).splitlines()[1:-1]:
            words = line.split(None, 5)
            table[words[5].split(" = ")[-1]] = words[:5]
        self.assertEqual(set(table), {*FILES, "folder", "folder/deeper"})
        self.assertEqual(table["page.bin"], ["yes", "yes", "no", "no", "yes"])
        self.assertEqual(table["one.txt"], ["yes", "no", "yes", "no", "yes"])
        self.assertEqual(table["page and one.bin"], ["yes", "no", "no", "no", "yes"])
        self.finish(mirror)

    def test_a_second_start_goes_on_where_the_first_ended(self):
        self.make_folders()
        mirror = self.serve()
        data = (self.root / "page.bin").read_bytes()
        mirror.kill()
        write_content(self.source / "new.bin", 5000)
        mirror = self.serve()
        self.assertEqual((self.root / "page.bin").read_bytes(), data)
        self.assertTrue(filecmp.cmp(self.source / "new.bin", self.root / "new.bin", False))
        self.assertFalse(any("page.bin" in line for line in mirror.lines))
        self.finish(mirror)

    def test_renames_and_deletes_are_accepted_and_leave_the_source_alone(self):
        self.make_folders()
        mirror = self.serve()
        os.rename(self.root / "page.bin", self.root / "folder" / "renamed.bin")
        os.unlink(self.root / "one.txt")
        mirror.wait_for_line("renamed page.bin -> folder/renamed.bin")
        renamed = self.root / "folder" / "renamed.bin"
        self.assertTrue(filecmp.cmp(self.source / "page.bin", renamed, False))
        self.assertTrue((self.source / "one.txt").exists())
        self.finish(mirror)

    def test_a_reader_gets_an_error_when_the_source_has_vanished_and_data_when_it_is_back(self):
        self.make_folders()
        mirror = self.serve()
        hidden = self.folder / "hidden.bin"
        (self.source / "page.bin").rename(hidden)
        result = subprocess.run(["cat", self.root / "page.bin"], capture_output=True, timeout=10)
        self.assertIn(b"Input/output error", result.stderr)
        mirror.wait_for_line("failed  page.bin")
        hidden.rename(self.source / "page.bin")
        self.assertTrue(filecmp.cmp(self.source / "page.bin", self.root / "page.bin", False))
        self.finish(mirror)

    def test_a_slowed_down_transfer_stops_when_its_reader_is_killed(self):
        self.make_folders()
        mirror = self.serve("--rate", "2")
        name = "folder/deeper/still.bin"
        reader = subprocess.Popen(["cat", self.root / name], stdout=subprocess.DEVNULL)
        mirror.wait_for_line(f"fetch   {name}")
        reader.kill()
        reader.wait()
        mirror.wait_for_line(f"stopped {name}")
        self.assertTrue(filecmp.cmp(self.source / name, self.root / name, False))
        self.finish(mirror)

    def test_stopping_lets_a_waiting_reader_go(self):
        self.make_folders()
        mirror = self.serve("--rate", "1")
        name = "folder/deeper/still.bin"
        reader = subprocess.Popen(
            ["cat", self.root / name], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE
        )
        mirror.wait_for_line(f"fetch   {name}")
        self.finish(mirror)
        self.assertIn(b"Input/output error", reader.communicate(timeout=10)[1])


class MirrorMessages(MirrorCase):
    """Wrong use: what happened, to what, what to do."""

    def test_the_help_shows_how_to_start(self):
        self.assertIn("mirror [options] <source folder> <sync root>", self.run_mirror("--help"))

    def test_wrong_arguments_are_named(self):
        self.assertIn("two folders are needed", self.run_mirror(code=2))
        self.assertIn("unknown option --sate", self.run_mirror("--sate", "x", code=2))
        self.assertIn(
            "--rate takes a number", self.run_mirror("--rate", "fast", "a", "b", code=2)
        )

    def test_a_missing_folder_is_named(self):
        self.make_folders()
        missing = self.folder / "no such folder"
        output = self.run_mirror(missing, self.root, code=1)
        self.assertIn(f"there is no folder {dos_path(missing)}", output)

    def test_an_item_outside_every_sync_root_is_named(self):
        self.make_folders()
        output = self.run_mirror("--state", self.source, code=1)
        self.assertIn(dos_path(self.source), output)
        self.assertIn("serve it once with mirror", output)

    def test_a_root_that_is_being_served_is_not_served_twice(self):
        self.make_folders({"a.txt": 10})
        mirror = self.serve()
        output = self.run_mirror(self.source, self.root, code=1)
        self.assertIn("another program serves this sync root", output)
        self.finish(mirror)

    def test_a_root_of_another_number_is_not_taken_over(self):
        self.make_folders({"a.txt": 10})
        mirror = self.serve("--session", "5")
        mirror.stop()
        output = self.run_mirror("--session", "6", self.source, self.root, code=1)
        self.assertIn("give that number with --session", output)
        self.run_mirror("--unregister", self.root)

    def test_without_the_filter_it_says_what_to_start(self):
        self.make_folders()
        self.assertEqual(self.daemon.stop(), 0)
        self.addCleanup(self.daemon.start)
        output = self.run_mirror(self.source, self.root, code=1)
        self.assertIn("the cloud filter is not running: start it first", output)
        self.assertEqual(mounts_below(self.folder), [])


class MirrorOnAnOldWindows(MirrorCase):
    build = 16299

    def test_it_says_which_windows_it_needs(self):
        self.make_folders()
        output = self.run_mirror(self.source, self.root, code=1)
        self.assertIn("this is Windows build 16299", output)
        self.assertIn("need Windows 10, version 1803", output)
