#!/usr/bin/env python3
"""Compares the library's binary interface with the one that is kept in baseline.txt.

The interface is the DLL's exports, and what the public header declares: functions, constants, types,
and the records with the place of each field, as three compilers lay them out. A difference is an
error: programs that exist were built against the baseline.

To change the interface on purpose, change the header and the library, raise the version
(CMakeLists.txt), run this with --update, and commit the new baseline with them. A change that breaks
programs is refused unless the version says so: a higher minor version while the major one is 0, and
a higher major one afterwards.
"""

import argparse
import re
import sys
from pathlib import Path

sys.dont_write_bytecode = True
import interface  # noqa: E402

HERE = Path(__file__).resolve().parent
BASELINE = HERE / "baseline.txt"
PROJECT = HERE.parents[1] / "CMakeLists.txt"
VERSION = "version"  # the baseline's entry for the version that it is of
HEADER_KINDS = ("function", "constant", "type", "record", "field")
HEADING = """\
# The binary interface that programs are built against: see check.py, which also writes this file.
"""


def parse(text):
    entries = {}
    for line in text.splitlines():
        if line and not line.startswith("#"):
            what, particulars = line.split(": ", 1)
            entries[what] = particulars
    return entries


def written(entries):
    return HEADING + "".join(f"{what}: {particulars}\n" for what, particulars in entries.items())


def differences(baseline, current):
    """Lines for people, and whether programs built against the baseline break."""
    lines, breaking = [], False
    for what in [*baseline, *(what for what in current if what not in baseline)]:
        was, now = baseline.get(what), current.get(what)
        if was == now:
            continue
        breaking = breaking or was is not None  # nobody holds what is new
        if was is None:
            lines.append(f"  added    {what}: {now}")
        elif now is None:
            lines.append(f"  removed  {what}: {was}")
        else:
            lines.append(f"  changed  {what}: {was}")
            lines.append(f"       to  {what}: {now}")
    return lines, breaking


def advice(breaking):
    if breaking:
        meaning = ("Programs built against the baseline may crash or fail to start with this library. "
                   "As a release this is a new major version (before 1.0, a new minor one).")
    else:
        meaning = ("Programs built against the baseline go on working. As a release this is a new "
                   "minor version.")
    return (f"{meaning}\nIf it is not meant, take the change back. If it is, raise the version in "
            "CMakeLists.txt and run\n    tests/abi/check.py --update --library <Nimbra.dll>")


def report(title, baseline, current):
    lines, breaking = differences(baseline, current)
    if not lines:
        return True
    print(f"{title} differs from {BASELINE.name}:", *lines, advice(breaking), sep="\n")
    return False


def part(entries, *kinds):
    return {what: value for what, value in entries.items() if what.split(" ")[0] in kinds}


def project_version():
    return re.search(r"^project\(Nimbra VERSION (\d+\.\d+\.\d+)", PROJECT.read_text(), re.M).group(1)


def allows_breaking(was, now):
    """Whether a version after another one tells programs that they may break."""
    was, now = ([int(number) for number in version.split(".")] for version in (was, now))
    telling = 2 if was[0] == 0 else 1  # how many of the numbers
    return now[:telling] > was[:telling]


def update(header, library, version):
    """Writes the baseline anew; gives False, and leaves it, where the version forbids the change."""
    baseline = parse(BASELINE.read_text())
    first = next(iter(interface.COMPILERS))
    current = {**interface.of_library(library), **interface.of_header(header, first)}
    lines, breaking = differences(part(baseline, "export", *HEADER_KINDS), current)
    if breaking and not allows_breaking(baseline[VERSION], version):
        print(f"{BASELINE.name} is of version {baseline[VERSION]}, and this is {version}:", *lines,
              advice(breaking), sep="\n")
        return False
    BASELINE.write_text(written({VERSION: version, **current}))
    print(f"{BASELINE} is written. Look at its difference before you commit it.")
    return True


def is_of(baseline, version):
    if baseline[VERSION] == version:
        return True
    print(f"{BASELINE.name} is of version {baseline[VERSION]}, and this is {version}: run "
          "tests/abi/check.py --update --library <Nimbra.dll>")
    return False


def check(baseline, header, library):
    same = report("The DLL", part(baseline, "export"), interface.of_library(library))
    for compiler in interface.COMPILERS:
        current = interface.of_header(header, compiler)
        same &= report(f"The header, as {compiler} sees it,", part(baseline, *HEADER_KINDS), current)
    if same:
        print(f"{len(baseline) - 1} entries of {BASELINE.name}: the DLL, and the header with "
              f"{len(interface.COMPILERS)} compilers, are as it says.")
    return same


def main():
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--header", type=Path,
                        default=HERE.parents[1] / "include" / "nimbra" / "nimbra.h")
    parser.add_argument("--library", type=Path, required=True, help="the DLL that was built")
    parser.add_argument("--update", action="store_true", help="write the baseline anew")
    options = parser.parse_args()
    try:
        version = project_version()
        if options.update and not update(options.header, options.library, version):
            return 1
        baseline = parse(BASELINE.read_text())
        same = check(baseline, options.header, options.library)
        return 0 if is_of(baseline, version) and same else 1
    except (interface.InterfaceError, OSError, ValueError) as error:
        print(f"check.py: {error}", file=sys.stderr)
        return 2


if __name__ == "__main__":
    sys.exit(main())
