"""What is in the package, and what its papers say of it."""

import hashlib
import json
import pathlib
import re
import struct
import unittest
import zipfile
import zlib

import package

EXPECTED = {
    "LICENCE-STATUS.txt",
    "README.md",
    "SHA256SUMS",
    "THIRD-PARTY-NOTICES.txt",
    "bin/Nimbra.dll",
    "bin/Nimbra.dll.debug",
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
    "nuget/build/native/Nimbra.targets",
    "share/nimbra/host-manifest.rc",
    "share/nimbra/host.manifest",
}
DESCRIBE = package.SOURCE / "packaging" / "describe-package.py"


def sha256(data):
    return hashlib.sha256(data).hexdigest()


def text_of(name):
    return (package.installed() / name).read_text(encoding="utf-8")


def shipped_binaries():
    binaries = (package.installed() / "bin").glob("*.[de][lx][le]")
    return sorted(f"bin/{path.name}" for path in binaries)


class Files(unittest.TestCase):
    def test_all_is_there(self):
        self.assertEqual(EXPECTED - set(package.files_of(package.installed())), set())

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


class Symbols(unittest.TestCase):
    def test_they_are_those_of_the_dll(self):
        section = package.new_folder() / "link"
        library = package.installed() / "bin" / "Nimbra.dll"
        copy = ("-O", "binary", "--only-section=.gnu_debuglink", "--set-section-flags")
        flags = ".gnu_debuglink=alloc,load,readonly"
        package.run(package.MINGW + "objcopy", *copy, flags, library, section)
        link = section.read_bytes()
        name, checksum = link[: link.index(b"\0")].decode(), struct.unpack("<I", link[-4:])[0]
        self.assertEqual(name, "Nimbra.dll.debug")
        self.assertEqual(checksum, zlib.crc32((library.parent / name).read_bytes()))

    def test_they_lead_to_the_sources(self):
        symbols = package.installed() / "bin" / "Nimbra.dll.debug"
        listing = package.run(package.MINGW + "nm", symbols)
        address = re.search(r"^(\w+) T CORVWinCFGetPlatformInfo$", listing, re.M).group(1)
        place = package.run(package.MINGW + "addr2line", "-e", symbols, address)
        source = place.rsplit(":", 1)[0].removeprefix("build/./")
        self.assertTrue((package.SOURCE / source).is_file(), place)
        self.assertIn("CORVWinCFGetPlatformInfo(", (package.SOURCE / source).read_text())

    def test_the_dll_itself_has_none(self):
        library = package.installed() / "bin" / "Nimbra.dll"
        sections = package.run(package.MINGW + "objdump", "-h", library)
        self.assertIn(".text", sections)
        self.assertNotIn(".debug_", sections)


class Papers(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.sbom = json.loads(text_of("nimbra.cdx.json"))
        cls.components = {part["bom-ref"]: part for part in cls.sbom["components"]}

    def test_the_sbom_is_of_the_form_that_cyclonedx_asks_for(self):
        self.assertEqual(self.sbom["bomFormat"], "CycloneDX")
        self.assertEqual(self.sbom["specVersion"], "1.5")
        self.assertRegex(
            self.sbom["serialNumber"], r"^urn:uuid:[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}$"
        )
        self.assertEqual(len(self.components), len(self.sbom["components"]))
        for component in self.sbom["components"]:
            self.assertIn(component["type"], ("file", "library"))
            self.assertTrue(component["name"])
        known = {*self.components, self.sbom["metadata"]["component"]["bom-ref"]}
        for dependency in self.sbom["dependencies"]:
            self.assertLessEqual({dependency["ref"], *dependency["dependsOn"]}, known)

    def test_the_sbom_has_each_shipped_binary_with_its_checksum(self):
        files = {name: part for name, part in self.components.items() if part["type"] == "file"}
        self.assertEqual(sorted(files), shipped_binaries())
        for name, component in files.items():
            data = (package.installed() / name).read_bytes()
            self.assertEqual(component["hashes"], [{"alg": "SHA-256", "content": sha256(data)}])

    def test_the_sbom_has_the_runtime_of_the_compiler_with_its_versions_and_licences(self):
        compiler = package.run(package.MINGW + "g++-posix", "-dumpfullversion").strip()
        for name in ("libgcc", "libstdc++", "mingw-w64-crt", "winpthreads"):
            self.assertIn(name, self.components)
        for component in self.components.values():
            if component["type"] == "library":
                self.assertRegex(component["purl"], r"^pkg:deb/debian/[^@]+@[^?]+\?arch=\w+")
                self.assertTrue(component["licenses"][0]["expression"])
        shown = package.run("dpkg-query", "-W", "-f=${Version}", "g++-mingw-w64-x86-64-posix")
        libstdcpp = self.components["libstdc++"]
        self.assertIn(shown.replace("+", "%2B"), libstdcpp["purl"])
        # Debian's compiler says 12-posix.
        self.assertEqual(libstdcpp["version"].split(".")[0], re.match(r"\d+", compiler).group(0))

    def test_all_that_is_compiled_in_comes_from_what_the_sbom_names(self):
        listing = package.run("ninja", "-C", package.BUILD, "-t", "deps")
        ours = re.compile(r"^(lib|examples/mirror|tools)/.*\.obj: ")
        files, shipped = set(), False
        for line in listing.splitlines():
            if not line.startswith(" "):
                shipped = ours.match(line) is not None
            elif shipped and line.strip().startswith("/"):
                files.add(pathlib.Path(line.strip()).resolve())
        foreign = sorted(str(file) for file in files if not file.is_relative_to(package.SOURCE))
        self.assertGreater(len(foreign), 50)
        owners = package.run("dpkg-query", "-S", *foreign)
        packages = sorted(set(re.findall(r"^([^:\s]+):", owners, re.M)))
        sources = package.run("dpkg-query", "-W", "-f=${source:Package}\n", *packages).split()
        named = {
            entry["value"]
            for part in self.components.values()
            for entry in part.get("properties", [])
            if entry["name"] == "debian:source"
        }
        self.assertLessEqual(set(sources), named)

    def test_the_notices_have_the_texts_of_all_licences(self):
        notices = re.sub(r"\s+", " ", text_of("THIRD-PARTY-NOTICES.txt"))
        for name, part in self.components.items():
            if part["type"] == "library":
                self.assertIn(f"{name} {part['version']}: ", notices)
        for words in (
            "GCC RUNTIME LIBRARY EXCEPTION Version 3.1",
            "You have permission to propagate a work of Target Code",
            "Copyright (c) 1994 Hewlett-Packard Company",
            "2009-2016 the mingw-w64 project",
            "2011-2016 mingw-w64 project Permission is hereby granted, free of charge",
            "Lucent Technologies Permission to use, copy, modify",
        ):
            self.assertIn(words, notices)

    def test_something_unknown_that_is_linked_in_is_an_error(self):
        quadmath = package.run(package.COMPILER, "-print-file-name=libquadmath.a").strip()
        for library, complaint in (
            (quadmath, "does not know under what licence"),
            ("/nowhere/libother.a", "no path found"),
        ):
            with self.subTest(library):
                folder = package.new_folder()
                (folder / "files").write_text("")
                (folder / "map").write_text(f"{library}(member.o)\n     reference\n")
                record = f"bin/Nimbra.dll={folder}/map"
                options = ("--version", "1.0.0", "--files", folder / "files", "--record", record)
                result = package.attempt(DESCRIBE, *options, folder)
                self.assertNotEqual(result.returncode, 0)
                self.assertIn(complaint, result.stdout)


class Zip(unittest.TestCase):
    def pack(self, zone):
        folder = package.new_folder()
        config = package.BUILD / "CPackConfig.cmake"
        package.run("cpack", "--config", config, "-B", folder, env={"TZ": zone})
        return folder / f"nimbra-{package.version()}-win64.zip"

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
