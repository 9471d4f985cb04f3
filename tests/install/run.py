#!/usr/bin/env python3
"""Installs a build's package and tests it as its users get it. ctest calls it; so can a person:

    run.py --build build/mingw-release [--component library] [test_linking.MinGW ...]
"""

import argparse
import pathlib
import sys
import unittest

sys.dont_write_bytecode = True  # the checkout may be read-only
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

import package  # noqa: E402  (needs the path above)

MODULES = [
    "test_contents", "test_papers", "test_symbols", "test_site", "test_linking", "test_versions",
    "test_definitions",
]  # fmt: skip


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--component", help="install no more of the package than this")
    parser.add_argument("tests", nargs="*", default=MODULES)
    arguments = parser.parse_args()
    package.BUILD = arguments.build.resolve()
    package.COMPONENT = arguments.component
    try:
        suite = unittest.defaultTestLoader.loadTestsFromNames(arguments.tests)
        result = unittest.TextTestRunner(stream=sys.stdout, verbosity=2).run(suite)
    finally:
        package.remove_folders()
    return 0 if result.wasSuccessful() and result.testsRun > 0 else 1


if __name__ == "__main__":
    sys.exit(main())
