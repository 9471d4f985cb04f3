"""nimbractl, as the tests run it."""

import json
import os
import pathlib
import signal
import subprocess
import threading
import time

from .case import EndToEndCase
from .waiting import wait_until
from .wine import dos_path, wine_program


def read_terminal(terminal):
    """All that is shown until the other end is closed; closes this one, too."""
    shown = b""
    try:
        while chunk := os.read(terminal, 65536):
            shown += chunk
    except OSError:
        pass  # how Linux tells that the other end is closed
    os.close(terminal)
    return shown


class Answer:
    def __init__(self, result):
        self.code = result.returncode
        self.output = result.stdout.decode().replace("\r\n", "\n")
        self.errors = result.stderr.decode().replace("\r\n", "\n")

    @property
    def json(self):
        return json.loads(self.output)

    @property
    def rows(self):
        """A table's lines below its titles, each as its words."""
        return [line.split() for line in self.output.splitlines()[1:]]


def _texts(arguments):
    return [dos_path(one) if isinstance(one, pathlib.Path) else str(one) for one in arguments]


class NimbractlCase(EndToEndCase):
    needs_provider = False
    program = "nimbractl.exe"
    seconds = 120  # some tests run it twenty times

    @classmethod
    def endpoint(cls):
        return {"CLOUD_FILTER_ENDPOINT": str(cls.daemon.endpoint)}

    def run_ctl(self, *arguments, code=0, program=None, prefix=None, cwd=None):
        """Runs it to its end; paths are given as Windows has them."""
        answer = Answer(
            (prefix or self.prefix).run(
                program or self.bin / self.program,
                *_texts(arguments),
                cwd=cwd,
                **self.endpoint(),
            )
        )
        self.assertEqual(answer.code, code, answer.output + answer.errors)
        return answer

    def failure(self, *arguments, code=1, **more):
        """What it says on the error stream when it fails."""
        return self.run_ctl(*arguments, code=code, **more).errors

    def file_state(self, path):
        (item,) = self.run_ctl("state", "--json", path).json
        return item


class Listener:
    """nimbractl log while it runs."""

    def __init__(self, case, *arguments, **environment):
        self.process = subprocess.Popen(
            [wine_program(), str(case.bin / case.program), "log", *_texts(arguments)],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            env=case.prefix.environment(**case.endpoint(), **environment),
        )
        case.addCleanup(self.stop)
        self.lines, self.notes = [], []
        self._readers = [
            threading.Thread(target=self._read, args=(stream, lines), daemon=True)
            for stream, lines in (
                (self.process.stdout, self.lines),
                (self.process.stderr, self.notes),
            )
        ]
        for reader in self._readers:
            reader.start()
        wait_until(lambda: self.notes, what="nimbractl log to listen")

    @staticmethod
    def _read(stream, lines):
        for line in stream:
            lines.append(line.decode().rstrip("\r\n"))

    def wait_for(self, text):
        """The first line with the text in it."""

        def find():
            return [line for line in self.lines if text in line]

        return wait_until(find, what=f"the line '{text}' in {self.lines}")[0]

    def interrupt(self):
        """As Ctrl+C does, while it waits: Wine's handling of the signal is not safe at any moment."""
        time.sleep(0.3)
        self.process.send_signal(signal.SIGINT)

    def stop(self):
        if self.process.poll() is None:
            self.process.kill()
        self.finish()

    def finish(self, timeout=15):
        """Gives the exit code."""
        code = self.process.wait(timeout)
        for reader in self._readers:
            reader.join(5)
        self.process.stdout.close()
        self.process.stderr.close()
        return code

