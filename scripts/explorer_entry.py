#!/usr/bin/env python3
"""Shows an entry in Explorer's navigation pane as a tree: its registry keys, and the shortcuts in
its folder.

    explorer_entry.py CLSID FOLDER EXPORT...

Each EXPORT is a file that `reg export` wrote.
"""

import pathlib
import re
import struct
import sys


def read_export(path):
    """The keys in a file that `reg export` wrote, with their values: (type, data) by name."""
    keys, values = {}, {}
    for line in path.read_text(encoding="utf-16").replace("\\\n  ", "").splitlines():
        if line.startswith("["):
            values = keys.setdefault(line[1:-1], {})
        elif match := re.match(r'(?:@|"((?:[^"\\]|\\.)*)")=(.*)', line):
            name = "(Default)" if match[1] is None else unescaped(match[1])
            values[name] = value_of(match[2])
    return keys


def value_of(text):
    """As `reg query` shows it."""
    if text.startswith("dword:"):
        return "REG_DWORD", hex(int(text[6:], 16))
    if text.startswith("hex(2):"):
        data = bytes.fromhex(text[7:].replace(",", " "))
        return "REG_EXPAND_SZ", data.decode("utf-16-le").rstrip("\0")
    return "REG_SZ", unescaped(text[1:-1])


def unescaped(text):
    return re.sub(r"\\(.)", r"\1", text)


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
    clsid, folder, *exports = sys.argv[1:]
    keys = {}
    for export in exports:
        for key, values in read_export(pathlib.Path(export)).items():
            # Others have values of their own next to the entry's.
            keys[key] = {clsid: values[clsid]} if clsid in values else values
    print_keys(keys)
    print(f"{pathlib.Path(folder).name}/  (hidden; the entry's folder of shortcuts)")
    for path in sorted(pathlib.Path(folder).iterdir()):
        print(f"  {path.name} -> {shortcut_target(path)}")


if __name__ == "__main__":
    main()
