#!/usr/bin/env python3
"""The comparison finds the two things that make builds differ, planted in a tiny DLL: the time of the
build and the folder of the sources.
"""

import os
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.dont_write_bytecode = True  # the checkout may be read-only
import comparison  # noqa: E402

COMPILER = ["x86_64-w64-mingw32-gcc-posix", "-O2", "-shared", "-nostdlib", "-s",
            "-Wl,--no-insert-timestamp,--disable-auto-image-base", "-Wl,-e,0"]
EXPORTED = "__declspec(dllexport) const char* Text(void) { return %s; }\n"


class Comparison(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

    def build(self, name, text, date="1000000000", options=()):
        source = self.folder / name / "tiny.c"
        source.parent.mkdir()
        source.write_text(EXPORTED % text)
        library = source.with_suffix(".dll")
        subprocess.run([*COMPILER, *options, source, "-o", library], check=True,
                       env={**os.environ, "SOURCE_DATE_EPOCH": date})
        return library

    def test_the_same_from_two_folders(self):
        one, other = self.build("one", '"text"'), self.build("two", '"text"')
        self.assertEqual(comparison.differences(one, other), [])
        self.assertEqual(comparison.traces(one, [self.folder]), [])

    def test_a_time_in_the_code(self):
        one = self.build("one", "__TIME__")
        other = self.build("two", "__TIME__", date="1000000001")
        # The image's checksum is another one, too.
        found = "\n".join(comparison.differences(one, other))
        self.assertRegex(found, r"(?m)^\.rdata: (\d+) and \1 bytes, first differ at 0x\w+: b'01:46:40")

    def test_a_folder_in_the_code(self):
        one, other = self.build("one", "__FILE__"), self.build("two", "__FILE__")
        self.assertRegex("\n".join(comparison.differences(one, other)), r"(?m)^\.rdata: .*one/tiny\.c")
        self.assertEqual(comparison.traces(one, [self.folder]), [str(self.folder)])

    def test_a_folder_that_is_mapped_away(self):
        built = [self.build(name, "__FILE__", options=[f"-ffile-prefix-map={self.folder / name}=."])
                 for name in ("one", "two")]
        self.assertEqual(comparison.differences(*built), [])

    def test_a_time_in_the_header(self):
        one = self.build("one", '"text"', options=["-Wl,--insert-timestamp"])
        other = self.build("two", '"text"', date="1000000001", options=["-Wl,--insert-timestamp"])
        found = comparison.differences(one, other)
        self.assertTrue(found and found[0].startswith("headers: "), found)

    def test_other_code_and_another_section(self):
        one, other = self.build("one", '"text"'), self.build("two", "(const char*)0")
        found = comparison.differences(one, other)
        self.assertTrue(any(line.startswith(".text: ") for line in found), found)

    def test_a_file_that_is_no_image(self):
        one, other = self.folder / "one.pdb", self.folder / "two.pdb"
        one.write_bytes(b"Microsoft C/C++ MSF 7.00 and more")
        other.write_bytes(b"Microsoft C/C++ MSF 7.00 and mere")
        self.assertRegex(comparison.differences(one, other)[0],
                         "^the file: 33 and 33 bytes, first differ at 0x1e: ")


if __name__ == "__main__":
    unittest.main()
