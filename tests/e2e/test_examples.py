"""The example programs do what they say of themselves."""

import os
import subprocess
import unittest

from harness.case import EndToEndCase
from harness.content import write_content
from harness.roots import SyncRoot
from harness.settings import SETTINGS
from harness.waiting import wait_until
from harness.wine import client_path, dos_path, wine_program


class ExampleCase(EndToEndCase):
    def start_example(self, name, *arguments):
        """One that serves until Enter is pressed."""
        example = subprocess.Popen(
            [wine_program(), str(self.bin / name), *arguments],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            env=self.prefix.environment(CLOUD_FILTER_ENDPOINT=str(self.daemon.endpoint)),
        )
        self.addCleanup(example.stdout.close)
        self.addCleanup(example.stdin.close)
        self.addCleanup(example.wait, 10)
        self.addCleanup(example.kill)
        return example

    def press_enter(self, example):
        """Gives what it printed until it ended, as it must, without a failure."""
        output = example.communicate(b"\n", timeout=10)[0].decode()
        self.assertEqual(example.returncode, 0, output)
        return output

    def run_example(self, name, *arguments):
        """Gives the exit code and what was printed."""
        result = self.prefix.run(
            self.bin / name, *arguments, CLOUD_FILTER_ENDPOINT=str(self.daemon.endpoint)
        )
        return result.returncode, (result.stdout + result.stderr).decode()


class ReadmeExample(ExampleCase):
    def test_it_serves_a_file_until_enter_is_pressed(self):
        folder = self.folder / "Cloud"
        folder.mkdir()
        example = self.start_example("readme-example.exe", dos_path(folder))
        hello = folder / "hello.txt"
        wait_until(hello.exists, what="its file")
        self.assertEqual(hello.stat().st_blocks, 0)
        read = subprocess.run(["cat", hello], capture_output=True, timeout=10)
        self.assertEqual(read.stdout, b"Fetched when somebody asked.\n")
        self.press_enter(example)
        answer = self.provider.call("rootIdentity", path=client_path(hello))
        self.assertEqual(answer["identity"], "Corvane.Drive.FileStreaming.session.1")
        root = SyncRoot(self.provider, folder, 1)
        self.assertEqual(root.status("unregister"), 0)
        self.assertEqual(hello.read_bytes(), b"Fetched when somebody asked.\n")


class FileServer:
    """What is asked of an example that shows a local file: `program`, <folder> and <file>."""

    program = ""

    def serve_file(self, size):
        """Gives the running example, the local file, and the one that it shows."""
        self.root = self.folder / self._testMethodName[:40]
        self.root.mkdir()
        source = self.folder / f"{self._testMethodName[:40]} größer 中文.bin"
        write_content(source, size, source.name)
        os.utime(source, (1_500_000_000, 1_500_000_000))
        example = self.start_example(self.program, dos_path(self.root), dos_path(source))
        shown = self.root / source.name
        wait_until(shown.exists, what="its file")
        return example, source, shown

    def assert_shown(self, shown, size):
        """Before it is read it looks like the local file, and takes no room."""
        self.assertEqual(shown.stat().st_blocks, 0)
        self.assertEqual(shown.stat().st_size, size)
        self.assertEqual(shown.stat().st_mtime, 1_500_000_000)

    def is_sync_root(self):
        answer = self.provider.call("rootIdentity", path=client_path(self.root))
        return answer["identity"] == "Corvane.Drive.FileStreaming.session.1"

    def test_a_program_reads_the_local_file_through_it(self):
        size = (3 << 20) + 1
        example, source, shown = self.serve_file(size)
        self.assert_shown(shown, size)
        self.assertTrue(self.is_sync_root())
        read = subprocess.run(["cat", shown], capture_output=True, timeout=10)
        self.assertEqual(read.stdout, source.read_bytes())
        self.assertIn(": sent", self.press_enter(example))

    def test_what_was_read_stays_as_an_ordinary_file_and_the_folder_as_an_ordinary_folder(self):
        example, source, shown = self.serve_file(4096)
        shown.read_bytes()
        self.press_enter(example)
        self.assertFalse(self.is_sync_root())
        self.assertEqual(shown.read_bytes(), source.read_bytes())

    def test_a_renamed_file_is_still_served_and_a_deleted_one_gone(self):
        example, source, shown = self.serve_file(10)
        renamed = shown.with_name("renamed.bin")
        shown.rename(renamed)
        self.assertEqual(renamed.read_bytes(), source.read_bytes())
        renamed.unlink()
        self.press_enter(example)
        self.assertEqual(list(self.root.iterdir()), [])

    def test_a_reader_gets_an_error_when_the_local_file_is_gone(self):
        example, source, shown = self.serve_file(10)
        source.unlink()
        read = subprocess.run(["cat", shown], capture_output=True, timeout=10)
        self.assertIn(b"Input/output error", read.stderr)
        self.assertIn(": failed", self.press_enter(example))

    def test_wrong_arguments_are_named(self):
        code, output = self.run_example(self.program)
        self.assertEqual(code, 2)
        self.assertIn("<empty folder> <local file>", output)
        code, output = self.run_example(self.program, dos_path(self.folder), "no such file")
        self.assertEqual(code, 1)
        self.assertIn("no such file: ", output)
        missing = dos_path(self.folder / "missing")
        settings = dos_path(SETTINGS.scripts / "lib.sh")
        code, output = self.run_example(self.program, missing, settings)
        self.assertEqual(code, 1)
        self.assertIn(f"{missing}: not registered", output)
        self.assertIn("0x8007", output)


class Minimal(FileServer, ExampleCase):
    program = "minimal.exe"

    def test_it_stays_short_enough_to_be_copied(self):
        source = SETTINGS.scripts.parent / "examples" / "minimal" / "minimal.c"
        self.assertLess(len(source.read_text().splitlines()), 150)

    def test_it_goes_on_after_it_was_killed(self):
        example, source, shown = self.serve_file(5000)
        example.kill()
        example.wait(10)
        again = self.start_example(self.program, dos_path(self.root), dos_path(source))
        self.assertEqual(again.stdout.readline().split()[0], b"serving")
        self.assertEqual(shown.read_bytes(), source.read_bytes())
        self.press_enter(again)


class RustExample(FileServer, ExampleCase):
    program = "rust-example.exe"

    @classmethod
    def setUpClass(cls):
        if cls.program not in {path.name for path in SETTINGS.files}:
            raise unittest.SkipTest("there was no Rust compiler for Windows: see scripts/setup.sh")
        super().setUpClass()


class MinimalOnAnOldWindows(ExampleCase):
    build = 16299
    needs_provider = False

    def test_it_says_which_windows_it_needs(self):
        code, output = self.run_example("minimal.exe", dos_path(self.folder), "file")
        self.assertEqual(code, 1)
        self.assertIn("it takes Windows 10, version 1803", output)
