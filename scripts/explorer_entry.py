#!/usr/bin/env python3
"""Shows an entry in Explorer's navigation pane as a tree: its registry keys, and the shortcuts in
its folder.

    explorer_entry.py KEYS FOLDER

KEYS is a file with what `reg query /s` says of the keys.
"""

import pathlib
import struct
import sys


def parse_registry(text):
    """The keys in an output of `reg query /s`, with their values: (type, data) by name."""
    keys, values = {}, {}
    for line in text.splitlines():
        if line.startswith("HKEY_"):
            values = keys.setdefault(line.strip(), {})
        elif line.startswith("    "):
            name, kind, data = (line.strip().split("    ", 2) + ["", ""])[:3]
            values[name] = (kind, data)
    return keys


def shortcut_target(path):
    """The local path that a .lnk file leads to."""
    data = path.read_bytes()
    flags = struct.unpack_from("<I", data, 20)[0]
    has_id_list, has_location = flags & 1, flags & 2
    if data[:4] != b"\x4c\0\0\0" or not has_location:
        raise ValueError(f"'{path}' is no shortcut with a local path")
    start = 76
    if has_id_list:
        start += 2 + struct.unpack_from("<H", data, start)[0]
    text = data[start + struct.unpack_from("<I", data, start + 16)[0] :]
    return text[: text.index(b"\0")].decode()


def print_keys(keys):
    """A key that is below the one before it is named by what it adds."""
    top = ""
    for key, values in keys.items():
        if top and key.startswith(top + "\\"):
            print("  " + key[len(top) :])
            indent = "    "
        else:
            print(key.replace("HKEY_CURRENT_USER", "HKCU"))
            top, indent = key, "  "
        for name, (kind, data) in values.items():
            print(f"{indent}{name} = {data}  ({kind})")


def main():
    print_keys(parse_registry(pathlib.Path(sys.argv[1]).read_text(errors="replace")))
    folder = pathlib.Path(sys.argv[2])
    print(folder.name + "/  (hidden; the entry's folder of shortcuts)")
    for path in sorted(folder.iterdir()):
        print(f"  {path.name} -> {shortcut_target(path)}")


if __name__ == "__main__":
    main()
