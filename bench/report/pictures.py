"""One picture of each family: bars of the ratios, or of the exports' own times."""

import html
import math

from .rows import FAMILIES, TIME_UNITS, misses, quantity, scaled, value_text

WIDTH, LABELS, BARS, LINE, HEAD, AXIS = 1120, 400, 430, 18, 76, 28
RATIO, TAKES, BASELINE = 892, 990, 1096  # where the figures end
INK, SOFT, GRID, BAND = "#222", "#666", "#e4e4e4", "#cfcfcf"
BAR, OTHER, BAD, LIMIT = "#4a78a8", "#8f9f5f", "#c0503a", "#c0202a"
LONGEST_NAME = 62


def text(x, y, content, anchor="start", size=12, colour=INK, weight="normal"):
    return (
        f'<text x="{x:.1f}" y="{y:.1f}" font-size="{size}" text-anchor="{anchor}" '
        f'fill="{colour}" font-weight="{weight}">{html.escape(content)}</text>'
    )


def rectangle(x, y, width, height, colour):
    return (
        f'<rect x="{x:.1f}" y="{y:.1f}" width="{max(width, 0.5):.1f}" height="{height:.1f}" '
        f'fill="{colour}"/>'
    )


def upright(x, y, height, colour, name, more=""):
    return (
        f'<line class="{name}" x1="{x:.1f}" y1="{y:.1f}" x2="{x:.1f}" y2="{y + height:.1f}" '
        f'stroke="{colour}" {more}/>'
    )


class Ratios:
    """How many times as long as the baseline."""

    explanation = (
        "Time by the baseline's, logarithmic: lower is better, left of the line at 1 is faster "
        "than the baseline."
    )
    one = 1.0
    least, most = 0.5, 2.0

    @staticmethod
    def of(row):
        return row["ratio"]

    @staticmethod
    def band(row):
        return 1 / (1 + row["noise"]), 1 + row["noise"]

    @staticmethod
    def limits(row):
        """The limits that the scale can show."""
        for limit in row.get("limits", ()):
            bound = limit.get("most", limit.get("least"))
            if limit["of"] == "ratio":
                yield bound
            elif limit["of"] == "speed":
                yield 1 / bound
            elif limit["of"] == "own":
                yield 1 + bound / row["baseline"]

    @staticmethod
    def label(figure):
        return f"{figure:g}"


class OwnTimes(Ratios):
    """Nanoseconds beyond the baseline, where the baseline is next to nothing."""

    explanation = (
        "Time beyond the baseline's, logarithmic: lower is better. Less than 1 ns is shown as 1 ns."
    )
    one = 1.0
    least, most = 1.0, 1000.0

    @staticmethod
    def of(row):
        return max(quantity(row, "own"), 1.0)

    @staticmethod
    def band(row):
        return 1.0, max(row["noise"] * row["baseline"], 1.0)

    @classmethod
    def limits(cls, row):
        for bound in super().limits(row):
            yield max((bound - 1) * row["baseline"], 1.0)

    @staticmethod
    def label(figure):
        value, unit = scaled(figure, TIME_UNITS)
        return f"{value:g} {unit}"


class Scale:
    """From the smallest to the largest figure, logarithmic."""

    def __init__(self, measure, rows):
        figures = [measure.of(row) for row in rows]
        figures += [limit for row in rows for limit in measure.limits(row)]
        self.low = math.log10(min(measure.least, *figures) * 0.9)
        self.high = math.log10(max(measure.most, *figures) * 1.1)

    def at(self, figure):
        part = (math.log10(figure) - self.low) / (self.high - self.low)
        return LABELS + BARS * min(max(part, 0), 1)

    def marks(self):
        """Round numbers for the axis."""
        steps = (1, 2, 5) if self.high - self.low < 2.5 else (1,)
        for power in range(math.floor(self.low), math.ceil(self.high) + 1):
            for step in steps:
                if self.low <= math.log10(step) + power <= self.high:
                    yield step * 10.0**power


def axis(scale, measure, top, bottom):
    lines = []
    for mark in scale.marks():
        x = scale.at(mark)
        lines.append(upright(x, top - 4, bottom - top + 4, GRID, "grid"))
        lines.append(text(x, top - 8, measure.label(mark), "middle", 10, SOFT))
    lines.append(upright(scale.at(measure.one), top - 4, bottom - top + 4, SOFT, "one"))
    for x, title in ((RATIO, "ratio"), (TAKES, "takes"), (BASELINE, "baseline")):
        lines.append(text(x, top - 8, title, "end", 10, SOFT))
    return lines


def is_other(row):
    """Whether the row is about another way, and the library is its baseline."""
    return row["group"].endswith("beside the library")


def shortened(name):
    return name if len(name) <= LONGEST_NAME else f"{name[: LONGEST_NAME - 1]}…"


def bar(row, y, scale, measure):
    one, end = scale.at(measure.one), scale.at(measure.of(row))
    low, high = map(scale.at, measure.band(row))
    is_bad = bool(misses(row))
    colour = BAD if is_bad else OTHER if is_other(row) else BAR
    parts = [
        text(LABELS - 10, y + 12, shortened(row["name"]), "end", 11),
        rectangle(low, y + 1, high - low, LINE - 2, BAND),
        rectangle(min(one, end), y + 4, abs(end - one), LINE - 8, colour),
        text(RATIO, y + 12, f"{row['ratio']:.2f}", "end", 11, BAD if is_bad else INK),
        text(TAKES, y + 12, value_text(row, row["subject"]), "end", 11, SOFT),
        text(BASELINE, y + 12, value_text(row, row["baseline"]), "end", 11, SOFT),
    ]
    dashes = 'stroke-width="2" stroke-dasharray="3 2"'
    return parts + [
        upright(scale.at(limit), y, LINE, LIMIT, "limit", dashes) for limit in measure.limits(row)
    ]


def legend(rows):
    """What the colours mean."""
    parts = [
        rectangle(12, 57, 18, 10, BAND),
        text(36, 66, "what the machine alone makes of the baseline beside itself (A/A)", size=11),
    ]
    if any(row.get("limits") for row in rows):
        dashes = 'stroke-width="2" stroke-dasharray="3 2"'
        parts += [upright(440, 54, 16, LIMIT, "key", dashes), text(450, 66, "the limit", size=11)]
        parts += [rectangle(530, 57, 18, 10, BAD), text(554, 66, "a limit is missed", size=11)]
    if any(map(is_other, rows)):
        parts.append(rectangle(680, 57, 18, 10, OTHER))
        parts.append(text(704, 66, "another way: right of 1 the library is faster", size=11))
    return parts


def section(measure, rows, top):
    """Rows below an axis of their own, and where they end."""
    scale = Scale(measure, rows)
    y, group = top + AXIS, None
    body = []
    for row in rows:
        if row["group"] != group:
            group = row["group"]
            y += 8
            body.append(text(12, y + 12, group, weight="bold"))
            y += LINE
        body += bar(row, y, scale, measure)
        y += LINE
    return [*axis(scale, measure, top + AXIS, y), *body], y


def make_picture(family, rows):
    """The SVG text of a family's rows: the library's first, those of others below."""
    measure = OwnTimes if family == "exports" else Ratios
    body, y = [], HEAD
    for part in ([row for row in rows if not is_other(row)], list(filter(is_other, rows))):
        if part:
            lines, y = section(measure, part, y)
            body += lines
    return "\n".join(
        [
            f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{y + 16}" '
            f'viewBox="0 0 {WIDTH} {y + 16}" font-family="sans-serif">',
            rectangle(0, 0, WIDTH, y + 16, "#fff"),
            text(12, 26, FAMILIES[family], size=16, weight="bold"),
            text(12, 46, measure.explanation, colour=SOFT),
            *legend(rows),
            *body,
            "</svg>\n",
        ]
    )
