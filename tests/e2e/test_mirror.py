"""The sample client, used as its help says."""

import filecmp
import os
import pathlib
import subprocess
import sys
import threading

from harness.case import EndToEndCase
from harness.content import write_content
from harness.daemon import mounts_below
from harness.images import any_image, read_png, write_png
from harness.settings import SETTINGS
from harness.waiting import wait_until
from harness.wine import dos_path, wine_program

sys.path.insert(0, str(SETTINGS.scripts))

import explorer_entry  # noqa: E402  (needs the path above)

FILES = {
    "empty.txt": 0,
    "one.txt": 1,
    "page.bin": 4096,
    "page and one.bin": 4097,
    "größer 中文 😀.bin": 1_000_003,
    "folder/inside.bin": 70_000,
    "folder/deeper/still.bin": (4 << 20) + 1,
}


MEMORY = "Software\\Nimbra mirror\\Explorer entries"
CLASSES = "Software\\Classes\\CLSID\\"
EXPLORER = "Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\"
NAME_SPACE = EXPLORER + "Desktop\\NameSpace\\"
HIDDEN_ICONS = EXPLORER + "HideDesktopIcons\\NewStartPanel"


class MirrorProcess:
    """mirror.exe while it serves."""

    def __init__(self, case, *arguments):
        self.stop_file = case.folder / "stop"
        self.stop_file.unlink(missing_ok=True)
        command = [wine_program(), str(case.bin / "mirror.exe")]
        command += ["--stop-file", dos_path(self.stop_file), *arguments]
        self.process = subprocess.Popen(
            command,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            env=case.mirror_environment(),
            text=True,
        )
        self.lines = []
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        for line in self.process.stdout:
            self.lines.append(line.rstrip("\r\n"))

    def wait_for_line(self, start):
        wait_until(
            lambda: any(line.startswith(start) for line in self.lines),
            what=f"the line '{start}' of mirror, which said {self.lines}",
        )

    def stop(self):
        """Gives the exit code."""
        self.stop_file.touch()
        code = self.process.wait(15)
        self._finish()
        return code

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait(10)
        self._finish()

    def _finish(self):
        self._reader.join(5)
        self.process.stdout.close()


class MirrorCase(EndToEndCase):
    needs_provider = False

    @classmethod
    def mirror_environment(cls):
        return cls.prefix.environment(CLOUD_FILTER_ENDPOINT=str(cls.daemon.endpoint))

    def run_mirror(self, *arguments, code=0):
        """Runs mirror to its end; gives what it printed."""
        result = self.prefix.run(
            self.bin / "mirror.exe",
            *(dos_path(item) if isinstance(item, pathlib.Path) else item for item in arguments),
            CLOUD_FILTER_ENDPOINT=str(self.daemon.endpoint),
        )
        output = (result.stdout + result.stderr).decode()
        self.assertEqual(result.returncode, code, output)
        return output.replace("\r\n", "\n")

    def make_folders(self, files=None):
        self.source = self.folder / f"{self._testMethodName[:40]} source"
        self.root = self.folder / f"{self._testMethodName[:40]} root"
        self.source.mkdir()
        self.root.mkdir()
        for name, size in (FILES if files is None else files).items():
            write_content(self.source / name, size, name)

    def serve(self, *options):
        mirror = MirrorProcess(self, *options, dos_path(self.source), dos_path(self.root))
        self.addCleanup(mirror.kill)
        mirror.wait_for_line("mirror: ready")
        return mirror

    def finish(self, mirror):
        self.assertEqual(mirror.stop(), 0, mirror.lines)
        self.assertIn("mirror: stopped", mirror.lines)
        self.run_mirror("--unregister", self.root)
        self.assertFalse(os.path.ismount(self.root))

    def bytes_on_disk(self):
        return {name: (self.root / name).stat().st_blocks * 512 for name in FILES}


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


class MirrorInExplorer(MirrorCase):
    """What the shell gets to see of a root: its entry and thumbnails of its pictures."""

    seconds = 60

    def registry(self, key):
        """The values below a key of the current user, by key and name; none if it is not there."""
        file = self.folder / "export.reg"
        file.unlink(missing_ok=True)
        self.prefix.run("reg", "export", "HKEY_CURRENT_USER\\" + key, dos_path(file), "/y")
        return explorer_entry.read_export(file) if file.exists() else {}

    def remembered(self):
        """The class identifiers that mirror keeps, by root."""
        values = self.registry(MEMORY).get("HKEY_CURRENT_USER\\" + MEMORY, {})
        return {name: data for name, (_, data) in values.items()}

    def entry_keys(self, clsid):
        """What is left of an entry's keys, or all of it."""
        found = self.registry(CLASSES + clsid)
        return found | self.registry(NAME_SPACE + clsid)

    def hidden_from_desktop(self, clsid):
        hidden = self.registry(HIDDEN_ICONS).get("HKEY_CURRENT_USER\\" + HIDDEN_ICONS, {})
        return hidden.get(clsid)

    def system_folder(self, clsid):
        values = self.entry_keys(clsid)
        bag = f"HKEY_CURRENT_USER\\{CLASSES}{clsid}\\Instance\\InitPropertyBag"
        drive, path = values[bag]["TargetFolderPath"][1].split(":", 1)
        self.assertEqual(drive, "C")
        return self.prefix.path / "drive_c" / path[1:].replace("\\", "/")

    def shortcuts(self, folder):
        """Targets by name."""
        return {path.name: explorer_entry.shortcut_target(path) for path in folder.iterdir()}

    def assert_only_remains(self, clsid, folder):
        key = f"HKEY_CURRENT_USER\\{CLASSES}{clsid}"
        self.assertEqual(self.entry_keys(clsid), {key: {}})
        self.assertIsNone(self.hidden_from_desktop(clsid))
        self.assertEqual(list(folder.iterdir()), [])
        self.assertNotIn(dos_path(self.root), self.remembered())

    def test_the_root_gets_an_entry_that_leads_to_it_under_the_source_s_name(self):
        self.make_folders({"a.txt": 10})
        self.source = self.source.rename(self.folder / "größer & 中文 (2)")
        mirror = self.serve("--explorer")
        clsid = self.remembered()[dos_path(self.root)]
        self.assertRegex(clsid, "^[{][0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}[}]$")
        values = self.entry_keys(clsid)
        name = values["HKEY_CURRENT_USER\\" + CLASSES + clsid]["(Default)"]
        self.assertEqual(name, ("REG_EXPAND_SZ", f"Corvane Drive - {self.source.name}"))
        name = values["HKEY_CURRENT_USER\\" + NAME_SPACE + clsid]["(Default)"]
        self.assertEqual(name, ("REG_EXPAND_SZ", f"Corvane Drive-{self.source.name}"))
        self.assertEqual(self.hidden_from_desktop(clsid), ("REG_DWORD", "0x1"))
        folder = self.system_folder(clsid)
        self.assertEqual(
            self.shortcuts(folder), {f"{self.source.name}.lnk": dos_path(self.root)}
        )
        self.finish(mirror)
        self.assert_only_remains(clsid, folder)

    def test_a_second_start_keeps_to_the_entry_of_the_first(self):
        self.make_folders({"a.txt": 10})
        self.assertEqual(self.serve("--explorer").stop(), 0)
        clsid = self.remembered()[dos_path(self.root)]
        mirror = self.serve("--explorer")
        self.assertEqual(self.remembered()[dos_path(self.root)], clsid)
        folder = self.system_folder(clsid)
        self.assertEqual(list(self.shortcuts(folder)), [f"{self.source.name}.lnk"])
        self.finish(mirror)

    def test_an_entry_that_somebody_has_damaged_is_whole_after_the_next_start(self):
        self.make_folders({"a.txt": 10})
        self.serve("--explorer").stop()
        clsid = self.remembered()[dos_path(self.root)]
        whole, folder = self.entry_keys(clsid), self.system_folder(clsid)
        self.prefix.run("reg", "delete", "HKEY_CURRENT_USER\\" + NAME_SPACE + clsid, "/f")
        output = self.run_mirror("--no-explorer", self.root, code=1)
        self.assertIn("serve it with --explorer once more", output)
        mirror = self.serve("--explorer")
        self.assertEqual(self.entry_keys(clsid), whole)
        self.finish(mirror)
        self.assert_only_remains(clsid, folder)

    def test_a_root_is_found_however_it_is_spelled(self):
        self.make_folders({"a.txt": 10})
        mirror = self.serve("--explorer")
        clsid = self.remembered()[dos_path(self.root)]
        folder = self.system_folder(clsid)
        mirror.stop()
        spelled = dos_path(self.root).replace(self.root.name, self.root.name.upper())
        self.run_mirror("--no-explorer", spelled.replace("Z:", "z:", 1) + "\\")
        self.assert_only_remains(clsid, folder)
        self.run_mirror("--unregister", self.root)

    def test_the_entry_of_a_root_goes_alone_and_only_once(self):
        self.make_folders({"a.txt": 10})
        mirror = self.serve("--explorer")
        clsid = self.remembered()[dos_path(self.root)]
        folder = self.system_folder(clsid)
        self.assertIn("1 done", self.run_mirror("--no-explorer", self.root))
        self.assert_only_remains(clsid, folder)
        self.assertEqual((self.root / "a.txt").read_bytes(), (self.source / "a.txt").read_bytes())
        output = self.run_mirror("--no-explorer", self.root, code=1)
        self.assertIn("mirror has made no entry for it", output)
        self.finish(mirror)

    def test_the_entry_of_a_root_whose_folder_is_gone_goes_all_the_same(self):
        parent = self.folder / "parent"
        parent.mkdir()
        self.make_folders({"a.txt": 10})
        self.root = parent / "root"
        self.root.mkdir()
        self.serve("--explorer").stop()
        clsid = self.remembered()[dos_path(self.root)]
        parent.rename(self.folder / "elsewhere")
        self.run_mirror("--no-explorer", self.root)
        (self.folder / "elsewhere").rename(parent)
        self.assertEqual(self.entry_keys(clsid), {f"HKEY_CURRENT_USER\\{CLASSES}{clsid}": {}})
        self.assertIsNone(self.hidden_from_desktop(clsid))
        self.assertNotIn(dos_path(self.root), self.remembered())
        self.run_mirror("--unregister", self.root)

    def test_roots_of_the_same_number_do_not_get_in_each_other_s_way(self):
        self.make_folders({"a.txt": 10})
        first_root = self.root
        self.serve("--explorer").stop()
        self.root = self.folder / "another root"
        self.root.mkdir()
        mirror = self.serve("--explorer")
        first, second = (self.remembered()[dos_path(root)] for root in (first_root, self.root))
        self.assertNotEqual(first, second)
        self.run_mirror("--no-explorer", first_root)
        self.assertEqual(
            self.shortcuts(self.system_folder(second)),
            {f"{self.source.name}.lnk": dos_path(self.root)},
        )
        self.finish(mirror)
        # They also shared their description for the shell, which is gone already.
        self.run_mirror("--unregister", first_root, code=1)

    def test_without_the_option_the_shell_is_left_alone(self):
        self.make_folders({"a.txt": 10})
        mirror = self.serve()
        self.assertNotIn(dos_path(self.root), self.remembered())
        self.finish(mirror)

    def test_a_folder_of_shortcuts_that_cannot_be_made_is_reported_and_nothing_stays(self):
        self.make_folders({"a.txt": 10})
        data = next(self.prefix.path.glob("drive_c/users/*/AppData/Local"))
        theirs = data / "CorvaneDrive"
        if theirs.exists():
            theirs.rename(data / "aside")
            self.addCleanup((data / "aside").rename, theirs)
        theirs.write_text("a file where the folder should be")
        self.addCleanup(theirs.unlink)
        output = self.run_mirror("--explorer", self.source, self.root, code=1)
        self.assertIn(f"cannot show {dos_path(self.root)} in Explorer", output)
        self.assertIn("the client's launcher", output)
        self.assertNotIn(dos_path(self.root), self.remembered())
        self.run_mirror("--unregister", self.root)

    def test_a_path_too_long_for_a_shortcut_is_named(self):
        self.make_folders({"a.txt": 10})
        self.root = self.folder / ("r" * 240)
        self.root.mkdir()
        output = self.run_mirror("--explorer", self.source, self.root, code=1)
        self.assertIn("no shortcut can hold a path as long as", output)
        self.run_mirror("--unregister", self.root)


class MirrorThumbnails(MirrorCase):
    """Thumbnails of what is not on disk, asked for by another program, as the shell does."""

    seconds = 60

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        registered = cls.prefix.run("regsvr32", "/s", dos_path(cls.bin / "thumbnail-proxy.dll"))
        assert registered.returncode == 0, "the proxy could not be registered"

    def add_picture(self, name, width, height, seed=0):
        image = any_image(width, height, seed=seed)
        write_png(self.source / name, image)
        return image

    def ask(self, item):
        """The thumbnail of an item, which may also be given as a path; None if there is none."""
        path = dos_path(self.root / item) if ":" not in item else item
        seen = self.folder / "seen.png"
        seen.unlink(missing_ok=True)
        # A pipe would not end with the program: Wine's desktop, which it may start, has it too.
        log = self.folder / "thumbnail-client.txt"
        command = [wine_program(), self.bin / "e2e-thumbnail-client.exe", path, dos_path(seen)]
        with log.open("wb") as output:
            code = subprocess.run(
                command,
                env=self.prefix.environment(),
                stdin=subprocess.DEVNULL,
                stdout=output,
                stderr=subprocess.STDOUT,
                timeout=40,
            ).returncode
        self.said = log.read_text(errors="replace")
        self.assertEqual(seen.exists(), code == 0, self.said)
        return read_png(seen) if seen.exists() else None

    def assert_shows(self, item, image):
        found = self.ask(item)
        self.assertIsNotNone(found, self.said)
        self.assertEqual(found, image)

    def assert_shows_none(self, item):
        self.assertIsNone(self.ask(item), item)
        self.assertIn("0x8000FFFF", self.said)  # the retriever found nothing: E_UNEXPECTED

    def assert_nothing_was_fetched(self, mirror):
        self.assertEqual([line for line in mirror.lines if line.startswith("fetch")], [])
        for path in filter(pathlib.Path.is_file, self.root.rglob("*")):
            self.assertEqual(path.stat().st_blocks, 0, path)

    def test_pictures_have_thumbnails_before_a_byte_of_them_is_fetched(self):
        self.make_folders({"folder/other.bin": 5000})
        small = self.add_picture("small.png", 30, 20)
        below = self.add_picture("folder/größer 中文 😀.png", 256, 9)
        self.add_picture("large.png", 600, 300)
        self.add_picture("narrow.png", 2, 700)
        mirror = self.serve("--explorer")
        self.assert_shows("small.png", small)
        self.assert_shows("folder/größer 中文 😀.png", below)
        large, narrow = self.ask("large.png"), self.ask("narrow.png")
        self.assertEqual((large.width, large.height), (256, 128))
        self.assertEqual((narrow.width, narrow.height), (1, 256))
        self.assert_nothing_was_fetched(mirror)
        self.finish(mirror)

    def test_a_preview_is_made_once_and_again_when_the_source_has_changed(self):
        self.make_folders({"a.txt": 10})
        first = self.add_picture("picture.png", 40, 40, seed=1)
        mirror = self.serve("--explorer")
        self.assert_shows("picture.png", first)
        self.assert_shows("picture.png", first)
        self.assertEqual(mirror.lines.count("preview picture.png"), 1)
        second = self.add_picture("picture.png", 40, 40, seed=2)
        self.assert_shows("picture.png", second)
        self.assertEqual(mirror.lines.count("preview picture.png"), 2)
        self.assert_nothing_was_fetched(mirror)
        self.finish(mirror)

    def test_what_is_no_picture_has_no_thumbnail(self):
        self.make_folders({"text.txt": 100, "empty.png": 0, "random.jpg": 20_000})
        (self.source / "folder").mkdir()
        self.add_picture("cut off.png", 50, 50)
        whole = (self.source / "cut off.png").read_bytes()
        (self.source / "cut off.png").write_bytes(whole[:3000])
        mirror = self.serve("--explorer")
        for name in ("text.txt", "empty.png", "random.jpg", "cut off.png", "folder"):
            self.assert_shows_none(name)
        self.assert_shows_none(dos_path(self.source / "cut off.png"))
        self.assert_nothing_was_fetched(mirror)
        self.finish(mirror)

    def test_a_renamed_picture_has_none_and_another_spelling_is_no_other_name(self):
        self.make_folders({"a.txt": 10})
        image = self.add_picture("picture.png", 20, 20)
        mirror = self.serve("--explorer")
        self.assert_shows(dos_path(self.root / "picture.png").upper(), image)
        os.rename(self.root / "picture.png", self.root / "renamed.png")
        self.assert_shows_none("renamed.png")
        self.finish(mirror)

    def test_many_threads_at_once_get_what_each_asked_for(self):
        self.make_folders({"a.txt": 10})
        images = [self.add_picture(f"{number}.png", 25, 25, number) for number in range(12)]
        mirror = self.serve("--explorer")
        client = self.start_program("e2e-thumbnail-client.exe")
        paths = [dos_path(self.root / f"{number}.png") for number in range(12)]
        seen = client.call("many", 40, paths="\n".join(paths), threads=8)["seen"].splitlines()
        client.close()
        self.assertEqual(len(seen), len(images), seen)
        for image in images:
            self.assertEqual(sum(f"crc32={image.crc32()}" in line for line in seen), 1)
        self.assert_nothing_was_fetched(mirror)
        self.finish(mirror)

    def test_a_mirror_that_is_not_to_show_itself_serves_no_thumbnails(self):
        self.make_folders({"a.txt": 10})
        self.add_picture("picture.png", 20, 20)
        mirror = self.serve()
        self.assertIsNone(self.ask("picture.png"))
        self.finish(mirror)


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
