"""One picture of each family: bars of the ratios, a tick where the baseline is."""

import html
import math

from .rows import FAMILIES, misses, value_text

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


class Scale:
    """From the smallest to the largest ratio, logarithmic; 1 is always on it."""

    def __init__(self, ratios):
        self.low = math.log10(min(0.5, *ratios) * 0.9)
        self.high = math.log10(max(2.0, *ratios) * 1.1)

    def at(self, ratio):
        return LABELS + BARS * (math.log10(ratio) - self.low) / (self.high - self.low)


def bar(row, y, scale):
    one, end = scale.at(1), scale.at(row["ratio"])
    colour = BAD if misses(row) else BAR
    note = f"{row['ratio']:.2f}   {value_text(row, row['subject'])} / {value_text(row, row['baseline'])}"
    return [
        text(LABELS - 8, y + 11, row["name"], "end", 11),
        rectangle(min(one, end), y + 2, abs(end - one), LINE - 7, colour),
        tick(one, y, LINE - 3),
        text(LABELS + BARS + 10, y + 11, note, size=11, colour=SOFT),
    ]


def make_picture(family, rows):
    """The SVG text of a family's rows."""
    scale = Scale([row["ratio"] for row in rows])
    body, y, group = [], HEAD, None
    for row in rows:
        if row["group"] != group:
            group = row["group"]
            y += 8
            body.append(text(12, y + 11, group, weight="bold"))
            y += LINE
        body += bar(row, y, scale)
        y += LINE
    head = [
        text(12, 24, FAMILIES[family], size=16, weight="bold"),
        text(
            12,
            44,
            "Time by the baseline's, logarithmic: the tick is 1, to the left is faster. "
            "At the right: ratio, time / the baseline's.",
            colour=SOFT,
        ),
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
