#!/usr/bin/env python3
"""Runs clang-tidy over the project's own sources in a build folder's compile commands.

    tidy.py [--jobs N] [--stamps FOLDER] BUILD...

A source is looked at again only after it, a header of the project that it includes, its compile
command, a .clang-tidy file or clang-tidy itself changed. Prints what clang-tidy found; exits with 1
if that was anything.
"""

import argparse
import concurrent.futures
import functools
import hashlib
import json
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys

SOURCE = pathlib.Path(__file__).resolve().parent.parent


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--jobs", type=int, default=len(os.sched_getaffinity(0)))
    parser.add_argument("--stamps", type=pathlib.Path, help="where to remember the clean sources")
    parser.add_argument("builds", nargs="+", type=pathlib.Path, metavar="BUILD")
    return parser.parse_args()


def output_of(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True)


def own_source(path):
    return path.is_relative_to(SOURCE) and not path.is_relative_to(SOURCE / "build")


def read_dependencies(build):
    """The project's headers that each object includes, from what the compiler told ninja."""
    headers, current = {}, None
    for line in output_of("ninja", "-C", build, "-t", "deps").stdout.splitlines():
        if not line.startswith(" "):
            current = line.split(":", 1)[0]
            headers[current] = []
        elif line.strip():
            path = pathlib.Path(os.path.normpath(build / line.strip()))
            if own_source(path):
                headers[current].append(path)
    return headers


@functools.cache
def cross_arguments(compiler):
    """What clang needs to compile as a given MinGW compiler does: its target and its headers."""
    listing = output_of(compiler, "-E", "-v", "-x", "c++", os.devnull).stderr
    folders = listing.split("#include <...> search starts here:")[1].split("End of search")[0]
    # The compiler's own folder is left out: clang has its own versions of those headers.
    theirs = [
        folder
        for folder in map(os.path.realpath, folders.split())
        if "/c++" in folder or not folder.startswith("/usr/lib/gcc")
    ]
    arguments = ["--target=x86_64-w64-mingw32", "-nostdinc++", "-nostdlibinc"]
    for folder in theirs:
        arguments += ["-isystem", folder]
    return arguments


class Check:
    """clang-tidy on one source of one build."""

    def __init__(self, entry, build, headers, tool):
        self.source = pathlib.Path(entry["file"])
        command = shlex.split(entry["command"])
        self._build = build
        ours = f"^{re.escape(str(SOURCE))}/(bench|examples|include|lib|simulator|tests|tools)/"
        self._command = [tool, "--quiet", "-p", str(build), f"--header-filter={ours}"]
        if "mingw" in os.path.basename(command[0]):
            self._command += [f"--extra-arg={one}" for one in cross_arguments(command[0])]
        # GCC's warnings are GCC's business: clang's set differs from version to version.
        self._command += ["--extra-arg=-Wno-everything", str(self.source)]
        self._inputs = [self.source, *headers.get(command[command.index("-o") + 1], [])]
        self._key_text = json.dumps([self._command, entry["command"]])

    def stamp(self, common):
        key = hashlib.sha256(self._key_text.encode() + common)
        for path in sorted(set(self._inputs)):
            key.update(str(path).encode() + b"\0" + path.read_bytes())
        return key.hexdigest()

    def run(self):
        done = subprocess.run(self._command, capture_output=True, text=True, cwd=self._build)
        return done.returncode, done.stdout if done.stdout.strip() else done.stderr


def common_key(tool):
    """What bears on every source: the configuration and the tool."""
    key = hashlib.sha256(output_of(tool, "--version").stdout.encode())
    for path in sorted([SOURCE / ".clang-tidy", *SOURCE.glob("*/.clang-tidy")]):
        key.update(path.read_bytes())
    return key.digest()


def collect_checks(builds, tool):
    seen = set()
    for build in map(pathlib.Path.resolve, builds):
        headers = read_dependencies(build)
        for entry in json.loads((build / "compile_commands.json").read_text()):
            path = pathlib.Path(entry["file"])
            if own_source(path) and path not in seen and path.suffix != ".rc":
                seen.add(path)
                yield Check(entry, build, headers, tool)


def main():
    arguments = parse_arguments()
    tool = shutil.which("clang-tidy") or sys.exit("clang-tidy is not installed: run scripts/setup.sh")
    common = common_key(tool)
    stamps = arguments.stamps
    if stamps:
        stamps.mkdir(parents=True, exist_ok=True)
    checks = [(check, check.stamp(common)) for check in collect_checks(arguments.builds, tool)]
    due = [(check, stamp) for check, stamp in checks if not stamps or not (stamps / stamp).exists()]
    failed = 0
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        results = {pool.submit(check.run): (check, stamp) for check, stamp in due}
        for result in concurrent.futures.as_completed(results):
            check, stamp = results[result]
            code, text = result.result()
            if code:
                failed += 1
                print(f"== {check.source.relative_to(SOURCE)}\n{text}", flush=True)
            elif stamps:
                (stamps / stamp).touch()
    print(f"{len(checks)} sources, {len(due)} looked at, {failed} with findings")
    return 1 if failed or not checks else 0


if __name__ == "__main__":
    sys.exit(main())
