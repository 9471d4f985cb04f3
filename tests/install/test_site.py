"""The documentation as a site in the package: read from its folder, without a network."""

import json
import re
import unittest

import package

SITE = "share/doc/nimbra/html"
TOOLS = package.SOURCE / "scripts" / "docs"


class Site(unittest.TestCase):
    def test_all_its_links_lead_somewhere_in_its_folder(self):
        said = package.run(TOOLS / "check_site.py", package.installed() / SITE)
        self.assertRegex(said, r"\d+ pages, \d{3,} links: all lead somewhere")

    def test_a_link_out_of_its_folder_is_found(self):
        pages = {"index.html": '<a href="/other.html">', "log-lines.html": '<img src="../a.png">'}
        folder = package.new_folder()
        for name, text in pages.items():
            (folder / name).write_text(text, encoding="utf-8")
        said = package.attempt(TOOLS / "check_site.py", folder)
        self.assertNotEqual(said.returncode, 0)
        self.assertIn("index.html links to /other.html", said.stdout)
        self.assertIn("log-lines.html links to ../a.png", said.stdout)

    def test_it_has_a_page_of_each_document(self):
        for document in (package.installed() / "docs").glob("*.md"):
            page = package.installed() / SITE / f"{document.stem}.html"
            self.assertTrue(page.is_file(), page.name)

    def test_its_search_needs_no_server(self):
        search = package.installed() / SITE / "search"
        index = (search / "search_index.json").read_text(encoding="utf-8")
        script = (search / "search_index.js").read_text(encoding="utf-8")
        self.assertIn(index, script)
        places = {entry["location"].partition("#")[0] for entry in json.loads(index)["docs"]}
        self.assertIn("packaging.html", places)
        page = (package.installed() / SITE / "index.html").read_text(encoding="utf-8")
        self.assertIn("assets/offline-search.js", page)

    def test_built_again_elsewhere_it_has_the_same_bytes(self):
        folder = package.new_folder()
        changes = {"TZ": "Asia/Tokyo", "LC_ALL": "C", "HOME": str(folder)}
        options = ("--mkdocs", package.cached("NIMBRA_MKDOCS"))
        places = (folder / "pages", folder / "site")
        package.run(TOOLS / "build_site.py", *options, *places, env=changes)
        names = package.files_of(folder / "site")
        self.assertEqual(names, package.files_of(package.installed() / SITE))
        for name in names:
            again = (folder / "site" / name).read_bytes()
            self.assertEqual((package.installed() / SITE / name).read_bytes(), again, name)


class WithoutTools(unittest.TestCase):
    """Of the project only what installs the site, and a file."""

    def pack(self, *settings):
        """Gives what configuring and packing said; fails if there is no package."""
        source = package.new_folder()
        (source / "CMakeLists.txt").write_text(
            "cmake_minimum_required(VERSION 3.25)\n"
            "project(Nimbra VERSION 1.0.0 LANGUAGES NONE)\n"
            "find_program(NIMBRA_PYTHON NAMES python3)\n"
            f'include("{package.SOURCE}/cmake/NimbraSite.cmake")\n'
            "install(FILES CMakeLists.txt DESTINATION .)\n"
            "set(CPACK_GENERATOR ZIP)\n"
            "include(CPack)\n",
            encoding="utf-8",
        )
        configured = package.run("cmake", "-G", "Ninja", "-S", source, "-B", source / "b", *settings)
        packed = package.run("cpack", cwd=source / "b")
        self.assertEqual(len(list((source / "b").glob("*.zip"))), 1)
        return configured, re.sub(r"\s+", " ", packed)

    def assert_said(self, missing, *settings):
        configured, packed = self.pack(*settings)
        self.assertIn(f"{missing} is missing", configured)
        self.assertIn("CMake Warning", packed)
        self.assertIn(f"{missing} is missing: the package is without the documentation", packed)

    def test_a_package_made_without_mkdocs_says_so(self):
        self.assert_said(
            "mkdocs (Debian's packages mkdocs and mkdocs-material)", "-DNIMBRA_MKDOCS="
        )

    def test_a_package_made_without_the_theme_says_so(self):
        other = package.new_folder() / "mkdocs"
        other.write_text("#!/bin/sh\necho '--theme [mkdocs|readthedocs]'\n")
        other.chmod(0o755)
        missing = "mkdocs' theme material (Debian's package mkdocs-material)"
        self.assert_said(missing, f"-DNIMBRA_MKDOCS={other}")

    def test_a_package_made_without_the_site_on_purpose_says_so(self):
        configured, packed = self.pack("-DNIMBRA_BUILD_SITE=OFF")
        self.assertIn("NIMBRA_BUILD_SITE is off", configured)
        self.assertNotIn("Warning", packed)
