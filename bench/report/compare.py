"""What has changed since an earlier run, beyond the noise of both."""

import math

from .rows import quantity

# A median of n samples is off by about 1.25 standard deviations by the root of n, and a standard
# deviation is about 1.48 median distances.
ERROR_OF_A_MEDIAN = 1.25 * 1.48
SURE = 3  # standard errors: of some hundred rows, none is to be told by chance
# No change below these is spoken of, however quiet both runs were.
LEAST = 0.02
LEAST_OWN = 2  # nanoseconds, or bytes: where code happens to lie makes as much from run to run


def key(row):
    return row["family"], row["group"], row["name"]


def error(row):
    """The standard error of a row's ratio, as a part of it."""
    return ERROR_OF_A_MEDIAN * max(row["spread"], row["noise"]) / math.sqrt(max(row["rounds"], 1))


def margin(old, new):
    return max(LEAST, SURE * math.hypot(error(old), error(new)))


class Comparison:
    """`changes` are (key, old row, new row), the worst first."""

    def __init__(self, old_rows, new_rows):
        old = {key(row): row for row in old_rows}
        new = {key(row): row for row in new_rows}
        families = {row["family"] for row in new_rows}
        self.added = [name for name in new if name not in old]
        # Of the families that were measured this time.
        self.gone = [name for name in old if name not in new and name[0] in families]
        both = [(name, old[name], new[name]) for name in new if name in old]
        beyond = [entry for entry in both if self._differs(entry[1], entry[2])]
        self.changes = sorted(beyond, key=lambda entry: -self.change(entry[1], entry[2]))
        self.same = len(both) - len(beyond)

    @staticmethod
    def change(old, new):
        return new["ratio"] / old["ratio"] - 1

    @classmethod
    def _differs(cls, old, new):
        if cls.allocations(old, new):
            return True
        # Seen from the one as well as from the other: twice the time is as far as half of it.
        distance = min(abs(cls.change(old, new)), abs(cls.change(new, old)))
        own = abs(quantity(new, "own") - quantity(old, "own"))
        return distance > margin(old, new) and own > LEAST_OWN

    @staticmethod
    def allocations(old, new):
        counts = [row.get("allocations") for row in (old, new)]
        return "" if counts[0] == counts[1] else f", allocations {counts[0]} -> {counts[1]}"

    def line(self, name, old, new):
        return (
            f"  {': '.join(name)}: ratio {old['ratio']:.2f} -> {new['ratio']:.2f} "
            f"({self.change(old, new):+.1%}, noise {margin(old, new):.1%})"
            f"{self.allocations(old, new)}"
        )

    def text(self):
        lines = [self.line(*entry) for entry in self.changes]
        lines += [f"  {': '.join(name)}: new" for name in self.added]
        lines += [f"  {': '.join(name)}: gone" for name in self.gone]
        slower = sum(1 for _, old, new in self.changes if new["ratio"] > old["ratio"])
        lines.append(
            f"  {slower} slower, {len(self.changes) - slower} faster, {self.same} as before, "
            f"{len(self.added)} new, {len(self.gone)} gone"
        )
        return "\n".join(lines)
