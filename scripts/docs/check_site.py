#!/usr/bin/env python3
"""Looks through the built site: every link and anchor leads somewhere, nothing is loaded from
elsewhere, and each exported function and each log line has its place.

    check_site.py SITE
"""

import collections
import html.parser
import pathlib
import re
import sys
import urllib.parse

sys.dont_write_bytecode = True  # the checkout may be read-only

import api_reference  # noqa: E402
import log_lines  # noqa: E402

LOADED = {"script": "src", "img": "src", "iframe": "src", "source": "src", "object": "data",
          "link": "href"}  # fmt: skip


class Page(html.parser.HTMLParser):
    """What one page has for others to link to, and what it links to and loads."""

    def __init__(self, path):
        super().__init__()
        self.anchors, self.links, self.loads = set(), [], []
        self.feed(path.read_text(encoding="utf-8"))

    def handle_starttag(self, tag, attrs):
        values = dict(attrs)
        self.anchors.update(values[key] for key in ("id", "name") if values.get(key))
        if tag == "a" and values.get("href"):
            self.links.append(values["href"])
        elif tag in LOADED and values.get(LOADED[tag]):
            self.loads.append(values[LOADED[tag]])


def is_elsewhere(link):
    return bool(urllib.parse.urlsplit(link).scheme or link.startswith("//"))


def check_links(site, pages):
    for path, page in pages.items():
        where = path.relative_to(site)
        for link in page.loads:
            if is_elsewhere(link) and not link.startswith("data:"):
                yield f"{where} loads {link}"
        for link in page.links + page.loads:
            if is_elsewhere(link):
                continue
            parts = urllib.parse.urlsplit(link)
            # Read from a folder, a path from the root is one of the disk.
            if parts.path.startswith("/"):
                yield f"{where} links to {link}, which is not in its folder"
                continue
            target = path.parent / urllib.parse.unquote(parts.path) if parts.path else path
            target = target.resolve()
            if target.is_dir():
                target /= "index.html"
            if not target.is_file() or not target.is_relative_to(site):
                yield f"{where} links to {link}, which is not there"
            elif parts.fragment and target in pages:
                anchor = urllib.parse.unquote(parts.fragment)
                if anchor not in pages[target].anchors:
                    yield f"{where} links to {link}, and that page has no such anchor"


def check_styles(site):
    for path in site.rglob("*.css"):
        for found in re.findall(
            r"(?:url\(|@import )['\"]?(https?:[^'\")]+|//[^'\")]+)", path.read_text()
        ):
            yield f"{path.relative_to(site)} loads {found}"


def check_reference(site, pages):
    anchors = collections.Counter(
        anchor
        for path, page in pages.items()
        if path.name.startswith("api-")
        for anchor in page.anchors
    )
    for name in api_reference.exported_names():
        if anchors[name.lower()] != 1:
            yield f"{name} is in the reference {anchors[name.lower()]} times"
    lines = pages[site / "log-lines.html"].anchors
    for entry, anchor in log_lines.entries_with_anchors():
        if anchor not in lines:
            yield f"the page of log lines lacks '{entry.text}'"


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    site = pathlib.Path(sys.argv[1]).resolve()
    pages = {path: Page(path) for path in sorted(site.rglob("*.html"))}
    problems = [
        *check_links(site, pages),
        *check_styles(site),
        *check_reference(site, pages),
    ]
    links = sum(len(page.links) for page in pages.values())
    print("\n".join(problems) or f"{len(pages)} pages, {links} links: all lead somewhere")
    return bool(problems) or not links


if __name__ == "__main__":
    sys.exit(main())
