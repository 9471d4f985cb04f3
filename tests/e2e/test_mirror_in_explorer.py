"""What the sample client lets the shell see: an entry in Explorer, and thumbnails."""

import os
import pathlib
import subprocess
import sys
import time

from harness.images import any_image, read_png, write_png
from harness.mirror import MirrorCase
from harness.settings import SETTINGS
from harness.waiting import wait_until
from harness.wine import dos_path, wine_program

sys.path.insert(0, str(SETTINGS.scripts))

import explorer_entry  # noqa: E402  (needs the path above)

MEMORY = "Software\\Nimbra mirror\\Explorer entries"
CLASSES = "Software\\Classes\\CLSID\\"
EXPLORER = "Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\"
NAME_SPACE = EXPLORER + "Desktop\\NameSpace\\"
HIDDEN_ICONS = EXPLORER + "HideDesktopIcons\\NewStartPanel"


class Entry(MirrorCase):
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
        self.assertIn("32-bit programs", output)
        self.assertNotIn(dos_path(self.root), self.remembered())
        self.run_mirror("--unregister", self.root)

    def test_a_path_too_long_for_a_shortcut_is_named(self):
        self.make_folders({"a.txt": 10})
        self.root = self.folder / ("r" * 240)
        self.root.mkdir()
        output = self.run_mirror("--explorer", self.source, self.root, code=1)
        self.assertIn("no shortcut can hold a path as long as", output)
        self.run_mirror("--unregister", self.root)


class Thumbnails(MirrorCase):
    """Thumbnails of what is not on disk, asked for by another program, as the shell does."""

    seconds = 60

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        registered = cls.prefix.run("regsvr32", "/s", dos_path(cls.bin / "thumbnail-proxy.dll"))
        assert registered.returncode == 0, "the proxy could not be registered"

    def serve(self, *options):
        mirror = super().serve(*options)
        if "--explorer" in options:
            wait_until(self.is_served, what="COM to know of mirror's thumbnails")
        return mirror

    def is_served(self):
        self.ask(dos_path(self.root))
        return "0x80040154" not in self.said  # REGDB_E_CLASSNOTREG

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
        shown = {}
        for line in seen:
            number, *words = line.split("\t")
            shown[int(number)] = dict(word.split("=", 1) for word in words)["crc32"]
        self.assertEqual(shown, {n: str(image.crc32()) for n, image in enumerate(images)})
        self.assert_nothing_was_fetched(mirror)
        self.finish(mirror)

    def test_a_mirror_that_is_not_to_show_itself_serves_no_thumbnails(self):
        self.make_folders({"a.txt": 10})
        self.add_picture("picture.png", 20, 20)
        mirror = self.serve()
        time.sleep(1)  # longer than services would take to start
        self.assertIsNone(self.ask("picture.png"))
        self.assertIn("0x80040154", self.said)  # nobody serves the class
        self.finish(mirror)
