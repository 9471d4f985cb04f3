"""What of other projects is in a Windows file: read from the linker's record of its making, and from
the Debian packages that the archives named there come from. Libraries that are headers only leave no
trace there and have to be named.

The record is GNU ld's map, or the .pdb file that lld wrote: its list of modules names for each object
the archive that it came from, which lld's map does not."""

import collections
import dataclasses
import os
import pathlib
import re
import subprocess

INCLUDED = re.compile(r"^(?P<archive>\S.*?\.a)\((?P<member>[^()]+)\)$", re.M)
LOADED = re.compile(r"^LOAD (?P<object>/.*\.o)$", re.M)
MODULE = re.compile(r"^ *Mod \d+ \| `(?P<member>.*)`: *\n *Obj: `(?P<file>.*)`: *$", re.M)
# Members that only lead to a DLL of Windows: the import libraries were made so.
IMPORT_STUB = re.compile(r"^lib(?!.*_l?a-).*?(?:s?\d{5}|[ht])\.o$")

PARTS_BY_PACKAGE = {
    "libcli11-dev": "CLI11",
    "libclang-common-19-dev": "clang-headers",
    "mingw-w64-x86-64-dev": "mingw-w64-crt",
    "mkdocs-material": "mkdocs-material",
    "nlohmann-json3-dev": "nlohmann-json",
}


class UnknownOrigin(Exception):
    """Something is linked in of which nobody wrote down what it is."""


@dataclasses.dataclass(frozen=True)
class Package:
    """An installed Debian package."""

    name: str
    version: str
    architecture: str
    source: str

    @property
    def upstream_version(self):
        return re.sub(r"^\d+:|[-+].*$", "", self.version)

    @property
    def copyright_file(self):
        return pathlib.Path("/usr/share/doc", self.name, "copyright")


@dataclasses.dataclass
class Part:
    """A library that is linked in, whole or in part."""

    name: str
    package: Package
    folder: pathlib.Path  # of its archives or headers
    # Shipped file: number of objects of the library in it, 0 for headers and what is copied.
    objects: dict = dataclasses.field(default_factory=dict)


def name_of_part(file_name, package):
    if file_name in ("libstdc++.a", "libsupc++.a"):
        return "libstdc++"
    if file_name in ("libgcc.a", "libgcc_eh.a", "crtbegin.o", "crtend.o", "crtfastmath.o"):
        return "libgcc"
    if file_name in ("libpthread.a", "libwinpthread.a"):
        return "winpthreads"
    if package.name in PARTS_BY_PACKAGE:
        return PARTS_BY_PACKAGE[package.name]
    raise UnknownOrigin(
        f"{file_name} of the package {package.name} is linked in, and packaging/linked_parts.py "
        "does not know under what licence: add it there and in notices.py"
    )


def run(*command):
    command = [str(word) for word in command]
    result = subprocess.run(command, capture_output=True, text=True)
    if result.returncode != 0:
        raise UnknownOrigin(f"{' '.join(command)}: {result.stderr.strip()}")
    return result.stdout


def query(*arguments):
    return run("dpkg-query", *arguments)


def packages_of(paths):
    """Gives the installed package that each file came with."""
    owners, known = {}, {}
    for line in query("-S", *paths).splitlines():
        names, _, path = line.partition(": ")
        owners[path] = names.split(",")[0].split(":")[0]
    for name in set(owners.values()):
        fields = "${Package}|${Version}|${Architecture}|${source:Package}"
        known[name] = Package(*query("-W", f"-f={fields}", name).split("|"))
    return {path: known[name] for path, name in owners.items()}


def members_in_map(record):
    """The archive and the member of each object that GNU ld took; the member is '' without one."""
    text = record.read_text(encoding="utf-8", errors="replace")
    for match in INCLUDED.finditer(text):
        yield match["archive"], match["member"]
    for match in LOADED.finditer(text):
        yield match["object"], ""


def members_in_symbols(record, pdbutil):
    """The same of lld's .pdb file."""
    listing = run(pdbutil, "dump", "-modules", record)
    for match in MODULE.finditer(listing):
        yield match["file"], "" if match["file"] == match["member"] else match["member"]


def linked_objects(record, pdbutil):
    """Gives the number of objects by the file that they came from, import stubs left out."""
    symbols = record.suffix == ".pdb"
    members = members_in_symbols(record, pdbutil) if symbols else members_in_map(record)
    counts = collections.Counter(
        os.path.realpath(file)
        for file, member in members
        # What this build made itself is named by a relative path.
        if file.startswith("/") and not IMPORT_STUB.match(member)
    )
    if not counts:
        raise UnknownOrigin(f"{record} names no library: is it a record of the linker?")
    return counts


def parts_of(records, headers, pdbutil):
    """Gives the parts, sorted by name.

    records: {shipped file: the linker's record}; headers: [(shipped file, a header or another file
    taken into it), ...]; pdbutil: the program that reads .pdb files
    """
    counts = {shipped: linked_objects(record, pdbutil) for shipped, record in records.items()}
    for shipped, header in headers:
        counts.setdefault(shipped, {})[os.path.realpath(header)] = 0
    packages = packages_of(sorted(set().union(*counts.values())))
    parts = {}
    for shipped, objects in sorted(counts.items()):
        for path, count in sorted(objects.items()):
            name = name_of_part(os.path.basename(path), packages[path])
            part = Part(name, packages[path], pathlib.Path(path).parent)
            part = parts.setdefault(name, part)
            part.objects[shipped] = part.objects.get(shipped, 0) + count
    return [parts[name] for name in sorted(parts)]
