"""The version: one place has it, and all others say the same."""

import json
import re
import unittest
import xml.etree.ElementTree

import package

DLL, PROGRAM = 2, 1


class Versions(unittest.TestCase):
    def test_it_is_a_semantic_version_of_three_numbers(self):
        self.assertRegex(package.version(), r"^(0|[1-9]\d*)(\.(0|[1-9]\d*)){2}$")

    def test_windows_shows_it_for_each_shipped_file(self):
        folder = package.new_folder()
        program, source = folder / "file-version.exe", package.HERE / "file-version.c"
        warnings = ("-Wall", "-Wextra", "-Werror")
        package.run(package.COMPILER, *warnings, source, "-lversion", "-o", program)
        files = sorted((package.installed() / "bin").glob("*.[de][lx][le]"))
        self.assertIn("Nimbra.dll", [file.name for file in files])
        for file in files:
            with self.subTest(file.name):
                lines = package.run_in_windows(program, file).splitlines()
                shown = dict(line.split("=", 1) for line in lines)
                self.assertEqual(shown["file"], package.version() + ".0")
                self.assertEqual(shown["FileVersion"], package.version())
                self.assertEqual(shown["ProductVersion"], package.version())
                self.assertEqual(shown["ProductName"], "Nimbra")
                self.assertEqual(shown["OriginalFilename"], file.name)
                self.assertEqual(shown["InternalName"], file.stem)
                self.assertEqual(shown["type"], str(DLL if file.suffix == ".dll" else PROGRAM))
                self.assertGreater(len(shown["FileDescription"]), 10)

    def test_pkg_config_says_it(self):
        settings = {"PKG_CONFIG_LIBDIR": str(package.installed() / "lib" / "pkgconfig")}
        said = package.run("pkg-config", "--modversion", "nimbra", env=settings)
        self.assertEqual(said.strip(), package.version())

    def test_the_sbom_says_it(self):
        sbom = json.loads((package.installed() / "nimbra.cdx.json").read_text(encoding="utf-8"))
        self.assertEqual(sbom["metadata"]["component"]["version"], package.version())

    def test_the_vcpkg_port_says_it(self):
        port = package.SOURCE / "packaging" / "vcpkg" / "ports" / "nimbra" / "vcpkg.json"
        self.assertEqual(json.loads(port.read_text())["version-semver"], package.version())

    def test_the_nuget_package_says_it(self):
        nuspec = package.SOURCE / "packaging" / "nuget" / "Nimbra.nuspec"
        root = xml.etree.ElementTree.parse(nuspec).getroot()
        self.assertEqual(root.findtext("{*}metadata/{*}version"), package.version())

    def test_the_examples_ask_for_it(self):
        text = (package.installed() / "examples" / "CMakeLists.txt").read_text(encoding="utf-8")
        wanted = re.search(r"find_package\(Nimbra (\S+) CONFIG REQUIRED\)", text)
        self.assertEqual(wanted.group(1), package.version())
