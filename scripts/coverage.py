#!/usr/bin/env python3
"""Prints which part of the library's lines the tests ran, and checks it.

    coverage.py [--exceptions FILE] BUILD-FOLDER

BUILD-FOLDER is a build of the preset mingw-coverage whose tests ran. Every line of lib/ has to run,
except those in FILE (tests/coverage-exceptions.txt), of which none may run: each of its lines holds
a file, a line of it and the reason, with " | " between them. A line whose text is not the only one
of its kind comes after an earlier line's text and " ... ". Exits with 1 if something does not hold.
"""

import argparse
import collections
import json
import pathlib
import subprocess
import sys

SOURCE = pathlib.Path(__file__).resolve().parents[1]
CONTEXT_LINES = 12  # how far in front of a line its context may be

Exception_ = collections.namedtuple("Exception_", "place file context text reason")


def read_counts(build):
    """Gives what gcovr says of each file in lib/."""
    command = [
        "gcovr",
        "--root",
        SOURCE,
        "--filter",
        str(SOURCE / "lib") + "/",
        "--gcov-executable",
        "x86_64-w64-mingw32-gcov-posix",
        "--exclude-throw-branches",
        "--json",
        "-",
        build / "lib" / "cloud-filter",
        build / "tests" / "unit",
    ]
    result = subprocess.run(command, cwd=build, capture_output=True, text=True, check=False)
    if result.returncode != 0:
        sys.exit(f"gcovr failed:\n{result.stdout}{result.stderr}")
    files = json.loads(result.stdout)["files"]
    if not files:
        sys.exit(f"No counts in '{build}': run the tests of a mingw-coverage build first.")
    return sorted(files, key=lambda file: file["file"])


def read_exceptions(path):
    exceptions = []
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        if not line.strip() or line.startswith("#"):
            continue
        fields = [field.strip() for field in line.split(" | ")]
        if len(fields) != 3 or not all(fields):
            sys.exit(f"{path.name}:{number}: not '<file> | <line> | <reason>'")
        context, _, text = fields[1].rpartition(" ... ")
        place = f"{path.name}:{number}"
        exceptions.append(Exception_(place, fields[0], context.strip(), text.strip(), fields[2]))
    return exceptions


def is_meant(exception, lines, number):
    """Whether the exception is about line `number` (from 1) of a file."""
    if lines[number - 1].strip() != exception.text:
        return False
    before = lines[max(0, number - 1 - CONTEXT_LINES) : number - 1]
    return not exception.context or exception.context in (line.strip() for line in before)


def percent(part, whole):
    return f"{100 * part / whole:6.1f} %" if whole else "     - %"


class Report:
    def __init__(self, exceptions):
        self.exceptions = exceptions
        self.used = set()
        self.problems = []
        self.totals = [0, 0, 0, 0, 0]

    def exception_for(self, name, lines, number):
        for exception in self.exceptions:
            if exception.file == name and is_meant(exception, lines, number):
                return exception
        return None

    def add(self, file):
        name = file["file"]
        lines = (SOURCE / name).read_text(encoding="utf-8").splitlines()
        counts = [line for line in file["lines"] if not line.get("gcovr/noncode")]
        excepted = 0
        for line in counts:
            number = line["line_number"]
            exception = self.exception_for(name, lines, number)
            if exception is not None:
                self.used.add(exception)
                excepted += line["count"] == 0
            if exception is not None and line["count"] > 0:
                self.problems.append(f"{exception.place}: runs after all: {name}:{number}")
            elif exception is None and line["count"] == 0:
                self.problems.append(f"{name}:{number}: never runs: {lines[number - 1].strip()}")
        branches = [branch for line in counts for branch in line["branches"]]
        row = [
            len(counts),
            sum(line["count"] > 0 for line in counts),
            excepted,
            len(branches),
            sum(branch["count"] > 0 for branch in branches),
        ]
        self.totals = [total + number for total, number in zip(self.totals, row)]
        print_row(name.removeprefix("lib/cloud-filter/"), row)

    def finish(self):
        print_row("all", self.totals)
        for exception in self.exceptions:
            if exception not in self.used:
                self.problems.append(f"{exception.place}: no such line: {exception.text}")
        for problem in self.problems:
            print(problem)
        return not self.problems


def print_row(name, row):
    lines, run, excepted, branches, taken = row
    print(
        f"{name:48} {lines:5} {percent(run, lines)} {excepted:8} "
        f"{branches:8} {percent(taken, branches)}"
    )


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument(
        "--exceptions",
        type=pathlib.Path,
        default=SOURCE / "tests" / "coverage-exceptions.txt",
        help="the lines that need not run",
    )
    parser.add_argument("build", type=pathlib.Path, help="the build folder")
    arguments = parser.parse_args()
    report = Report(read_exceptions(arguments.exceptions))
    print(f"{'file':48} {'lines':>5} {'run':>8} {'excepted':>8} {'branches':>8} {'taken':>8}")
    for file in read_counts(arguments.build.resolve()):
        report.add(file)
    return 0 if report.finish() else 1


if __name__ == "__main__":
    sys.exit(main())
