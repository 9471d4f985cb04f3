"""The licences of what is linked in: SPDX expressions for the SBOM, and the texts themselves, taken
from the Debian packages that the code came with."""

import re

GCC_LICENCE = "GPL-3.0-or-later WITH GCC-exception-3.1"
SPDX_IDS = {
    "BSD-2-clause-NetBSD": "BSD-2-Clause",
    "BSD-3-clause": "BSD-3-Clause",
    "BSD-3-clause-Lockless": "BSD-3-Clause",
    "Expat": "MIT",
    "ISC": "ISC",
    "MIT": "MIT",
    "ZPL-2.1": "ZPL-2.1",
    "expat": "MIT",
}
LLVM_LICENCE = "Apache-2.0 WITH LLVM-exception"
SPECIAL = {"clang-headers": LLVM_LICENCE, "libgcc": GCC_LICENCE, "libstdc++": GCC_LICENCE}
DESCRIPTIONS = {
    "CLI11": "a parser of command lines",
    "clang-headers": "the headers that clang brings for C's own types and the processor's functions",
    "libgcc": "what compiled code needs of its compiler: exceptions, stack checks",
    "libstdc++": "the C++ standard library of the GNU Compiler Collection",
    "mingw-w64-crt": "the start-up code and C functions that MinGW adds to those of Windows",
    "mkdocs-material": "the look and the search of the documentation site, whose scripts name the\n"
    "authors of what else is in them",
    "nlohmann-json": "JSON for C++",
    "winpthreads": "threads, mutexes and condition variables on those of Windows",
}
# The files in a copyright file whose code can be in a part. Code for profilers has a licence of its
# own, but is only linked in for them.
LINKED_FILES = {
    "CLI11": r"\*$",
    "mingw-w64-crt": r"\*$|mingw-w64-crt/(?!profile/|testcases/)",
    "mkdocs-material": r"\*$",  # no pictures of its collections but its own
    "nlohmann-json": r"\*$|include/",
    "winpthreads": r"mingw-w64-libraries/winpthreads/(\*|src/|include/)",
}
HEAD = """\
THIRD-PARTY NOTICES

What is in the files of Nimbra {version} for Windows besides its own code. Most of it is part of
the compiler's runtime; each DLL or program that this compiler builds has such parts. What is linked
in is listed from the linker's own record; libraries of headers only, and what the documentation site
is made with, are listed by hand. The texts are those of the Debian packages that were used. Of a
library of which a part is taken, the licences of the whole are given.

Nimbra itself has no licence yet: see LICENCE-STATUS.txt.

"""


class MissingText(Exception):
    """A copyright file does not have what is quoted from it."""


def between(text, first, last, origin):
    """The lines from the one that starts with `first` through the one that starts with `last`."""
    match = re.search(rf"^{re.escape(first)}.*?^{re.escape(last)}[^\n]*$", text, re.M | re.S)
    if not match:
        raise MissingText(f"{origin} has no text from '{first}' to '{last}'")
    return match.group(0)


def gcc_text(part):
    origin = part.package.copyright_file
    text = origin.read_text(encoding="utf-8")
    pieces = [
        between(text, "GCC is Copyright", " - libvtv", origin),
        "The complete text of the GNU General Public License, version 3, is at\n"
        "https://www.gnu.org/licenses/gpl-3.0.txt. The exception permits to pass on what GCC\n"
        "compiled and linked with these libraries under terms of one's own:",
        between(
            text, "GCC RUNTIME LIBRARY EXCEPTION", "requirements of the license of GCC", origin
        ),
    ]
    if part.name == "libstdc++":
        header = part.folder / "include" / "c++" / "bits" / "stl_vector.h"
        notice = between(header.read_text(encoding="utf-8"), " * Copyright (c) 1994", " */", header)
        lines = [line.removeprefix(" *").removeprefix(" ") for line in notice.splitlines()[:-1]]
        pieces += ["Its containers and algorithms also have this notice:", "\n".join(lines)]
    return "\n\n".join(piece.strip("\n") for piece in pieces)


def llvm_text(part):
    origin = part.package.copyright_file
    exceptions = between(
        origin.read_text(encoding="utf-8"),
        " ---- LLVM Exceptions to the Apache 2.0 License ----",
        " Software.",
        origin,
    )
    lines = [line.removeprefix(" ").removeprefix(".") for line in exceptions.splitlines()]
    return (
        "The Apache License, Version 2.0, is at https://www.apache.org/licenses/LICENSE-2.0.txt.\n\n"
        + "\n".join(lines)
    )


def stanzas(path):
    """The paragraphs of a copyright file in Debian's machine-readable form, as dictionaries."""
    for paragraph in re.split(r"\n\s*\n", path.read_text(encoding="utf-8")):
        fields = re.split(r"^([A-Z][A-Za-z-]*):", paragraph, flags=re.M)[1:]
        yield dict(zip(fields[::2], (value.strip("\n") for value in fields[1::2])))


def debian_licences(part):
    """Gives {licence: [copyright, ...]} and {licence: text} of what can be in the part."""
    holders, texts = {}, {}
    for stanza in stanzas(part.package.copyright_file):
        name, _, text = stanza.get("License", "").strip(" ").partition("\n")
        if text:
            texts[name] = "\n".join(
                "" if line.strip() == "." else line.removeprefix(" ") for line in text.splitlines()
            )
        files = stanza.get("Files", "").split()
        if any(re.match(LINKED_FILES[part.name], file) for file in files):
            for single in name.split(" and "):
                own = (line.strip() for line in stanza["Copyright"].splitlines())
                holders.setdefault(single, []).extend(line for line in own if line)
    missing = [name for name in holders if name not in texts]
    if missing or not holders:
        raise MissingText(
            f"{part.package.copyright_file}: no text of {', '.join(missing) or 'any'}"
        )
    return holders, texts


def debian_text(part):
    holders, texts = debian_licences(part)
    pieces = []
    for name in holders:
        own = [f"Copyright: {line}" for line in sorted(set(holders[name]))]
        pieces.append("\n".join([f"Licence {name}", *own, "", texts[name].strip("\n")]))
    return "\n\n".join(pieces)


def licence_of(part):
    """An SPDX expression."""
    if part.name in SPECIAL:
        return SPECIAL[part.name]
    names = {SPDX_IDS.get(name, f"LicenseRef-{name}") for name in debian_licences(part)[0]}
    return " AND ".join(sorted(names))


def text_of(part):
    texts = {GCC_LICENCE: gcc_text, LLVM_LICENCE: llvm_text}
    return texts.get(SPECIAL.get(part.name), debian_text)(part)


def notices(parts, version):
    sections = [HEAD.format(version=version)]
    for part in parts:
        package = part.package
        sections.append(
            f"{'=' * 100}\n{part.name} {package.upstream_version}: {DESCRIPTIONS[part.name]}\n"
            f"Debian package {package.name} {package.version}\n"
            f"In {', '.join(sorted(part.objects))}\n"
            f"{'=' * 100}\n\n{text_of(part)}\n\n"
        )
    return "".join(sections).rstrip("\n") + "\n"
