"""What is said of rows: changes, noise, limits. Run by ctest."""

import sys
import unittest
import xml.etree.ElementTree

sys.dont_write_bytecode = True

from report.compare import Comparison  # noqa: E402
from report.pictures import make_picture  # noqa: E402
from report.rows import make_row, misses, problems  # noqa: E402
from report.table import make_table  # noqa: E402


def row(name="row", ratio=1.0, **more):
    """A row of a quiet run, unless `more` says otherwise."""
    quiet = {"spread": 0.01, "noise": 0.01, "rounds": 25, "limits": [], "functions": []}
    figures = {"subject": 1000.0 * ratio, "baseline": 1000.0, "ratio": ratio}
    return {"family": "shell", "group": "group", "name": name, **figures, **quiet, **more}


class Comparing(unittest.TestCase):
    def changed(self, old, new):
        return [name[2] for name, _, _ in Comparison(old, new).changes]

    def test_a_change_beyond_the_noise_is_told(self):
        text = Comparison([row()], [row(ratio=1.5)]).text()
        self.assertIn("shell: group: row: ratio 1.00 -> 1.50 (+50.0%", text)
        self.assertIn("1 slower, 0 faster, 0 as before", text)

    def test_a_change_within_the_noise_is_not(self):
        self.assertEqual(self.changed([row()], [row(ratio=1.01)]), [])
        noisy = row(ratio=1.3, noise=0.5)
        self.assertEqual(self.changed([row()], [noisy]), [])
        self.assertEqual(self.changed([noisy], [row()]), [])

    def test_more_rounds_show_smaller_changes(self):
        noisy = {"spread": 0.2, "noise": 0.2}
        few = [row(ratio=ratio, rounds=5, **noisy) for ratio in (1.0, 1.2)]
        many = [row(ratio=ratio, rounds=500, **noisy) for ratio in (1.0, 1.2)]
        self.assertEqual(self.changed(few[:1], few[1:]), [])
        self.assertEqual(self.changed(many[:1], many[1:]), ["row"])

    def test_the_worst_comes_first_and_gains_are_told_too(self):
        old = [row(name) for name in ("gain", "bad", "worse")]
        new = [row("gain", 0.5), row("bad", 1.2), row("worse", 2.0)]
        self.assertEqual(self.changed(old, new), ["worse", "bad", "gain"])
        self.assertIn("2 slower, 1 faster", Comparison(old, new).text())

    def test_one_more_allocation_is_a_change(self):
        text = Comparison([row(allocations=1)], [row(allocations=2)]).text()
        self.assertIn("allocations 1 -> 2", text)

    def test_rows_that_came_and_went_are_told_but_not_families_left_out(self):
        old = [row("old"), {**row("other"), "family": "load"}]
        comparison = Comparison(old, [row("new")])
        self.assertEqual([name[2] for name in comparison.added], ["new"])
        self.assertEqual([name[2] for name in comparison.gone], ["old"])


class Rows(unittest.TestCase):
    def test_ratios_are_medians_of_the_rounds(self):
        made = make_row("shell", "g", "n", [2.0, 4.0, 9.0], [1.0, 2.0, 3.0], [1.1, 2.2, 3.3])
        self.assertEqual((made["ratio"], made["rounds"]), (2.0, 3))
        self.assertAlmostEqual(made["noise"], 0.1)

    def test_limits_that_are_missed_are_told(self):
        self.assertEqual(misses(row(ratio=1.1, limits=[{"of": "ratio", "most": 1.2}])), [])
        self.assertEqual(len(misses(row(ratio=1.3, limits=[{"of": "ratio", "most": 1.2}]))), 1)
        self.assertEqual(len(misses(row(ratio=1.3, limits=[{"of": "speed", "least": 1}]))), 1)

    def test_what_is_missing_or_cannot_be_is_a_problem(self):
        self.assertEqual(problems([row(functions=["A"])], ["shell"], ["A"]), [])
        self.assertEqual(len(problems([row()], ["shell", "load"], ["A"])), 2)
        self.assertEqual(len(problems([row(subject=0)], ["shell"])), 1)


class Texts(unittest.TestCase):
    def test_the_table_has_the_rounds_and_marks_rows_that_are_too_noisy(self):
        table = make_table([row(rounds=33), row("noisy", noise=0.2)])
        self.assertRegex(table, r"row .* 33\b")
        self.assertIn("20.0% !", table)
        self.assertIn("1 of 2 rows has an A/A above 10%", table)

    def test_the_table_says_which_shapes_the_library_is_ahead_of(self):
        rival = {"family": "streaming", "group": "16 MiB, 20 us, other shapes", "isRival": 1}
        ratios = (0.98, 0.995, 1.005, 1.02)
        rows = [row(f"r{ratio}", ratio=ratio, **rival) for ratio in ratios]
        table = make_table([*rows, row("explains", ratio=3.0, **{**rival, "isRival": 0})])
        self.assertIn("  the library, 16 MiB, 20 us\n", table)
        self.assertRegex(table, r"ahead of +r1\.02 \(1\.02\)\n")
        self.assertRegex(table, r"equal within A/A +r0\.995 \(0\.99\); r1\.005 \(1\.00\)\n")
        self.assertRegex(table, r"behind +r0\.98 \(0\.98\)\n")
        self.assertNotRegex(make_table([row()]), "ahead of")

    def test_the_picture_is_well_formed_and_draws_limits(self):
        limited = row("a < b & c", ratio=1.5, limits=[{"of": "ratio", "most": 1.25}])
        for family in ("exports", "shell"):
            picture = make_picture(family, [row(), {**limited, "family": family}])
            root = xml.etree.ElementTree.fromstring(picture)
            lines = [line for line in root.iter() if line.get("class") == "limit"]
            self.assertEqual(len(lines), 1)


if __name__ == "__main__":
    unittest.main()
