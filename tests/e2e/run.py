#!/usr/bin/env python3
"""Runs end-to-end tests on built pieces. ctest calls it with the paths; so can a person:

    run.py --daemon build/linux-release/bin/cloud-filterd \\
           --file build/mingw-release/bin/Nimbra.dll --file ... test_hydration.Sizes
    run.py --daemon ... --file ... --soak 1800

NIMBRA_WORK        where prefixes are made and the tests work (the folder for temporary files)
NIMBRA_NO_FUSE=1   skip, rather than fail, what needs /dev/fuse
NIMBRA_SEED, NIMBRA_E2E_SEEDS, NIMBRA_CRASH_ROUNDS: see test_schedules.py and test_crashes.py
NIMBRA_KEEP_E2E=1  leave each class's folder, with the logs of its programs, behind
"""

import argparse
import io
import os
import pathlib
import sys
import tempfile
import unittest

HERE = pathlib.Path(__file__).resolve().parent
sys.dont_write_bytecode = True  # the checkout may be read-only
sys.path.insert(0, str(HERE))

from harness.settings import SETTINGS  # noqa: E402  (needs the path above)


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--file", action="append", default=[], help="a Windows file under test")
    parser.add_argument("--daemon", default="", help="cloud-filterd")
    parser.add_argument("--scripts", default=str(HERE.parents[1] / "scripts"))
    parser.add_argument(
        "--soak", type=int, metavar="SECONDS", help="a constant load for so long, and no growth"
    )
    parser.add_argument(
        "--again", type=int, default=0, metavar="N", help="how often to try again: see run_tests"
    )
    parser.add_argument("tests", nargs="*", help="module, module.Class or module.Class.test")
    arguments = parser.parse_args()
    if arguments.soak:
        os.environ["NIMBRA_SOAK_SECONDS"] = str(arguments.soak)
        arguments.tests.append("soak")
    if not arguments.tests:
        parser.error("nothing to run: name tests, or ask for --soak")
    return arguments


def is_lost_call(traceback):
    signs = ("no answer within", "TimeoutExpired", "took longer than")
    return any(sign in traceback for sign in signs)


def run_tests(names, again):
    """Under Wine a COM call between processes is lost now and then: its caller waits for ever.

    The tests are then run anew, with what failed after it, and the output says so.
    """
    while True:
        output = io.StringIO() if again > 0 else sys.stdout
        suite = unittest.defaultTestLoader.loadTestsFromNames(names)
        result = unittest.TextTestRunner(stream=output, verbosity=2).run(suite)
        problems = result.failures + result.errors
        if again == 0:
            return result
        if not any(is_lost_call(traceback) for _, traceback in problems):
            sys.stdout.write(output.getvalue())
            return result
        again -= 1
        for test, _ in problems:
            print(f"a call was lost, so all is run again: {test}", flush=True)


def main():
    arguments = parse_arguments()
    if not arguments.daemon or not os.access(arguments.daemon, os.X_OK):
        sys.exit(
            f"The end-to-end tests need the filter daemon, not found at '{arguments.daemon}'. "
            "Build the linux-release preset and configure this one with "
            "-DNIMBRA_FILTER_DAEMON=<path of cloud-filterd>."
        )
    SETTINGS.files = [pathlib.Path(path).resolve() for path in arguments.file]
    SETTINGS.daemon = pathlib.Path(arguments.daemon).resolve()
    SETTINGS.scripts = pathlib.Path(arguments.scripts).resolve()
    SETTINGS.work = pathlib.Path(os.environ.get("NIMBRA_WORK") or tempfile.gettempdir()).resolve()
    result = run_tests(arguments.tests, arguments.again)
    return 0 if result.wasSuccessful() and result.testsRun + len(result.skipped) > 0 else 1


if __name__ == "__main__":
    sys.exit(main())
