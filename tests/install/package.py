"""The installed package under test, and how to run programs on it."""

import functools
import os
import pathlib
import re
import subprocess
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
SOURCE = HERE.parents[1]
MINGW = "x86_64-w64-mingw32-"
COMPILER = MINGW + "gcc-posix"
TIMEOUT = 300

BUILD = pathlib.Path()  # run.py sets these
COMPONENT = None
_folders = []


def run(*command, cwd=None, env=None):
    """Gives the output; a command that fails is an error that shows what it said."""
    command = [str(word) for word in command]
    result = attempt(*command, cwd=cwd, env=env)
    if result.returncode != 0:
        raise AssertionError(f"{command}: exit code {result.returncode}\n{result.stdout}")
    return result.stdout


def attempt(*command, cwd=None, env=None):
    return subprocess.run(
        [str(word) for word in command],
        cwd=cwd,
        env=os.environ | (env or {}),
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        encoding="utf-8",
        errors="replace",
        timeout=TIMEOUT,
        check=False,
    )


def run_in_windows(program, *arguments, build=19045):
    """Runs a program under Wine, in its own folder."""
    launcher = SOURCE / "scripts" / "run-under-wine.sh"
    output = run(launcher, "--build", build, program, *arguments, cwd=program.parent)
    return output.replace("\r\n", "\n")


def new_folder():
    """A clean folder, with a space in its name, that goes when the tests are done."""
    folder = tempfile.TemporaryDirectory(prefix="nimbra install ")
    _folders.append(folder)
    return pathlib.Path(folder.name)


def remove_folders():
    while _folders:
        _folders.pop().cleanup()


def cached(name):
    """A setting of the build."""
    cache = (BUILD / "CMakeCache.txt").read_text(encoding="utf-8")
    return re.search(rf"^{name}:\w+=(.*)$", cache, re.M).group(1)


def version():
    """The one in the root CMakeLists.txt, as CMake read it."""
    return cached("CMAKE_PROJECT_VERSION")


def is_from_clang():
    return cached("CMAKE_TOOLCHAIN_FILE").endswith("/clang-mingw-w64.cmake")


def text_of(name):
    return (installed() / name).read_text(encoding="utf-8")


@functools.cache
def installed():
    prefix = new_folder() / "nimbra"
    component = ("--component", COMPONENT) if COMPONENT else ()
    run("cmake", "--install", BUILD, "--prefix", prefix, *component)
    return prefix


def files_of(folder):
    return sorted(
        path.relative_to(folder).as_posix() for path in folder.rglob("*") if path.is_file()
    )


def definitions():
    """The functions that the library's module definition file names."""
    path = SOURCE / "lib" / "cloud-filter" / "nimbra-host" / "nimbra" / "nimbra.def"
    return re.findall(r"^  (\w+)$", path.read_text(encoding="utf-8"), re.M)
