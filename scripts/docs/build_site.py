#!/usr/bin/env python3
"""Builds the documentation site: the same bytes whenever and wherever it is done. It works without a
network and without a server.

    build_site.py [--mkdocs PROGRAM] [--depfile FILE] FOLDER SITE

FOLDER   for what is needed on the way
SITE     where to; what is there is replaced
PROGRAM  mkdocs, with the theme material
FILE     receives what the site is made from, in the form of make
"""

import argparse
import os
import pathlib
import shutil
import subprocess
import sys

sys.dont_write_bytecode = True  # the checkout may be read-only

import stage_site  # noqa: E402

# What a server answers with, what crawlers read, the search in languages other than English, and
# what leads from the theme's scripts to their sources.
LEFT_OUT = ("404.html", "sitemap.xml*", "assets/javascripts/lunr", "**/*.map")


def allow_search_from_folder(site):
    """See theme/assets/offline-search.js."""
    index = (site / "search" / "search_index.json").read_text(encoding="utf-8")
    script = f"var __search = {{ index: Promise.resolve({index}) }};\n"
    (site / "search" / "search_index.js").write_text(script, encoding="utf-8", newline="\n")


def leave_out(site):
    for pattern in LEFT_OUT:
        for path in sorted(site.glob(pattern)):
            shutil.rmtree(path) if path.is_dir() else path.unlink()


def run_mkdocs(program, settings):
    # Its clock is for dates in pages; a variable of the user's would be another one.
    surroundings = os.environ | {"PYTHONDONTWRITEBYTECODE": "1", "SOURCE_DATE_EPOCH": "0"}
    command = [program, "--quiet", "build", "--clean", "--config-file", str(settings)]
    subprocess.run(command, env=surroundings, check=True)


def write_depfile(path, target, sources):
    def quoted(source):
        return str(source).replace(" ", "\\ ")

    scripts = pathlib.Path(__file__).parent.glob("*.py")
    names = sorted(quoted(source) for source in {*sources, *scripts})
    path.write_text(f"{quoted(target)}: {' '.join(names)}\n", encoding="utf-8")


def build(mkdocs, folder, site):
    """Gives what the site is made from."""
    # At its place in one piece, or not at all.
    made = folder / "site"
    folder.mkdir(parents=True, exist_ok=True)
    sources = stage_site.lay_out(folder, made)
    run_mkdocs(mkdocs, folder / "mkdocs.yml")
    allow_search_from_folder(made)
    leave_out(made)
    shutil.rmtree(site, ignore_errors=True)
    site.parent.mkdir(parents=True, exist_ok=True)
    shutil.move(made, site)
    return sources


def main():
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("--mkdocs", default="mkdocs", metavar="PROGRAM")
    parser.add_argument("--depfile", type=pathlib.Path, metavar="FILE")
    parser.add_argument("folder", type=pathlib.Path, metavar="FOLDER")
    parser.add_argument("site", type=pathlib.Path, metavar="SITE")
    arguments = parser.parse_args()
    site = arguments.site.absolute()
    try:
        sources = build(arguments.mkdocs, arguments.folder.absolute(), site)
        if arguments.depfile:
            write_depfile(arguments.depfile, site / "index.html", sources)
    except (OSError, subprocess.CalledProcessError) as error:
        sys.exit(f"build_site: {error}")


if __name__ == "__main__":
    main()
