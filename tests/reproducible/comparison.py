"""Compares files that two builds made, and says where they differ."""

import sys
from pathlib import Path

sys.dont_write_bytecode = True  # the checkout may be read-only
sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "scripts"))
from pe_image import Image  # noqa: E402

CONTEXT = 24  # bytes shown of each side


def first_difference(one, other):
    for i, (a, b) in enumerate(zip(one, other)):
        if a != b:
            return i
    return min(len(one), len(other))


def around(data, offset):
    start = max(0, offset - CONTEXT // 2)
    return data[start : start + CONTEXT]


def parts(path):
    """The headers and sections of an image; another file is one part."""
    data = path.read_bytes()
    if data[:2] != b"MZ":
        return {"the file": data}
    image = Image(path)
    found = {"headers": data[: min(section.offset or len(data) for section in image.sections)]}
    end = len(found["headers"])
    for section in image.sections:
        found[section.name] = data[section.offset : section.offset + section.length]
        end = max(end, section.offset + section.length)
    found["what follows the sections"] = data[end:]
    return found


def differences(one, other):
    """A line for each part of the two files that is not the same in both."""
    ones, others = parts(Path(one)), parts(Path(other))
    lines = []
    if list(ones) != list(others):
        lines.append(f"the parts are {', '.join(ones)} and {', '.join(others)}")
    for name in (name for name in ones if name in others):
        a, b = ones[name], others[name]
        if a != b:
            at = first_difference(a, b)
            lines.append(f"{name}: {len(a)} and {len(b)} bytes, first differ at {at:#x}: "
                         f"{around(a, at)} and {around(b, at)}")
    return lines


def traces(path, folders):
    """The folders of the build whose names are in the file."""
    data = Path(path).read_bytes()
    return [str(folder) for folder in folders if str(folder).encode() in data]
