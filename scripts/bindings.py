#!/usr/bin/env python3
"""Writes the declarations of nimbra.h down in other languages, in examples/bindings.

    bindings.py           writes the files
    bindings.py --check   says which of them is not what would be written; exits with 1 then

nimbra.h is read by its own regularity: what is not understood is an error, not left out.
"""

import argparse
import dataclasses
import pathlib
import re
import sys

SOURCE = pathlib.Path(__file__).resolve().parent.parent
HEADER = SOURCE / "include" / "nimbra" / "nimbra.h"
BINDINGS = SOURCE / "examples" / "bindings"
WIDTH = 100


@dataclasses.dataclass
class Field:
    name: str
    type: str
    count: int = 0  # of an array


@dataclasses.dataclass
class Function:
    name: str
    result: str
    parameters: list


@dataclasses.dataclass
class Header:
    handles: dict  # the handle's type and the tag of the structure that it points to
    structs: dict
    constants: dict
    callbacks: dict  # Functions that the client provides
    functions: list


def without_comments(text):
    return re.sub(r"/\*.*?\*/|//[^\n]*", "", text, flags=re.S)


def read_parameter(text):
    """A declaration of a parameter or a field, as written in the header."""
    match = re.fullmatch(r"(.*?[\s*])(\w+)(?:\[(\d+)\])?", text.strip(), re.S)
    if not match:
        raise SystemExit(f"nimbra.h: what is '{text.strip()}'?")
    kind = re.sub(r"\s*\*", "*", " ".join(match[1].split()))
    return Field(match[2], kind, int(match[3] or 0))


def read_parameters(text):
    return [] if text.strip() == "void" else [read_parameter(one) for one in text.split(",")]


def read_function(name, result, parameters):
    result = re.sub(r"\s*\*", "*", " ".join(result.split()))
    return Function(name, result, read_parameters(parameters))


def read_header(path=HEADER):
    text = without_comments(path.read_text(encoding="utf-8"))
    text = "\n".join(line for line in text.splitlines() if not line.startswith("#"))
    handles = {
        name: tag
        for tag, name in re.findall(r"typedef struct (\w+)\s*\*\s*(CORVWinCF\w+Handle);", text)
    }
    structs = {
        name: [read_parameter(field) for field in body.split(";") if field.strip()]
        for body, name in re.findall(r"typedef struct \w+ \{(.*?)\} (\w+);", text, re.S)
    }
    constants = {
        name: int(value)
        for body in re.findall(r"enum \{(.*?)\};", text, re.S)
        for name, value in re.findall(r"(\w+) = (\d+)", body)
    }
    callbacks = {
        name: read_function(name, result, parameters)
        for result, name, parameters in re.findall(
            r"typedef (\w+) \(\*(\w+)\)\(([^;]*)\);", text, re.S
        )
    }
    functions = [
        read_function(name, result, parameters)
        for result, name, parameters in re.findall(
            r"^(\w[\w ]*?)\s+(CORVWinCF\w+)\(([^;{]*)\);", text, re.S | re.M
        )
    ]
    return Header(handles, structs, constants, callbacks, functions)


def shorter(name):
    return name.removeprefix("CORVWinCF")


def wrap(start, parts, end, indent):
    """One line if it fits, else one part a line."""
    line = start + ", ".join(parts) + end
    if len(line) <= WIDTH:
        return line
    margin = "\n" + " " * indent
    return start + "".join(f"{margin}    {part}," for part in parts) + margin + end


class Language:
    """How types are spelled; what is not in `types` is a name of the header's."""

    types = {}

    def __init__(self, header):
        self.header = header

    def type_of(self, kind):
        if kind in self.types:
            return self.types[kind]
        known = {*self.header.handles, *self.header.structs, *self.header.callbacks}
        if kind.removeprefix("const ").rstrip("*") in known:
            return self.named(kind)
        raise SystemExit(f"{type(self).__name__}: no type for '{kind}'")


class Python(Language):
    path = BINDINGS / "python" / "nimbra.py"
    types = {
        "void": "None",
        "bool": "ctypes.c_bool",
        "int32_t": "ctypes.c_int32",
        "uint32_t": "ctypes.c_uint32",
        "int64_t": "ctypes.c_int64",
        "uint64_t": "ctypes.c_uint64",
        "CORVWinCFStatus": "ctypes.c_int32",
        "CORVWinCFHresult": "ctypes.c_int32",
        "const char*": "ctypes.c_char_p",
        "const wchar_t*": "ctypes.c_wchar_p",
        "wchar_t*": "ctypes.POINTER(ctypes.c_wchar)",
        "char**": "ctypes.POINTER(ctypes.c_void_p)",
        "void*": "ctypes.c_void_p",
        "const void*": "ctypes.c_void_p",
        "const struct _WIN32_FIND_DATAW*": "ctypes.c_void_p",
    }

    def named(self, kind):
        name = shorter(kind.removeprefix("const ").rstrip("*"))
        return f"ctypes.POINTER({name})" if kind.endswith("*") else name

    def struct(self, name, fields):
        lines = [f"class {shorter(name)}(ctypes.Structure):", "    _fields_ = ["]
        for field in fields:
            kind = self.type_of(field.type) + (f" * {field.count}" if field.count else "")
            lines.append(f'        ("{field.name}", {kind}),')
        return "\n".join([*lines, "    ]"])

    def callback(self, function):
        kinds = [self.type_of(one) for one in self.signature(function)]
        return wrap(f"{shorter(function.name)} = ctypes.CFUNCTYPE(", kinds, ")", 0)

    def signature(self, function):
        return [function.result, *(parameter.type for parameter in function.parameters)]

    def function(self, function):
        kinds = [self.type_of(one) for one in self.signature(function)]
        end = ",)," if len(kinds) == 1 else "),"
        return wrap(f'    "{function.name}": (', kinds, end, 4)

    def render(self):
        header = self.header
        parts = [PYTHON_START]
        for handle in header.handles:
            parts.append(f"class {shorter(handle)}(ctypes.c_void_p):\n    pass")
        parts += [self.struct(*item) for item in header.structs.items()]
        body = "\n\n\n".join(parts)
        values = "\n".join(f"{shorter(name)} = {value}" for name, value in header.constants.items())
        callbacks = "\n".join(map(self.callback, header.callbacks.values()))
        functions = "\n".join(map(self.function, header.functions))
        return (
            f"{body}\n\n\n{values}\n\n{callbacks}\n\n"
            f"# The result's type and those of the parameters.\nFUNCTIONS = {{\n{functions}\n}}\n"
            f"{PYTHON_END}"
        )


PYTHON_START = '''"""The functions of Nimbra.dll through ctypes. nimbra.h says what they do.

Written by scripts/bindings.py: do not change it by hand.

Texts are bytes in UTF-8: "text".encode(). A callback must be kept in a variable for as long as the
library may call it, and an exception that leaves it is printed and goes no further, so that a fetch
has no answer: catch it. CORVWinCFPlaceholderMetaNew and CORVWinCFStartShellServices can end the
process where nimbra.h speaks of a C++ exception.
"""

import ctypes'''

PYTHON_END = '''

def load(path="Nimbra.dll"):
    """The library with all its functions declared; path is a file, or a name to search for."""
    library = ctypes.CDLL(path)
    for name, (result, *parameters) in FUNCTIONS.items():
        function = getattr(library, name)
        function.restype = result
        function.argtypes = parameters
    return library
'''


class Rust(Language):
    path = BINDINGS / "rust" / "nimbra.rs"
    types = {
        "bool": "bool",
        "int32_t": "i32",
        "uint32_t": "u32",
        "int64_t": "i64",
        "uint64_t": "u64",
        "CORVWinCFStatus": "i32",
        "CORVWinCFHresult": "i32",
        "const char*": "*const c_char",
        "const wchar_t*": "*const u16",
        "wchar_t*": "*mut u16",
        "char**": "*mut *mut c_char",
        "void*": "*mut c_void",
        "const void*": "*const c_void",
        "const struct _WIN32_FIND_DATAW*": "*const c_void",
    }

    def named(self, kind):
        name = kind.removeprefix("const ").rstrip("*")
        if not kind.endswith("*"):
            return name
        return f"*const {name}" if kind.startswith("const ") else f"*mut {name}"

    def result(self, function):
        return "" if function.result == "void" else f" -> {self.type_of(function.result)}"

    def parameters(self, function):
        names = (re.sub(r"(?<!^)(?=[A-Z])", "_", one.name).lower() for one in function.parameters)
        kinds = (self.type_of(one.type) for one in function.parameters)
        words = (f"r#{name}" if name == "type" else name for name in names)
        return [f"{word}: {kind}" for word, kind in zip(words, kinds)]

    def struct(self, name, fields):
        lines = ["#[repr(C)]", "#[derive(Clone, Copy)]", f"pub struct {name} {{"]
        for field in fields:
            kind = self.type_of(field.type)
            kind = f"[{kind}; {field.count}]" if field.count else kind
            lines.append(f"    pub {field.name}: {kind},")
        return "\n".join([*lines, "}"])

    def handle(self, name, tag):
        return (
            f"#[repr(C)]\npub struct {tag} {{\n    _opaque: [u8; 0],\n}}\n"
            f"pub type {name} = *mut {tag};"
        )

    def callback(self, function):
        start = f"pub type {function.name} =\n    Option<unsafe extern \"C\" fn("
        return start + ", ".join(self.parameters(function)) + f"){self.result(function)}>;"

    def function(self, function):
        end = f"){self.result(function)};"
        return wrap(f"    pub fn {function.name}(", self.parameters(function), end, 4)

    def render(self):
        header = self.header
        parts = [RUST_START]
        parts += [self.handle(*item) for item in header.handles.items()]
        parts += [self.struct(*item) for item in header.structs.items()]
        parts.append(
            "\n".join(f"pub const {name}: u32 = {value};" for name, value in header.constants.items())
        )
        parts += map(self.callback, header.callbacks.values())
        functions = "\n".join(map(self.function, header.functions))
        parts.append(f'#[link(name = "Nimbra")]\nextern "C" {{\n{functions}\n}}')
        return "\n\n".join(parts) + "\n"


RUST_START = """//! The functions of Nimbra.dll. nimbra.h says what they do.
//!
//! Written by scripts/bindings.py: do not change it by hand.
//!
//! No panic may leave a callback. `CORVWinCFPlaceholderMetaNew` and `CORVWinCFStartShellServices`
//! abort the process where nimbra.h speaks of a C++ exception.

#![allow(dead_code, non_camel_case_types, non_snake_case, non_upper_case_globals)]

use std::os::raw::{c_char, c_void};"""


class CSharp(Language):
    path = BINDINGS / "csharp" / "Nimbra.cs"
    types = {
        "void": "void",
        "bool": "bool",
        "int32_t": "int",
        "uint32_t": "uint",
        "int64_t": "long",
        "uint64_t": "ulong",
        "CORVWinCFStatus": "int",
        "CORVWinCFHresult": "int",
        "const char*": "[MarshalAs(UnmanagedType.LPUTF8Str)] string",
        "const wchar_t*": "[MarshalAs(UnmanagedType.LPWStr)] string",
        "wchar_t*": "IntPtr",
        "char**": "out IntPtr",
        "void*": "IntPtr",
        "const void*": "IntPtr",
        "const struct _WIN32_FIND_DATAW*": "IntPtr",
    }
    # Lent for a call only, or arrays: no texts of the runtime's.
    field_types = {"const char*": "IntPtr"}

    def named(self, kind):
        name = kind.removeprefix("const ").rstrip("*")
        name = "IntPtr" if name in self.header.handles else shorter(name)
        if not kind.endswith("*"):
            return name
        return "IntPtr" if kind.startswith("const ") else f"out {name}"

    def parameters(self, function):
        kinds = [self.type_of(one.type) for one in function.parameters]
        if function.name.endswith("Release"):
            kinds = [kind.replace("out ", "ref ") for kind in kinds]
        names = (f"@{one.name}" if one.name == "out" else one.name for one in function.parameters)
        return [f"{kind} {name}" for kind, name in zip(kinds, names)]

    def struct(self, name, fields):
        lines = ["    [StructLayout(LayoutKind.Sequential)]", f"    public struct {shorter(name)}", "    {"]
        for field in fields:
            if field.count:
                lines.append(
                    f"        [MarshalAs(UnmanagedType.ByValArray, SizeConst = {field.count})]"
                )
            kind = self.field_types.get(field.type) or self.type_of(field.type)
            array = "[]" if field.count else ""
            lines.append(f"        public {kind}{array} {field.name};")
        return "\n".join([*lines, "    }"])

    def boolean(self, function, indent):
        is_needed = function.result == "bool"
        return f"{indent}[return: MarshalAs(UnmanagedType.I1)]\n" if is_needed else ""

    def declaration(self, function, keywords, name, indent):
        start = f"{indent}{keywords} {self.type_of(function.result)} {name}("
        line = start + ", ".join(self.parameters(function)) + ");"
        if len(line) <= WIDTH:
            return line
        margin = f"\n{indent}    "
        return start + margin + f",{margin}".join(self.parameters(function)) + ");"

    def callback(self, function):
        return (
            "    [UnmanagedFunctionPointer(CallingConvention.Cdecl)]\n"
            + self.boolean(function, "    ")
            + self.declaration(function, "public delegate", shorter(function.name), "    ")
        )

    def function(self, function):
        return (
            "        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]\n"
            + self.boolean(function, "        ")
            + self.declaration(function, "public static extern", function.name, "        ")
        )

    def render(self):
        header = self.header
        types = [self.struct(*item) for item in header.structs.items()]
        types += map(self.callback, header.callbacks.values())
        values = "\n".join(
            f"        public const uint {shorter(name)} = {value};"
            for name, value in header.constants.items()
        )
        functions = "\n\n".join(map(self.function, header.functions))
        return (
            CSHARP_START
            + "\n\n".join(types)
            + '\n\n    public static class Native\n    {\n        private const string Library = "Nimbra";\n\n'
            + f"{values}\n\n{functions}\n    }}\n}}\n"
        )


CSHARP_START = """// The functions of Nimbra.dll. nimbra.h says what they do.
//
// Written by scripts/bindings.py: do not change it by hand.
//
// Handles are IntPtr, and so is the record of a callback: Marshal.PtrToStructure<CallbackRecord> reads
// it. A delegate must be kept in a field for as long as the library may call it, and no
// exception may leave it. CORVWinCFPlaceholderMetaNew and CORVWinCFStartShellServices can end the
// process where nimbra.h speaks of a C++ exception.

using System;
using System.Runtime.InteropServices;

namespace NimbraBinding
{
"""


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--check", action="store_true", help="change nothing")
    arguments = parser.parse_args()
    header = read_header()
    stale = 0
    for language in (Python, Rust, CSharp):
        text = language(header).render()
        path = language.path
        if path.exists() and path.read_text(encoding="utf-8") == text:
            continue
        if arguments.check:
            stale += 1
            print(f"{path.relative_to(SOURCE)} does not fit nimbra.h: run scripts/bindings.py")
        else:
            path.write_text(text, encoding="utf-8")
    return 1 if stale else 0


if __name__ == "__main__":
    sys.exit(main())
