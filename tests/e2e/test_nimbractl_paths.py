"""nimbractl on what is out of the ordinary: links, names and paths at their limits, the sync roots
of other providers, and outputs that are no file."""

import json
import os
import pty
import subprocess

from harness.nimbractl import NimbractlCase, read_terminal
from harness.wine import dos_path, wine_program

CHANGES = ("hydrate", "dehydrate", "pin", "unpin", "exclude", "in-sync")
VERBATIM = "\\\\?\\"


class Links(NimbractlCase):
    """Unix links, which Wine shows as reparse points where they lead to folders. It shows those to
    files as the files themselves, which no program could tell apart."""

    needs_provider = True

    def new_linked_tree(self):
        """A root with links out of the given folder, into it, to itself, and around."""
        root = self.new_root()
        for name in ("given", "given/inner", "other"):
            root.create_folder(name)
        for name in ("given/a.txt", "given/inner/b.txt", "other/not-given.txt"):
            root.create(name, 5000)
        given = root.path / "given"
        (given / "out").symlink_to(root.path / "other")
        (given / "here").symlink_to(".")
        (given / "inner" / "up").symlink_to("..")
        (given / "inner" / "lost").symlink_to("nowhere")
        return root, given

    def test_links_are_shown_as_such_and_loops_end(self):
        root, given = self.new_linked_tree()
        items = self.run_ctl("state", "-r", "--json", given).json
        links = {item["path"] for item in items if item["link"]}
        linked = [given / name for name in ("out", "here", "inner/up")]
        self.assertEqual(links, {dos_path(path) for path in linked})
        self.assertEqual(
            {item["path"] for item in items} - links,
            {dos_path(path) for path in
             (given, given / "a.txt", given / "inner", given / "inner" / "b.txt")},
        )
        for item in items:
            if item["link"]:
                self.assertEqual({item[key] for key in ("placeholder", "hydrated", "size")}, {None})
        rows = self.run_ctl("state", "-r", given).rows
        self.assertIn([*"-----", "link", "-", dos_path(given / "out")], rows)

    def test_no_command_leaves_the_folder_that_it_is_given(self):
        root, given = self.new_linked_tree()
        answer = self.run_ctl("hydrate", "-r", given)
        self.assertEqual(answer.output, "2 items hydrated, 5 skipped\n")
        self.assert_online_only(root, "other/not-given.txt")
        root.read("other/not-given.txt")
        self.assertEqual(
            self.run_ctl("dehydrate", "-r", given).output, "2 items dehydrated, 5 skipped\n"
        )
        self.assert_hydrated(root, "other/not-given.txt", 5000)
        self.run_ctl("in-sync", "--not", "-r", given)
        self.assertFalse(root.state("given/inner/b.txt")["inSync"])
        self.assertTrue(root.state("other/not-given.txt")["inSync"])
        self.assertEqual(len(self.run_ctl("identity", "-r", "--json", given).json), 4)

    def test_links_that_a_pattern_matches_are_not_followed_and_one_that_is_named_is(self):
        root, given = self.new_linked_tree()
        paths = {item["path"] for item in
                 self.run_ctl("state", "-r", "--json", dos_path(given) + "\\*").json}
        self.assertIn(dos_path(given / "out"), paths)
        self.assertNotIn(dos_path(given / "out" / "not-given.txt"), paths)
        self.assertNotIn(dos_path(given / "here" / "a.txt"), paths)
        paths = {item["path"] for item in
                 self.run_ctl("state", "-r", "--json", given / "out").json}
        self.assertIn(dos_path(given / "out" / "not-given.txt"), paths)

    def test_a_sync_root_below_the_folder_is_no_link(self):
        above = self.folder / "above"
        above.mkdir()
        root = self.new_root("above/root")
        root.create("a.txt", 5000)
        paths = [item["path"] for item in self.run_ctl("state", "-r", "--json", above).json]
        self.assertIn(dos_path(root.path / "a.txt"), paths)


class Paths(NimbractlCase):
    needs_provider = True

    def test_a_folder_that_cannot_be_listed_fails_by_name_and_all_others_are_done(self):
        root = self.new_root()
        for name in ("a", "a/inner", "b"):
            root.create_folder(name)
        for name in ("a/inner/z.txt", "a/y.txt", "b/x.txt"):
            root.create(name, 5000)
        odd = "a/inner/no|name"  # Windows finds it, but nothing by such a name
        (root.path / odd).mkdir()
        answer = self.run_ctl("state", "-r", "--json", root.path, code=1)
        found = {item["path"]: item for item in answer.json}
        for name in ("a/inner/z.txt", "a/y.txt", "b/x.txt"):
            self.assertTrue(found[dos_path(root.path / name)]["placeholder"], name)
        failed = {item["path"] for item in answer.json if "error" in item}
        self.assertEqual(failed, {dos_path(root.path / odd)})
        self.assertIn(f"{dos_path(root.path / odd)} cannot be listed: ", answer.errors)
        self.run_ctl("hydrate", "-r", root.path, code=1)
        for name in ("a/inner/z.txt", "a/y.txt", "b/x.txt"):
            self.assert_hydrated(root, name, 5000)

    def test_paths_of_more_than_260_characters_work_with_every_command(self):
        root = self.new_root()
        folder = ""
        for level in range(16):
            folder += f"{'/' if folder else ''}ordner {level:02} größe 中文 😀"
            root.create_folder(folder)
        name = f"{folder}/tief.bin"
        root.create(name, 5000)
        path = root.path / name
        self.assertGreater(len(dos_path(path)), 400)
        self.assertEqual(self.run_ctl("hydrate", path).output, "1 item hydrated\n")
        self.assert_hydrated(root, name, 5000)
        self.run_ctl("pin", path)
        self.assertTrue(self.file_state(path)["pinned"])
        self.assertIn("ERROR_CLOUD_FILE_PINNED", self.failure("dehydrate", path))
        self.run_ctl("unpin", path)
        self.run_ctl("dehydrate", "-r", root.path)
        self.assert_online_only(root, name)
        self.run_ctl("in-sync", "--not", VERBATIM + dos_path(path))
        self.assertFalse(self.file_state(path)["inSync"])
        (item,) = self.run_ctl("identity", "--json", path).json
        self.assertEqual(item["identity"]["text"], name)
        self.assertEqual(item["syncRoot"]["text"].rsplit(".", 1)[1], str(root.session))
        paths = [item["path"] for item in self.run_ctl("state", "-r", "--json", root.path).json]
        self.assertIn(dos_path(path), paths)
        self.assertEqual(root.status("disconnect"), 0)
        self.assertIn("would be deleted", self.failure("unregister", root.path))

    def test_names_that_windows_would_shorten_are_reached_by_the_path_that_is_shown(self):
        folder = self.folder / "odd names"
        (folder / "dir.").mkdir(parents=True)
        names = ["dot.", "blank ", "dir./inside", " leading", "a  b", "%TEMP%", "-dash", "!&^;"]
        for name in names:
            (folder / name).write_text(name)
        items = self.run_ctl("state", "-r", "--json", folder).json
        shown = {item["path"].removeprefix(VERBATIM): item["path"] for item in items}
        self.assertEqual(
            set(shown), {dos_path(folder / name) for name in (".", "dir.", *names)}
        )
        for name in names:
            item = self.file_state(shown[dos_path(folder / name)])
            self.assertEqual(item["size"], len(name), name)
        self.assertIn("ERROR_FILE_NOT_FOUND", self.failure("state", dos_path(folder / "dot.")))

    def test_a_drive_and_a_backslash_at_the_end(self):
        folder = self.folder / "folder"
        folder.mkdir()
        for given, path in (("Z:\\", "Z:\\"), ("Z:\\.\\", "Z:\\"), ("C:\\", "C:\\"),
                            (VERBATIM + "C:\\", VERBATIM + "C:\\"),
                            (dos_path(folder) + "\\\\", dos_path(folder)),
                            (VERBATIM + dos_path(folder) + "\\", VERBATIM + dos_path(folder))):
            item = self.file_state(given)
            self.assertEqual((item["path"], item["folder"]), (path, True))
        self.assertIn("C:\\windows", [row[-1] for row in self.run_ctl("state", "C:\\*").rows])
        self.assertIn("is a folder", self.failure("hydrate", "C:\\"))
        self.assertIn("C:\\ lies in no sync root", self.failure("unregister", "C:\\"))

    def test_json_is_json_in_utf_8_even_of_names_that_are_no_text(self):
        folder = self.folder / "json ü"
        folder.mkdir()
        for name in ("plain", "größe 中文 😀", "e\u0301", "line\u2028separator", "\u200fright"):
            (folder / name).write_text("x")
        (folder / os.fsdecode(b"broken \xff\xfe.txt")).write_text("x")
        for command in ("state", "identity"):
            answer = self.prefix.run(
                self.bin / self.program, command, "-r", "--json", dos_path(folder),
                **self.endpoint(),
            )
            items = json.loads(answer.stdout.decode("utf-8", errors="strict"))
            self.assertIn(dos_path(folder), [item["path"] for item in items])
            if command == "state":
                names = {item["path"].rsplit("\\", 1)[1] for item in items}
                self.assertLessEqual({"plain", "größe 中文 😀", "e\u0301"}, names)


class OtherProviders(NimbractlCase):
    needs_provider = True

    def start_other(self, folder):
        """A sync root of another provider, for as long as the test runs."""
        folder.mkdir()
        other = subprocess.Popen(
            [wine_program(), str(self.bin / "e2e-other-provider.exe"), dos_path(folder)],
            env=self.prefix.environment(**self.endpoint()),
            stdin=subprocess.PIPE, stdout=subprocess.PIPE,
        )
        self.addCleanup(lambda: (other.communicate(b"\n", timeout=20),
                                 self.assertEqual(other.returncode, 0)))
        self.assertEqual(other.stdout.readline().strip(), b"0")
        return folder

    def everything(self, folder):
        return self.run_ctl("state", "-r", "--json", folder).json

    def test_it_is_shown_and_nothing_in_it_is_changed(self):
        folder = self.start_other(self.folder / "other")
        cloud = folder / "cloud.txt"
        before = self.everything(folder)
        self.assertEqual(
            [(item["placeholder"], item["hydrated"]) for item in before if not item["folder"]],
            [(True, False)],
        )
        (item,) = self.run_ctl("identity", "--json", cloud).json
        self.assertEqual(item["identity"]["text"], "cloud.txt")
        self.assertEqual(item["syncRoot"]["text"], "Other Cloud's root")
        complaint = f"{dos_path(cloud)} lies in a sync root of another provider, Other Cloud's root"
        for command in CHANGES:
            with self.subTest(command=command):
                errors = self.failure(command, cloud)
                self.assertIn(complaint, errors)
                self.assertIn("leave it to that provider's own program", errors)
        for command in (("register", "--session", 3), ("register", "--session", 3, "--again"),
                        ("unregister",), ("unregister", "--delete-online-only"),
                        ("explorer", "register")):
            with self.subTest(command=command):
                errors = self.failure(*command, folder)
                self.assertIn(f"{dos_path(folder)} lies in a sync root of another prov", errors)
        self.assertEqual(self.everything(folder), before)
        self.assertEqual(self.run_ctl("roots").output, "No sync root is registered.\n")
        self.assertEqual(self.run_ctl("explorer", "list", "--json").json, [])

    def test_what_merely_lies_below_the_given_folder_is_skipped(self):
        above = self.folder / "both"
        above.mkdir()
        other = self.start_other(above / "other")
        root = self.new_root("both/ours")
        root.create("a.txt", 5000)
        before = self.everything(other)
        answer = self.run_ctl("hydrate", "-r", above)
        self.assertEqual((answer.output, answer.errors), ("1 item hydrated, 6 skipped\n", ""))
        self.run_ctl("in-sync", "--not", "-r", dos_path(above) + "\\o*", code=1)  # other is named
        self.assertFalse(root.state("a.txt")["inSync"])
        self.assertEqual(self.everything(other), before)

    def test_what_lies_in_no_sync_root_is_named_and_stays(self):
        plain = self.folder / "plain.txt"
        plain.write_text("plain")
        for command in CHANGES:
            with self.subTest(command=command):
                errors = self.failure(command, plain)
                self.assertIn(dos_path(plain), errors)
                self.assertRegex(
                    errors, "ERROR_CLOUD_FILE_NOT_UNDER_SYNC_ROOT|ERROR_NOT_A_CLOUD_FILE"
                )
                self.assertIn("nimbractl roots lists", errors)
        self.assertFalse(self.file_state(plain)["placeholder"])
        self.assertEqual(plain.read_text(), "plain")
        for command in ("unregister", "register --session 1 --again"):
            self.assertIn("lies in no sync root", self.failure(*command.split(), self.folder))
        folder = self.folder / "empty"
        folder.mkdir()
        self.assertEqual(
            self.run_ctl("hydrate", "-r", folder).output, "0 items hydrated, 1 skipped\n"
        )


class Outputs(NimbractlCase):
    needs_provider = True

    def start(self, *arguments, **streams):
        return subprocess.Popen(
            [wine_program(), str(self.bin / self.program), *map(str, arguments)],
            env=self.prefix.environment(TERM="xterm", **self.endpoint()),
            stdin=subprocess.DEVNULL, **streams,
        )

    def test_into_a_pipe_there_are_neither_colours_nor_a_progress_bar(self):
        root = self.new_root()
        root.create("big.bin", 2 << 20)
        process = self.start("hydrate", dos_path(root.path / "big.bin"),
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        output, errors = process.communicate(timeout=30)
        self.assertEqual((output.strip(), errors), (b"1 item hydrated", b""))
        for command in (("state", "-r", root.path), ("identity", "-r", root.path), ("info",)):
            answer = self.run_ctl(*command)
            self.assertNotIn("\x1b", answer.output + answer.errors)

    def test_the_bar_is_on_the_error_stream_if_that_alone_is_a_terminal(self):
        root = self.new_root()
        root.serve(pieceSize=256 << 10, delayMs=20)
        root.create("big.bin", 2 << 20)
        terminal, other_end = pty.openpty()
        process = self.start("hydrate", dos_path(root.path / "big.bin"),
                             stdout=subprocess.PIPE, stderr=other_end)
        os.close(other_end)
        shown = read_terminal(terminal)
        output, _ = process.communicate(timeout=30)
        self.assertEqual((process.returncode, output.strip()), (0, b"1 item hydrated"))
        self.assertIn(b"of 2.1 MB, ", shown)

    def test_work_is_done_to_its_end_although_nobody_reads_what_is_printed(self):
        root = self.new_root()
        for number in range(3):
            root.create(f"{number}.bin", 5000)
        for arguments in (("hydrate", "-r"), ("state", "-r"), ("state", "-r", "--json"),
                          ("identity", "-r")):
            reader, writer = os.pipe()
            os.close(reader)
            process = self.start(*arguments, dos_path(root.path), stdout=writer,
                                 stderr=subprocess.PIPE)
            os.close(writer)
            _, errors = process.communicate(timeout=30)
            self.assertEqual((process.returncode, errors), (0, b""), arguments)
        for number in range(3):
            self.assert_hydrated(root, f"{number}.bin", 5000)

    def test_output_that_is_lost_for_want_of_room_fails(self):
        root = self.new_root()
        root.create("a.bin", 5000)
        for arguments in (("hydrate", dos_path(root.path / "a.bin")), ("info",)):
            self.assert_output_is_lost("/dev/full", *arguments)
        self.assert_hydrated(root, "a.bin", 5000)

    def assert_output_is_lost(self, output, *arguments):
        with open(output, "wb") as stream:
            process = self.start(*arguments, stdout=stream, stderr=subprocess.PIPE)
            _, errors = process.communicate(timeout=30)
        self.assertEqual(process.returncode, 1)
        self.assertIn(b"not all of the output could be written", errors)

    def test_output_that_is_refused_for_a_reason_that_the_runtime_has_no_word_for_fails(self):
        # What is written there must be a number, or that gives the error that the runtime has for
        # all that it does not know.
        self.assert_output_is_lost("/proc/self/oom_score_adj", "info")

    def test_a_table_s_columns_stand_below_their_titles(self):
        root = self.new_root()
        root.create("größe.txt", 5000)
        answer = self.run_ctl("state", "-r", root.path)
        titles, *rows = answer.output.splitlines()
        for row in rows:
            for title in ("hydrated", "pinned", "in sync", "size", "path"):
                at = titles.index(title)
                self.assertEqual((row[at - 1], row[at] != " "), (" ", True), answer.output)
