"""The definitions for package managers, held against what these document and the package."""

import functools
import json
import pathlib
import re
import shutil
import unittest
import xml.etree.ElementTree
import zipfile

import package

PORT = package.SOURCE / "packaging" / "vcpkg" / "ports" / "nimbra"
NUSPEC_NAMESPACE = "http://schemas.microsoft.com/packaging/2013/05/nuspec.xsd"
MSBUILD_NAMESPACE = "http://schemas.microsoft.com/developer/msbuild/2003"
VERSION_FIELDS = {"version", "version-semver", "version-date", "version-string"}
# learn.microsoft.com/vcpkg/reference/vcpkg-json
VCPKG_FIELDS = {
    *VERSION_FIELDS,
    *("$schema", "name", "description", "license", "supports", "dependencies", "homepage"),
    *("builtin-baseline", "default-features", "documentation", "features", "maintainers"),
    *("overrides", "port-version", "summary", "configuration"),
}
# learn.microsoft.com/nuget/reference/nuspec
NUSPEC_REQUIRED = ("id", "version", "description", "authors")
NUSPEC_FIELDS = {
    *NUSPEC_REQUIRED,
    *("title", "projectUrl", "license", "icon", "readme", "requireLicenseAcceptance"),
    *("developmentDependency", "summary", "releaseNotes", "copyright", "language", "tags"),
    *("serviceable", "repository", "dependencies", "frameworkAssemblies", "references"),
    *("contentFiles", "packageTypes"),
}
# The functions of vcpkg that the port calls, as far as a check of the port needs them.
STAND_INS = """
set(CURRENT_PACKAGES_DIR "{packages}")
set(PORT nimbra)
function(vcpkg_check_linkage)
  cmake_parse_arguments(PARSE_ARGV 0 arg "ONLY_DYNAMIC_LIBRARY" "" "")
  message(STATUS "dynamic=${{arg_ONLY_DYNAMIC_LIBRARY}} left=${{arg_UNPARSED_ARGUMENTS}}")
endfunction()
function(vcpkg_cmake_configure)
  cmake_parse_arguments(PARSE_ARGV 0 arg "" "SOURCE_PATH" "OPTIONS")
  message(STATUS "source=${{arg_SOURCE_PATH}}")
  message(STATUS "options=${{arg_OPTIONS}}")
endfunction()
function(vcpkg_cmake_install)
endfunction()
function(vcpkg_cmake_config_fixup)
  cmake_parse_arguments(PARSE_ARGV 0 arg "" "PACKAGE_NAME;CONFIG_PATH" "")
  message(STATUS "config=${{arg_CONFIG_PATH}}")
endfunction()
function(vcpkg_copy_pdbs)
endfunction()
function(vcpkg_fixup_pkgconfig)
endfunction()
function(vcpkg_install_copyright)
  cmake_parse_arguments(PARSE_ARGV 0 arg "" "" "FILE_LIST")
  message(STATUS "copyright=${{arg_FILE_LIST}}")
endfunction()
include("{portfile}")
"""


class Vcpkg(unittest.TestCase):
    def run_portfile(self):
        """Gives what the port handed to vcpkg's functions, and the folder it installed into."""
        folder = package.new_folder()
        script = folder / "run.cmake"
        text = STAND_INS.format(packages=folder / "packages", portfile=PORT / "portfile.cmake")
        script.write_text(text, encoding="utf-8")
        output = package.run("cmake", "-P", script)
        said = dict(
            line.removeprefix("-- ").split("=", 1) for line in output.splitlines() if "=" in line
        )
        return said, folder / "packages"

    def test_the_manifest_has_what_vcpkg_asks_for(self):
        manifest = json.loads((PORT / "vcpkg.json").read_text(encoding="utf-8"))
        self.assertLessEqual(set(manifest), VCPKG_FIELDS)
        self.assertEqual(len(VERSION_FIELDS & set(manifest)), 1)
        self.assertRegex(manifest["name"], r"^[a-z0-9]+(-[a-z0-9]+)*$")
        self.assertEqual(manifest["name"], PORT.name)
        self.assertTrue(manifest["description"])
        self.assertIsNone(manifest["license"], "null: none that has an SPDX expression")
        for dependency in manifest["dependencies"]:
            self.assertLessEqual(set(dependency), {"name", "host", "features", "platform"})
            self.assertRegex(dependency["name"], r"^[a-z0-9]+(-[a-z0-9]+)*$")

    def test_the_port_uses_only_functions_of_what_it_depends_on(self):
        manifest = json.loads((PORT / "vcpkg.json").read_text(encoding="utf-8"))
        needed = {dependency["name"] for dependency in manifest["dependencies"]}
        text = (PORT / "portfile.cmake").read_text(encoding="utf-8")
        self.assertEqual("vcpkg_cmake_configure(" in text, "vcpkg-cmake" in needed)
        self.assertEqual("vcpkg_cmake_config_fixup(" in text, "vcpkg-cmake-config" in needed)

    def test_the_port_builds_this_tree_with_options_that_it_has(self):
        said, packages = self.run_portfile()
        self.assertEqual(pathlib.Path(said["source"]).resolve(), package.SOURCE)
        options = re.findall(r"-D(\w+)=", said["options"])
        self.assertGreater(len(options), 3)
        scripts = [package.SOURCE / "CMakeLists.txt", *(package.SOURCE / "cmake").glob("*.cmake")]
        text = "\n".join(script.read_text(encoding="utf-8") for script in scripts)
        for option in options:
            self.assertRegex(text, rf"(option\(|set\(){option} ", option)
        self.assertTrue((package.installed() / said["config"] / "NimbraConfig.cmake").is_file())
        self.assertTrue(pathlib.Path(said["copyright"]).is_file())
        self.assertTrue((packages / "share" / "nimbra" / "usage").is_file())

    def test_its_usage_builds_a_project(self):
        source = package.new_folder()
        usage = (PORT / "usage").read_text(encoding="utf-8").split("\n\n", 1)[1]
        start = "cmake_minimum_required(VERSION 3.21)\nproject(Usage LANGUAGES C)\n"
        (source / "CMakeLists.txt").write_text(f"{start}add_executable(main main.c)\n{usage}")
        shutil.copy(package.HERE / "consumer" / "client.c", source / "main.c")
        toolchain = f"-DCMAKE_TOOLCHAIN_FILE={package.HERE}/consumer/mingw.cmake"
        prefix = f"-DCMAKE_PREFIX_PATH={package.installed()}"
        package.run("cmake", "-G", "Ninja", "-S", source, "-B", source / "b", toolchain, prefix)
        package.run("cmake", "--build", source / "b")


class NuGet(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = package.installed() / "nuget"
        cls.nuspec = xml.etree.ElementTree.parse(cls.folder / "Nimbra.nuspec").getroot()

    def packed(self):
        """The names in the package that nuget would make, by the definition's files."""
        names = set()
        for entry in self.nuspec.iterfind("{*}files/{*}file"):
            files = [path for path in package.installed().glob(entry.get("src")) if path.is_file()]
            # nuget takes it well if a pattern stands for nothing.
            self.assertTrue(files or "*" in entry.get("src"), f"{entry.get('src')} is not there")
            target = pathlib.PurePosixPath(entry.get("target"))
            names.update(str(target / path.name) for path in files)
        return names

    def test_the_definition_has_what_nuget_asks_for(self):
        self.assertEqual(self.nuspec.tag, f"{{{NUSPEC_NAMESPACE}}}package")
        metadata = self.nuspec.find("{*}metadata")
        fields = [re.sub(r"\{.*\}", "", child.tag) for child in metadata]
        self.assertLessEqual(set(fields), NUSPEC_FIELDS)
        self.assertEqual(len(fields), len(set(fields)))
        for field in NUSPEC_REQUIRED:
            self.assertTrue(metadata.findtext(f"{{*}}{field}"), field)
        self.assertIn("native", metadata.findtext("{*}tags").split())

    @classmethod
    @functools.cache
    def made(cls):
        """The package that nuget makes, as a folder."""
        prefix = package.new_folder() / "nimbra"
        shutil.copytree(package.installed(), prefix)
        # Debian's nuget is of 2014: it does not know these two.
        definition = prefix / "nuget" / "Nimbra.nuspec"
        text = re.sub(r' minClientVersion="[^"]*"|<readme>.*</readme>', "", definition.read_text())
        definition.write_text(text, encoding="utf-8")
        home = {"HOME": str(package.new_folder())}
        package.run("nuget", "pack", definition, "-BasePath", prefix, cwd=prefix, env=home)
        with zipfile.ZipFile(prefix / f"Nimbra.{package.version()}.nupkg") as archive:
            archive.extractall(prefix / "made")
        return prefix / "made"

    def test_nuget_makes_a_package_of_all_that_it_names(self):
        found = set(package.files_of(self.made()))
        own = {
            name for name in found if re.match(r"_rels/|package/|\[Content|Nimbra\.nuspec$", name)
        }
        self.assertEqual(found - own, self.packed())

    def test_it_has_the_symbols_of_windows_debuggers_if_the_zip_has(self):
        symbols = "build/native/bin/x64/Nimbra.pdb"
        self.assertEqual((self.made() / symbols).is_file(), package.is_from_clang())

    def test_its_readme_names_only_what_is_in_it(self):
        text = (self.made() / "README.md").read_text(encoding="utf-8")
        self.assertEqual(re.findall(r"\]\((?!https:)[^)]*\)|^\[[^]]+\]:", text, re.M), [])
        code = re.compile(r"^```.*?^```$", re.S | re.M)
        named = re.findall(r"`([\w./-]+(?:/|\.(?:txt|json|h))[\w./-]*)`", code.sub("", text))
        # What is said to be in the zip, which is where this is made.
        in_zip = {name for name in named if name.startswith("share/")}
        self.assertGreater(len(named), 5)
        for name in named:
            folder = package.installed() if name in in_zip else self.made()
            self.assertTrue((folder / name).exists(), name)

    def test_the_first_call_in_its_readme_works(self):
        text = (self.made() / "README.md").read_text(encoding="utf-8")
        folder = package.new_folder()
        (folder / "first.c").write_text(re.search(r"```c\n(.*?)```", text, re.S)[1])
        native = self.made() / "build" / "native"
        options = ("-Wall", "-Wextra", "-Werror", f"-I{native}/include", "first.c")
        library = native / "lib" / "x64" / "Nimbra.lib"
        package.run(package.COMPILER, *options, library, "-o", "first.exe", cwd=folder)
        shutil.copy(native / "bin" / "x64" / "Nimbra.dll", folder)
        # No manifest: that takes MSBuild.
        said = package.run_in_windows(folder / "first.exe")
        self.assertEqual(said, "no: the manifest, or an older Windows\n")

    def test_all_files_that_it_names_are_in_the_package(self):
        self.assertIn(self.nuspec.findtext("{*}metadata/{*}readme"), self.packed())
        # nuget finds the targets by the name of the package.
        name = self.nuspec.findtext("{*}metadata/{*}id")
        self.assertIn(f"build/native/{name}.targets", self.packed())

    def test_all_files_that_its_targets_name_are_packed(self):
        path = self.folder / "build" / "native" / "Nimbra.targets"
        self.assertEqual(
            xml.etree.ElementTree.parse(path).getroot().tag, f"{{{MSBUILD_NAMESPACE}}}Project"
        )
        named = re.findall(r"\$\(MSBuildThisFileDirectory\)([^;\"<']+)", path.read_text())
        self.assertEqual(len(set(named)), 5)
        packed = self.packed() | {"build/native/bin/x64/Nimbra.pdb"}  # if there is one
        for name in (f"build/native/{name}".replace("\\", "/") for name in named):
            found = name in packed or any(other.startswith(f"{name}/") for other in packed)
            self.assertTrue(found, name)
