#!/usr/bin/env python3
"""Counts the single tests in the JUnit files that ctest wrote.

    count-tests.py JUNIT...

Each GoogleTest case and each Python test method counts as one; another kind of CTest test counts as
one itself. Prints what failed with its output, then a line "<passed> <failed> <skipped>".
"""

import re
import sys
import xml.etree.ElementTree

LONGEST_OUTPUT = 200  # lines of one failed test

# A process that is killed may leave the beginning of a line of Wine's.
GTEST_OUTCOME = re.compile(
    r"^(?:wine client error:\w+: )?"
    r"(?:\[ {7}OK \] |\[  (FAILED|SKIPPED) {1,2}\] .* \(\d+ ms\)$)",
    re.M,
)
GTEST_START = re.compile(r"^\[ RUN      \] (\S+)", re.M)
UNITTEST_TOTAL = re.compile(r"^Ran (\d+) tests? in ", re.M)
UNITTEST_DETAIL = re.compile(r"\b(failures|errors|skipped|unexpected successes)=(\d+)")


def count_gtest(output):
    outcomes = [match.group(1) for match in GTEST_OUTCOME.finditer(output)]
    failed, skipped = outcomes.count("FAILED"), outcomes.count("SKIPPED")
    return [len(outcomes) - failed - skipped, failed, skipped]


def count_unittest(output):
    total = sum(int(match.group(1)) for match in UNITTEST_TOTAL.finditer(output))
    summary = output[output.rindex("\nRan ") :]
    details = {name: int(number) for name, number in UNITTEST_DETAIL.findall(summary)}
    skipped = details.pop("skipped", 0)
    failed = sum(details.values())
    # What fails or is skipped for a whole class is not in the total.
    outside = len(re.findall(r"^(?:setUp|tearDown)(?:Class|Module) .* \.\.\. ", output, re.M))
    return [max(0, total - max(0, failed + skipped - outside)), failed, skipped]


def was_skipped(case):
    """On purpose, that is: CTest also calls a test skipped whose program is missing."""
    skipped = case.find("skipped")
    reason = skipped.get("message", "") if skipped is not None else ""
    return reason.startswith("SKIP_") or case.get("status") == "disabled"


def count_one(case):
    """Gives [passed, failed, skipped] and the output of one CTest test."""
    output = (case.findtext("system-out") or "").replace("\r\n", "\n")
    status = case.get("status")
    if GTEST_START.search(output) or "[==========]" in output:
        counts = count_gtest(output)
    elif UNITTEST_TOTAL.search(output):
        counts = count_unittest(output)
    elif status == "run":
        counts = [1, 0, 0]
    elif was_skipped(case):
        counts = [0, 0, 1]
    else:
        counts = [0, 1, 0]
    if len(GTEST_START.findall(output)) > sum(counts):
        counts[1] += 1  # the one that it crashed in
    # A program that crashed, hung or ran nothing has failed, whatever it said before.
    if counts[1] == 0 and (status == "fail" or sum(counts) == 0):
        counts[1] = 1
    return counts, output


def describe(case, output):
    lines = [f"--- {case.get('name')} failed"]
    failure = case.find("failure")
    if failure is not None and failure.get("message"):
        lines[0] += f": {failure.get('message')}"
    interesting = [line for line in output.splitlines() if not re.match(r"^\[ {7}OK \]", line)]
    started = GTEST_START.findall(output)
    finished = len(GTEST_OUTCOME.findall(output))
    if len(started) > finished:
        lines.append(f"(ended in the middle of {started[-1]})")
    left_out = len(interesting) - LONGEST_OUTPUT
    if left_out > 0:
        lines.append(f"({left_out} lines left out)")
    return "\n".join(lines + interesting[-LONGEST_OUTPUT:])


def main():
    totals = [0, 0, 0]
    for path in sys.argv[1:]:
        for case in xml.etree.ElementTree.parse(path).iter("testcase"):
            counts, output = count_one(case)
            totals = [total + count for total, count in zip(totals, counts)]
            if counts[1]:
                print(describe(case, output))
    print(*totals)


if __name__ == "__main__":
    main()
