"""What the papers of the package say of it: the SBOM, the notices."""

import hashlib
import json
import pathlib
import re
import subprocess
import unittest

import package
from package import text_of

DESCRIBE = package.SOURCE / "packaging" / "describe-package.py"
SCHEMA = package.HERE / "sbom.schema.json"


def shipped_binaries():
    binaries = (package.installed() / "bin").glob("*.[de][lx][le]")
    return sorted(f"bin/{path.name}" for path in binaries)


def schema_faults(sbom):
    """What Debian's jsonschema says of it."""
    file = package.new_folder() / "sbom"
    file.write_text(json.dumps(sbom), encoding="utf-8")
    result = package.attempt("/usr/bin/jsonschema", "-i", file, SCHEMA)
    return result.stdout or ("" if result.returncode == 0 else f"exit code {result.returncode}")


class Papers(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.sbom = json.loads(text_of("nimbra.cdx.json"))
        cls.components = {part["bom-ref"]: part for part in cls.sbom["components"]}

    def test_the_sbom_names_only_parts_that_it_has(self):
        self.assertEqual(len(self.components), len(self.sbom["components"]))
        known = {*self.components, self.sbom["metadata"]["component"]["bom-ref"]}
        for dependency in self.sbom["dependencies"]:
            self.assertLessEqual({dependency["ref"], *dependency["dependsOn"]}, known)

    def test_the_sbom_has_the_form_that_cyclonedx_asks_for(self):
        self.assertEqual(schema_faults(self.sbom), "")

    def test_the_check_of_its_form_finds_faults(self):
        for change, complaint in (
            ({"invented": 1}, "'invented' was unexpected"),
            ({"version": "one"}, "'one' is not of type 'integer'"),
            ({"components": [{"name": "x"}]}, "'type' is a required property"),
        ):
            with self.subTest(change):
                self.assertIn(complaint, schema_faults(self.sbom | change))

    def test_the_sbom_tells_the_compilers_apart(self):
        properties = self.sbom["metadata"]["component"]["properties"]
        toolchain = next(entry["value"] for entry in properties if entry["name"] == "toolchain")
        self.assertRegex(toolchain, r"^Clang 19\." if package.is_from_clang() else r"^GNU 1[0-9]")

    def test_the_sbom_has_each_shipped_binary_with_its_checksum(self):
        files = {name: part for name, part in self.components.items() if part["type"] == "file"}
        self.assertEqual(sorted(files), shipped_binaries())
        for name, component in files.items():
            data = (package.installed() / name).read_bytes()
            checksum = hashlib.sha256(data).hexdigest()
            self.assertEqual(component["hashes"], [{"alg": "SHA-256", "content": checksum}])

    def test_the_sbom_has_the_runtime_of_the_compiler_with_its_versions_and_licences(self):
        compiler = package.run(package.MINGW + "g++-posix", "-dumpfullversion").strip()
        of_clang = ("clang-headers",) if package.is_from_clang() else ()
        for name in ("libgcc", "libstdc++", "mingw-w64-crt", "winpthreads", *of_clang):
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

    def test_the_sbom_has_what_the_site_is_made_with(self):
        theme = self.components["mkdocs-material"]
        shown = package.run("dpkg-query", "-W", "-f=${Version}", "mkdocs-material")
        self.assertIn(f"@{shown.replace('+', '%2B')}?", theme["purl"])
        self.assertEqual(theme["licenses"], [{"expression": "MIT"}])
        self.assertIn({"name": "taken into", "value": "share/doc/nimbra/html"}, theme["properties"])

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


class UnknownParts(unittest.TestCase):
    """Something linked in of which nobody wrote down what it is, is an error."""

    def complaint(self, record):
        folder = package.new_folder()
        (folder / "files").write_text("")
        options = ("--version", "1.0.0", "--files", folder / "files")
        tool = ("--pdbutil", "llvm-pdbutil-19")
        result = package.attempt(
            DESCRIBE, *options, "--record", f"bin/Nimbra.dll={record}", *tool, folder
        )
        self.assertNotEqual(result.returncode, 0)
        return result.stdout

    def test_of_debian_in_the_map_of_gnu_ld(self):
        quadmath = package.run(package.COMPILER, "-print-file-name=libquadmath.a").strip()
        record = package.new_folder() / "map"
        record.write_text(f"{quadmath}(member.o)\n     reference\n")
        self.assertIn("does not know under what licence", self.complaint(record))

    def test_of_elsewhere_in_the_map_of_gnu_ld(self):
        record = package.new_folder() / "map"
        record.write_text("/nowhere/libother.a(member.o)\n     reference\n")
        self.assertIn("no path found", self.complaint(record))

    def test_of_elsewhere_in_the_symbols_of_lld(self):
        folder = package.new_folder()
        (folder / "other.c").write_text("int Other(void) { return 1; }\n")
        (folder / "one.c").write_text("int Other(void); int Own(void) { return Other(); }\n")
        compiler = ("clang-19", "--target=x86_64-w64-mingw32")
        package.run(*compiler, "-c", "other.c", "one.c", cwd=folder)
        package.run("llvm-ar-19", "rc", "libother.a", "other.o", cwd=folder)
        linker = ("-fuse-ld=lld-19", "-shared", "-nostdlib", "-Wl,--entry=Own", "-Wl,--pdb=one.pdb")
        archive = folder / "libother.a"
        package.run(*compiler, *linker, "one.o", archive, "-o", "one.dll", cwd=folder)
        self.assertRegex(self.complaint(folder / "one.pdb"), r"no path found.*libother\.a")

    def test_a_record_of_nothing(self):
        record = package.new_folder() / "map"
        record.write_text("")
        self.assertIn("names no library", self.complaint(record))
