#!/usr/bin/env python3
"""Packs the built tests with the library into a zip that runs on a Windows machine.

    make-package.py BUILD ZIP

What is packed is read from the build's CTest tests. Those that need programs of Linux, as the
end-to-end tests do, are left out and named.
"""

import json
import pathlib
import subprocess
import sys
import zipfile

HERE = pathlib.Path(__file__).resolve().parent
LAUNCHER = "run-under-wine.sh"
FOLDER = "nimbra-tests"
OLDEST_OPEN_BUILD = 17134


class Package:
    def __init__(self, build):
        self._build = build
        self.files = {}  # name in the package: path
        self.lines = []
        self.left_out = []

    def add(self, path):
        """Packs a file or a folder of the build; gives its name with backslashes."""
        for file in sorted(path.rglob("*")) if path.is_dir() else [path]:
            if file.suffix in (".exe", ".dll"):
                self.files[str(file.relative_to(self._build))] = file
        return str(path.relative_to(self._build)).replace("/", "\\")

    def argument(self, text):
        """An argument as run.cmd passes it on: the build's own files are found from its folder."""
        name, separator, value = text.partition("=")
        path = pathlib.Path(value)
        if value and path.is_absolute() and path.is_relative_to(self._build):
            value = f"%HERE%\\{self.add(path)}"
        elif name == "--build":
            value = "%BUILD%"
        return f'"{name}{separator}{value}"'

    def add_test(self, name, command):
        at = next((i for i, word in enumerate(command) if word.endswith(LAUNCHER)), None)
        if at is None:
            self.left_out.append(name)
            return
        words = command[at + 1 :]
        build = None
        if words[0] == "--build":
            build, words = int(words[1]), words[2:]
        program = self.add(pathlib.Path(words[0]))
        arguments = " ".join(self.argument(word) for word in words[1:])
        needs = needs_of(name, build)
        if name.startswith("nimbra_dll_tests.flags-1") or name.startswith("nimbra_dll_tests.flags-2"):
            # One is enough for the one build that there is.
            if build != 19045:
                return
            name, needs = "nimbra_dll_tests.flags", "any"
            arguments = arguments.replace("--flags=101", "--flags=%FLAGS%")
        self.lines.append("|".join([name, needs, program, arguments]))


def needs_of(name, build):
    """What Windows a test makes sense on; see run.cmd."""
    if "missing-platform" in name:
        return "bare"
    if "conformance" in name:
        return "cloud"
    if build is None or "without-manifest" in name:
        return "any"
    return "new" if build >= OLDEST_OPEN_BUILD else "old"


def tests_of(build):
    listing = subprocess.run(
        ["ctest", "--test-dir", build, "--show-only=json-v1"], capture_output=True, check=True
    )
    for test in json.loads(listing.stdout)["tests"]:
        if "command" not in test:
            sys.exit(f"{test['name']} is not built: build the preset first")
        yield test["name"], test["command"]


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__.strip())
    build, target = (pathlib.Path(argument).resolve() for argument in sys.argv[1:])
    package = Package(build)
    for name, command in tests_of(build):
        package.add_test(name, command)
    # The simulator's cldapi.dll must not stand in for the one of the Windows under test.
    package.files = {
        name: path
        for name, path in package.files.items()
        if path.name != "cldapi.dll" or "partial-platform" in name
    }
    with zipfile.ZipFile(target, "w", zipfile.ZIP_DEFLATED) as archive:
        for name, path in sorted(package.files.items()):
            archive.write(path, f"{FOLDER}/{name}")
        archive.writestr(f"{FOLDER}/tests.txt", "\r\n".join(package.lines) + "\r\n")
        script = (HERE / "run.cmd").read_text().replace("\n", "\r\n")
        archive.writestr(f"{FOLDER}/run.cmd", script)
    groups = sorted({name.split(".")[0] for name in package.left_out})
    print(f"{target}: {len(package.lines)} groups of tests, {len(package.files)} programs and DLLs")
    if groups:
        print(f"left out, as they need Linux: {len(package.left_out)} of {', '.join(groups)}")


if __name__ == "__main__":
    main()
