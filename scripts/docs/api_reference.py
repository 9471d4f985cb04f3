#!/usr/bin/env python3
"""Makes the API reference out of the header's comments.

    api_reference.py check   every exported function has its section of the reference, and no other
"""

import html
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
HEADER = ROOT / "include" / "nimbra" / "nimbra.h"
EXPORTS = ROOT / "lib" / "cloud-filter" / "nimbra-host" / "nimbra" / "nimbra.def"

SECTION = re.compile(r"/\* ---- (?P<title>.+?) -+ \*/")
COMMENT = re.compile(
    r"^/\*\*(?P<text>.*?)\*/\s*(?P<code>(?://[^\n]*\n)?"
    r"(?:(?:typedef struct \w+|enum) \{.*?\n\}[^;]*;|[^;{]*;))",
    re.S | re.M,
)
FUNCTION = re.compile(r"^[\w\s*]+?\b(CORVWinCF\w+)\(", re.S)
FIELD = re.compile(
    r"/\*\*(?P<text>.*?)\*/|^\s*(?P<code>[\w *]+?(?P<name>\w+)(?:\[\d+\])?);", re.S | re.M
)
WIDTH = 68  # of a declaration that is written in one line
NAME = re.compile(r"\bCORVWinCF\w+(?!\w)")


class Item:
    """One documented declaration."""

    def __init__(self, text, code):
        self.code = re.sub(r"^ *//.*\n", "", code, flags=re.M).strip()
        function = FUNCTION.match(self.code)
        self.is_function = bool(function) and not self.code.startswith("typedef")
        if self.is_function:
            self.name = function[1]
        elif "(*" in self.code:
            self.name = re.search(r"\(\*(\w+)\)", self.code)[1]
        else:
            self.name = re.findall(r"\bCORVWinCF\w+", self.code)[-1]
        self.body, self.parameters, self.result = split_comment(text)

    @property
    def is_enumeration(self):
        return self.code.startswith("enum")

    def declaration(self):
        """A function's declaration, in the width of a page."""
        line = " ".join(self.code.split())
        if len(line) <= WIDTH:
            return line
        start, parameters = line.removesuffix(");").split("(", 1)
        return start + "(\n    " + parameters.replace(", ", ",\n    ") + ");"

    def summary(self):
        text = self.body or f"Returns {self.result}"
        return re.split(r"(?<=[.:;]) (?=[A-Z])|; |: ", text.split("\n\n")[0])[0].rstrip(".:;") + "."


class Section:
    """The declarations under one heading of the header."""

    def __init__(self, title, items):
        self.title = title
        self.items = items

    @property
    def page(self):
        return "api-" + re.sub(r"[^a-z]+", "-", self.title.lower()).strip("-") + ".md"

    @property
    def functions(self):
        return [item for item in self.items if item.is_function]


def clean(comment):
    """A comment's lines without their stars; paragraphs stay apart."""
    lines = [re.sub(r"^\s*\* ?", "", line).strip() for line in comment.strip().splitlines()]
    return "\n".join(lines)


def joined(text):
    return "\n\n".join(" ".join(part.split()) for part in text.strip().split("\n\n"))


def split_comment(text):
    """The description, the (name, text) of the parameters, and the result."""
    body, *tags = re.split(r"^@(?=param|return)", clean(text), flags=re.M)
    parameters, result = [], ""
    for tag in tags:
        kind, rest = tag.split(None, 1)
        if kind == "param":
            name, description = rest.split(None, 1)
            parameters.append((name, joined(description)))
        else:
            result = joined(rest)
    return joined(body), parameters, result


def read_header():
    return HEADER.read_text(encoding="utf-8")


def sections():
    parts = SECTION.split(read_header().split("#ifdef __cplusplus\nextern", 1)[1])
    titles = ["Basic types", *parts[1::2]]
    bodies = [parts[0], *parts[2::2]]
    return [
        Section(title, [Item(match["text"], match["code"]) for match in COMMENT.finditer(body)])
        for title, body in zip(titles, bodies)
    ]


def function_names():
    return [item.name for section in sections() for item in section.functions]


def exported_names():
    text = EXPORTS.read_text(encoding="utf-8").split("EXPORTS", 1)[1]
    return [line.split()[0] for line in text.splitlines() if line.strip()]


def check():
    """What is wrong, as texts."""
    documented, exported = function_names(), exported_names()
    problems = [
        f"exported, not in the reference: {name}" for name in set(exported) - set(documented)
    ]
    problems += [
        f"in the reference, not exported: {name}" for name in set(documented) - set(exported)
    ]
    if len(documented) != len(set(documented)):
        problems.append("a function is in the reference twice")
    declared = set(
        re.findall(r"\b(CORVWinCF\w+)\(", re.sub(r"/\*.*?\*/", "", read_header(), flags=re.S))
    )
    problems += [f"declared without a description: {name}" for name in declared - set(documented)]
    for section in sections():
        for item in section.functions:
            if not item.body and not item.result:
                problems.append(f"no description: {item.name}")
            declared = re.findall(r"(\w+)(?:,|\)$)", re.sub(r"\s+", " ", item.code).rstrip(";"))
            names = {name for name, _ in item.parameters}
            problems += [f"{item.name} has no parameter '{name}'" for name in names - set(declared)]
    return sorted(problems)


# ---- The pages ----


def heading(name):
    """With an anchor, and without the prefix that all names share in the page's own contents."""
    label = name.removeprefix("CORVWinCF")
    return f'## {name} {{ #{name.lower()} data-toc-label="{label}" }}\n'


class Writer:
    """Writes Markdown with links between the pages of the reference."""

    def __init__(self, all_sections):
        self.sections = all_sections
        self.targets = {
            item.name: f"{section.page}#{item.name.lower()}"
            for section in all_sections
            for item in section.items
            if not item.is_enumeration
        }

    def prose(self, text):
        """Text of a comment as Markdown: code stays code, names become links."""
        pieces = re.split(r"(`[^`]+`)", text)
        return "".join(piece if piece.startswith("`") else self._plain(piece) for piece in pieces)

    def _plain(self, text):
        text = re.sub(r"([\\*_\[\]#])", r"\\\1", html.escape(text, quote=False))
        return NAME.sub(
            lambda match: self.link(match[0].replace("\\", "")), text.replace("\\_", "_")
        )

    def link(self, name):
        return f"[`{name}`]({self.targets[name]})" if name in self.targets else f"`{name}`"

    def function(self, item, log_lines):
        yield heading(item.name)
        yield f"```c\n{item.declaration()}\n```\n"
        if item.body:
            yield self.prose(item.body) + "\n"
        if item.parameters:
            yield "| Parameter | |\n|---|---|"
            for name, text in item.parameters:
                yield f"| `{name}` | {self.prose(text)} |"
            yield ""
        if item.result:
            yield f"**Returns** {self.prose(item.result)}\n"
        if log_lines:
            yield "**May log** " + ", ".join(log_lines) + "\n"

    def type(self, item):
        if item.is_enumeration:
            yield "## Constants\n"
        else:
            yield heading(item.name)
        if item.body:
            yield self.prose(item.body) + "\n"
        yield from self._table(item)
        code = re.sub(r"\n\s*/\*\*.*?\*/", "", item.code, flags=re.S)
        yield f"```c\n{code}\n```\n"

    def _table(self, item):
        if "{" not in item.code or item.is_enumeration or "/**" not in item.code:
            return
        yield "| Field | |\n|---|---|"
        text = ""
        for match in FIELD.finditer(item.code.split("{", 1)[1]):
            if match["text"] is not None:
                text = joined(clean(match["text"]))
            else:
                yield f"| `{match['name']}` | {self.prose(text)} |"
        yield ""

    def section(self, section, log_lines):
        yield f"# {section.title}\n"
        for item in section.items:
            if item.is_function:
                yield from self.function(item, log_lines.get(item.name, []))
            else:
                yield from self.type(item)

    def overview(self):
        yield "# API reference\n"
        yield (
            f"All {len(function_names())} functions of `nimbra/nimbra.h`, made from its comments. "
            "The header is plain C and needs C11 or C++11.\n"
        )
        yield "## Conventions\n"
        yield from self._conventions()
        for section in self.sections:
            yield f"## {section.title}\n"
            yield f"[Details]({section.page})\n\n| | |\n|---|---|"
            for item in section.items:
                if not item.is_enumeration:
                    yield f"| {self.link(item.name)} | {self.prose(item.summary())} |"
            yield ""

    def _conventions(self):
        text = clean(re.search(r"/\*\n(.*?)\*/", read_header(), re.S)[1])
        for convention in re.split(r"^ ?\d+\. ", text, flags=re.M)[1:]:
            subject, rest = re.match(r"(.+?)((?:[.:]| is ).*)", convention, re.S).groups()
            yield f"1. **{subject}**" + self.prose(" ".join(rest.rstrip().splitlines()))
        yield ""


def pages(log_lines):
    """The names and texts of the pages; log_lines has, by function, links to its lines."""
    writer = Writer(sections())
    yield "api.md", "\n".join(writer.overview())
    for section in writer.sections:
        yield section.page, "\n".join(writer.section(section, log_lines))


def main():
    if sys.argv[1:] != ["check"]:
        sys.exit(__doc__)
    problems = check()
    print("\n".join(problems) or f"{len(function_names())} of {len(exported_names())} exports")
    return bool(problems)


if __name__ == "__main__":
    sys.exit(main())
