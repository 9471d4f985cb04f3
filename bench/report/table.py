"""The table of all rows."""

from .rows import (
    FAMILIES,
    NOISY,
    STANDINGS,
    is_noisy,
    limits_text,
    misses,
    quantity,
    standing,
    value_text,
)

COLUMNS = ("", "takes", "baseline", "own", "ratio", "spread", "A/A  ")
COLUMNS += ("rounds", "allocations", "limit")
WIDTHS = (50, 9, 9, 9, 7, 7, 8, 6, 12, 0)


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
        f"{row['noise']:.1%} {'!' if is_noisy(row) else ' '}",
        str(row["rounds"]),
        count_text(row),
        verdict(row),
    )


def standings(rows):
    """Whether the library is ahead of other shapes, for each group that has some."""
    groups = {}
    for row in rows:
        if row.get("isRival"):
            groups.setdefault(row["group"], []).append(row)
    for group, rivals in groups.items():
        yield f"  the library, {group.split(', other')[0]}"
        for where in STANDINGS:
            names = [
                f"{row['name']} ({row['ratio']:.2f})" for row in rivals if standing(row) == where
            ]
            yield f"    {where:<17} {'; '.join(names) or 'none'}"


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
        lines += standings(of_family)
    missed = sum(1 for row in rows if misses(row))
    limited = sum(1 for row in rows if row.get("limits"))
    noisy = sum(1 for row in rows if is_noisy(row))
    lines += ["", f"{limited - missed} of {limited} rows with a limit keep it"]
    if noisy:
        have = "has" if noisy == 1 else "have"
        lines.append(
            f"{noisy} of {len(rows)} rows {have} an A/A above {NOISY:.0%} (!): little is sure"
        )
    return "\n".join(lines)
