"""Renames and deletes by other programs."""

import os
import subprocess

from harness.case import EndToEndCase
from harness.content import write_content
from harness.wine import dos_path


def move(source, target):
    return subprocess.run(["mv", source, target], capture_output=True, timeout=15)


def remove(*paths):
    return subprocess.run(["rm", "-rf", *paths], capture_output=True, timeout=15)


class Renames(EndToEndCase):
    def test_a_rename_inside_the_root_is_announced_acknowledged_done_and_reported(self):
        root = self.new_root()
        data = root.create("before.bin", 100_000)
        root.create_folder("folder")
        result = move(root.path / "before.bin", root.path / "folder" / "after ä.bin")
        self.assertEqual(result.returncode, 0, result.stderr)
        rename = self.provider.wait_for("rename", root=root.name)
        self.assertEqual(rename["path"], dos_path(root.path / "before.bin"))
        self.assertEqual(rename["target"], dos_path(root.path / "folder" / "after ä.bin"))
        self.assertEqual(rename["identity"], "before.bin")
        self.assertEqual(rename["session"], str(root.session))
        self.assertTrue(rename["image"].endswith("mv"), rename["image"])
        self.assertEqual(self.provider.wait_for("renameAcknowledged").status, 0)
        completion = self.provider.wait_for("renameCompletion", root=root.name)
        self.assertEqual(completion["path"], dos_path(root.path / "folder" / "after ä.bin"))
        self.assertEqual(completion["identity"], "before.bin")
        self.assertNotIn("target", completion)
        self.assertEqual(self.fetched_ranges(root, "before.bin"), [])
        self.assert_content(root, "folder/after ä.bin", data)

    def test_a_renamed_online_only_file_keeps_identity_and_states(self):
        root = self.new_root()
        data = root.create("a.bin", 100_000)
        self.assertEqual(root.item_status("pin", "a.bin"), 0)
        before = root.state("a.bin")
        self.assertEqual(move(root.path / "a.bin", root.path / "b.bin").returncode, 0)
        self.assertEqual(root.state("b.bin"), before)
        self.assert_online_only(root, "b.bin")
        self.assert_content(root, "b.bin", data)

    def test_a_folder_is_renamed_with_all_in_it(self):
        root = self.new_root()
        root.create_folder("old")
        data = root.create("old/a.bin", 5000)
        self.assertEqual(move(root.path / "old", root.path / "new").returncode, 0)
        rename = self.provider.wait_for("rename", root=root.name)
        self.assertEqual(rename["path"], dos_path(root.path / "old"))
        self.assert_content(root, "new/a.bin", data)

    def test_a_rename_over_another_placeholder_replaces_it(self):
        root = self.new_root()
        data = root.create("a.bin", 5000)
        root.create("b.bin", 7000)
        os.rename(root.path / "a.bin", root.path / "b.bin")
        self.assert_content(root, "b.bin", data)
        self.assertEqual(root.state("b.bin")["identity"], "a.bin")

    def test_a_file_moved_out_of_the_root_arrives_whole(self):
        root = self.new_root()
        data = root.create("a.bin", 100_000)
        outside = self.folder / "outside.bin"
        self.assertEqual(move(root.path / "a.bin", outside).returncode, 0)
        self.assertEqual(outside.read_bytes(), data)
        self.assertFalse((root.path / "a.bin").exists())

    def test_a_file_moved_into_the_root_is_an_ordinary_file_until_it_is_converted(self):
        root = self.new_root()
        data = write_content(self.folder / "incoming.bin", 100_000)
        self.assertEqual(move(self.folder / "incoming.bin", root.path).returncode, 0)
        self.assert_content(root, "incoming.bin", data)
        self.assertFalse(root.state("incoming.bin")["placeholder"])
        self.assertEqual(root.item_status("convert", "incoming.bin", identity="incoming.bin"), 0)
        self.assertTrue(root.state("incoming.bin")["placeholder"])

    def test_an_ordinary_file_is_renamed_without_asking_the_client(self):
        root = self.new_root()
        write_content(root.path / "plain.bin", 100)
        os.rename(root.path / "plain.bin", root.path / "renamed.bin")
        self.assertEqual(self.provider.events("rename", root=root.name), [])

    def test_many_renames_at_once_are_all_acknowledged(self):
        root = self.new_root()
        contents = {number: root.create(f"{number}.bin", 1000 + number) for number in range(24)}
        moves = [
            subprocess.Popen(["mv", root.path / f"{number}.bin", root.path / f"{number}.new"])
            for number in contents
        ]
        self.assertEqual({process.wait(15) for process in moves}, {0})
        self.assertEqual(len(self.provider.events("rename", root=root.name)), len(contents))
        for number, data in contents.items():
            self.assert_content(root, f"{number}.new", data)

    def test_acknowledging_a_rename_that_nobody_asked_for_is_refused(self):
        root = self.new_root()
        since = self.provider.mark()
        self.assertEqual(root.status("acknowledgeRename", key=123456789), -1)
        self.assertIn("Failed to ack rename-", self.provider.log_lines(since)[0])


class Deletes(EndToEndCase):
    """On today's Windows the client is not asked."""

    def test_a_file_is_deleted_without_asking_the_client(self):
        root = self.new_root()
        root.create("a.bin", 100_000)
        root.create_folder("folder")
        root.create("folder/b.bin", 100)
        self.assertEqual(remove(root.path / "a.bin", root.path / "folder").returncode, 0)
        self.assertEqual(list(root.path.iterdir()), [])
        self.assertEqual(self.provider.events("delete", root=root.name), [])
        self.assertEqual(self.fetched_ranges(root, "a.bin"), [])

    def test_the_name_of_a_deleted_file_can_be_used_again(self):
        root = self.new_root()
        root.create("a.bin", 5000)
        root.read("a.bin")
        remove(root.path / "a.bin")
        data = root.create("a.bin", 9000, seed="again")
        self.assert_online_only(root, "a.bin")
        self.assert_content(root, "a.bin", data)


class DeletesOnBuild17134(EndToEndCase):
    """On the first Windows with cloud files the client is asked."""

    build = 17134

    def test_a_delete_is_announced_and_done_when_the_client_agrees(self):
        root = self.new_root()
        root.create("a.bin", 100_000)
        self.assertEqual(remove(root.path / "a.bin").returncode, 0)
        delete = self.provider.wait_for("delete", root=root.name)
        self.assertEqual(delete["path"], dos_path(root.path / "a.bin"))
        self.assertEqual(delete["identity"], "a.bin")
        self.assertEqual(delete["session"], str(root.session))
        self.assertTrue(delete["image"].endswith("rm"), delete["image"])
        self.assertEqual(self.provider.wait_for("deleteAcknowledged").status, 0)
        self.assertFalse((root.path / "a.bin").exists())

    def test_a_delete_that_the_client_refuses_is_not_done(self):
        root = self.new_root()
        data = root.create("a.bin", 100_000)
        root.serve(deleteStatus=1)
        result = remove(root.path / "a.bin")
        self.assertNotEqual(result.returncode, 0)
        self.assertTrue((root.path / "a.bin").exists())
        root.serve(deleteStatus=0)
        self.assert_content(root, "a.bin", data)

    def test_only_the_disable_option_build_reports_its_flags(self):
        answer = self.provider.call("platform")
        flags = [answer[name] for name in ("supports", "hidesOption", "byDefault")]
        self.assertEqual(flags, ["1", "1", "0"])
