"""The sample client, as the tests run it."""

import os
import pathlib
import subprocess
import threading

from .case import EndToEndCase
from .content import write_content
from .waiting import wait_until
from .wine import dos_path, wine_program

FILES = {
    "empty.txt": 0,
    "one.txt": 1,
    "page.bin": 4096,
    "page and one.bin": 4097,
    "größer 中文 😀.bin": 1_000_003,
    "folder/inside.bin": 70_000,
    "folder/deeper/still.bin": (4 << 20) + 1,
}


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

    def end(self):
        """Whatever a test has come to. One that is killed would stay known to Wine's COM."""
        if self.process.poll() is None:
            self.stop_file.touch()
            try:
                self.process.wait(10)
            except subprocess.TimeoutExpired:
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
        self.addCleanup(mirror.end)
        mirror.wait_for_line("mirror: ready")
        return mirror

    def finish(self, mirror):
        self.assertEqual(mirror.stop(), 0, mirror.lines)
        self.assertIn("mirror: stopped", mirror.lines)
        self.run_mirror("--unregister", self.root)
        self.assertFalse(os.path.ismount(self.root))

    def bytes_on_disk(self):
        return {name: (self.root / name).stat().st_blocks * 512 for name in FILES}
