"""Pin, in-sync and placeholder states, and the operations that change them."""

import os
import subprocess

from harness.case import EndToEndCase, signed
from harness.content import content, write_content

PINNED = signed(0x80070188)
NOT_IN_SYNC = signed(0x80070179)
IN_USE = signed(0x80070187)


class Pins(EndToEndCase):
    def test_a_file_created_in_a_pinned_folder_is_hydrated_at_once(self):
        root = self.new_root()
        root.create_folder("kept")
        self.assertEqual(root.item_status("pin", "kept"), 0)
        data = root.create("kept/new.bin", 100_000)
        self.assertEqual(self.fetched_ranges(root, "kept/new.bin"), [(0, 100_000)])
        self.assert_hydrated(root, "kept/new.bin", 100_000)
        self.assertTrue(root.state("kept/new.bin")["pinned"])
        self.assert_content(root, "kept/new.bin", data)

    def test_a_file_is_created_in_a_pinned_folder_even_if_its_data_cannot_be_had(self):
        root = self.new_root()
        root.create_folder("kept")
        self.assertEqual(root.item_status("pin", "kept"), 0)
        root.serve(failStatus=1)
        since = self.provider.mark()
        root.create("kept/new.bin", 5000)
        self.assert_online_only(root, "kept/new.bin")
        self.assertTrue(
            any("Failed to hydrate placeholder after creation" in line
                for line in self.provider.log_lines(since))
        )

    def test_a_file_created_elsewhere_is_neither_pinned_nor_hydrated(self):
        root = self.new_root()
        root.create("plain.bin", 5000)
        state = root.state("plain.bin")
        self.assertFalse(state["pinned"])
        self.assertFalse(state["excluded"])
        self.assert_online_only(root, "plain.bin")

    def test_pinning_a_folder_pins_all_below_it_and_hydrates_nothing(self):
        root = self.new_root()
        root.create_folder("a")
        root.create_folder("a/b")
        root.create("a/b/c.bin", 5000)
        root.create("outside.bin", 5000)
        self.assertEqual(root.item_status("pin", "a"), 0)
        for name in ("a", "a/b", "a/b/c.bin"):
            self.assertTrue(root.state(name)["pinned"], name)
        self.assertFalse(root.state("outside.bin")["pinned"])
        self.assert_online_only(root, "a/b/c.bin")
        self.assertEqual(root.item_status("forceUnpin", "a"), 0)
        for name in ("a", "a/b", "a/b/c.bin"):
            self.assertFalse(root.state(name)["pinned"], name)

    def test_unpinning_asks_for_the_folder_s_state_which_leaves_a_file_s_own_pin(self):
        root = self.new_root()
        root.create("a.bin", 5000)
        self.assertEqual(root.item_status("pin", "a.bin"), 0)
        self.assertEqual(root.item_status("unpin", "a.bin"), 0)
        self.assertTrue(root.state("a.bin")["pinned"])
        self.assertEqual(root.item_status("forceUnpin", "a.bin"), 0)
        self.assertFalse(root.state("a.bin")["pinned"])
        self.assertEqual(root.item_status("unpin", "a.bin"), 0)
        self.assertFalse(root.state("a.bin")["pinned"])

    def test_unpinning_a_plain_file_in_a_pinned_folder_pins_it_as_its_folder_is(self):
        root = self.new_root()
        root.create_folder("kept")
        root.create("kept/a.bin", 5000)
        self.assertEqual(root.item_status("pin", "kept"), 0)
        self.assertEqual(root.item_status("forceUnpin", "kept/a.bin"), 0)
        self.assertFalse(root.state("kept/a.bin")["pinned"])
        self.assertEqual(root.item_status("unpin", "kept/a.bin"), 0)
        self.assertTrue(root.state("kept/a.bin")["pinned"])

    def test_an_excluded_item_is_excluded_and_not_pinned(self):
        root = self.new_root()
        root.create_folder("left-out")
        root.create("left-out/a.bin", 5000)
        self.assertEqual(root.item_status("exclude", "left-out"), 0)
        for name in ("left-out", "left-out/a.bin"):
            state = root.state(name)
            self.assertTrue(state["excluded"])
            self.assertFalse(state["pinned"])
        self.assertEqual(root.item_status("forceUnpin", "left-out"), 0)
        self.assertFalse(root.state("left-out/a.bin")["excluded"])

    def test_an_update_keeps_a_pin(self):
        root = self.new_root()
        root.create("kept.bin", 5000)
        self.assertEqual(root.item_status("pin", "kept.bin"), 0)
        self.assertEqual(root.item_status("update", "kept.bin", identity="new", size=5000), 0)
        state = root.state("kept.bin")
        self.assertTrue(state["pinned"])
        self.assertEqual(state["identity"], "new")


class Updates(EndToEndCase):
    def test_an_update_sets_identity_size_and_times_and_marks_in_sync(self):
        root = self.new_root()
        root.create("a.bin", 5000)
        self.assertEqual(root.item_status("setNotInSync", "a.bin"), 0)
        status = root.item_status(
            "update", "a.bin", identity="second", size=9000, writeTime=1_600_000_000,
            accessTime=1_500_000_000,
        )
        self.assertEqual(status, 0)
        state = root.state("a.bin")
        self.assertEqual(state["identity"], "second")
        self.assertTrue(state["inSync"])
        result = (root.path / "a.bin").stat()
        self.assertEqual(result.st_size, 9000)
        self.assertEqual(result.st_mtime, 1_600_000_000)
        self.assertEqual(result.st_atime, 1_500_000_000)

    def test_after_an_update_the_file_is_fetched_under_its_new_identity(self):
        root = self.new_root()
        root.create("a.bin", 5000)
        new = write_content(root.source / "second", 12_000)
        self.assertEqual(root.item_status("update", "a.bin", identity="second", size=12_000), 0)
        self.assert_content(root, "a.bin", new)
        self.assertEqual(self.fetched_ranges(root, "second"), [(0, 12_000)])

    def test_an_update_without_metadata_empties_the_file(self):
        root = self.new_root()
        root.create("a.bin", 5000)
        self.assertEqual(root.item_status("update", "a.bin", identity="a.bin", withoutMeta=1), 0)
        self.assertEqual((root.path / "a.bin").stat().st_size, 0)

    def test_an_update_of_an_unopened_placeholder_is_refused(self):
        root = self.new_root()
        root.create("a.bin", 5000)
        since = self.provider.mark()
        self.assertEqual(root.item_status("updateUnopened", "a.bin", identity="x"), -1)
        self.assertEqual(
            self.provider.log_lines(since),
            ["lib\\cloud-filter\\win-cf\\placeholder (389) | Handle is invalid value\r\n"],
        )

    def test_the_times_given_at_creation_are_the_file_s_times(self):
        root = self.new_root()
        root.create("a.bin", 5000, writeTime=1_234_567_890, accessTime=1_111_111_111)
        result = (root.path / "a.bin").stat()
        self.assertEqual((result.st_mtime, result.st_atime), (1_234_567_890, 1_111_111_111))


class Conversions(EndToEndCase):
    def test_a_converted_file_is_a_hydrated_placeholder_in_sync_and_can_be_dehydrated(self):
        root = self.new_root()
        data = write_content(root.path / "local.bin", 100_000)
        write_content(root.source / "uploaded", 100_000)
        self.assertFalse(root.state("local.bin")["placeholder"])
        self.assertEqual(root.item_status("convert", "local.bin", identity="uploaded"), 0)
        state = root.state("local.bin")
        self.assertEqual(state["identity"], "uploaded")
        for question, answer in (
            ("placeholder", True), ("hydrated", True), ("inSync", True), ("pinned", False)
        ):
            self.assertEqual(state[question], answer, question)
        self.assert_content(root, "local.bin", data)
        self.assertEqual(self.fetched_ranges(root, "uploaded"), [])
        self.assertEqual(root.item_status("dehydrateAll", "local.bin"), 0)
        self.assert_online_only(root, "local.bin")
        self.assert_content(root, "local.bin", data)
        self.assertEqual(self.fetched_ranges(root, "uploaded"), [(0, 100_000)])

    def test_a_placeholder_is_not_converted_again(self):
        root = self.new_root()
        root.create("a.bin", 5000)
        self.assertEqual(root.item_status("convert", "a.bin", identity="other"), -1)
        self.assertEqual(root.state("a.bin")["identity"], "a.bin")

    def test_a_reverted_file_is_an_ordinary_file_with_all_its_content(self):
        root = self.new_root()
        for name, read_first in (("present.bin", True), ("online-only.bin", False)):
            with self.subTest(name=name):
                data = root.create(name, 100_000)
                if read_first:
                    self.assert_content(root, name, data)
                self.assertEqual(root.item_status("revert", name), 0)
                self.assertFalse(root.state(name)["placeholder"])
                self.assertEqual(root.status("disconnect"), 0)
                self.assert_content(root, name, data)
                self.assertEqual(root.status("connect"), 0)

    def test_an_ordinary_file_counts_as_hydrated_but_not_as_a_placeholder(self):
        root = self.new_root()
        write_content(root.path / "local.bin", 5000)
        path = root.client_path("local.bin")
        since = self.provider.mark()
        answer = self.provider.call("pathState", path=path)
        self.assertEqual(
            answer, {"placeholder": "-1", "hydrated": "0", "hydratedWide": "0"}
        )
        lines = self.provider.log_lines(since)
        self.assertIn(
            "lib\\cloud-filter\\win-cf\\placeholder (202) | "
            f"{path} is not a placeholder, so it is fully hydrated\r\n",
            lines,
        )
        self.assertIn(
            "lib\\cloud-filter\\win-cf\\placeholder-info (54) | Failed to get placholder info. "
            f"{path} {signed(0x80070178)}\r\n",
            lines,
        )

    def test_a_missing_file_is_neither_and_nothing_is_logged(self):
        root = self.new_root()
        since = self.provider.mark()
        answer = self.provider.call("pathState", path=root.client_path("missing.bin"))
        self.assertEqual(answer, {"placeholder": "-1", "hydrated": "-1", "hydratedWide": "-1"})
        self.assertEqual(self.provider.log_lines(since), [])


class Dehydration(EndToEndCase):
    def make_hydrated(self, root, name, size=100_000):
        data = root.create(name, size)
        self.assert_content(root, name, data)
        return data

    def assert_refused(self, root, name, reason, data):
        since = self.provider.mark()
        self.assertEqual(root.item_status("dehydrateAll", name), -1)
        self.assertEqual(
            self.provider.log_lines(since),
            ["lib\\cloud-filter\\win-cf\\placeholder (183) | "
             f"Failed to dehydrate all, reason: {reason}\r\n"],
        )
        root.item_status("dehydrate", name, offset=0, length=len(data))
        self.assert_hydrated(root, name, len(data))
        fetches = len(self.fetched_ranges(root, name))
        self.assert_content(root, name, data)
        self.assertEqual(len(self.fetched_ranges(root, name)), fetches)

    def test_a_dehydrated_file_takes_no_space_and_is_fetched_again_when_read(self):
        root = self.new_root()
        data = self.make_hydrated(root, "a.bin")
        self.assertEqual(root.item_status("dehydrateAll", "a.bin"), 0)
        self.assert_online_only(root, "a.bin")
        self.assertEqual((root.path / "a.bin").stat().st_size, len(data))
        self.assertTrue(root.state("a.bin")["inSync"])
        self.assert_content(root, "a.bin", data)
        self.assertEqual(self.fetched_ranges(root, "a.bin"), [(0, len(data))] * 2)

    def test_dehydrating_a_range_answers_no_but_does_it(self):
        root = self.new_root()
        data = self.make_hydrated(root, "a.bin")
        self.assertEqual(root.item_status("dehydrate", "a.bin", offset=0, length=len(data)), -1)
        self.assert_online_only(root, "a.bin")
        self.assert_content(root, "a.bin", data)

    def test_a_part_that_was_dehydrated_is_all_that_is_fetched_again(self):
        root = self.new_root()
        data = self.make_hydrated(root, "a.bin")
        root.item_status("dehydrate", "a.bin", offset=8192, length=16384)
        self.assertFalse(root.state("a.bin")["hydrated"])
        since = self.provider.mark()
        self.assert_content(root, "a.bin", data)
        self.assertEqual(self.fetched_ranges(root, "a.bin", since), [(8192, 16384)])

    def test_a_pinned_file_keeps_its_data(self):
        root = self.new_root()
        data = self.make_hydrated(root, "a.bin")
        self.assertEqual(root.item_status("pin", "a.bin"), 0)
        self.assert_refused(root, "a.bin", PINNED, data)

    def test_a_file_that_is_not_in_sync_keeps_its_data(self):
        root = self.new_root()
        data = self.make_hydrated(root, "a.bin")
        self.assertEqual(root.item_status("setNotInSync", "a.bin"), 0)
        self.assert_refused(root, "a.bin", NOT_IN_SYNC, data)

    def test_a_file_that_a_program_has_open_keeps_its_data(self):
        root = self.new_root()
        data = self.make_hydrated(root, "a.bin")
        holder = subprocess.Popen(["sleep", "60"], stdin=open(root.path / "a.bin", "rb"))
        try:
            self.assert_refused(root, "a.bin", IN_USE, data)
        finally:
            holder.kill()
            holder.wait()


class InSync(EndToEndCase):
    def test_a_local_change_clears_in_sync_and_the_client_can_set_it_again(self):
        root = self.new_root()
        root.create("a.bin", 5000)
        self.assertTrue(root.state("a.bin")["inSync"])
        with open(root.path / "a.bin", "r+b") as file:
            file.write(b"changed")
        self.assertFalse(root.state("a.bin")["inSync"])
        self.assertEqual(root.item_status("setInSync", "a.bin"), 0)
        self.assertTrue(root.state("a.bin")["inSync"])
        self.assertEqual(root.item_status("setNotInSync", "a.bin"), 0)
        self.assertFalse(root.state("a.bin")["inSync"])

    def test_reading_hydrating_and_the_client_s_own_changes_keep_in_sync(self):
        root = self.new_root()
        data = root.create("a.bin", 5000)
        self.assert_content(root, "a.bin", data)
        self.assertTrue(root.state("a.bin")["inSync"])
        self.assertEqual(root.item_status("dehydrateAll", "a.bin"), 0)
        self.assertEqual(root.item_status("hydrate", "a.bin"), 0)
        status = root.item_status("update", "a.bin", identity="a.bin", size=5000, time=1_000_000)
        self.assertEqual(status, 0)
        self.assertTrue(root.state("a.bin")["inSync"])

    def test_what_a_program_wrote_is_never_overwritten_by_a_transfer(self):
        root = self.new_root()
        data = bytearray(root.create("a.bin", 100_000))
        root.read("a.bin")
        data[10_000:10_007] = b"changed"
        with open(root.path / "a.bin", "r+b") as file:
            file.seek(10_000)
            file.write(b"changed")
        status = root.status(
            "proactiveTransfer",
            path=root.client_path("a.bin"),
            **{"from": "Z:" + str(root.source / "a.bin").replace("/", "\\")},
        )
        self.assertEqual(status, 0)
        self.assert_content(root, "a.bin", bytes(data))

    def test_a_new_file_in_the_root_is_an_ordinary_file(self):
        root = self.new_root()
        data = content(10_000)
        (root.path / "made-here.bin").write_bytes(data)
        self.assert_content(root, "made-here.bin", data)
        self.assertFalse(root.state("made-here.bin")["placeholder"])
        os.unlink(root.path / "made-here.bin")
        self.assertFalse((root.path / "made-here.bin").exists())
