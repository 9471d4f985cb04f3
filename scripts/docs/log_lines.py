#!/usr/bin/env python3
"""Keeps the table of the library's log lines true, and makes a page of it.

    log_lines.py check         every line of the code is in the table, word for word, and no other
    log_lines.py write         makes docs/log-lines.md anew
    log_lines.py list          prints what was found in the code

The table is lib/cloud-filter/log-lines.toml. In its texts, <a name> stands for a value.
"""

import argparse
import collections
import pathlib
import re
import sys
import tomllib

sys.dont_write_bytecode = True  # the checkout may be read-only

import api_reference  # noqa: E402

ROOT = pathlib.Path(__file__).resolve().parents[2]
LIBRARY = ROOT / "lib" / "cloud-filter"
TABLE = LIBRARY / "log-lines.toml"
PAGE = ROOT / "docs" / "log-lines.md"

TOKEN = re.compile(
    r'//[^\n]*|/\*.*?\*/|R"\((?:.*?)\)"|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])*\'', re.S
)
LITERAL = re.compile(r'\s*L?(?:R"\((?P<raw>.*?)\)"|"(?P<plain>(?:\\.|[^"\\\n])*)")', re.S)
ESCAPES = {"n": "\n", "r": "\r", "t": "\t", "\\": "\\", '"': '"', "'": "'", "0": "\0"}
VALUE = "\0"  # stands for a value in a text
OWN_LINE = "code"  # the number is that of the line of code

# A line as the code writes it: the printed path, its number, and the text with VALUE in it.
Line = collections.namedtuple("Line", "source number text")


class Mismatch(Exception):
    """The code has something that this script cannot read."""


def without_comments(code):
    def keep_strings(match):
        return " " if match.group().startswith(("//", "/*")) else match.group()

    return TOKEN.sub(keep_strings, code)


def literal_value(expression):
    """What a string literal, or several in a row, stand for; None for anything else."""
    value, at = "", 0
    while at < len(expression):
        match = LITERAL.match(expression, at)
        if not match:
            return value if at and not expression[at:].strip() else None
        if match["raw"] is not None:
            value += match["raw"]
        else:
            value += re.sub(r"\\(.)", lambda escape: ESCAPES[escape[1]], match["plain"])
        at = match.end()
    return value


def call_arguments(code, start):
    """The arguments of a call, of which `start` is behind the opening bracket."""
    arguments, depth, begin, at = [], 0, start, start
    while True:
        string = TOKEN.match(code, at)
        if string:
            at = string.end()
            continue
        character = code[at]
        if character in "([{":
            depth += 1
        elif depth and character in ")]}":
            depth -= 1
        elif character in "),":
            arguments.append(code[begin:at].strip())
            begin = at + 1
            if character == ")":
                return arguments
        at += 1


def number_finder(code, where):
    """A function that tells the number behind the second argument of a Log call."""
    found = re.findall(r"constexpr int (k\w*Line) = (\d+);", code)
    known = {name: int(number) for name, number in found}
    named = set(re.findall(r"\bLog\(kSource, (k\w*Line),", code))
    passed = tuple(sorted(number for name, number in known.items() if name not in named))

    def find(expression):
        if expression == "__LINE__":
            return OWN_LINE
        if expression in known:
            return known[expression]
        if passed and expression.endswith("Line"):  # a parameter: the caller chooses a constant
            return passed
        raise Mismatch(f"{where}: what number is {expression}?")

    return find


def written_lines(path):
    """The lines that one source file writes."""
    code = without_comments(path.read_text(encoding="utf-8"))
    find_number = number_finder(code, path.name)
    source = re.search(r'constexpr char kSource\[\] = (R"\(.*?\)");', code)
    for call in re.finditer(r"(?<![\w:.>])Log\(", code):
        arguments = call_arguments(code, call.end())
        if arguments[0] != "kSource" or not source:
            raise Mismatch(f"{path.name}: what path is {arguments[0]}?")
        text = ""
        for piece in arguments[2:]:
            literal = literal_value(piece)
            text += VALUE if literal is None else literal
        yield Line(literal_value(source[1]), find_number(arguments[1]), text)
    for call in re.finditer(r"\b(?:OutputDebugString[AW]|EmitDebugLog)\(", code):
        literal = literal_value(call_arguments(code, call.end())[0])
        match = re.fullmatch(r"(.*?) \((\d+)\) \| (.*)\r\n", literal or "", re.S)
        if not match:
            raise Mismatch(f"{path.name}: a line that is not written by Log and not one text")
        yield Line(match[1], int(match[2]), match[3])


def lines_in_code():
    files = sorted(LIBRARY.rglob("*.cpp")) + sorted(LIBRARY.rglob("*.h"))
    found = []
    for path in files:
        if path.stem != "debug-log":
            found += written_lines(path)
    return found


# ---- The table ----


class Entry:
    """One line of the table."""

    def __init__(self, source, fields):
        number = fields.pop("number", OWN_LINE)
        self.numbers = tuple(number) if isinstance(number, list) else (number,)
        self.text = fields.pop("text")
        self.source = source
        self.calls = fields.pop("from")
        self.note = fields.pop("note", False)
        self.means = fields.pop("means")
        self.advice = fields.pop("do", "")
        if fields:
            raise Mismatch(f"unknown fields {sorted(fields)} of the line '{self.text}'")
        if not self.means or not (self.advice or self.note):
            raise Mismatch(f"no meaning, or no advice, for the line '{self.text}'")

    def line(self):
        number = self.numbers[0] if len(self.numbers) == 1 else self.numbers
        return Line(self.source, number, re.sub(r"<[a-z][a-z ]*>", VALUE, self.text))


def read_table():
    with TABLE.open("rb") as file:
        table = tomllib.load(file)
    entries = [
        Entry(source["path"], dict(line)) for source in table["source"] for line in source["line"]
    ]
    return entries, table["code"]


def shown(line):
    numbers = line.number if isinstance(line.number, tuple) else (line.number,)
    text = line.text.replace(VALUE, "<value>").replace("\n", "\\n")
    return f"{line.source} ({', '.join(map(str, numbers))}) | {text}"


def check():
    """What is wrong with the table, as texts."""
    entries, _ = read_table()
    code = collections.Counter(lines_in_code())
    table = collections.Counter(entry.line() for entry in entries)
    problems = [
        f"in the code, not in the table: {shown(line)}" for line in (code - table).elements()
    ]
    problems += [
        f"in the table, not in the code: {shown(line)}" for line in (table - code).elements()
    ]
    exports = api_reference.function_names()
    problems += [
        f"the line '{entry.text}' is said to come from {name}, which is no function of the header"
        for entry in entries
        for name in entry.calls
        if name not in exports
    ]
    codes = {str(signed(code["code"])) for code in read_table()[1]}
    problems += [
        f"the line '{entry.text}' explains {number}, which is not among the codes"
        for entry in entries
        for number in re.findall(r"-2\d{9}", entry.means + entry.advice)
        if number not in codes
    ]
    if not code:
        problems.append("no line was found in the code")
    if not PAGE.exists() or PAGE.read_text(encoding="utf-8") != render():
        problems.append("docs/log-lines.md is old: scripts/docs/log_lines.py write")
    return problems


# ---- The page ----


HEAD = """# Log lines

<!-- Made by scripts/docs/log_lines.py from lib/cloud-filter/log-lines.toml: change that. -->

Nimbra writes its diagnostics to the debugger output (`OutputDebugString`): one line for each
failure of the platform, and a few notes. There is nothing to switch on. To see them on Windows, run
a debugger, a viewer of debugger output, or `nimbractl log`; under Wine set
`WINEDEBUG=-all,warn+seh`, and they appear on the standard error.

Each line has the form

```text
<path> (<number>) | <text>
```

and ends with a carriage return and a line feed. *Path* names the source, without its extension.
*Number* is fixed where this page shows one: filter by it. Elsewhere it is the line of the code and
changes from version to version: filter by the text there. Values stand here as `<name>`. Some texts
have no space before their value, and two have a misspelt word: they are kept as they are, because
programs look for them.

An `<error>` is a Win32 error. An `<hresult>` is an HRESULT in decimal, so failures are negative:
[codes](#codes) has the common ones. To convert another one by hand, add 4294967296 and write the
sum in hexadecimal; in 0x8007nnnn, nnnn is a Win32 error.
"""


def entries_with_anchors():
    entries, seen = read_table()[0], collections.Counter()
    for entry in entries:
        words = re.sub(r"[^a-z0-9]+", "-", re.sub(r"<[a-z ]*>", "", entry.text).lower())
        name = words.strip("-")
        seen[name] += 1
        yield entry, name if seen[name] == 1 else f"{name}-{seen[name]}"


def in_code(text):
    return "`" + text.replace("\n", "\\n").strip() + "`"


def render_entry(entry, anchor, link):
    number = ", ".join("" if number == OWN_LINE else str(number) for number in entry.numbers)
    yield f"### {in_code(entry.text)}{f' {{ #{anchor} }}' if anchor else ''}\n"
    facts = [f"Number: {number}." if number else "Number: the line of the code."]
    if entry.text.endswith("\n"):
        facts.append("The text ends with a line feed of its own.")
    facts.append("From " + ", ".join(link(name) for name in entry.calls) + ".")
    yield " ".join(facts) + "\n"
    yield f"**Means:** {entry.means.strip()}\n"
    yield f"**Do:** {entry.advice.strip() or 'Nothing: this is a note, no failure.'}\n"


def signed(code):
    value = int(code, 16)
    return value - (1 << 32) if value & 0x80000000 else value


def render(link=lambda name: f"`{name}`", with_anchors=False):
    """The page; the plain one is kept in docs/, for those who read it there."""
    codes = read_table()[1]
    parts, source = [HEAD], None
    for entry, anchor in entries_with_anchors():
        if entry.source != source:
            source = entry.source
            parts.append(f"## {source.rsplit(chr(92), 1)[1]}\n\nPath: `{source}`\n")
        parts += render_entry(entry, anchor if with_anchors else None, link)
    parts.append("## Codes\n\n| In the log | HRESULT | Usually means |\n|---|---|---|")
    parts += [f"| {signed(code['code'])} | {code['code']} | {code['means']} |" for code in codes]
    return "\n".join(parts) + "\n"


def main():
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("action", choices=["check", "write", "list"])
    action = parser.parse_args().action
    try:
        if action == "list":
            print("\n".join(shown(line) for line in lines_in_code()))
        elif action == "write":
            PAGE.write_text(render(), encoding="utf-8")
        else:
            problems = check()
            print("\n".join(problems) or f"{len(read_table()[0])} log lines, all in the table")
            return bool(problems)
    except Mismatch as mismatch:
        print(mismatch, file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
