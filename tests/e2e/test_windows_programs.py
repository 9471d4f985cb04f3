"""Programs under Wine as readers, in the client's own prefix and in another."""

import zlib

from harness.case import EndToEndCase
from harness.content import content
from harness.waiting import wait_until
from harness.wine import dos_path

MIB = 1 << 20
SIZES = (0, 1, 4096, 4097, 3 * MIB + 1)


class _Readers(EndToEndCase):
    seconds = 40

    def item(self, root, name):
        return dos_path(root.path / name)

    def check_access(self, way):
        root = self.new_root()
        for size in SIZES:
            if way == "map" and size == 0:
                continue  # Windows maps no empty file
            with self.subTest(size=size):
                name = f"{way} {size} ü.bin"
                data = root.create(name, size)
                answer = self.reader.call(way, 20, path=self.item(root, name))
                self.assertEqual(answer["error"], "0")
                self.assertEqual(answer.number("size"), size)
                self.assertEqual(answer.number("crc32"), zlib.crc32(data))
                self.assert_hydrated(root, name, size)
                fetched = [(0, size)] if size else []
                self.assertEqual(self.fetched_ranges(root, name), fetched)

    def check_side_by_side(self):
        """Many requests of one program, while the client answers slowly."""
        root = self.new_root()
        root.serve(delayMs=200)
        files = {f"{number}.bin": root.create(f"{number}.bin", 10_000) for number in range(12)}
        answers = {
            name: self.reader.start("read", path=self.item(root, name)) for name in files
        }
        self.assertEqual(self.provider.call("platform", 5)["status"], "0", "the client froze")
        for name, pending in answers.items():
            self.assertEqual(pending.result(20).number("crc32"), zlib.crc32(files[name]))

    def check_changes(self):
        root = self.new_root()
        data = root.create("a.bin", 50_000)
        answer = self.reader.call(
            "rename", 10, **{"from": self.item(root, "a.bin"), "to": self.item(root, "b.bin")}
        )
        self.assertEqual(answer["error"], "0")
        rename = self.provider.wait_for("rename", root=root.name)
        self.assertEqual(rename["path"], self.item(root, "a.bin"))
        self.assertEqual(rename["target"], self.item(root, "b.bin"))
        self.provider.wait_for("renameCompletion", root=root.name)
        answer = self.reader.call(
            "write", 20, path=self.item(root, "b.bin"), offset=20_000, text="changed"
        )
        self.assertEqual(answer["error"], "0")
        expected = data[:20_000] + b"changed" + data[20_007:]
        self.assert_content(root, "b.bin", expected)
        self.assertFalse(root.state("b.bin")["inSync"])
        answer = self.reader.call("delete", 10, path=self.item(root, "b.bin"))
        self.assertEqual(answer["error"], "0")
        wait_until(lambda: not (root.path / "b.bin").exists(), what="the file to be gone")
        self.assertEqual(self.provider.call("platform", 5)["status"], "0", "the client froze")

    def check_failure(self):
        root = self.new_root()
        root.serve(failStatus=1)
        root.create("a.bin", 50_000)
        answer = self.reader.call("read", 10, path=self.item(root, "a.bin"))
        self.assertNotEqual(answer["error"], "0")
        root.serve()
        answer = self.reader.call("read", 10, path=self.item(root, "a.bin"))
        self.assertEqual(answer.number("crc32"), zlib.crc32(content(50_000, "a.bin")))


class SamePrefix(_Readers):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.reader = cls.start_reader()

    def test_a_program_that_reads_gets_the_content(self):
        self.check_access("read")

    def test_a_program_that_maps_the_file_gets_the_content(self):
        self.check_access("map")

    def test_many_reads_at_once_freeze_nothing(self):
        self.check_side_by_side()

    def test_a_rename_a_change_and_a_delete_freeze_nothing(self):
        self.check_changes()

    def test_a_failed_fetch_fails_the_read(self):
        self.check_failure()

    def test_listing_a_folder_fetches_nothing(self):
        root = self.new_root()
        root.create("a.bin", 50_000)
        answer = self.reader.call("list", 10, path=dos_path(root.path))
        self.assertIn("a.bin", answer["names"].splitlines())
        self.assert_online_only(root, "a.bin")

    def test_a_program_killed_while_it_waits_leaves_the_file_readable(self):
        root = self.new_root()
        root.serve(pieceSize=64 << 10, delayMs=80)
        data = root.create("slow.bin", MIB)
        victim = self.start_reader()
        victim.start("read", path=self.item(root, "slow.bin"))
        self.provider.wait_for("transfer", identity="slow.bin")
        victim.kill()
        self.provider.wait_for("cancel", root=root.name, identity="slow.bin")
        root.serve()
        self.assert_content(root, "slow.bin", data)

    def test_the_callback_names_the_windows_program_that_reads(self):
        root = self.new_root()
        root.create("a.bin", 50_000)
        self.reader.call("read", 10, path=self.item(root, "a.bin"))
        fetch = self.provider.wait_for("fetch", root=root.name)
        self.assertEqual(fetch.number("processId"), self.reader.pid)


class OtherPrefix(_Readers):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.reader = cls.start_reader(cls.new_prefix("other-prefix"))

    def test_a_program_that_reads_gets_the_content(self):
        self.check_access("read")

    def test_a_program_that_maps_the_file_gets_the_content(self):
        self.check_access("map")

    def test_many_reads_at_once_freeze_nothing(self):
        self.check_side_by_side()

    def test_a_rename_a_change_and_a_delete_freeze_nothing(self):
        self.check_changes()

    def test_a_failed_fetch_fails_the_read(self):
        self.check_failure()
