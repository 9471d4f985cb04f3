"""How long a process takes to load the library, and what it holds then.

Beside a DLL that does nothing and has the same compiler's runtime in it. Each figure is from a new
process.
"""

import json
import subprocess

from report.rows import make_row

# What the library loads when it first needs it: a program with windows has most of it anyway.
SYSTEM = ("advapi32.dll", "gdi32.dll", "ole32.dll", "shell32.dll", "shlwapi.dll")
SYSTEM += ("windowscodecs.dll",)


def load_once(launcher, loader, library, loaded_before):
    path = "Z:" + str(library.resolve()).replace("/", "\\")
    command = [*launcher, loader, path, *loaded_before]
    done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, check=True)
    return json.loads(done.stdout)


def compare(name, rounds, measure):
    """`measure(is_library)` loads once."""
    measure(False), measure(True)  # the files are in memory from then on
    samples = [(measure(False), measure(True), measure(False)) for _ in range(rounds)]

    def row(group, key, **more):
        baseline, subject, again = ([sample[key] for sample in column] for column in zip(*samples))
        return make_row("load", group, name, subject, baseline, again, **more)

    return [
        row("time to load", "nanoseconds"),
        row("private memory after loading", "privateBytes", unit="bytes"),
    ]


def measure_load(arguments, launcher):
    def measure_with(loaded_before):
        def measure(is_library):
            library = arguments.library if is_library else arguments.nothing
            return load_once(launcher, arguments.loader, library, loaded_before)

        return measure

    rounds = 2 if arguments.quick else 7
    rows = compare("in a bare process", rounds, measure_with(()))
    rows += compare("with the system's DLLs there", rounds, measure_with(SYSTEM))
    sizes = [[path.stat().st_size] for path in (arguments.library, arguments.nothing)]
    rows.append(make_row("load", "size", "on disk", *sizes, unit="bytes"))
    return sorted(rows, key=lambda row: row["group"])
