"""What the library says about paths and the platform, and what a callback record says."""

import subprocess

from harness.case import EndToEndCase, signed
from harness.wine import client_path, dos_path

PREFIX = "Corvane.Drive.FileStreaming.session."


class Queries(EndToEndCase):
    def test_the_platform_s_numbers_are_the_filter_s(self):
        answer = self.provider.call("platform")
        self.assertEqual(answer.status, 0)
        self.assertGreaterEqual(answer.number("build"), 16299)
        self.assertGreaterEqual(answer.number("integration"), 0)
        flags = [answer[name] for name in ("supports", "hidesOption", "byDefault")]
        self.assertEqual(flags, ["1", "0", "1"])

    def test_the_identity_of_the_root_is_found_for_the_root_and_all_below_it(self):
        root = self.new_root()
        root.create_folder("a")
        root.create("a/b.bin", 100)
        for path in (root.path, root.path / "a", root.path / "a" / "b.bin"):
            answer = self.provider.call("rootIdentity", path=client_path(path))
            self.assertEqual(answer.status, 0)
            self.assertEqual(answer["identity"], f"{PREFIX}{root.session}")

    def test_a_path_outside_every_root_has_no_identity_and_says_so(self):
        since = self.provider.mark()
        path = client_path(self.folder)
        answer = self.provider.call("rootIdentity", path=path)
        self.assertEqual(answer.status, -1)
        line = self.provider.log_lines(since)[0]
        self.assertTrue(line.startswith("lib\\cloud-filter\\nimbra-host\\nimbra\\nimbra ("))
        self.assertTrue(
            line.endswith(
                f") | Failed to get syncroot info on path {path}, ec: {signed(0x80070186)}\r\n"
            ),
            line,
        )

    def test_a_path_below_the_client_s_root_is_known_as_such(self):
        root = self.new_root()
        since = self.provider.mark()
        path = client_path(root.path)
        self.assertEqual(self.provider.status("isUnderRoot", path=path), 0)
        line = self.provider.log_lines(since)[0]
        self.assertTrue(line.endswith(f") | ProviderName of {path} is: CorvaneDrive\r\n"), line)

    def test_a_path_outside_every_root_counts_as_below_but_the_log_tells(self):
        since = self.provider.mark()
        path = client_path(self.folder)
        self.assertEqual(self.provider.status("isUnderRoot", path=path), 0)
        line = self.provider.log_lines(since)[0]
        self.assertTrue(line.endswith(f") | Failed to get syncroot info, path is: {path}\r\n"))


class FilterStatus(EndToEndCase):
    def test_the_filter_tells_of_each_root_who_serves_it_and_how_much_is_on_disk(self):
        root = self.new_root()
        root.create("online-only.bin", 1 << 20)
        root.create("present.bin", 5000)
        root.read("present.bin")
        told = self.daemon.status()
        self.assertEqual(told["processId"], self.daemon.pid)
        (told,) = (one for one in told["roots"] if one["path"] == str(root.path))
        self.assertEqual(told["provider"]["unixProcessId"], self.provider.pid)
        self.assertEqual(
            told["provider"]["windowsProcessId"], self.provider.windows_process_id
        )
        self.assertEqual(told["providerName"], "CorvaneDrive")
        self.assertTrue(told["mounted"] and told["connected"])
        self.assertEqual(told["bytesTotal"], (1 << 20) + 5000)
        self.assertIn(told["bytesOnDisk"], range(5000, 8193))
        self.assertEqual(root.status("disconnect"), 0)
        (told,) = (one for one in self.daemon.status()["roots"] if one["path"] == str(root.path))
        self.assertFalse(told["connected"])


class Records(EndToEndCase):
    def test_a_fetch_record_tells_who_reads_what_and_how_much(self):
        root = self.new_root()
        root.create("größe.bin", 100_000, identity="the identity")
        reader = subprocess.Popen(
            ["cat", root.path / "größe.bin"], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE
        )
        fetch = self.provider.wait_for("fetch", root=root.name)
        reader.communicate(timeout=10)
        self.assertEqual(fetch["session"], str(root.session))
        self.assertEqual(fetch["identity"], "the identity")
        self.assertEqual(fetch["path"], dos_path(root.path / "größe.bin"))
        self.assertNotIn("target", fetch)
        self.assertEqual(fetch["reserved"], "0")
        self.assertEqual(fetch.number("processId"), reader.pid)
        self.assertTrue(fetch["image"].endswith("cat"), fetch["image"])
        self.assertEqual(fetch.number("fileId"), (root.path / "größe.bin").stat().st_ino)
        ranges = [
            fetch.number(name)
            for name in ("offset", "length", "optionalOffset", "optionalLength")
        ]
        self.assertEqual(ranges, [0, 100_000, 0, 100_000])
        self.assertNotEqual(fetch["key"], "0")

    def test_an_explicit_hydration_is_told_like_any_other_fetch(self):
        root = self.new_root()
        root.create("a.bin", 100_000)
        self.assertEqual(root.item_status("hydrate", "a.bin"), 0)
        fetch = self.provider.wait_for("fetch", root=root.name)
        self.assertEqual((fetch.number("offset"), fetch.number("length")), (0, 100_000))
        self.assertEqual(fetch["path"], dos_path(root.path / "a.bin"))

    def test_two_roots_of_one_client_get_their_own_callbacks(self):
        first, second = self.new_root("first root"), self.new_root("second root")
        one, two = first.create("same.bin", 5000, seed=1), second.create("same.bin", 6000, seed=2)
        self.assert_content(second, "same.bin", two)
        self.assert_content(first, "same.bin", one)
        for root in (first, second):
            fetches = self.provider.events("fetch", root=root.name)
            self.assertEqual([fetch["session"] for fetch in fetches], [str(root.session)])

    def test_opening_a_file_never_calls_the_open_completion_callback(self):
        root = self.new_root()
        data = root.create("a.bin", 5000)
        self.assert_content(root, "a.bin", data)
        self.assertEqual(self.provider.events("openCompletion"), [])

    def test_after_disconnecting_no_callback_comes(self):
        root = self.new_root()
        root.create("a.bin", 5000)
        self.assertEqual(root.status("disconnect"), 0)
        since = self.provider.mark()
        self.assertIsNotNone(root.reading_fails("a.bin", 10))
        subprocess.run(["mv", root.path / "a.bin", root.path / "b.bin"], check=True, timeout=10)
        self.provider.call("platform")
        for kind in ("fetch", "cancel", "rename", "renameCompletion"):
            self.assertEqual(self.provider.events(kind, since), [], kind)
