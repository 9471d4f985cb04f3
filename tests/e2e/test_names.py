"""Names and identities at their limits."""

import unicodedata

from harness.case import EndToEndCase

NAMES = (
    "plain.txt",
    "with blanks and.many.dots.txt",
    "中文文件名.txt",
    "naïve Ärger – Größe.txt",
    "emoji 😀🚀.bin",
    "עברית العربية.txt",
    unicodedata.normalize("NFD", "é ñ ü combining.txt"),
    "'quotes' & %percent% #hash ;.txt",
    "no-extension",
    ".hidden",
    "x" * 240,
    "長" * 80,
)


class Names(EndToEndCase):
    def test_a_file_of_any_name_is_fetched_under_its_own_identity(self):
        root = self.new_root()
        for name in NAMES:
            with self.subTest(name=name):
                data = root.create(name, 5001)
                self.assert_content(root, name, data)
                self.assertEqual(root.state(name)["identity"], name)
        self.assertEqual(sorted(path.name for path in root.path.iterdir()), sorted(NAMES))

    def test_the_callback_names_the_file_by_its_windows_path(self):
        root = self.new_root()
        for name in NAMES:
            with self.subTest(name=name):
                root.create(name, 10)
                root.read(name)
                event = self.provider.wait_for("fetch", root=root.name, identity=name)
                self.assertEqual(event["path"], "Z:" + str(root.path / name).replace("/", "\\"))

    def test_two_names_that_differ_only_in_their_unicode_form_are_two_files(self):
        root = self.new_root()
        composed = unicodedata.normalize("NFC", "é.txt")
        decomposed = unicodedata.normalize("NFD", "é.txt")
        first, second = root.create(composed, 100), root.create(decomposed, 200)
        self.assert_content(root, composed, first)
        self.assert_content(root, decomposed, second)

    def test_files_in_folders_40_deep_are_served(self):
        root = self.new_root()
        folder = ""
        for level in range(40):
            folder += f"{'/' if folder else ''}ordner-{level:02}-éé"
            root.create_folder(folder)
        name = f"{folder}/tief.bin"
        data = root.create(name, 70_000)
        self.assertGreater(len(str(root.path / name)), 520)
        self.assert_content(root, name, data)

    def test_identities_of_1_4000_and_4096_bytes_come_back_whole(self):
        root = self.new_root()
        for length in (1, 4000, 4096):
            with self.subTest(length=length):
                identity = ("0123456789abcdef" * 256)[:length]
                data = root.create(f"identity-{length}.bin", 10_000, identity=identity)
                self.assertEqual(root.state(f"identity-{length}.bin")["identity"], identity)
                self.assert_content(root, f"identity-{length}.bin", data)
                self.assertEqual(len(self.fetched_ranges(root, identity)), 1)

    def test_an_identity_of_more_than_4096_bytes_is_refused(self):
        root = self.new_root()
        status = root.item_status("create", "too-long.bin", identity="x" * 4097, size=10)
        self.assertEqual(status, -1)
        self.assertFalse((root.path / "too-long.bin").exists())

    def test_a_name_that_is_there_already_is_not_created_again(self):
        root = self.new_root()
        data = root.create("once.bin", 5000)
        self.assertEqual(root.item_status("create", "once.bin", identity="other", size=7), -1)
        self.assert_content(root, "once.bin", data)
        self.assertEqual(root.state("once.bin")["identity"], "once.bin")
