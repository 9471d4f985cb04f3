#!/usr/bin/env python3
"""Writes the papers of an installed package into its folder.

    describe-package.py --version VERSION --files LIST [--installed-as PREFIX] [--papers FOLDER]
                        [--record bin/FILE=RECORD]... [--header bin/FILE=HEADER]...
                        [--pdbutil PROGRAM] [--toolchain TEXT] PREFIX

nimbra.cdx.json          what is in it (CycloneDX): the files with their checksums, and the code of
                         others that is linked into them
THIRD-PARTY-NOTICES.txt  the licences of that code
SHA256SUMS               the checksums of all files, for `sha256sum --check`

In the documents, links to what only the sources have become plain text.

LIST has the paths of the installed files, one a line. RECORD is the linker's of the making of
bin/FILE: GNU ld's map, or lld's .pdb file, which PROGRAM (llvm-pdbutil) reads. HEADER is of a library
of headers only, compiled into bin/FILE, or of another package that was copied from. Without any
RECORD, only SHA256SUMS is written. TEXT names the compiler in the list. Nothing in these files depends on the time or on where the build was.
"""

import argparse
import hashlib
import json
import os
import pathlib
import re
import sys
import urllib.parse
import uuid

sys.dont_write_bytecode = True  # the checkout may be read-only

import linked_parts  # noqa: E402  (needs the line above)
import notices  # noqa: E402

LINK = re.compile(r"\[([^][]*)\]\(([^)#:\s]+)(?:#[^)]*)?\)")
SBOM = "nimbra.cdx.json"
NOTICES = "THIRD-PARTY-NOTICES.txt"
SUMS = "SHA256SUMS"


def sha256(path):
    return hashlib.sha256(path.read_bytes()).hexdigest()


def distribution():
    """The name that package URLs use, such as debian-12."""
    release = pathlib.Path("/etc/os-release").read_text(encoding="utf-8")
    fields = dict(re.findall(r'^([A-Z_]+)="?([^"\n]*)"?$', release, re.M))
    return f"{fields['ID']}-{fields['VERSION_ID']}"


def package_url(package):
    name, version = (urllib.parse.quote(text, safe="") for text in (package.name, package.version))
    return f"pkg:deb/debian/{name}@{version}?arch={package.architecture}&distro={distribution()}"


def file_component(prefix, name):
    return {
        "type": "file",
        "bom-ref": name,
        "name": name,
        "hashes": [{"alg": "SHA-256", "content": sha256(prefix / name)}],
    }


def part_component(part):
    package = part.package
    counts = sorted(part.objects.items())
    return {
        "type": "library",
        "bom-ref": part.name,
        "name": part.name,
        "version": package.upstream_version,
        "description": notices.DESCRIPTIONS[part.name],
        "licenses": [{"expression": notices.licence_of(part)}],
        "purl": package_url(package),
        "properties": [
            {"name": "debian:source", "value": package.source},
            *(
                {"name": f"objects linked into {file}", "value": str(count)}
                if count
                else {"name": "taken into", "value": file}
                for file, count in counts
            ),
        ],
    }


def sbom(prefix, version, toolchain, files, parts):
    own = f"pkg:generic/nimbra@{version}"
    document = {
        "$schema": "http://cyclonedx.org/schema/bom-1.5.schema.json",
        "bomFormat": "CycloneDX",
        "specVersion": "1.5",
        "version": 1,
        "metadata": {
            "component": {
                "type": "library",
                "bom-ref": own,
                "name": "nimbra",
                "version": version,
                "description": "Desktop file synchronisation on the Windows Cloud Files interface",
                "purl": own,
                "properties": [
                    {"name": "licence", "value": "none chosen yet"},
                    {"name": "toolchain", "value": toolchain},
                ],
            }
        },
        "components": [
            *(file_component(prefix, name) for name in files),
            *(part_component(part) for part in parts),
        ],
        "dependencies": [
            {"ref": own, "dependsOn": files + [p.name for p in parts if p.objects.keys() - files]},
            *(
                {"ref": name, "dependsOn": [part.name for part in parts if name in part.objects]}
                for name in files
            ),
        ],
    }
    content = json.dumps(document, sort_keys=True)
    document["serialNumber"] = uuid.uuid5(uuid.NAMESPACE_URL, content).urn
    return document


def write(path, text):
    path.write_text(text, encoding="utf-8", newline="\n")


def checksums(prefix, names):
    return "".join(f"{sha256(prefix / name)}  {name}\n" for name in sorted(names))


def installed_files(arguments):
    """Names relative to the prefix. The list may be of another place: DESTDIR is not in it."""
    prefix = arguments.installed_as or arguments.prefix
    lines = arguments.files.read_text(encoding="utf-8").splitlines()
    return {pathlib.Path(line).relative_to(prefix).as_posix() for line in lines if line}


def keep_links_inside(document, root):
    """root: the folder of the papers, laid out like the sources."""

    def replace(link):
        target = document.parent / link[2]
        if target.exists():
            return link[0]
        return f"{link[1]} (in the sources: {os.path.relpath(target, root)})"

    text = document.read_text(encoding="utf-8")
    write(document, LINK.sub(replace, text))


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--version", required=True)
    parser.add_argument("--files", type=pathlib.Path, required=True, metavar="LIST")
    parser.add_argument("--installed-as", type=pathlib.Path, metavar="PREFIX")
    parser.add_argument("--papers", type=pathlib.Path, default=pathlib.Path("."), metavar="FOLDER")
    parser.add_argument("--record", action="append", default=[], metavar="FILE=RECORD")
    parser.add_argument("--header", action="append", default=[], metavar="FILE=HEADER")
    parser.add_argument("--pdbutil", default="llvm-pdbutil", metavar="PROGRAM")
    parser.add_argument("--toolchain", default="", metavar="TEXT")
    parser.add_argument("prefix", type=pathlib.Path)
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    prefix, papers = arguments.prefix, arguments.papers
    records = dict(record.split("=", 1) for record in arguments.record)
    records = {name: pathlib.Path(record) for name, record in records.items()}
    texts = {}
    try:
        files = installed_files(arguments)
        if records:
            headers = [header.split("=", 1) for header in arguments.header]
            parts = linked_parts.parts_of(records, headers, arguments.pdbutil)
            toolchain = arguments.toolchain
            document = sbom(prefix, arguments.version, toolchain, sorted(records), parts)
            texts[papers / SBOM] = json.dumps(document, indent=2, ensure_ascii=False) + "\n"
            texts[papers / NOTICES] = notices.notices(parts, arguments.version)
        for name in files:
            if name.endswith(".md"):
                keep_links_inside(prefix / name, prefix / papers)
        for name, text in texts.items():
            write(prefix / name, text)
        files.update(name.as_posix() for name in texts)
        write(prefix / papers / SUMS, checksums(prefix, files))
    except (linked_parts.UnknownOrigin, notices.MissingText, OSError, ValueError) as error:
        sys.exit(f"describe-package: {error}")


if __name__ == "__main__":
    main()
