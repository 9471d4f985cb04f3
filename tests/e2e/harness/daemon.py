"""The filter daemon: one of its own for each test class."""

import json
import os
import pathlib
import signal
import stat
import subprocess

from .settings import SETTINGS
from .waiting import wait_until


def mounts_below(folder):
    """The mount points below a folder, innermost first."""
    found = []
    for line in pathlib.Path("/proc/self/mounts").read_text().splitlines():
        point = line.split()[1].encode().decode("unicode_escape").encode("latin-1").decode()
        if point == str(folder) or point.startswith(f"{folder}/"):
            found.append(point)
    return sorted(found, key=len, reverse=True)


class FilterDaemon:
    def __init__(self, folder, options=()):
        self.state = folder / "filter-state"
        self.endpoint = self.state / "endpoint"
        self._log = folder / "filter.log"
        self._options = [str(option) for option in options]
        self._process = None
        self._started_at = 0

    def start(self, *more_options):
        command = [str(SETTINGS.daemon), "--state", str(self.state), *self._options]
        with open(self._log, "ab") as log:
            self._started_at = log.tell()
            self._process = subprocess.Popen(
                [*command, *more_options],
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=log,
                start_new_session=True,
            )
        wait_until(self._ready, 20, "the filter daemon to be ready")

    def _ready(self):
        if self._process.poll() is not None:
            raise AssertionError(f"the filter daemon ended at once:\n{self.log()}")
        return b"cloud-filterd: ready" in self._log.read_bytes()[self._started_at :]

    def log(self):
        return self._log.read_text(errors="replace")

    @property
    def pid(self):
        return self._process.pid

    def running(self):
        return self._process is not None and self._process.poll() is None

    def stop(self):
        """Ends it as a service manager would; gives its exit code."""
        if self.running():
            self._process.send_signal(signal.SIGTERM)
        return self._process.wait(20)

    def kill(self):
        self._process.send_signal(signal.SIGKILL)
        self._process.wait(20)

    def status(self):
        result = subprocess.run(
            [str(SETTINGS.daemon), "--state", str(self.state), "--status"],
            capture_output=True,
            text=True,
            timeout=20,
            check=True,
        )
        return json.loads(result.stdout)


def fuse_is_usable():
    """Whether the kernel lets this user have files of its own making."""
    try:
        device = os.open("/dev/fuse", os.O_RDWR)
        is_device = stat.S_ISCHR(os.fstat(device).st_mode)
        os.close(device)
        return is_device
    except OSError:
        return False


def clean_up_mounts(folder):
    """Takes down what a test left mounted. Gives the list: it should be empty."""
    left = mounts_below(folder)
    for point in left:
        subprocess.run(["fusermount3", "-u", "-z", point], check=False, timeout=20)
    return left
