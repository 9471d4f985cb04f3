"""The binary interface as the compilers see it: from the public header and from the DLL.

An interface is a dict: what an entry is about ("field CORVWinCFCallbackRecord.fileId") and its
particulars ("int64_t at 24, 8 bytes").
"""

import json
import re
import subprocess
import sys
from dataclasses import dataclass
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "scripts"))
from pe_image import Image  # noqa: E402

CLANG = "clang++-19"
FREESTANDING = ["-x", "c++", "-std=c++20", "-ffreestanding"]  # needs no headers of the target
COMPILERS = {
    "GCC for MinGW": ["x86_64-w64-mingw32-g++-posix", "-x", "c++", "-std=c++20"],
    "clang for MinGW": [CLANG, "--target=x86_64-w64-mingw32", *FREESTANDING],
    "clang for MSVC": [CLANG, "--target=x86_64-pc-windows-msvc", *FREESTANDING],
}


class InterfaceError(Exception):
    pass


@dataclass
class Declarations:
    """What the header declares, with types as they are written there."""

    functions: dict  # name: "CORVWinCFStatus (const char *)"
    constants: list  # names
    types: dict  # name: "int32_t"
    records: dict  # name: [(field, type)]


def run(command, source):
    try:
        done = subprocess.run(command, input=source, capture_output=True, text=True, check=False)
    except FileNotFoundError as error:
        raise InterfaceError(f"{command[0]} is not installed (scripts/setup.sh does it)") from error
    if done.returncode:
        raise InterfaceError(f"{command[0]} does not compile the header:\n{done.stderr}")
    return done.stdout


def include(header):
    return f'#include "{Path(header).resolve()}"\n#include <stddef.h>\n'


def declarations(header):
    command = [*COMPILERS["clang for MSVC"], "-fsyntax-only", "-Xclang", "-ast-dump=json", "-"]
    found = Declarations({}, [], {}, {})
    collect(json.loads(run(command, include(header))), str(Path(header).resolve()), found)
    return found


def collect(tree, header, found):
    """Walks the top of the tree. A file is named only where it differs from the node's before."""
    file = None
    for node in flatten(tree):
        file = file_of(node, file)
        name = node.get("name")
        if file != header or node.get("isImplicit"):
            continue
        if node["kind"] == "FunctionDecl":
            found.functions[name] = node["type"]["qualType"]
        elif node["kind"] == "TypedefDecl":
            found.types[name] = node["type"]["qualType"]
        elif node["kind"] == "EnumDecl":
            found.constants += [c["name"] for c in children(node, "EnumConstantDecl")]
        elif node["kind"] == "CXXRecordDecl" and node.get("completeDefinition"):
            fields = children(node, "FieldDecl")
            found.records[name] = [(f["name"], f["type"]["qualType"]) for f in fields]


def flatten(node):
    for child in node.get("inner", []):
        yield child
        if child["kind"] == "LinkageSpecDecl":
            yield from flatten(child)


def children(node, kind):
    return [child for child in node.get("inner", []) if child["kind"] == kind]


def file_of(node, current):
    for place in (node.get("loc", {}), node.get("range", {}).get("end", {})):
        place = place.get("expansionLoc", place)
        current = place.get("file", current)
    return current


def measure(header, found, compiler):
    """Lets the compiler work out numbers, and reads them from its assembly."""
    expressions = {f"constant {name}": name for name in found.constants}
    for name in found.types:
        expressions[f"sizeof {name}"] = f"sizeof({name})"
    for record, fields in found.records.items():
        expressions[f"sizeof {record}"] = f"sizeof({record})"
        expressions[f"alignof {record}"] = f"alignof({record})"
        for field, _ in fields:
            expressions[f"offsetof {record}.{field}"] = f"offsetof({record}, {field})"
            expressions[f"sizeof {record}.{field}"] = f"sizeof((({record}*)0)->{field})"
    source = include(header)
    for i, expression in enumerate(expressions.values()):
        # Never zero, as assemblers have their own ways to say that.
        source += f'extern "C" const unsigned long long fact{i} = (1ull << 40) + ({expression});\n'
        source += f'extern "C" const void* const use{i} = &fact{i};\n'
    assembly = run([*COMPILERS[compiler], "-S", "-o", "-", "-"], source)
    values = dict(re.findall(r"^fact(\d+):\s*(?:#.*)?\n\s*\.quad\s+(\d+)", assembly, re.MULTILINE))
    if len(values) != len(expressions):
        raise InterfaceError(f"{compiler}: the assembly has {len(values)} of {len(expressions)} numbers")
    return {what: int(values[str(i)]) - (1 << 40) for i, what in enumerate(expressions)}


def of_header(header, compiler):
    found = declarations(header)
    numbers = measure(header, found, compiler)
    interface = {f"function {name}": kind for name, kind in found.functions.items()}
    for name in found.constants:
        interface[f"constant {name}"] = f"{numbers[f'constant {name}']}"
    for name, kind in found.types.items():
        interface[f"type {name}"] = f"{kind}, {numbers[f'sizeof {name}']} bytes"
    for record, fields in found.records.items():
        size, alignment = numbers[f"sizeof {record}"], numbers[f"alignof {record}"]
        interface[f"record {record}"] = f"{size} bytes, aligned to {alignment}"
        for field, kind in fields:
            offset, size = numbers[f"offsetof {record}.{field}"], numbers[f"sizeof {record}.{field}"]
            interface[f"field {record}.{field}"] = f"{kind} at {offset}, {size} bytes"
    return interface


def of_library(library):
    image = Image(library)
    names = sorted(image.exports())
    if image.count_of_functions() != len(names):
        raise InterfaceError(f"{library} has exports without a name")
    return {f"export {name}": "by name" for name in names}
