"""Wine prefixes and the Windows programs that run in them."""

import os
import pathlib
import subprocess

from .processes import kill_processes
from .program import Program
from .settings import SETTINGS

_WINE_FOLDER = pathlib.Path("/usr/lib/wine")
_DOS_SEPARATORS = str.maketrans("/", "\\")


def dos_path(path):
    """The name of a Linux path under Wine, with backslashes."""
    return "Z:" + str(path).translate(_DOS_SEPARATORS)


def client_path(path):
    """The same in the form that placeholders are named in: components separated by slashes."""
    return "Z:" + str(path)


def wine_program():
    for name in ("wine64", "wine"):
        if (_WINE_FOLDER / name).exists():
            return str(_WINE_FOLDER / name)
    return "wine"


class WinePrefix:
    """A Windows of its own: registry, drives and wineserver."""

    def __init__(self, folder, build=19045):
        self.path = folder
        script = SETTINGS.scripts / "wine-prefix.sh"
        made = subprocess.run(
            [script, "--build", str(build)], capture_output=True, text=True, timeout=120, check=True
        )
        template = pathlib.Path(made.stdout.strip().splitlines()[-1])
        subprocess.run(["cp", "-a", template, folder], check=True, timeout=60)

    def environment(self, **more):
        return {
            **os.environ,
            "WINEPREFIX": str(self.path),
            "WINEDEBUG": "-all",
            "WINEDLLOVERRIDES": "mscoree,mshtml=",
            "LC_ALL": "C.UTF-8",
            **more,
        }

    def start(self):
        """Has the wineserver and its services running, so that no program's pipe goes to them."""
        quiet = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL}
        quiet |= {"stderr": subprocess.DEVNULL, "env": self.environment(), "check": True}
        subprocess.run([str(_WINE_FOLDER / "wineserver64"), "-p"], timeout=30, **quiet)
        subprocess.run([wine_program(), "wineboot"], timeout=60, **quiet)

    def stop(self):
        """Ends all that runs in it, at once: the prefix is thrown away."""
        kill_processes(self.path)

    def program(self, executable, log, **environment):
        return Program([wine_program(), str(executable)], self.environment(**environment), log)

    def run(self, executable, *arguments, timeout=60, cwd=None, **environment):
        return subprocess.run(
            [wine_program(), str(executable), *arguments],
            env=self.environment(**environment),
            stdin=subprocess.DEVNULL,
            capture_output=True,
            timeout=timeout,
            cwd=cwd,
        )
