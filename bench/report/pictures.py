"""One picture of each family: bars of the ratios, or of the exports' own times."""

import html
import math

from .rows import FAMILIES, misses, quantity, value_text

WIDTH, LABELS, BARS, LINE, HEAD = 980, 360, 430, 18, 64
INK, SOFT, BAR, BAD, MARK = "#222", "#777", "#4a78a8", "#c0503a", "#222"


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


def tick(x, y, height):
    return (
        f'<line x1="{x:.1f}" y1="{y:.1f}" x2="{x:.1f}" y2="{y + height:.1f}" '
        f'stroke="{MARK}" stroke-width="1.5"/>'
    )


class Ratios:
    """How many times as long as the baseline; the tick is where both take the same."""

    explanation = (
        "Time by the baseline's, logarithmic: the tick is 1, to the left is faster. "
        "At the right: ratio, time / the baseline's."
    )
    tick = 1.0
    least, most = 0.5, 2.0

    @staticmethod
    def of(row):
        return row["ratio"]


class OwnTimes:
    """Nanoseconds beyond the baseline, where the baseline is next to nothing."""

    explanation = (
        "Nanoseconds beyond the baseline's, logarithmic: the tick is 1 ns. "
        "At the right: ratio, time / the baseline's."
    )
    tick = 1.0
    least, most = 1.0, 1000.0

    @staticmethod
    def of(row):
        return max(quantity(row, "own"), 1.0)


class Scale:
    """From the smallest to the largest figure, logarithmic."""

    def __init__(self, measure, rows):
        figures = [measure.of(row) for row in rows]
        self.low = math.log10(min(measure.least, *figures) * 0.9)
        self.high = math.log10(max(measure.most, *figures) * 1.1)

    def at(self, figure):
        return LABELS + BARS * (math.log10(figure) - self.low) / (self.high - self.low)


def bar(row, y, scale, measure):
    one, end = scale.at(measure.tick), scale.at(measure.of(row))
    colour = BAD if misses(row) else BAR
    times = f"{value_text(row, row['subject'])} / {value_text(row, row['baseline'])}"
    return [
        text(LABELS - 8, y + 11, row["name"], "end", 11),
        rectangle(min(one, end), y + 2, abs(end - one), LINE - 7, colour),
        tick(one, y, LINE - 3),
        text(LABELS + BARS + 10, y + 11, f"{row['ratio']:.2f}, {times}", size=11, colour=SOFT),
    ]


def make_picture(family, rows):
    """The SVG text of a family's rows."""
    measure = OwnTimes if family == "exports" else Ratios
    scale = Scale(measure, rows)
    body, y, group = [], HEAD, None
    for row in rows:
        if row["group"] != group:
            group = row["group"]
            y += 8
            body.append(text(12, y + 11, group, weight="bold"))
            y += LINE
        body += bar(row, y, scale, measure)
        y += LINE
    head = [
        text(12, 24, FAMILIES[family], size=16, weight="bold"),
        text(12, 44, measure.explanation, colour=SOFT),
    ]
    return "\n".join(
        [
            f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{y + 16}" '
            f'viewBox="0 0 {WIDTH} {y + 16}" font-family="sans-serif">',
            rectangle(0, 0, WIDTH, y + 16, "#fff"),
            *head,
            *body,
            "</svg>\n",
        ]
    )
