"""The rows that the measuring programs write, and what is said of them."""

import statistics

FAMILIES = {
    "exports": "What each export adds to a platform that does nothing",
    "callbacks": "From the platform's event to the client's callback",
    "streaming": "A local file's data on its way to the platform",
    "filter": "End to end on the cloud filter",
    "shell": "The Explorer entry, thumbnails and the log",
    "load": "Loading the library",
}

# An A/A above this says that little is sure.
NOISY = 0.1

TIME_UNITS = ((1, "ns"), (1e3, "us"), (1e6, "ms"), (1e9, "s"))
SIZE_UNITS = ((1, "B"), (1 << 10, "KiB"), (1 << 20, "MiB"))


def scaled(value, units):
    """The value in the unit that suits it, and the unit."""
    factor, unit = max((pair for pair in units if abs(value) >= pair[0]), default=units[0])
    return value / factor, unit


def value_text(row, value):
    """Three figures and a unit."""
    value, unit = scaled(value, SIZE_UNITS if row.get("unit") == "bytes" else TIME_UNITS)
    return f"{value:.{2 if abs(value) < 10 else 1 if abs(value) < 100 else 0}f} {unit}"


def _distance(centre, values):
    return statistics.median(abs(value / centre - 1) for value in values)


def make_row(family, group, name, subject, baseline, again=None, **more):
    """From the samples of a subject and its baseline, one of each for each round.

    The samples of `again` are the baseline's own, taken a second time.
    """
    ratios = [one / other for one, other in zip(subject, baseline)]
    ratio = statistics.median(ratios)
    return {
        "family": family,
        "group": group,
        "name": name,
        "subject": statistics.median(subject),
        "baseline": statistics.median(baseline),
        "ratio": ratio,
        "spread": _distance(ratio, ratios),
        "noise": _distance(1, [one / other for one, other in zip(again or baseline, baseline)]),
        "rounds": len(subject),
        "limits": [],
        "functions": [],
        **more,
    }


def quantity(row, name):
    """One of the numbers that limits are about."""
    if name == "speed":
        return 1 / row["ratio"]
    if name == "own":
        return row["subject"] - row["baseline"]
    return row[name]


def is_noisy(row):
    return row["noise"] > NOISY


def misses(row):
    """The limits that the row does not keep, as texts."""
    found = []
    for limit in row.get("limits", ()):
        value = quantity(row, limit["of"])
        if "most" in limit and value > limit["most"]:
            found.append(f"{limit['of']} {value:.4g} > {limit['most']:g}")
        if "least" in limit and value < limit["least"]:
            found.append(f"{limit['of']} {value:.4g} < {limit['least']:g}")
    return found


def limits_text(row):
    signs = {"most": "<=", "least": ">="}
    return ", ".join(
        f"{limit['of']} {signs[kind]} {limit[kind]:g}"
        for limit in row.get("limits", ())
        for kind in signs
        if kind in limit
    )


STANDINGS = ("ahead of", "equal within A/A", "behind")


def standing(row):
    """How the library, a row's baseline, stands beside the row's subject."""
    if abs(row["ratio"] - 1) <= row["noise"]:
        return STANDINGS[1]
    return STANDINGS[0 if row["ratio"] > 1 else 2]


def problems(rows, families, functions=()):
    """What is wrong with a run, speed aside: what is missing and what cannot be."""
    found = [f"no rows of {family}" for family in families if not any_of(rows, family)]
    for row in rows:
        name = f"{row['family']}: {row['group']}: {row['name']}"
        for key in ("subject", "baseline", "ratio"):
            if not row[key] > 0:
                found.append(f"{name}: {key} is {row[key]}")
        if row.get("allocations", 0) < 0 or not 0 <= row["noise"] < float("inf"):
            found.append(f"{name}: impossible figures")
    measured = {function for row in rows for function in row["functions"]}
    found += [f"no row is about {function}" for function in functions if function not in measured]
    return found


def with_derived(row):
    """A row with all that the table says of it, for programs."""
    return {**row, "own": quantity(row, "own"), "missed": misses(row), "noisy": is_noisy(row)}


def any_of(rows, family):
    return any(row["family"] == family for row in rows)
