#!/usr/bin/env python3
"""Checks that a Windows image asks for the protections that the build promises (docs/building.md).

    check.py [--guarded] <image>...

--guarded  it is from clang and lld: with Control Flow Guard, marked as compatible with shadow stacks
           (CET), and with its own .pdb file beside it; that of a library knows the public records
"""

import argparse
import re
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.dont_write_bytecode = True
sys.path.insert(0, str(ROOT / "scripts"))
from pe_image import DLL_CHARACTERISTICS, GUARD_INSTRUMENTED, GUARD_TABLE_PRESENT, Image  # noqa: E402

PDBUTIL = "llvm-pdbutil-19"
RECORD = "CORVWinCFCallbackRecord"


def missing_flags(image, guarded):
    return [
        f"the flag for {name} is not set"
        for name, flag in DLL_CHARACTERISTICS.items()
        if not image.characteristics & flag and (guarded or name != "Control Flow Guard")
    ]


def missing_guard(image):
    flags, targets = image.guard()
    if not flags & GUARD_INSTRUMENTED or not flags & GUARD_TABLE_PRESENT:
        return [f"the load configuration's guard flags are {flags:#x}: not instrumented or no table"]
    found = []
    if targets != sorted(set(targets)):
        found.append("the table of permitted targets is not in order")
    known = set(targets)
    unknown = [name for name, address in image.exports().items() if address not in known]
    if unknown:
        found.append(f"these exports could not be called through a pointer: {' '.join(unknown)}")
    return found


def pdbutil(*arguments):
    return subprocess.run([PDBUTIL, "dump", *arguments], capture_output=True, text=True, check=True).stdout


def fields_kept(record):
    """The fields of a public record and their offsets, from the baseline of the binary interface."""
    text = (ROOT / "tests" / "abi" / "baseline.txt").read_text()
    found = re.findall(rf"^field {record}\.(\w+): .* at (\d+),", text, re.MULTILINE)
    return [(name, int(offset)) for name, offset in found]


def fields_in(types, record):
    """The same from a .pdb file's types; None if they do not have the record in full."""
    structure = re.search(rf"LF_STRUCTURE [^\n]*`{record}`\n(?:\s+[^|\n]*\n)*?.*field list: (0x\w+)", types)
    if not structure:
        return None
    fields = re.search(rf"^ *{structure[1]} \| LF_FIELDLIST.*\n((?:(?! *0x\w+ \|).*\n?)*)", types,
                       re.MULTILINE)
    listed = re.findall(r"LF_MEMBER \[name = `(\w+)`, Type = .*?, offset = (\d+)", fields[1])
    return [(name, int(offset)) for name, offset in listed]


def missing_symbols(image):
    named = image.symbol_file()
    if named is None:
        return ["it names no .pdb file"]
    guid, _, name = named
    beside = image.path.with_suffix(".pdb")
    if name != beside.name:
        return [f"it names the symbol file '{name}', not '{beside.name}' without a folder"]
    if not beside.exists():
        return [f"there is no {beside}"]
    found = []
    if f"GUID: {{{guid}}}" not in pdbutil("-summary", beside):
        found.append(f"{beside} belongs to another image")
    types = pdbutil("-types", beside)
    if "LF_STRUCTURE" not in types:
        found.append(f"{beside} has no types")
    if image.exports() and fields_in(types, RECORD) != fields_kept(RECORD):
        found.append(f"{beside} does not have {RECORD} with its fields")
    return found


def faults(image, guarded):
    found = missing_flags(image, guarded)
    if guarded:
        found += missing_guard(image) + missing_symbols(image)
        if not image.is_cet_compatible():
            found.append("it is not marked as compatible with shadow stacks (CET)")
    return found


def main():
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--guarded", action="store_true")
    parser.add_argument("image", nargs="+", type=Path)
    options = parser.parse_args()
    wrong = 0
    for path in options.image:
        found = faults(Image(path), options.guarded)
        wrong += len(found)
        print(f"{path}:", "as promised" if not found else "; ".join(found))
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
