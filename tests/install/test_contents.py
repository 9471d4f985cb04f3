"""What is in the package."""

import hashlib
import re
import unittest
import zipfile

import package
from package import text_of

EXPECTED = {
    "LICENCE-STATUS.txt",
    "README.md",
    "SHA256SUMS",
    "THIRD-PARTY-NOTICES.txt",
    "bin/Nimbra.dll",
    "bin/mirror.exe",
    "bin/nimbractl.exe",
    "docs/client-guide.md",
    "docs/nimbractl.md",
    "docs/packaging.md",
    "docs/start-windows.md",
    "examples/CMakeLists.txt",
    "examples/bindings/README.md",
    "examples/bindings/csharp/Example.cs",
    "examples/bindings/csharp/Nimbra.cs",
    "examples/bindings/python/example.py",
    "examples/bindings/python/nimbra.py",
    "examples/bindings/rust/example.rs",
    "examples/bindings/rust/nimbra.rs",
    "examples/minimal/minimal.c",
    "examples/mirror/mirror.cpp",
    "examples/readme-example.c",
    "include/nimbra/nimbra.h",
    "lib/Nimbra.lib",
    "lib/cmake/Nimbra/NimbraConfig.cmake",
    "lib/cmake/Nimbra/NimbraConfigVersion.cmake",
    "lib/libNimbra.dll.a",
    "lib/pkgconfig/nimbra.pc",
    "nimbra.cdx.json",
    "nuget/Nimbra.nuspec",
    "nuget/README.md",
    "nuget/build/native/Nimbra.targets",
    "share/doc/nimbra/html/index.html",
    "share/nimbra/host-manifest.rc",
    "share/nimbra/host.manifest",
}
# By whether clang made the package.
SYMBOLS = {False: "bin/Nimbra.dll.debug", True: "bin/Nimbra.pdb"}


def sha256(data):
    return hashlib.sha256(data).hexdigest()


def cell(row):
    """The first one of a row of a table in Markdown."""
    return row.strip("|").split("|")[0]


class Files(unittest.TestCase):
    def test_all_is_there(self):
        self.assertEqual(EXPECTED - set(package.files_of(package.installed())), set())

    def test_it_has_what_its_document_names(self):
        text = text_of("docs/packaging.md")
        table = text.partition("## What is in it")[2].partition("\n\n|")[2].partition("\n\n")[0]
        named = {name for row in table.splitlines() for name in re.findall(r"`([^`]+)`", cell(row))}
        by_hand = re.findall(r"<package>\\([\w\\.*]+)", text)
        self.assertGreater(len(named), 15)
        self.assertEqual(len(by_hand), 4)
        others = {SYMBOLS[not package.is_from_clang()]}
        for name in named - others | {name.replace("\\", "/") for name in by_hand}:
            self.assertTrue(list(package.installed().glob(name)), name)

    def test_the_symbols_are_those_of_the_compiler(self):
        found = set(package.files_of(package.installed())) & set(SYMBOLS.values())
        self.assertEqual(found, {SYMBOLS[package.is_from_clang()]})

    def test_all_public_headers_are_there(self):
        own = sorted((package.SOURCE / "include").rglob("*.*"))
        names = {f"include/{path.relative_to(package.SOURCE / 'include')}" for path in own}
        found = {name for name in package.files_of(package.installed()) if "include/" in name}
        self.assertEqual(found, names)

    def test_the_checksums_are_of_all_other_files(self):
        lines = (line.split("  ", 1) for line in text_of("SHA256SUMS").splitlines())
        said = {name: checksum for checksum, name in lines}
        files = set(package.files_of(package.installed())) - {"SHA256SUMS"}
        self.assertEqual(set(said), files)
        for name in files:
            data = (package.installed() / name).read_bytes()
            self.assertEqual(said[name], sha256(data), name)

    def test_nothing_tells_where_it_was_built(self):
        places = [str(package.SOURCE), str(package.BUILD), str(package.installed())]
        for name in package.files_of(package.installed()):
            data = (package.installed() / name).read_bytes()
            for place in places:
                self.assertNotIn(place.encode(), data, name)

    def test_links_between_the_documents_lead_somewhere(self):
        links = 0
        for name in package.files_of(package.installed()):
            if name.endswith(".md"):
                folder = (package.installed() / name).parent
                for target in re.findall(r"\]\(([^)#:\s]+)(?:#[^)]*)?\)", text_of(name)):
                    links += 1
                    self.assertTrue((folder / target).exists(), f"{name} leads to {target}")
                for target in re.findall(r"\(in the sources: ([^)]+)\)", text_of(name)):
                    self.assertTrue((package.SOURCE / target).exists(), f"{name} names {target}")
        self.assertGreater(links, 5)

    def test_it_says_that_no_licence_is_chosen(self):
        self.assertIn("None has been chosen yet", text_of("README.md"))
        self.assertIn("has no licence yet", text_of("LICENCE-STATUS.txt"))

    def test_both_import_libraries_have_all_functions(self):
        wanted = sorted(package.definitions())
        self.assertEqual(len(wanted), 62)
        for name in ("libNimbra.dll.a", "Nimbra.lib"):
            with self.subTest(name):
                library = package.installed() / "lib" / name
                listing = package.run("llvm-nm-19", "--defined-only", library)
                self.assertEqual(sorted(re.findall(r" T (CORV\w+)$", listing, re.M)), wanted)
                self.assertIn("Nimbra.dll", library.read_bytes().decode("latin-1"))


class Zip(unittest.TestCase):
    def pack(self, zone):
        folder = package.new_folder()
        config = package.BUILD / "CPackConfig.cmake"
        package.run("cpack", "--config", config, "-B", folder, env={"TZ": zone})
        compiler = "-clang" if package.is_from_clang() else ""
        return folder / f"nimbra-{package.version()}-win64{compiler}.zip"

    def test_it_is_the_installed_folder_and_the_same_when_made_again(self):
        first, second = self.pack("UTC"), self.pack("Asia/Tokyo")
        self.assertEqual(sha256(first.read_bytes()), sha256(second.read_bytes()))
        checksum = first.with_name(first.name + ".sha256").read_text().split()
        self.assertEqual(checksum, [sha256(first.read_bytes()), first.name])
        installed = package.installed()
        with zipfile.ZipFile(first) as archive:
            found = {name: archive.read(name) for name in archive.namelist()}
        names = package.files_of(installed)
        self.assertEqual(sorted(found), sorted(f"{first.stem}/{name}" for name in names))
        for name in names:
            self.assertEqual(found[f"{first.stem}/{name}"], (installed / name).read_bytes(), name)
