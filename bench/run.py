#!/usr/bin/env python3
"""Measures with built programs; bench.sh and ctest call it with the paths.

Prints one table; writes results.json, table.txt and a picture of each family into the folder of
--output. Exits with 0 if all that was asked for ran and gave figures, whether they keep their
limits or not.
"""

import argparse
import json
import os
import pathlib
import platform
import subprocess
import sys
import time

sys.dont_write_bytecode = True  # the checkout may be read-only
HERE = pathlib.Path(__file__).resolve().parent
SOURCE = HERE.parent
sys.path.insert(0, str(HERE))

from report.pictures import make_picture  # noqa: E402  (needs the path above)
from report.rows import FAMILIES, problems  # noqa: E402
from report.table import make_table  # noqa: E402

IN_ONE_PROGRAM = ("exports", "callbacks", "streaming")
AVAILABLE = IN_ONE_PROGRAM


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="only whether everything runs")
    parser.add_argument("--large", action="store_true", help="the sizes that take long, too")
    parser.add_argument("--bench", type=pathlib.Path, required=True, help="nimbra-bench.exe")
    parser.add_argument("--output", type=pathlib.Path, required=True)
    parser.add_argument("families", nargs="*", metavar="FAMILY", help=", ".join(AVAILABLE))
    arguments = parser.parse_args()
    for family in arguments.families:
        if family not in AVAILABLE:
            parser.error(f"no such family: {family}; there are {', '.join(AVAILABLE)}")
    arguments.families = [
        family for family in AVAILABLE if family in (arguments.families or AVAILABLE)
    ]
    return arguments


def measure_in_program(family, arguments):
    """Each family has a process of its own."""
    command = [SOURCE / "scripts" / "run-under-wine.sh", arguments.bench, family]
    command += [f"--{name}" for name in ("quick", "large") if getattr(arguments, name)]
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, check=False)
    if done.returncode != 0:
        sys.exit(f"bench: measuring {family} ended with {done.returncode}")
    return [json.loads(line) for line in done.stdout.splitlines()]


def measure(family, arguments):
    begun = time.monotonic()
    rows = measure_in_program(family, arguments)
    print(f"  {family:<12} {time.monotonic() - begun:6.1f} s", file=sys.stderr, flush=True)
    return rows


def exported_functions():
    """What the library's module definition file lists."""
    lines = (SOURCE / "lib/cloud-filter/nimbra-host/nimbra/nimbra.def").read_text().splitlines()
    return [name for name in map(str.strip, lines) if name.startswith("CORVWinCF")]


def machine():
    return {
        "processors": os.cpu_count(),
        "system": platform.platform(),
        "loadBefore": os.getloadavg()[0],
        "time": time.strftime("%Y-%m-%d %H:%M:%S", time.gmtime()),
    }


def write_files(output, about, rows):
    output.mkdir(parents=True, exist_ok=True)
    (output / "results.json").write_text(json.dumps({"machine": about, "rows": rows}, indent=1))
    (output / "table.txt").write_text(make_table(rows) + "\n")
    for family in FAMILIES:
        of_family = [row for row in rows if row["family"] == family]
        if of_family:
            (output / f"{family}.svg").write_text(make_picture(family, of_family))


def main():
    arguments = parse_arguments()
    about = machine()
    begun = time.monotonic()
    rows = []
    for family in arguments.families:
        rows += measure(family, arguments)
    about["seconds"] = round(time.monotonic() - begun, 1)
    about["loadAfter"] = os.getloadavg()[0]
    everything = exported_functions() if set(arguments.families) == set(FAMILIES) else []
    wrong = problems(rows, arguments.families, everything)
    for problem in wrong:
        print(f"bench: {problem}", file=sys.stderr)
    if wrong:
        return 1
    write_files(arguments.output, about, rows)
    print(make_table(rows))
    print(
        f"{about['seconds']} s on {about['processors']} processors, load {about['loadBefore']:.1f} "
        f"before and {about['loadAfter']:.1f} after. Files: {arguments.output}"
    )
    return 0


if __name__ == "__main__":
    sys.exit(main())
