"""What of other projects is in a Windows file: read from the linker's record of its making (GNU
ld's map), and from the Debian packages that the archives named there come from. Libraries that are
headers only leave no trace there and have to be named."""

import collections
import dataclasses
import os
import pathlib
import re
import subprocess

INCLUDED = re.compile(r"^(?P<archive>\S.*?\.a)\((?P<member>[^()]+)\)$", re.M)
LOADED = re.compile(r"^LOAD (?P<object>/.*\.o)$", re.M)
# Members that only lead to a DLL of Windows: the import libraries were made so.
IMPORT_STUB = re.compile(r"^lib(?!.*_l?a-).*?(?:s?\d{5}|[ht])\.o$")

PARTS_BY_PACKAGE = {
    "libcli11-dev": "CLI11",
    "mingw-w64-x86-64-dev": "mingw-w64-crt",
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
    # Shipped file: number of objects of the library in it, 0 where it is headers only.
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


def query(*arguments):
    command = ["dpkg-query", *arguments]
    result = subprocess.run(command, capture_output=True, text=True)
    if result.returncode != 0:
        raise UnknownOrigin(f"{' '.join(command)}: {result.stderr.strip()}")
    return result.stdout


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


def linked_objects(record):
    """Gives the number of objects by the file that they came from, import stubs left out."""
    text = record.read_text(encoding="utf-8", errors="replace")
    counts = collections.Counter()
    for match in INCLUDED.finditer(text):
        # What this build made itself is named by a relative path.
        if match["archive"].startswith("/") and not IMPORT_STUB.match(match["member"]):
            counts[os.path.realpath(match["archive"])] += 1
    for match in LOADED.finditer(text):
        counts[os.path.realpath(match["object"])] += 1
    if not counts:
        raise UnknownOrigin(f"{record} names no library: is it a map of GNU ld?")
    return counts


def parts_of(records, headers):
    """Gives the parts, sorted by name.

    records: {shipped file: its map}; headers: [(shipped file, a header compiled into it), ...]
    """
    counts = {shipped: linked_objects(record) for shipped, record in records.items()}
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
