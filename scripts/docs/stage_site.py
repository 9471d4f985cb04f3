"""Lays out the pages of the documentation site for mkdocs: docs/*.md, the reference made from the
header, and whatever files of the repository these link to."""

import json
import pathlib
import re
import shutil
import sys

sys.dont_write_bytecode = True  # the checkout may be read-only

import api_reference  # noqa: E402
import log_lines  # noqa: E402

ROOT = pathlib.Path(__file__).resolve().parents[2]
DOCS = ROOT / "docs"
HERE = pathlib.Path(__file__).resolve().parent
STYLE = HERE / "site.css"
THEME = HERE / "theme"
HEADER_PAGE = "api.md"

# Groups of the navigation, with pages in their order. A page of docs/ that is in none comes at the
# end of the last group.
NAVIGATION = {
    "Start": ["index.md", "start-windows.md", "start-linux.md"],
    "Guides": [
        "client-guide.md", "hydration.md", "threads.md", "cpp.md", "bindings.md", "nimbractl.md",
        "simulator.md", "troubleshooting.md",
    ],
    "Reference": ["log-lines.md"],
    "Project": [
        "architecture.md", "reliability.md", "performance.md", "building.md", "packaging.md",
    ],
}  # fmt: skip
API_GROUP = "Reference"
TITLES = {
    "index.md": "Overview",
    HEADER_PAGE: "All functions",
    "source-readme.md": "README",
}  # where not the page's own

SETTINGS = {
    "site_name": "Nimbra",
    "site_url": "",
    "use_directory_urls": False,  # so that it also works from a folder, without a server
    "strict": True,
    "theme": {
        "name": "material",
        "custom_dir": str(THEME),
        "font": False,  # nothing is loaded from elsewhere
        "icon": {"logo": "material/cloud-sync-outline"},
        "features": ["navigation.tabs", "navigation.sections", "navigation.top", "toc.follow"],
        "palette": [
            {"media": "(prefers-color-scheme: light)", "scheme": "default", "primary": "indigo",
             "toggle": {"icon": "material/weather-night", "name": "Dark"}},
            {"media": "(prefers-color-scheme: dark)", "scheme": "slate", "primary": "indigo",
             "toggle": {"icon": "material/weather-sunny", "name": "Light"}},
        ],
    },
    "extra": {"generator": False},
    "extra_css": ["assets/site.css"],
    "plugins": [{"search": {"lang": "en"}}],
    "markdown_extensions": [
        "attr_list", "tables", "sane_lists", {"toc": {"permalink": True, "toc_depth": 3}},
        {"pymdownx.highlight": {"use_pygments": True}}, "pymdownx.superfences",
    ],
}  # fmt: skip

FENCED = re.compile(r"^(`{3,}).*?^\1[^\n]*$", re.S | re.M)
LINK = re.compile(r"(?<=\]\()([^)\s]+)(?=\))")
TITLE = re.compile(r"^# (.+?)(?: \{.*\})?$", re.M)
LANGUAGES = {".h": "c", ".hpp": "cpp", ".cpp": "cpp", ".c": "c", ".py": "python", ".sh": "bash",
             ".cmake": "cmake", ".json": "json", ".manifest": "xml", ".toml": "toml",
             ".cs": "csharp", ".rs": "rust"}  # fmt: skip


class Stage:
    """The pages made so far, and those that they still ask for."""

    def __init__(self, folder):
        self.folder = folder
        self.queue = {}  # name of a page to make: the file or folder that it shows
        # A folder stands for the names in it.
        self.sources = {DOCS, api_reference.HEADER, api_reference.EXPORTS, log_lines.TABLE}

    def page_for(self, target):
        """The name of the page that stands for a file or folder of the repository."""
        if target == api_reference.HEADER:
            return HEADER_PAGE
        if target.is_relative_to(DOCS):
            return target.relative_to(DOCS).as_posix()
        relative = target.relative_to(ROOT).as_posix()
        if target.is_dir() and (target / "README.md").is_file():
            return self.page_for(target / "README.md")
        name = "source-" + relative.removesuffix(".md").replace("/", "-").lower() + ".md"
        self.queue[name] = target
        return name

    def rewrite_links(self, text, source):
        """Points the links of a Markdown file at pages of the site."""

        def rewrite(match):
            path, hash_mark, anchor = match[1].partition("#")
            if not path or ":" in path:
                return match[1]
            target = (source.parent / path).resolve()
            if not target.exists() or not target.is_relative_to(ROOT):
                sys.exit(f"{source.relative_to(ROOT)}: there is no '{path}'")
            return self.page_for(target) + hash_mark + anchor

        pieces, at = [], 0
        for fence in FENCED.finditer(text):
            pieces += [LINK.sub(rewrite, text[at : fence.start()]), fence[0]]
            at = fence.end()
        return "".join(pieces) + LINK.sub(rewrite, text[at:])

    def write(self, name, text):
        (self.folder / name).write_text(text, encoding="utf-8")

    def add_documents(self):
        for path in sorted(DOCS.iterdir()):
            self.sources.add(path)
            if path.suffix == ".md":
                self.write(path.name, self.rewrite_links(path.read_text(encoding="utf-8"), path))
            elif path.is_dir():
                shutil.copytree(path, self.folder / path.name)
            else:
                shutil.copy(path, self.folder)

    def add_asked_for(self):
        made = set()
        while self.queue.keys() - made:
            for name in sorted(self.queue.keys() - made):
                made.add(name)
                self.write(name, self.show(self.queue[name]))

    def show(self, target):
        """A page with the content of a file, or of the files in a folder."""
        self.sources.add(target)
        if target.suffix == ".md":
            return self.rewrite_links(target.read_text(encoding="utf-8"), target)
        files = [target] if target.is_file() else sorted(f for f in target.iterdir() if f.is_file())
        self.sources.update(files)
        parts = [f"# {target.relative_to(ROOT).as_posix()}\n"]
        for path in files:
            if target.is_dir():
                parts.append(f"## {path.name}\n")
            language = LANGUAGES.get(path.suffix, "text")
            parts.append(f"````{language}\n{path.read_text(encoding='utf-8')}````\n")
        return "\n".join(parts)


def log_line_links():
    """By function, links to the lines that it may write."""
    links = {}
    for entry, anchor in log_lines.entries_with_anchors():
        for name in entry.calls:
            links.setdefault(name, []).append(
                f"[{log_lines.in_code(entry.text)}](log-lines.md#{anchor})"
            )
    return links


def with_titles(names):
    return [{TITLES[name]: name} if name in TITLES else name for name in names]


def navigation(folder):
    present = {path.name for path in folder.glob("*.md")}
    listed = {name for names in NAVIGATION.values() for name in names}
    rest = sorted(name for name in present - listed if not name.startswith(("api", "source-")))
    groups = []
    for title, names in NAVIGATION.items():
        pages = [name for name in names if name in present]
        if title == API_GROUP:
            pages = [HEADER_PAGE, *(s.page for s in api_reference.sections()), *pages]
        if title == list(NAVIGATION)[-1]:
            pages += rest
        groups.append({title: with_titles(pages)})
    sources = sorted(name for name in present if name.startswith("source-"))
    groups[-1]["Project"].append({"Files": with_titles(sources)})
    return groups


def check_titles(folder):
    for path in folder.glob("*.md"):
        if not TITLE.search(path.read_text(encoding="utf-8")):
            sys.exit(f"{path.name} has no title")


def lay_out(folder, site):
    """Puts pages/ and mkdocs.yml, which builds into `site`, into the folder, and gives the files and
    folders that they are made from."""
    pages = folder / "pages"
    shutil.rmtree(pages, ignore_errors=True)
    (pages / "assets").mkdir(parents=True)
    stage = Stage(pages)
    stage.add_documents()
    for name, text in api_reference.pages(log_line_links()):
        stage.write(name, text)
    writer = api_reference.Writer(api_reference.sections())
    stage.write(log_lines.PAGE.name, log_lines.render(writer.link, with_anchors=True))
    stage.add_asked_for()
    shutil.copy(STYLE, pages / "assets")
    check_titles(pages)
    settings = SETTINGS | {"docs_dir": str(pages), "site_dir": str(site), "nav": navigation(pages)}
    # JSON is YAML, too.
    (folder / "mkdocs.yml").write_text(json.dumps(settings, indent=1), encoding="utf-8")
    return {*stage.sources, STYLE, *(path for path in THEME.rglob("*"))}
