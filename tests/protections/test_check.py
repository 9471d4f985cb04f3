#!/usr/bin/env python3
"""The check of the protections notices each of them that is gone, from copies of a library that has
them all.

    test_check.py <Nimbra.dll of clang> [unittest argument]...
"""

import shutil
import struct
import sys
import tempfile
import unittest
from pathlib import Path

sys.dont_write_bytecode = True
import check  # noqa: E402
from pe_image import DEBUG, DLL_CHARACTERISTICS, EXPORTS, LOAD_CONFIG, Image  # noqa: E402

LIBRARY = None


class Protections(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.copy = Path(folder.name) / LIBRARY.name
        shutil.copy(LIBRARY, self.copy)
        shutil.copy(LIBRARY.with_suffix(".pdb"), self.copy.with_suffix(".pdb"))
        self.image = Image(self.copy)

    def patch(self, offset, layout, value):
        data = bytearray(self.copy.read_bytes())
        struct.pack_into(layout, data, offset, value)
        self.copy.write_bytes(data)

    def assert_fault(self, words):
        found = check.faults(Image(self.copy), guarded=True)
        self.assertTrue(any(words in fault for fault in found), f"'{words}' in {found}")

    def test_the_library_itself_has_them_all(self):
        self.assertEqual(check.faults(self.image, guarded=True), [])

    def test_each_flag_of_the_header(self):
        for name, flag in DLL_CHARACTERISTICS.items():
            with self.subTest(name):
                self.patch(self.image.optional_header + 70, "<H", self.image.characteristics & ~flag)
                self.assert_fault(f"flag for {name} is not set")

    def test_a_library_without_a_load_configuration(self):
        self.patch(self.image.directory_entry(LOAD_CONFIG) + 4, "<I", 0)
        self.assert_fault("not instrumented")

    def test_an_export_that_is_no_permitted_target(self):
        address, _ = self.image.directory(EXPORTS)
        (functions,) = self.image.read_at("<28xI", address)
        self.patch(self.image.offset_of(functions), "<I", self.image.sections[0].address + 1)
        self.assert_fault("could not be called through a pointer")

    def test_a_library_without_the_mark_for_shadow_stacks(self):
        address, size = self.image.directory(DEBUG)
        for entry in range(address, address + size, 28):
            if self.image.read_at("<12xI", entry) == (20,):
                self.patch(self.image.offset_of(entry) + 12, "<I", 0)
        self.assert_fault("shadow stacks")

    def test_a_symbol_file_of_another_build(self):
        address, _ = self.image.directory(DEBUG)
        (data,) = self.image.read_at("<20xI", address)
        self.patch(self.image.offset_of(data) + 4, "<I", 0)
        self.assert_fault("belongs to another image")

    def test_a_symbol_file_that_is_missing(self):
        self.copy.with_suffix(".pdb").unlink()
        self.assert_fault("there is no")

    def test_a_library_under_another_name_has_no_symbols(self):
        self.copy = self.copy.rename(self.copy.with_name("Other.dll"))
        self.assert_fault("it names the symbol file 'Nimbra.pdb', not 'Other.pdb'")

    def test_symbols_without_types(self):
        self.assertIsNone(check.fields_in("", check.RECORD))
        self.assertNotEqual(check.fields_kept(check.RECORD), [])
        self.assertEqual(len(check.fields_kept(check.RECORD)), 11)


if __name__ == "__main__":
    LIBRARY = Path(sys.argv.pop(1))
    unittest.main()
