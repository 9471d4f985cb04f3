"""nimbractl: each command, as it goes well and as it fails, held against what is really there."""

import os
import pathlib
import pty
import re
import subprocess
import tempfile
import unicodedata

from harness.content import write_content
from harness.nimbractl import NimbractlCase, read_terminal
from harness.wine import dos_path, wine_program

PREFIX = "Corvane.Drive.FileStreaming.session."
ODD_NAME = "größe 中文 😀.bin"
ITEM_COMMANDS = (
    "state", "identity", "hydrate", "dehydrate", "pin", "unpin", "exclude", "in-sync"
)


class Items(NimbractlCase):
    needs_provider = True

    def assert_refused(self, command, path, *reasons):
        errors = self.failure(*command.split(), path)
        for reason in (dos_path(path), *reasons):
            self.assertIn(reason, errors)

    def new_tree(self):
        """A root with an item of each kind; what is on disk after reading counts as hydrated."""
        root = self.new_root()
        root.create_folder("folder")
        root.create(f"folder/{ODD_NAME}", 300_000)
        root.create("a.txt", 5000)
        root.create("read.txt", 7000)
        root.read("read.txt")
        (root.path / "plain.md").write_text("plain")
        return root

    def test_the_state_as_json_is_what_the_client_itself_hears(self):
        root = self.new_tree()
        self.assertEqual(root.item_status("pin", "a.txt"), 0)
        self.assertEqual(root.item_status("exclude", "read.txt"), 0)
        self.assertEqual(root.item_status("setNotInSync", "read.txt"), 0)
        items = self.run_ctl("state", "--json", "--recursive", root.path).json
        names = ["", "folder", f"folder/{ODD_NAME}", "a.txt", "read.txt", "plain.md"]
        by_path = {item["path"]: item for item in items}
        self.assertEqual(set(by_path), {dos_path(root.path / name) for name in names})
        self.assertEqual(items[0]["path"], dos_path(root.path))
        for name in names[1:-1]:
            item, state = by_path[dos_path(root.path / name)], root.state(name)
            for question in ("placeholder", "hydrated", "pinned", "excluded", "inSync"):
                self.assertEqual(item[question], state[question], (name, question))
        plain = by_path[dos_path(root.path / "plain.md")]
        self.assertEqual((plain["placeholder"], plain["hydrated"]), (False, True))
        self.assertEqual([plain[key] for key in ("pinned", "excluded", "inSync")], [None] * 3)
        for name in ("a.txt", "read.txt", "plain.md"):
            item, stat = by_path[dos_path(root.path / name)], (root.path / name).stat()
            self.assertEqual((item["size"], item["folder"]), (stat.st_size, False))
            self.assertEqual(item["bytesOnDisk"], stat.st_blocks * 512)
        folder = by_path[dos_path(root.path / "folder")]
        self.assertEqual((folder["folder"], folder["size"]), (True, None))

    def test_the_state_as_a_table_has_a_row_for_each_item(self):
        root = self.new_tree()
        answer = self.run_ctl("state", "-r", root.path)
        self.assertEqual(
            answer.output.splitlines()[0].split(),
            ["placeholder", "hydrated", "pinned", "excluded", "in", "sync", "size", "on", "disk",
             "path"],
        )
        rows = {" ".join(row[7:]): row[:7] for row in answer.rows}
        on_disk = str((root.path / "plain.md").stat().st_blocks * 512)
        self.assertEqual(
            rows[dos_path(root.path / "folder" / ODD_NAME)],
            ["yes", "no", "no", "no", "yes", "300000", "0"],
        )
        self.assertEqual(
            rows[dos_path(root.path / "plain.md")], ["no", "yes", "-", "-", "-", "5", on_disk]
        )
        self.assertEqual(rows[dos_path(root.path / "folder")][5:], ["folder", "-"])
        self.assertEqual(len(rows), 6)
        titles = answer.output.splitlines()[0]
        for line in answer.output.splitlines()[1:]:
            self.assertEqual(line.index("Z:"), titles.index("path"), answer.output)

    def test_without_recursive_only_what_is_named_is_shown_and_asking_fetches_nothing(self):
        root = self.new_tree()
        self.assertEqual(len(self.run_ctl("state", root.path).rows), 1)
        self.assertEqual(len(self.run_ctl("state", root.path, root.path / "a.txt").rows), 2)
        self.assert_online_only(root, "a.txt")

    def test_wildcards_in_the_last_part_are_for_what_matches(self):
        root = self.new_tree()
        rows = self.run_ctl("state", dos_path(root.path) + "\\*.txt").rows
        self.assertEqual(
            {row[-1] for row in rows},
            {dos_path(root.path / name) for name in ("a.txt", "read.txt")},
        )
        self.assertIn(
            f"nothing matches {dos_path(root.path)}\\*.jpg",
            self.failure("state", dos_path(root.path) + "\\*.jpg"),
        )

    def test_a_path_is_taken_from_the_current_folder_and_with_any_separators(self):
        root = self.new_root()
        root.create("a.txt", 5000)
        for path in (f"Z:{root.path}/a.txt", f"{dos_path(root.path)}\\.\\x\\..\\a.txt"):
            self.assertEqual(self.file_state(path)["path"], dos_path(root.path / "a.txt"))
        folder = self.run_ctl("state", "--json", dos_path(root.path) + "\\").json[0]
        self.assertEqual(folder["path"], dos_path(root.path))

    def test_a_name_that_looks_like_a_list_is_one_name(self):
        root = self.new_root()
        names = ["[2024, Rome]", "[a]", "{}"]
        for name in names:
            root.create(name, 5000)
        for given in (names, *([name] for name in names)):
            items = self.run_ctl("state", "--json", *given, cwd=root.path).json
            self.assertEqual(
                [(item["path"], item["placeholder"]) for item in items],
                [(dos_path(root.path / name), True) for name in given],
            )

    def test_a_missing_item_fails_by_name_and_the_others_are_done(self):
        root = self.new_root()
        root.create("a.txt", 5000)
        missing = root.path / "missing 😀"
        answer = self.run_ctl("state", "--json", missing, root.path / "a.txt", code=1)
        self.assertIn(f"{dos_path(missing)}: 0x80070002 ERROR_FILE_NOT_FOUND", answer.errors)
        self.assertIn("check the path", answer.errors)
        first, second = answer.json
        self.assertEqual(first["path"], dos_path(missing))
        self.assertIn("ERROR_FILE_NOT_FOUND", first["error"])
        self.assertTrue(second["placeholder"])
        for command in ITEM_COMMANDS:
            with self.subTest(command=command):
                self.assert_refused(command, missing, "ERROR_FILE_NOT_FOUND", "check the path")

    def test_what_is_no_placeholder_is_refused_by_name_and_passed_over_below_a_folder(self):
        root = self.new_tree()
        plain = root.path / "plain.md"
        for command in ("identity", "hydrate", "dehydrate", "pin", "unpin", "exclude", "in-sync"):
            with self.subTest(command=command):
                self.assert_refused(command, plain, "0x80070178 ERROR_NOT_A_CLOUD_FILE")
        answer = self.run_ctl("in-sync", "-r", root.path)
        self.assertEqual(answer.output, "5 items marked as in sync, 1 skipped\n")

    def test_what_can_be_no_path_is_refused_and_the_others_are_done(self):
        root = self.new_root()
        root.create("a.txt", 5000)
        odd = ("", "Z:\\a\"b|", "\\\\?\\", "NUL:x", "x" * 5000)
        answer = self.run_ctl("state", *odd, root.path / "a.txt", code=1)
        self.assertEqual(answer.errors.count("nimbractl: "), len(odd), answer.errors)
        self.assertEqual([row[-1] for row in answer.rows], [dos_path(root.path / "a.txt")])

    def test_hydrating_fetches_what_is_missing_and_nothing_else(self):
        root = self.new_tree()
        answer = self.run_ctl("hydrate", "--recursive", root.path)
        self.assertEqual(answer.output, "2 items hydrated, 4 skipped\n")
        self.assertEqual(answer.errors, "", "a progress bar where nobody sees it")
        self.assert_hydrated(root, f"folder/{ODD_NAME}", 300_000)
        self.assert_hydrated(root, "a.txt", 5000)
        self.assertEqual(len(self.fetched_ranges(root, "read.txt")), 1)

    def test_the_progress_bar_ends_at_all_and_goes_away(self):
        root = self.new_root()
        root.serve(pieceSize=256 << 10, delayMs=40)
        root.create("big.bin", 2 << 20)
        answer = self.run_ctl("hydrate", "--progress", "always", root.path / "big.bin")
        bars = [bar for bar in answer.errors.split("\r") if bar.strip()]
        percents = [int(re.search(r"(\d+) %", bar)[1]) for bar in bars]
        self.assertEqual(percents, sorted(percents))
        self.assertEqual((percents[0] < 100, percents[-1]), (True, 100), bars)
        self.assertTrue(any(0 < percent < 100 for percent in percents), bars)
        self.assertIn("2.1 MB of 2.1 MB, 1 of 1 file", bars[-1])
        self.assertEqual(answer.errors.split("\r")[-2].strip(), "", "the bar stays")

    def test_on_a_terminal_the_progress_bar_is_there_without_being_asked_for(self):
        root = self.new_root()
        root.create("big.bin", 2 << 20)
        terminal, other_end = pty.openpty()
        process = subprocess.Popen(
            [wine_program(), str(self.bin / self.program), "hydrate",
             dos_path(root.path / "big.bin")],
            env=self.prefix.environment(TERM="xterm", **self.endpoint()),
            stdin=other_end, stdout=other_end, stderr=other_end, start_new_session=True,
        )
        os.close(other_end)
        shown = read_terminal(terminal)
        self.assertEqual(process.wait(10), 0)
        self.assertIn("of 2.1 MB, ", shown.decode(errors="replace"))
        self.assertIn("1 item hydrated", shown.decode(errors="replace"))

    def test_what_cannot_be_fetched_is_told_with_the_platform_s_reason(self):
        root = self.new_root()
        root.create("a.txt", 5000)
        root.create("b.txt", 5000)
        root.serve(failStatus=1)
        answer = self.run_ctl("hydrate", "-r", root.path, "--progress", "always", code=1)
        self.assertEqual(answer.output, "0 items hydrated, 1 skipped, 2 failed\n")
        self.assertIn("0x80070185 ERROR_CLOUD_FILE_UNSUCCESSFUL", answer.errors)
        self.assertIn("0 of 2 files", answer.errors.split("\r")[-3])
        self.assertEqual(root.status("disconnect"), 0)
        self.assert_refused(
            "hydrate", root.path / "a.txt", "ERROR_CLOUD_FILE_PROVIDER_NOT_RUNNING",
            "start the client",
        )
        self.assertEqual(root.status("connect"), 0)

    def test_a_folder_has_data_only_below_it(self):
        root = self.new_tree()
        for command in ("hydrate", "dehydrate"):
            self.assert_refused(command, root.path / "folder", "is a folder", "--recursive")

    def test_dehydrating_gives_the_room_back_unless_a_pin_or_a_change_forbids_it(self):
        root = self.new_root()
        for name in ("a.txt", "pinned.txt", "changed.txt"):
            root.create(name, 5000)
            root.read(name)
        root.create("empty.txt", 0)
        self.assertEqual(root.item_status("pin", "pinned.txt"), 0)
        with open(root.path / "changed.txt", "r+b") as file:
            file.write(b"changed")
        answer = self.run_ctl("dehydrate", "-r", root.path, code=1)
        self.assertEqual(answer.output, "1 item dehydrated, 2 skipped, 2 failed\n")
        self.assert_online_only(root, "a.txt")
        for name, reason, advice in (
            ("pinned.txt", "0x80070188 ERROR_CLOUD_FILE_PINNED, it is pinned", "nimbractl unpin"),
            ("changed.txt", "0x80070179 ERROR_CLOUD_FILE_NOT_IN_SYNC", "nimbractl in-sync"),
        ):
            path = dos_path(root.path / name)
            self.assertIn(f"{path} was not dehydrated: {reason}", answer.errors)
            self.assertIn(advice, answer.errors)
            self.assert_hydrated(root, name, 5000)

    def test_pins_and_exclusions_are_set_and_taken_with_all_below(self):
        root = self.new_tree()
        inside = f"folder/{ODD_NAME}"
        self.assertEqual(self.run_ctl("pin", root.path / "folder").output, "1 item pinned\n")
        self.assertTrue(root.state(inside)["pinned"])
        self.assert_online_only(root, inside)
        self.run_ctl("unpin", "--inherit", root.path / "folder" / ODD_NAME)
        self.assertTrue(root.state(inside)["pinned"])
        self.run_ctl("unpin", root.path / "folder")
        self.assertFalse(root.state(inside)["pinned"])
        self.assertEqual(self.run_ctl("exclude", root.path / "folder").output, "1 item excluded\n")
        self.assertTrue(root.state(inside)["excluded"])
        self.assertEqual(self.run_ctl("unpin", root.path / "folder").output, "1 item unpinned\n")
        self.assertFalse(root.state(inside)["excluded"])

    def test_in_sync_is_set_and_cleared(self):
        root = self.new_root()
        root.create("a.txt", 5000)
        self.run_ctl("in-sync", "--not", root.path / "a.txt")
        self.assertFalse(root.state("a.txt")["inSync"])
        self.run_ctl("in-sync", root.path / "a.txt")
        self.assertTrue(root.state("a.txt")["inSync"])

    def test_the_identity_is_shown_as_text_and_byte_by_byte(self):
        root = self.new_root()
        identities = {"a.txt": "größe 😀", "tab.txt": "a\tb", "long.txt": "x" * 4096}
        for name, identity in identities.items():
            root.create(name, 100, identity=identity)
        session = f"{PREFIX}{root.session}"
        items = self.run_ctl("identity", "--json", "-r", root.path).json
        by_path = {item["path"]: item for item in items}
        for name, identity in identities.items():
            item = by_path[dos_path(root.path / name)]["identity"]
            self.assertEqual(bytes.fromhex(item["hex"]), identity.encode())
            self.assertEqual(item["length"], len(identity.encode()))
            self.assertEqual(item["text"], None if "\t" in identity else identity)
        self.assertEqual({item["syncRoot"]["text"] for item in items}, {session})
        output = self.run_ctl("identity", root.path / "a.txt", root.path / "tab.txt").output
        self.assertEqual(
            output,
            f"{dos_path(root.path / 'a.txt')}\n  identity   größe 😀\n  sync root  {session}\n"
            f"{dos_path(root.path / 'tab.txt')}\n  identity   hex:610962\n"
            f"  sync root  {session}\n",
        )


class Roots(NimbractlCase):
    needs_provider = True

    def new_folder(self, name):
        folder = self.folder / name
        folder.mkdir()
        return folder

    def entries(self):
        return {entry["path"]: entry for entry in self.run_ctl("roots", "--json").json}

    def test_a_folder_is_registered_listed_updated_and_unregistered(self):
        folder = self.new_folder("Neu 中文 😀")
        path = dos_path(folder)
        answer = self.run_ctl("register", folder, "--session", 71, "--name", "Wörk")
        self.assertEqual(answer.output, f"registered {path} as {PREFIX}71\n")
        told = self.daemon.status()["roots"]
        self.assertIn(str(folder), [root["path"] for root in told])
        entry = self.entries()[path]
        self.assertEqual(entry["provider"], "CorvaneDrive")
        self.assertEqual(entry["identity"], f"{PREFIX}71")
        self.assertEqual(entry["displayName"], f"Corvane Drive (Wörk, {folder.name})")
        self.assertEqual((entry["folderExists"], entry["knownToPlatform"]), (True, True))
        self.assertRegex(entry["user"], r"^S-1-5-")
        self.assertEqual(self.prefix.run("reg", "query", entry["key"]).returncode, 0)
        row = next(row for row in self.run_ctl("roots").rows if f"{PREFIX}71" in row)
        self.assertEqual(row[:2], ["ready", "CorvaneDrive"])
        self.assertIn(
            "--again", self.failure("register", folder, "--session", 71), "registered twice"
        )
        self.run_ctl("register", folder, "--session", 71, "--name", "Other", "--again")
        self.assertIn("(Other, ", self.entries()[path]["displayName"])
        self.assertEqual(self.run_ctl("unregister", folder).output, f"unregistered {path}\n")
        self.assertNotIn(path, self.entries())
        self.assertNotIn(str(folder), [root["path"] for root in self.daemon.status()["roots"]])
        self.assertIn("lies in no sync root", self.failure("unregister", folder))

    def test_only_the_folder_of_a_sync_root_is_registered_again(self):
        folder = self.new_folder("root")
        inside = folder / "inside"
        inside.mkdir()
        errors = self.failure("register", folder, "--session", 72, "--again")
        self.assertIn(f"{dos_path(folder)} lies in no sync root", errors)
        self.run_ctl("register", folder, "--session", 72)
        errors = self.failure("register", inside, "--session", 73, "--again")
        self.assertIn(f"{dos_path(inside)} lies inside a sync root, but is not its folder", errors)
        self.assertEqual(self.entries()[dos_path(folder)]["identity"], f"{PREFIX}72")
        self.run_ctl("unregister", folder)

    def test_what_cannot_be_a_sync_root_is_named(self):
        missing = self.folder / "no such folder"
        self.assertIn(dos_path(missing), self.failure("register", missing, "--session", 1))
        file = self.folder / "a file"
        file.write_text("x")
        self.assertIn("is a file", self.failure("register", file, "--session", 1))

    def add_to_shell(self, name, user, path):
        key = r"HKLM\SOFTWARE\Microsoft\Windows\CurrentVersion\Explorer\SyncRootManager"
        self.addCleanup(self.prefix.run, "reg", "delete", rf"{key}\{name}", "/f")
        command = ["add", rf"{key}\{name}\UserSyncRoots", "/v", user, "/t", "REG_SZ", "/d",
                   dos_path(path), "/f"]
        self.assertEqual(self.prefix.run("reg", *command).returncode, 0)

    def test_the_shell_s_entry_without_a_folder_or_a_platform_is_seen_as_such(self):
        root, forgotten = self.new_folder("in the shell"), self.new_folder("forgotten")
        gone = self.folder / "gone"
        unreachable = self.folder / "no|name"  # as one that only its own user may look at
        self.run_ctl("register", root, "--session", 81)
        self.addCleanup(self.run_ctl, "unregister", root)
        user = self.entries()[dos_path(root)]["user"]
        expected = {
            ("Other", "gone"): ("folder missing", gone, False, False),
            ("Other", "forgotten"): ("shell only", forgotten, True, False),
            ("Other", "unreachable"): ("not known", unreachable, None, None),
            ("Other", "formed its own way"): ("ready", root, True, True),
            ("CorvaneDrive", f"{PREFIX}82"): ("shell only", root, True, False),
        }
        for (provider, identity), (_, path, *_) in expected.items():
            self.add_to_shell(f"{provider}!{user}!{identity}", user, path)
        expected["CorvaneDrive", f"{PREFIX}81"] = ("ready", root, True, True)
        told = {(one["provider"], one["identity"]):
                (one["path"], one["folderExists"], one["knownToPlatform"])
                for one in self.run_ctl("roots", "--json").json}
        output = self.run_ctl("roots").output
        self.assertEqual(set(told), set(expected))
        for (provider, identity), (state, path, *facts) in expected.items():
            with self.subTest(provider=provider, identity=identity):
                self.assertEqual(told[provider, identity], (dos_path(path), *facts))
                self.assertRegex(
                    output, rf"(?m)^{state} +{provider} .*{re.escape(identity)} +"
                            rf"{re.escape(dos_path(path))}$"
                )

    def test_unregistering_loses_no_file_unless_that_is_allowed(self):
        root = self.new_root()
        data = root.create("read.bin", 5000)
        root.read("read.bin")
        root.create("online.bin", 300_000)
        self.assertEqual(root.status("disconnect"), 0)
        errors = self.failure("unregister", root.path)
        self.assertIn("1 file (300.0 kB) in it would be deleted", errors)
        self.assertIn("--delete-online-only", errors)
        self.assertTrue((root.path / "online.bin").exists())
        self.run_ctl("unregister", root.path, "--delete-online-only")
        self.assertFalse((root.path / "online.bin").exists())
        self.assertEqual((root.path / "read.bin").read_bytes(), data)

    def test_only_the_folder_of_a_sync_root_without_a_client_is_unregistered(self):
        root = self.new_root()
        root.create_folder("folder")
        self.assertIn("is not its folder", self.failure("unregister", root.path / "folder"))
        self.assertIn("lies in no sync root", self.failure("unregister", self.folder))
        errors = self.failure("unregister", root.path)
        self.assertIn("0x8007017C ERROR_CLOUD_FILE_INVALID_REQUEST", errors)
        self.assertIn("stop its client", errors)


class ExplorerEntries(NimbractlCase):
    def entries(self):
        return {entry["clsid"]: entry for entry in
                self.run_ctl("explorer", "list", "--json").json}

    def new_folder(self, name):
        folder = self.folder / name
        folder.mkdir()
        return folder

    def test_an_entry_is_added_with_two_roots_listed_and_removed_with_the_last(self):
        self.assertEqual(self.entries(), {})
        self.assertIn("There is no entry", self.run_ctl("explorer", "list").output)
        first, second = self.new_folder("first 😀"), self.new_folder("second")
        output = self.run_ctl("explorer", "register", first, "--name", "Wörk").output
        clsid = re.search(r"clsid +(\{[0-9A-F-]{36}\})", output)[1]
        number = int(re.search(r"folder id +(\d+)", output)[1])
        self.assertEqual(number, int(clsid[1:9], 16))
        self.run_ctl("explorer", "register", second, "--clsid", clsid, "--name", "Wörk",
                     "--share", "team", "--remote", "/Plans")
        (entry,) = self.entries().values()
        self.assertEqual((entry["clsid"], entry["folderId"]), (clsid, number))
        self.assertEqual(entry["name"], "Corvane Drive - Wörk")
        self.assertEqual(set(entry["shortcuts"]), {"My Drive.lnk", "Plans.lnk"})
        row = self.run_ctl("explorer", "list").output.splitlines()[1]
        self.assertRegex(row, rf"^{re.escape(clsid)}  Corvane Drive - Wörk +{number} ")
        output = self.run_ctl("explorer", "unregister", first, "--clsid", clsid).output
        self.assertEqual(output, f"removed {dos_path(first)} from the entry {clsid}\n")
        self.assertIn(
            "does not show", self.failure("explorer", "unregister", first, "--clsid", clsid)
        )
        output = self.run_ctl("explorer", "unregister", second, "--clsid", clsid).output
        self.assertEqual(output, f"removed {dos_path(second)} and the entry {clsid}\n")
        self.assertEqual(self.entries(), {})
        self.assertIn("there is no entry", self.failure("explorer", "unregister", "--clsid", clsid))

    def test_columns_stand_below_each_other_whatever_script_the_names_are_in(self):
        names = ("plain", "中文文件", "emoji 😀", "e\u0301")
        for number, name in enumerate(names):
            clsid = f"{{12345678-1234-1234-1234-12345678900{number}}}"
            self.run_ctl("explorer", "register", self.new_folder(f"in {number}"), "--name", name,
                         "--clsid", clsid)
            self.addCleanup(self.run_ctl, "explorer", "unregister", "--clsid", clsid)
        titles, *rows = self.run_ctl("explorer", "list").output.splitlines()
        self.assertEqual(len(rows), len(names))
        for row in rows:
            start = row[: row.index("305419896")]  # 0x12345678, the folder id
            cells = sum(
                0 if unicodedata.combining(character)
                else 2 if unicodedata.east_asian_width(character) in "WF" else 1
                for character in start
            )
            self.assertEqual(cells, titles.index("folder id"), row)

    def test_an_entry_is_removed_whatever_it_shows(self):
        clsid = "{12345678-1234-1234-1234-123456789ABC}"
        folder = self.new_folder("shown")
        self.run_ctl("explorer", "register", folder, "--clsid", clsid, "--folder-id", 42)
        self.assertEqual(self.entries()[clsid]["folderId"], 42)
        self.assertTrue(self.entries()[clsid]["folder"].endswith("\\SystemFolders\\42"))
        self.run_ctl("explorer", "unregister", "--clsid", clsid)
        self.assertEqual(self.entries(), {})

    def test_what_cannot_be_an_entry_is_named(self):
        missing = self.folder / "missing"
        self.assertIn(dos_path(missing), self.failure("explorer", "register", missing))
        self.assertIn(
            "'{oops}' is no class identifier",
            self.failure("explorer", "unregister", "--clsid", "{oops}", code=2),
        )


class NoPlatform(NimbractlCase):
    """What it says when something is not there; what needs nothing works all the same."""

    def copy_without_cldapi(self):
        alone = self.folder / "alone"
        alone.mkdir(exist_ok=True)
        for name in ("nimbractl.exe", "Nimbra.dll"):
            if not (alone / name).exists():
                (alone / name).symlink_to((self.bin / name).resolve())
        return alone / "nimbractl.exe"

    def assert_every_command_refuses(self, reason, **more):
        for command in ITEM_COMMANDS:
            with self.subTest(command=command):
                self.assertIn(reason, self.failure(command, self.folder, code=3, **more))
        for command in (("register", "--session", "1"), ("unregister",)):
            with self.subTest(command=command):
                self.assertIn(reason, self.failure(*command, self.folder, code=3, **more))

    def test_where_all_is_there_info_tells_the_versions_and_that_the_gate_is_open(self):
        info = self.run_ctl("info", "--json").json
        self.assertEqual(info["windows"]["real"], {"major": 10, "minor": 0, "build": 19045})
        self.assertEqual(info["windows"]["reported"], info["windows"]["real"])
        self.assertEqual(info["gate"], {"open": True, "state": "open", "reason": None})
        self.assertTrue(info["platform"]["answers"])
        self.assertEqual(info["platform"]["build"], 19045)
        self.assertEqual(info["cldapi"]["path"], dos_path(self.bin / "cldapi.dll"))
        self.assertEqual(info["library"]["path"], dos_path(self.bin / "Nimbra.dll"))
        self.assertEqual(info["library"]["version"], info["nimbractl"] + ".0")
        flags = {"supported": True, "default": True, "optionHidden": False}
        self.assertEqual(info["streaming"], flags)
        self.assertRegex(self.run_ctl("info").output, r"(?m)^gate +open$")

    def test_a_missing_manifest_is_told_from_an_old_windows(self):
        program = self.bin / "e2e-nimbractl-without-manifest.exe"
        info = self.run_ctl("info", "--json", program=program, code=3).json
        self.assertEqual(info["windows"]["real"]["build"], 19045)
        self.assertLess(info["windows"]["reported"]["major"], 10)
        self.assertEqual(info["gate"]["state"], "manifest-missing")
        self.assertFalse(info["streaming"]["supported"])
        output = self.run_ctl("info", program=program, code=3).output
        self.assertRegex(output, r"gate +CLOSED: the program's manifest is missing")
        self.assertIn("supportedOS {8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a}", output)
        self.assert_every_command_refuses("manifest is missing", program=program)

    def test_the_manifest_of_a_client_is_looked_at(self):
        good = self.run_ctl("info", "--json", "--program", self.bin / "mirror.exe").json["program"]
        self.assertEqual((good["listsWindows10"], good["gate"]["open"]), (True, True))
        bad = self.bin / "e2e-debug-speaker.exe"
        answer = self.run_ctl("info", "--json", "--program", bad, code=3).json
        self.assertTrue(answer["gate"]["open"])
        self.assertFalse(answer["program"]["hasManifest"])
        self.assertEqual(answer["program"]["gate"]["state"], "manifest-missing")
        self.assertRegex(
            self.run_ctl("info", "--program", bad, code=3).output, r"its gate +CLOSED: "
        )
        text = self.folder / "no-program.exe"
        write_content(text, 100)
        self.assertIn("0x800700C1", self.failure("info", "--program", text))
        self.assertIn("check the path", self.failure("info", "--program", self.folder / "missing"))

    def test_a_client_in_compatibility_mode_is_told_from_one_without_a_manifest(self):
        program = self.bin / "mirror.exe"
        key = r"HKCU\Software\Microsoft\Windows NT\CurrentVersion\AppCompatFlags\Layers"
        self.addCleanup(self.prefix.run, "reg", "delete", key, "/v", dos_path(program), "/f")
        for layers, state in (("~ HIGHDPIAWARE", "open"), ("~ WIN7RTM", "compatibility-mode")):
            added = self.prefix.run("reg", "add", key, "/v", dos_path(program), "/d", layers, "/f")
            self.assertEqual(added.returncode, 0)
            code = 0 if state == "open" else 3
            told = self.run_ctl("info", "--json", "--program", program, code=code).json["program"]
            self.assertEqual((told["gate"]["state"], told["listsWindows10"]), (state, True))
        self.assertEqual(told["compatibilityMode"], "WIN7RTM")
        output = self.run_ctl("info", "--program", program, code=3).output
        self.assertRegex(output, r"its gate +CLOSED: the program runs in compatibility mode")

    def test_a_manifest_beside_a_program_that_has_none_counts_without_its_comments(self):
        program = self.folder / "client.exe"
        program.write_bytes((self.bin / "e2e-debug-speaker.exe").read_bytes())
        manifest = self.folder / "client.exe.manifest"
        entry = '<supportedOS Id="{8E0F7A12-BFB3-4FE8-B9A5-48FD50A15A9A}"/>'
        manifest.write_text(f"<application><!-- {entry} --></application>")
        self.run_ctl("info", "--program", program, code=3)
        manifest.write_text(f"<application>{entry}</application>")
        self.run_ctl("info", "--program", program)

    def test_without_cldapi_it_says_so_and_what_needs_none_works(self):
        program = self.copy_without_cldapi()
        info = self.run_ctl("info", "--json", program=program, code=3).json
        self.assertEqual((info["cldapi"]["path"], info["cldapi"]["error"]), (None, 126))
        self.assertFalse(info["platform"]["answers"])
        self.assertTrue(info["gate"]["open"])
        output = self.run_ctl("info", program=program, code=3).output
        self.assertRegex(output, r"cldapi\.dll +not usable: 0x8007007E .*cldapi\.dll is missing")
        self.assert_every_command_refuses("cldapi.dll is missing", program=program)
        self.assertEqual(self.run_ctl("roots", program=program).output,
                         "No sync root is registered.\n")
        self.run_ctl("explorer", "list", program=program)
        self.run_ctl("log", "--for", "0.1", program=program)

    def cldapi_without(self, *functions):
        """nimbractl with a cldapi.dll that lacks these, each of which has another name there."""
        folder = pathlib.Path(tempfile.mkdtemp(dir=self.folder))
        for name in ("nimbractl.exe", "Nimbra.dll"):
            (folder / name).symlink_to((self.bin / name).resolve())
        image = (self.bin / "cldapi.dll").read_bytes()
        for function in functions:
            name = b"\0" + function.encode() + b"\0"
            self.assertIn(name, image)
            image = image.replace(name, name[:-2] + b"_\0")
        (folder / "cldapi.dll").write_bytes(image)
        return folder / "nimbractl.exe"

    def test_a_function_that_cldapi_lacks_is_named_and_what_needs_none_works(self):
        program = self.cldapi_without("CfHydratePlaceholder", "CfSetPinState")
        info = self.run_ctl("info", "--json", program=program, code=3).json
        self.assertEqual(
            info["cldapi"]["missingFunctions"], ["CfHydratePlaceholder", "CfSetPinState"]
        )
        self.assertEqual((info["gate"]["open"], info["platform"]["answers"]), (True, True))
        output = self.run_ctl("info", program=program, code=3).output
        self.assertRegex(output, r"lacks 2 functions that the library calls.*:\n"
                                 r" {18}CfHydratePlaceholder\n {18}CfSetPinState\n")
        folder = self.folder / "a root without functions"
        folder.mkdir()
        self.run_ctl("register", folder, "--session", "6", program=program)
        errors = self.failure("pin", folder, program=program)
        self.run_ctl("in-sync", folder, program=program)
        self.run_ctl("unregister", folder, program=program)
        self.assertIn("0x8007007F ERROR_PROC_NOT_FOUND, cldapi.dll lacks a function", errors)
        self.assertIn("nimbractl info tells which", errors)

    def test_a_cldapi_that_does_not_even_tell_its_version_is_no_platform(self):
        program = self.cldapi_without("CfGetPlatformInfo")
        answer = self.run_ctl("info", "--json", program=program, code=3).json
        self.assertEqual(answer["platform"]["result"] & 0xFFFFFFFF, 0x8007007F)
        self.assert_every_command_refuses("ERROR_PROC_NOT_FOUND", program=program)

    def test_the_functions_that_it_looks_for_are_those_that_the_library_calls(self):
        table = pathlib.Path(__file__).parents[2] / "lib/cloud-filter/common/cldapi-table.h"
        called = re.findall(r"decltype\(&::(Cf\w+)\)", table.read_text())
        self.assertGreater(len(called), 20)
        program = self.cldapi_without(*called)
        info = self.run_ctl("info", "--json", program=program, code=3).json
        self.assertEqual(info["cldapi"]["missingFunctions"], called)

    def test_a_cldapi_that_is_no_dll_is_told_from_a_missing_one(self):
        program = self.cldapi_without()
        program.with_name("cldapi.dll").write_bytes(b"no DLL")
        info = self.run_ctl("info", "--json", program=program, code=3).json
        self.assertEqual(info["cldapi"]["error"], 193)
        output = self.run_ctl("info", program=program, code=3).output
        self.assertIn("not usable: 0x800700C1", output)

    def test_without_the_filter_it_says_what_to_start(self):
        self.assertEqual(self.daemon.stop(), 0)
        self.addCleanup(self.daemon.start)
        answer = self.run_ctl("info", "--json", code=3).json["platform"]
        self.assertEqual((answer["answers"], answer["result"] & 0xFFFFFFFF), (False, 0x80070426))
        self.assertIn("cloud-filterd", self.failure("state", self.folder, code=3))

    def test_roots_of_which_the_platform_cannot_be_asked_are_listed_as_not_known(self):
        folder = self.folder / "a root"
        folder.mkdir()
        self.run_ctl("register", folder, "--session", "5")
        (root,) = self.run_ctl("roots", "--json", program=self.copy_without_cldapi()).json
        self.assertEqual((root["path"], root["knownToPlatform"]), (dos_path(folder), None))
        self.run_ctl("unregister", folder)


class NoPlatformOnAnOldWindows(NimbractlCase):
    build = 16299
    needs_fuse = False
    needs_daemon = False

    def test_it_says_which_windows_it_takes(self):
        answer = self.run_ctl("info", "--json", code=3).json
        self.assertEqual(answer["gate"]["state"], "windows-too-old")
        self.assertEqual(answer["windows"]["reported"]["build"], 16299)
        self.assertIn("this is 10.0.16299, and it takes 10.0.17134", answer["gate"]["reason"])
        for arguments in (("state", self.folder), ("explorer", "register", self.folder)):
            errors = self.failure(*arguments, code=3)
            self.assertIn("Windows is too old: this is 10.0.16299", errors)
            self.assertIn("update to Windows 10, version 1803", errors)
        program = self.bin / "mirror.exe"
        answer = self.run_ctl("info", "--json", "--program", program, code=3).json["program"]
        self.assertEqual(answer["gate"]["state"], "windows-too-old")
        self.assertTrue(answer["listsWindows10"])
