#!/usr/bin/env python3
"""Builds the library twice, from copies of the sources in folders of different names, and compares
what comes out byte by byte: the DLL, its import library and its symbols.

    check.py <work folder> [preset...]

The presets are mingw-release and clang-release (both if none is named). The second build also runs in
another time zone, language and home, and does its work in another order.
"""

import argparse
import os
import shutil
import subprocess
import sys
from pathlib import Path

sys.dont_write_bytecode = True  # the checkout may be read-only
import comparison  # noqa: E402

SOURCE = Path(__file__).resolve().parents[2]
PRODUCTS = {
    "mingw-release": ["bin/Nimbra.dll", "bin/Nimbra.dll.debug", "lib/libNimbra.dll.a"],
    "clang-release": ["bin/Nimbra.dll", "bin/Nimbra.pdb", "lib/libNimbra.dll.a"],
}
# Where the two copies lie, where they are built, and in what surroundings.
PLACES = [
    ("one", "one/build", {"TZ": "UTC", "LC_ALL": "C"}, "1"),
    ("another, of a longer name/source", "elsewhere", {"TZ": "Asia/Tokyo", "LC_ALL": "C.UTF-8"}, "2"),
]
LIBRARY_ONLY = [f"-DNIMBRA_BUILD_{part}=OFF"
                for part in ("EXAMPLES", "SIMULATOR", "TOOLS", "TESTS", "BENCH")]


def copy_sources(folder):
    """All that a checkout has, but not what is built in it, which may be this copy itself."""
    skipped = shutil.ignore_patterns(".git", "build", "__pycache__", "node_modules")

    def ignored(parent, names):
        above = {name for name in names if (Path(parent) / name).resolve() in folder.parents}
        return above | skipped(parent, names)

    shutil.copytree(SOURCE, folder, ignore=ignored)
    for parent, _, _ in os.walk(folder):
        os.chmod(parent, 0o755)  # the checkout may be read-only


def environment(home, changes):
    """Without what would answer from a cache, or make the two builds alike."""
    kept = {name: value for name, value in os.environ.items()
            if not name.endswith("_COMPILER_LAUNCHER") and not name.startswith("CCACHE_")
            and name != "SOURCE_DATE_EPOCH"}
    home.mkdir(parents=True)
    return {**kept, "CCACHE_DISABLE": "1", "HOME": str(home), **changes}


def build(preset, source, output, surroundings, jobs):
    for command in (
        ["cmake", "--preset", preset, "-S", source, "-B", output, *LIBRARY_ONLY],
        ["cmake", "--build", output, "--target", "nimbra", "-j", jobs],
    ):
        subprocess.run([str(word) for word in command], env=surroundings, cwd=source, check=True,
                       stdout=subprocess.DEVNULL)
    launcher = [line for line in (output / "CMakeCache.txt").read_text().splitlines()
                if line.startswith(("CMAKE_C_COMPILER_LAUNCHER", "CMAKE_CXX_COMPILER_LAUNCHER"))]
    if launcher:
        raise RuntimeError(f"the build was not done anew: {launcher}")


def check(preset, work):
    shutil.rmtree(work, ignore_errors=True)
    outputs = []
    for source, output, changes, jobs in PLACES:
        copy_sources(work / source)
        outputs.append(work / output)
        home = work / f"home of build {jobs}"
        build(preset, work / source, outputs[-1], environment(home, changes), jobs)
    same = True
    for product in PRODUCTS[preset]:
        one, other = (output / product for output in outputs)
        found = comparison.differences(one, other)
        found += [f"it names the folder {folder}" for folder in comparison.traces(one, [work, SOURCE])]
        same = same and not found
        if found:
            print(f"{preset}: {product} is not the same from {one.parents[1]} and {other.parents[1]}:")
        else:
            print(f"{preset}: {product}, {one.stat().st_size} bytes: the same from both folders")
        for line in found:
            print(f"  {line}")
    if same:
        shutil.rmtree(work)
    return same


def main():
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("work", type=Path, help="a folder for the builds; it stays if they differ")
    parser.add_argument("preset", nargs="*", choices=[[], *PRODUCTS], default=[])
    options = parser.parse_args()
    presets = options.preset or list(PRODUCTS)
    same = [check(preset, options.work.resolve() / preset) for preset in presets]
    return 0 if all(same) else 1


if __name__ == "__main__":
    sys.exit(main())
