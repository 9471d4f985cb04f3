"""The table of all rows."""

from .rows import FAMILIES, limits_text, misses, quantity, value_text

COLUMNS = ("", "takes", "baseline", "own", "ratio", "spread", "A/A", "allocations", "limit")
WIDTHS = (50, 9, 9, 9, 7, 7, 6, 12, 0)


def line(cells):
    first, *others = zip(cells, WIDTHS)
    texts = [f"{first[0]:<{first[1]}}"]
    texts += [f"{text:>{width}}" if width else f" {text}" for text, width in others]
    return "  ".join(texts).rstrip()


def count_text(row):
    if "allocations" not in row:
        return ""
    beside = f" ({row['baselineAllocations']:g})" if "baselineAllocations" in row else ""
    return f"{row['allocations']:g}{beside}"


def verdict(row):
    missed = misses(row)
    if missed:
        return "MISSED: " + ", ".join(missed)
    limits = limits_text(row)
    return f"kept: {limits}" if limits else ""


def cells(row):
    return (
        f"  {row['name']}"[: WIDTHS[0]],
        value_text(row, row["subject"]),
        value_text(row, row["baseline"]),
        value_text(row, quantity(row, "own")),
        f"{row['ratio']:.2f}",
        f"{row['spread']:.1%}",
        f"{row['noise']:.1%}",
        count_text(row),
        verdict(row),
    )


def make_table(rows):
    lines = [line(COLUMNS)]
    for family, title in FAMILIES.items():
        of_family = [row for row in rows if row["family"] == family]
        if not of_family:
            continue
        lines += ["", f"{family}: {title}"]
        group = None
        for row in of_family:
            if row["group"] != group:
                group = row["group"]
                lines.append(f" {group}")
            lines.append(line(cells(row)))
    missed = sum(1 for row in rows if misses(row))
    limited = sum(1 for row in rows if row.get("limits"))
    lines += ["", f"{limited - missed} of {limited} rows with a limit keep it"]
    return "\n".join(lines)
