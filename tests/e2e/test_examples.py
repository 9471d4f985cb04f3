"""The example of the README does what the README says."""

import subprocess

from harness.case import EndToEndCase
from harness.roots import SyncRoot
from harness.waiting import wait_until
from harness.wine import client_path, dos_path, wine_program


class ReadmeExample(EndToEndCase):
    def test_it_serves_a_file_until_enter_is_pressed(self):
        folder = self.folder / "Cloud"
        folder.mkdir()
        example = subprocess.Popen(
            [wine_program(), str(self.bin / "readme-example.exe"), dos_path(folder)],
            stdin=subprocess.PIPE,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
            env=self.prefix.environment(CLOUD_FILTER_ENDPOINT=str(self.daemon.endpoint)),
        )
        self.addCleanup(example.wait, 10)
        self.addCleanup(example.kill)
        hello = folder / "hello.txt"
        wait_until(hello.exists, what="its file")
        self.assertEqual(hello.stat().st_blocks, 0)
        read = subprocess.run(["cat", hello], capture_output=True, timeout=10)
        self.assertEqual(read.stdout, b"Fetched when somebody asked.\n")
        example.communicate(b"\n", timeout=10)
        self.assertEqual(example.returncode, 0)
        answer = self.provider.call("rootIdentity", path=client_path(hello))
        self.assertEqual(answer["identity"], "Corvane.Drive.FileStreaming.session.1")
        root = SyncRoot(self.provider, folder, 1)
        self.assertEqual(root.status("unregister"), 0)
        self.assertEqual(hello.read_bytes(), b"Fetched when somebody asked.\n")
