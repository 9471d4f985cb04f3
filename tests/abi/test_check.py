#!/usr/bin/env python3
"""The check of the binary interface finds what it is there for: each test changes a copy of the header
or the list of exports, as a developer might without a thought.

    test_check.py <Nimbra.dll> [unittest argument]...
"""

import contextlib
import io
import sys
import tempfile
import unittest
from pathlib import Path
from unittest import mock

sys.dont_write_bytecode = True
import check  # noqa: E402
import interface  # noqa: E402

HEADER = check.HERE.parents[1] / "include" / "nimbra" / "nimbra.h"
LIBRARY = None


class ChangedHeader(unittest.TestCase):
    def said_of(self, old, new):
        """What the check prints for a header in which `old` is `new`."""
        text = HEADER.read_text()
        self.assertEqual(text.count(old), 1, f"the header should have this once: {old}")
        with tempfile.TemporaryDirectory() as folder:
            header = Path(folder) / "nimbra.h"
            header.write_text(text.replace(old, new))
            output = io.StringIO()
            with contextlib.redirect_stdout(output):
                self.same = check.check(check.parse(check.BASELINE.read_text()), header, LIBRARY)
        return output.getvalue()

    def assert_breaks(self, said, *lines):
        self.assertFalse(self.same)
        for line in lines:
            # Each compiler notices by itself.
            self.assertEqual(said.count(line), len(interface.COMPILERS), f"{line} in:\n{said}")
        self.assertIn("new major version", said)
        self.assertIn("tests/abi/check.py --update", said)

    def test_a_field_of_another_type_moves_what_follows(self):
        said = self.said_of("  uint32_t buildNumber;", "  uint64_t buildNumber;")
        self.assert_breaks(
            said,
            "changed  field CORVWinCFPlatformInfo.buildNumber: uint32_t at 0, 4 bytes\n"
            "       to  field CORVWinCFPlatformInfo.buildNumber: uint64_t at 0, 8 bytes",
            "to  field CORVWinCFPlatformInfo.revisionNumber: uint32_t at 8, 4 bytes",
            "to  record CORVWinCFPlatformInfo: 16 bytes, aligned to 8")

    def test_two_fields_change_places(self):
        said = self.said_of("  uint32_t buildNumber;\n  uint32_t revisionNumber;",
                            "  uint32_t revisionNumber;\n  uint32_t buildNumber;")
        self.assert_breaks(said, "to  field CORVWinCFPlatformInfo.buildNumber: uint32_t at 4",
                           "to  field CORVWinCFPlatformInfo.revisionNumber: uint32_t at 0")

    def test_a_field_is_renamed(self):
        said = self.said_of("  void* context;\n", "  void* cookie;\n")
        self.assert_breaks(
            said, "removed  field CORVWinCFCallbackRecord.context: void * at 96, 8 bytes",
            "added    field CORVWinCFCallbackRecord.cookie: void * at 96, 8 bytes")

    def test_a_field_is_appended(self):
        said = self.said_of("  uint32_t integrationNumber;",
                            "  uint32_t integrationNumber;\n  uint32_t more;")
        self.assert_breaks(said, "to  record CORVWinCFPlatformInfo: 16 bytes",
                           "added    field CORVWinCFPlatformInfo.more: uint32_t at 12, 4 bytes")

    def test_a_constant_has_another_value(self):
        said = self.said_of("CORVWinCFTransferAborted = 3", "CORVWinCFTransferAborted = 4")
        self.assert_breaks(said, "changed  constant CORVWinCFTransferAborted: 3\n"
                                 "       to  constant CORVWinCFTransferAborted: 4")

    def test_a_parameter_has_another_type(self):
        said = self.said_of("CORVWinCFPlaceholderMetaNew(int64_t lastAccessTime",
                            "CORVWinCFPlaceholderMetaNew(int32_t lastAccessTime")
        self.assert_breaks(said, "to  function CORVWinCFPlaceholderMetaNew: "
                                 "CORVWinCFPlaceholderMetaHandle (int32_t, int64_t")

    def test_a_type_has_another_size(self):
        said = self.said_of("typedef int32_t CORVWinCFStatus;", "typedef int64_t CORVWinCFStatus;")
        self.assert_breaks(said, "to  type CORVWinCFStatus: int64_t, 8 bytes")

    def test_what_is_only_added_breaks_nothing(self):
        said = self.said_of("  CORVWinCFTransferAborted = 3",
                            "  CORVWinCFTransferAborted = 3,\n  CORVWinCFTransferMore = 4")
        self.assertFalse(self.same)
        self.assertIn("added    constant CORVWinCFTransferMore: 4", said)
        self.assertIn("minor version", said)
        self.assertNotIn("major", said)

    def test_comments_and_names_of_parameters_are_free(self):
        self.said_of("CORVWinCFPlaceholderMetaNew(int64_t lastAccessTime",
                     "CORVWinCFPlaceholderMetaNew(/* seconds */ int64_t accessed")
        self.assertTrue(self.same)

    def test_a_header_that_does_not_compile_is_no_match(self):
        with self.assertRaisesRegex(interface.InterfaceError, "does not compile"):
            self.said_of("typedef int32_t CORVWinCFStatus;", "typedef int32_t;;; CORVWinCFStatus")


class ChangedExports(unittest.TestCase):
    def said_of(self, baseline):
        output = io.StringIO()
        with contextlib.redirect_stdout(output):
            self.assertFalse(check.check(baseline, HEADER, LIBRARY))
        return output.getvalue()

    def test_an_export_that_is_gone_breaks_programs(self):
        baseline = check.parse(check.BASELINE.read_text())
        said = self.said_of({**baseline, "export CORVWinCFGone": "by name"})
        self.assertIn("removed  export CORVWinCFGone: by name", said)
        self.assertIn("new major version", said)

    def test_a_new_export_is_an_addition(self):
        baseline = check.parse(check.BASELINE.read_text())
        del baseline["export CORVWinCFGenerateGuid"]
        said = self.said_of(baseline)
        self.assertIn("added    export CORVWinCFGenerateGuid: by name", said)
        self.assertNotIn("major", said)


class Update(unittest.TestCase):
    OLD, BREAKING = "CORVWinCFTransferAborted = 3", "CORVWinCFTransferAborted = 4"
    ADDED = "CORVWinCFTransferAborted = 3,\n  CORVWinCFTransferMore = 4"

    def updated(self, was, now, new):
        """Whether the baseline of version `was` is written anew for a changed header."""
        with tempfile.TemporaryDirectory() as folder:
            header, baseline = Path(folder) / "nimbra.h", Path(folder) / "baseline.txt"
            header.write_text(HEADER.read_text().replace(self.OLD, new))
            before = check.written({**check.parse(check.BASELINE.read_text()), check.VERSION: was})
            baseline.write_text(before)
            output = io.StringIO()
            with mock.patch.object(check, "BASELINE", baseline):
                with contextlib.redirect_stdout(output):
                    done = check.update(header, LIBRARY, now)
            self.said, after = output.getvalue(), baseline.read_text()
        if done:
            self.assertEqual(check.parse(after)[check.VERSION], now)
        else:
            self.assertEqual(after, before)
        return done

    def test_a_breaking_change_is_refused_under_the_same_version(self):
        self.assertFalse(self.updated("0.1.0", "0.1.0", self.BREAKING))
        self.assertIn("is of version 0.1.0, and this is 0.1.0", self.said)
        self.assertIn("changed  constant CORVWinCFTransferAborted: 3", self.said)
        self.assertIn("raise the version", self.said)

    def test_a_breaking_change_is_written_where_the_version_tells_of_it(self):
        self.assertTrue(self.updated("0.1.0", "0.2.0", self.BREAKING))

    def test_an_addition_needs_no_other_version(self):
        self.assertTrue(self.updated("0.1.0", "0.1.0", self.ADDED))

    def test_before_1_0_a_minor_version_tells_and_afterwards_a_major_one(self):
        for was, now, allowed in (
            ("0.1.0", "0.1.1", False), ("0.1.9", "0.2.0", True), ("0.9.0", "0.10.0", True),
            ("0.9.0", "1.0.0", True), ("1.0.0", "1.1.0", False), ("1.9.9", "2.0.0", True),
            ("2.0.0", "1.9.0", False), ("0.2.0", "0.1.0", False),
        ):
            with self.subTest(was=was, now=now):
                self.assertEqual(check.allows_breaking(was, now), allowed)


class Baseline(unittest.TestCase):
    def test_one_of_another_version_is_noticed(self):
        baseline = check.parse(check.BASELINE.read_text())
        with contextlib.redirect_stdout(io.StringIO()) as output:
            self.assertTrue(check.is_of(baseline, baseline[check.VERSION]))
            self.assertFalse(check.is_of(baseline, "99.0.0"))
        self.assertIn("--update", output.getvalue())

    def test_the_dll_exports_exactly_what_the_header_declares(self):
        baseline = check.parse(check.BASELINE.read_text())
        names = {kind: {what.split(" ")[1] for what in check.part(baseline, kind)}
                 for kind in ("export", "function")}
        self.assertEqual(names["export"], names["function"])
        self.assertEqual(len(names["export"]), 62)

    def test_what_is_written_is_read_again(self):
        text = check.BASELINE.read_text()
        self.assertEqual(check.written(check.parse(text)), text)


if __name__ == "__main__":
    LIBRARY = Path(sys.argv.pop(1))
    unittest.main()
