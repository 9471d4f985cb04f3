"""Clients of the installed package, built in folders of their own and run: with both import
libraries, by hand, through CMake and through pkg-config."""

import functools
import re
import shlex
import shutil
import unittest

import package

CONSUMER = package.HERE / "consumer"
MINGW_TOOLCHAIN = f"-DCMAKE_TOOLCHAIN_FILE={CONSUMER}/mingw.cmake"
MSVC_TOOLCHAIN = f"-DCMAKE_TOOLCHAIN_FILE={CONSUMER}/clang-msvc.cmake"
CLANG = ("clang-19", "--target=x86_64-pc-windows-msvc")
ANSWERS = re.compile(
    r"(gate \w+)\n((?:no )?platform info)\n" r"\{[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}\}\n"
)
VCPKG_REPLACES = re.compile(
    r'(get_filename_component\(PACKAGE_PREFIX_DIR "\$\{CMAKE_CURRENT_LIST_DIR\}/)(\.\./?)*'
    r'(" ABSOLUTE\))'
)


@functools.cache
def kernel32():
    """An import library of Windows' own functions that the client without a C runtime calls."""
    library = package.new_folder() / "kernel32.lib"
    definition = CONSUMER / "kernel32.def"
    package.run("llvm-dlltool-19", "-m", "i386:x86-64", "-d", definition, "-l", library)
    return library


def folder_with_library():
    folder = package.new_folder()
    shutil.copy(package.installed() / "bin" / "Nimbra.dll", folder)
    return folder


class LinkingCase(unittest.TestCase):
    def assert_answers(self, program, build, gate, platform):
        match = ANSWERS.fullmatch(package.run_in_windows(program, build=build))
        self.assertIsNotNone(match, "what the client printed has another form")
        self.assertEqual(match.groups()[:2], (gate, platform))

    def assert_works(self, program):
        """The library answers by what Windows it runs on."""
        self.assert_answers(program, 19045, "gate open", "platform info")
        self.assert_answers(program, 16299, "gate closed", "no platform info")


class MinGW(LinkingCase):
    def build(self, *options):
        folder = folder_with_library()
        compiler = (package.COMPILER, "-std=c11", "-Wall", "-Wextra", "-Werror")
        package.run(*compiler, CONSUMER / "client.c", *options, "-o", folder / "client.exe")
        return folder / "client.exe"

    def manifest(self):
        resource = package.new_folder() / "manifest.o"
        share = package.installed() / "share" / "nimbra"
        # windres gives the name to a shell, without quotes.
        package.run(package.MINGW + "windres", "host-manifest.rc", resource.name, cwd=share)
        return shutil.move(share / resource.name, resource)

    def test_a_program_links_with_its_import_library_and_runs(self):
        prefix = package.installed()
        options = (f"-I{prefix}/include", f"-L{prefix}/lib", "-lNimbra", self.manifest())
        self.assert_works(self.build(*options))

    def test_a_program_without_the_manifest_finds_the_gate_closed(self):
        prefix = package.installed()
        program = self.build(f"-I{prefix}/include", f"-L{prefix}/lib", "-lNimbra")
        self.assert_answers(program, 19045, "gate closed", "no platform info")

    def test_a_program_links_with_what_pkg_config_says(self):
        settings = {"PKG_CONFIG_LIBDIR": str(package.installed() / "lib" / "pkgconfig")}
        flags = shlex.split(package.run("pkg-config", "--cflags", "--libs", "nimbra", env=settings))
        self.assert_works(self.build(*flags, self.manifest()))

    def test_the_documented_way_with_pkg_config_gives_a_program_with_the_manifest(self):
        document = (package.SOURCE / "docs" / "packaging.md").read_text(encoding="utf-8")
        recipe = re.search(r"### pkg-config\n\n```sh\n(.*?)```", document, re.S).group(1)
        folder = folder_with_library()
        shutil.copy(CONSUMER / "client.c", folder)
        recipe = recipe.replace("<folder of the package>", str(package.installed()))
        package.run("sh", "-ec", recipe, cwd=folder)
        self.assert_works(folder / "client.exe")


class MSVC(LinkingCase):
    def test_a_program_links_with_its_import_library_and_runs(self):
        prefix, folder = package.installed(), folder_with_library()
        compiler = (*CLANG, "-std=c11", "-O1", "-fno-builtin", "-Wall", "-Wextra", "-Werror")
        options = ("-DNIMBRA_WITHOUT_C_RUNTIME", f"-I{prefix}/include")
        headers = ("-isystem", "/usr/x86_64-w64-mingw32/include")
        source = CONSUMER / "client.c"
        package.run(*compiler, *options, *headers, "-c", source, "-o", folder / "client.obj")
        manifest = prefix / "share" / "nimbra" / "host-manifest.rc"
        # Without the dashes a path such as /checkout/… would be read as the option /c.
        package.run("llvm-rc-19", "/fo", folder / "manifest.res", "--", manifest)
        linker = ("lld-link-19", "/nologo", "/nodefaultlib", "/subsystem:console", "/WX")
        libraries = (kernel32(), prefix / "lib" / "Nimbra.lib")
        objects = ("client.obj", "manifest.res")
        package.run(*linker, "/out:client.exe", *objects, *libraries, cwd=folder)
        self.assert_works(folder / "client.exe")

    def test_the_header_needs_nothing_of_a_library_in_cpp(self):
        source = package.new_folder() / "header.cpp"
        source.write_text("#include <nimbra/nimbra.h>\n", encoding="utf-8")
        include = f"-I{package.installed()}/include"
        options = ("-std=c++20", "-ffreestanding", "-Wall", "-Wextra", "-Wpedantic", "-Werror")
        package.run(*CLANG, *options, include, "-fsyntax-only", source)


class Programs(unittest.TestCase):
    def test_those_of_the_package_run_where_they_are(self):
        programs = sorted((package.installed() / "bin").glob("*.exe"))
        self.assertIn("mirror.exe", [program.name for program in programs])
        for program in programs:
            with self.subTest(program.name):
                self.assertIn(program.stem, package.run_in_windows(program, "--help"))


class CMake(LinkingCase):
    def configure(self, prefix, *options, wanted=None):
        """Gives the result, and the folder of the build."""
        source, build = package.new_folder(), package.new_folder()
        for name in ("CMakeLists.txt", "client.c"):
            shutil.copy(CONSUMER / name, source)
        shutil.copy(kernel32(), source)
        version = wanted or package.version()
        settings = (f"-DCMAKE_PREFIX_PATH={prefix}", f"-DNIMBRA_WANTED_VERSION={version}")
        command = ("cmake", "-G", "Ninja", "-S", source, "-B", build, *settings, *options)
        return package.attempt(*command), build

    def assert_builds_and_works(self, prefix, *options):
        result, build = self.configure(prefix, *options)
        self.assertEqual(result.returncode, 0, result.stdout)
        package.run("cmake", "--build", build)
        self.assert_works(build / "client.exe")

    def test_a_project_builds_with_mingw(self):
        self.assert_builds_and_works(package.installed(), MINGW_TOOLCHAIN)

    def test_a_project_builds_for_msvc(self):
        self.assert_builds_and_works(package.installed(), MSVC_TOOLCHAIN)

    def test_a_project_for_another_system_is_told_why_not(self):
        result, _ = self.configure(package.installed())
        self.assertNotEqual(result.returncode, 0)
        self.assertIn("Nimbra is for x64 Windows only.", result.stdout)

    def test_a_project_for_another_processor_is_told_why_not(self):
        for toolchain, target in (
            ("mingw.cmake", "set(CMAKE_SYSTEM_PROCESSOR ARM64)"),
            ("clang-msvc.cmake", "set(CMAKE_C_COMPILER_TARGET aarch64-pc-windows-msvc)"),
        ):
            with self.subTest(toolchain):
                file = package.new_folder() / "toolchain.cmake"
                file.write_text(f'include("{CONSUMER}/{toolchain}")\n{target}\n', encoding="utf-8")
                result, _ = self.configure(package.installed(), f"-DCMAKE_TOOLCHAIN_FILE={file}")
                self.assertNotEqual(result.returncode, 0)
                self.assertIn("Nimbra is for x64 Windows only.", result.stdout)

    def test_a_project_that_wants_a_later_version_does_not_get_it(self):
        major, minor, _ = package.version().split(".")
        for wanted in (f"{major}.{int(minor) + 1}", f"{int(major) + 1}.0"):
            with self.subTest(wanted):
                result, _ = self.configure(package.installed(), MINGW_TOOLCHAIN, wanted=wanted)
                self.assertNotEqual(result.returncode, 0)
                self.assertIn("Could not find a configuration file", result.stdout)

    def test_an_incomplete_package_is_not_found_and_says_what_it_lacks(self):
        prefix = package.new_folder() / "nimbra"
        shutil.copytree(package.installed(), prefix)
        (prefix / "lib" / "libNimbra.dll.a").unlink()
        result, _ = self.configure(prefix, MINGW_TOOLCHAIN)
        self.assertNotEqual(result.returncode, 0)
        self.assertRegex(result.stdout, r"(?s)This package of Nimbra\s+lacks.*libNimbra\.dll\.a")

    def test_the_package_works_where_vcpkg_moves_it(self):
        prefix = package.new_folder() / "nimbra"
        shutil.copytree(package.installed(), prefix)
        for file in (prefix / "lib" / "cmake" / "Nimbra").iterdir():
            text = file.read_text(encoding="utf-8")
            # As vcpkg_cmake_config_fixup does.
            text = VCPKG_REPLACES.sub(r"\1../../\3", text)
            (prefix / "share" / "nimbra" / file.name).write_text(text, encoding="utf-8")
        shutil.rmtree(prefix / "lib" / "cmake")
        result, _ = self.configure(prefix, MINGW_TOOLCHAIN)
        self.assertEqual(result.returncode, 0, result.stdout)

    def test_the_examples_build_with_the_package(self):
        build = package.new_folder()
        source = package.installed() / "examples"
        prefix = f"-DCMAKE_PREFIX_PATH={package.installed()}"
        command = ("cmake", "-G", "Ninja", "-S", source, "-B", build, prefix, MINGW_TOOLCHAIN)
        package.run(*command, "-DCMAKE_CXX_FLAGS=-O0")
        package.run("cmake", "--build", build)
        usage = package.run_in_windows(build / "bin" / "mirror.exe", "--help")
        self.assertIn("mirror", usage)
        names = {path.stem for path in source.rglob("*.c")} | {"mirror"}
        self.assertEqual({path.stem for path in (build / "bin").glob("*.exe")}, names)
