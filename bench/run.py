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
import tempfile
import time

sys.dont_write_bytecode = True  # the checkout may be read-only
HERE = pathlib.Path(__file__).resolve().parent
SOURCE = HERE.parent
sys.path[:0] = [str(HERE), str(SOURCE / "tests" / "e2e")]

from load import measure_load  # noqa: E402  (needs the path above)
from report.compare import Comparison  # noqa: E402
from report.pictures import make_picture  # noqa: E402
from report.rows import FAMILIES, problems, with_derived  # noqa: E402
from report.table import make_table  # noqa: E402

# A prefix of its own: what the shell's part leaves in the profile is nobody else's.
LAUNCHER = (SOURCE / "scripts" / "run-under-wine.sh", "--prefix-name", "bench")


FILES = {
    "null-provider": "the native provider that costs nothing",
    "library": "Nimbra.dll",
    "cldapi": "the simulator's cldapi.dll",
    "bench": "nimbra-bench.exe",
    "loader": "load-once.exe",
    "nothing": "nothing.dll",
}


def read_results(path):
    """What an earlier run wrote: before this one writes over it."""
    try:
        return json.loads(pathlib.Path(path).read_text())
    except (OSError, ValueError) as error:
        raise argparse.ArgumentTypeError(f"{path}: {error}") from error


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="only whether everything runs")
    parser.add_argument("--large", action="store_true", help="the sizes that take long, too")
    parser.add_argument("--compare", type=read_results, metavar="OLD.json", help="with that run")
    parser.add_argument("--output", type=pathlib.Path, required=True)
    parser.add_argument("--files", type=pathlib.Path, help="for sync roots (the work folder)")
    parser.add_argument("--daemon", type=pathlib.Path, required=True, help="cloud-filterd")
    for name, file in FILES.items():
        parser.add_argument(f"--{name}", type=pathlib.Path, required=True, help=file)
    parser.add_argument("families", nargs="*", metavar="FAMILY", help=", ".join(FAMILIES))
    arguments = parser.parse_args()
    for family in arguments.families:
        if family not in FAMILIES:
            parser.error(f"no such family: {family}; there are {', '.join(FAMILIES)}")
    arguments.families = [
        family for family in FAMILIES if family in (arguments.families or FAMILIES)
    ]
    return arguments


def measure_in_program(family, arguments):
    """Each family has a process of its own."""
    command = [*LAUNCHER, arguments.bench, family]
    command += [f"--{name}" for name in ("quick", "large") if getattr(arguments, name)]
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, check=False)
    if done.returncode != 0:
        print(f"bench: measuring {family} ended with {done.returncode}", file=sys.stderr)
        return []
    return [json.loads(line) for line in done.stdout.splitlines()]


def measure_on_filter(arguments):
    # Only now, as what it imports takes its settings from there.
    from end_to_end import measure_end_to_end
    from harness.settings import SETTINGS

    SETTINGS.files = [
        getattr(arguments, name).resolve() for name in ("library", "cldapi", "bench")
    ]
    SETTINGS.daemon = arguments.daemon.resolve()
    SETTINGS.scripts = SOURCE / "scripts"
    SETTINGS.work = pathlib.Path(os.environ.get("NIMBRA_WORK") or tempfile.gettempdir()).resolve()
    null_provider = arguments.null_provider.resolve()
    return measure_end_to_end(
        null_provider, arguments.files, arguments.quick, arguments.large, sys.stderr
    )


def fuse_is_missing():
    from harness.daemon import fuse_is_usable

    return os.environ.get("NIMBRA_NO_FUSE") == "1" and not fuse_is_usable()


def measure(family, arguments, seconds):
    """The rows of a family; how long they took goes into `seconds`."""
    begun = time.monotonic()
    if family == "filter":
        rows = measure_on_filter(arguments)
    elif family == "load":
        rows = measure_load(arguments, LAUNCHER)
    else:
        rows = measure_in_program(family, arguments)
    seconds[family] = round(time.monotonic() - begun, 1)
    print(f"  {family:<12} {seconds[family]:6.1f} s", file=sys.stderr, flush=True)
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
    results = {"machine": about, "rows": [with_derived(row) for row in rows]}
    (output / "results.json").write_text(json.dumps(results, indent=1))
    (output / "table.txt").write_text(make_table(rows) + "\n")
    for family in FAMILIES:
        of_family = [row for row in rows if row["family"] == family]
        if of_family:
            (output / f"{family}.svg").write_text(make_picture(family, of_family))


def main():
    arguments = parse_arguments()
    if "filter" in arguments.families and fuse_is_missing():
        print("bench: /dev/fuse cannot be used here, so nothing on the filter", file=sys.stderr)
        arguments.families.remove("filter")
    about = machine()
    about["syncRoots"] = str(arguments.files or "work folder")
    about["familySeconds"] = {}
    begun = time.monotonic()
    rows = []
    for family in arguments.families:
        rows += measure(family, arguments, about["familySeconds"])
    about["seconds"] = round(time.monotonic() - begun, 1)
    about["loadAfter"] = os.getloadavg()[0]
    everything = exported_functions() if arguments.families == list(FAMILIES) else []
    wrong = problems(rows, arguments.families, everything)
    if rows:
        write_files(arguments.output, about, rows)
        print(make_table(rows))
        print(
            f"{about['seconds']} s on {about['processors']} processors, load "
            f"{about['loadBefore']:.1f} before and {about['loadAfter']:.1f} after. "
            f"Files: {arguments.output}"
        )
        if arguments.compare:
            print(f"\nSince the run of {arguments.compare['machine']['time']}:")
            print(Comparison(arguments.compare["rows"], rows).text())
    for problem in wrong:
        print(f"bench: {problem}", file=sys.stderr)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
