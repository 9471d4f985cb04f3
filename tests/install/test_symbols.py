"""The symbols of the library: those of GCC for gdb, those of clang for Windows' own debuggers."""

import re
import struct
import sys
import unittest
import zlib

import package

sys.path.insert(0, str(package.SOURCE / "scripts"))
import pe_image  # noqa: E402

FUNCTION = "CORVWinCFGetPlatformInfo"
RECORD = "CORVWinCFCallbackRecord"


class ForGdb(unittest.TestCase):
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
        address = re.search(rf"^(\w+) T {FUNCTION}$", listing, re.M).group(1)
        place = package.run(package.MINGW + "addr2line", "-e", symbols, address)
        source = place.rsplit(":", 1)[0].removeprefix("build/./")
        self.assertTrue((package.SOURCE / source).is_file(), place)
        self.assertIn(f"{FUNCTION}(", (package.SOURCE / source).read_text())

    def test_the_dll_itself_has_none(self):
        library = package.installed() / "bin" / "Nimbra.dll"
        sections = package.run(package.MINGW + "objdump", "-h", library)
        self.assertIn(".text", sections)
        self.assertNotIn(".debug_", sections)


class ForWindows(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.library = package.installed() / "bin" / "Nimbra.dll"
        cls.symbols = cls.library.with_suffix(".pdb")
        cls.image = pe_image.Image(cls.library)

    def test_they_are_those_of_the_dll(self):
        identifier, _, name = self.image.symbol_file()
        self.assertEqual(name, self.symbols.name, "a debugger looks for it beside the DLL")
        summary = package.run("llvm-pdbutil-19", "dump", "-summary", self.symbols)
        self.assertIn(f"GUID: {{{identifier}}}", summary)

    def test_they_lead_to_the_sources(self):
        address = self.image.base + self.image.exports()[FUNCTION]
        found = package.run("llvm-symbolizer-19", f"--obj={self.library}", hex(address))
        name, place = found.splitlines()[:2]
        source, line = re.fullmatch(r"(.*?):(\d+):\d+", place).groups()
        source = package.SOURCE / source.replace("\\", "/")
        self.assertEqual(name, FUNCTION)
        self.assertIn(f"{FUNCTION}(", "".join(source.read_text().splitlines()[: int(line)]))

    def test_they_know_the_types(self):
        types = package.run("llvm-pdbutil-19", "dump", "-types", self.symbols)
        self.assertIn(f"`{RECORD}`", types)
        self.assertRegex(types, r"LF_MEMBER \[name = `transferKey`")


def load_tests(loader, tests, pattern):
    """Those of the compiler that made the package."""
    case = ForWindows if package.is_from_clang() else ForGdb
    return loader.loadTestsFromTestCase(case)
