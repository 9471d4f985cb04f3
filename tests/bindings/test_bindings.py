"""The bindings in examples/bindings fit nimbra.h, and what they call arrives.

    NIMBRA_RECORDING=<libnimbra_recording.so> test_bindings.py [Python]

The compilers are independent of scripts/bindings.py, which wrote the bindings.
"""

import builtins
import contextlib
import ctypes
import io
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest
import unittest.mock

SOURCE = pathlib.Path(__file__).resolve().parents[2]
BINDINGS = SOURCE / "examples" / "bindings"
RECORDING = os.environ.get("NIMBRA_RECORDING", "")
sys.path[:0] = [str(SOURCE / "scripts"), str(BINDINGS / "python"), str(pathlib.Path(__file__).parent)]

import bindings  # noqa: E402  (needs the path above)
import example  # noqa: E402
import nimbra  # noqa: E402

CONTENT = bytes(range(256)) * 8192 + b"end"  # two pieces
HANDLES = {
    "CORVWinCFSyncRootHandle": (nimbra.SyncRootHandle, "SyncRoot"),
    "CORVWinCFCallbackDelegatorHandle": (nimbra.CallbackDelegatorHandle, "CallbackDelegator"),
    "CORVWinCFPlaceholderHandle": (nimbra.PlaceholderHandle, "Placeholder"),
    "CORVWinCFPlaceholderMetaHandle": (nimbra.PlaceholderMetaHandle, "PlaceholderMeta"),
}


def run(*command, **options):
    return subprocess.run(
        [str(part) for part in command], check=True, capture_output=True, text=True, **options
    )


def plain(kind):
    """A C type without what only its spelling decides."""
    return kind.replace("_Bool", "bool").replace(" *", "*").replace("struct ", "")


class Declarations(unittest.TestCase):
    """What scripts/bindings.py reads in the header is what a compiler reads in it."""

    @classmethod
    def setUpClass(cls):
        cls.header = bindings.read_header()
        command = ["clang", "-x", "c", "-std=c11", "-Xclang", "-ast-dump=json", "-fsyntax-only"]
        tree = json.loads(run(*command, bindings.HEADER).stdout)
        cls.nodes = [one for one in tree["inner"] if one.get("name", "").startswith("CORV")]
        cls.enums = [one for one in tree["inner"] if one["kind"] == "EnumDecl"]

    def test_every_file_is_as_the_header_says(self):
        done = subprocess.run(
            [sys.executable, "-B", SOURCE / "scripts" / "bindings.py", "--check"],
            capture_output=True,
            text=True,
        )
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

    def test_no_function_is_missing_and_all_types_are_the_compilers(self):
        compiled = {}
        for node in self.nodes:
            if node["kind"] == "FunctionDecl":
                parameters = [
                    (one["name"], plain(one["type"]["qualType"]))
                    for one in node.get("inner", [])
                    if one["kind"] == "ParmVarDecl"
                ]
                result = plain(node["type"]["qualType"].split("(")[0].strip())
                compiled[node["name"]] = (result, parameters)
        read = {
            one.name: (plain(one.result), [(each.name, plain(each.type)) for each in one.parameters])
            for one in self.header.functions
        }
        self.assertEqual(len(compiled), 62)
        self.assertEqual(read, compiled)

    def test_the_constants_have_the_compilers_values(self):
        compiled = {
            constant["name"]: int(constant["inner"][0]["value"])
            for enum in self.enums
            for constant in enum["inner"]
            if constant.get("name", "").startswith("CORV")
        }
        self.assertEqual(self.header.constants, compiled)
        self.assertEqual(len(compiled), 4)

    def test_the_callbacks_have_the_compilers_types(self):
        for name, function in self.header.callbacks.items():
            node = next(one for one in self.nodes if one.get("name") == name)
            parameters = ", ".join(plain(one.type) for one in function.parameters)
            compiled = plain(node["type"]["qualType"]).replace("(*)", "")
            self.assertEqual(f"{plain(function.result)} ({parameters})", compiled)
        self.assertEqual(len(self.header.callbacks), 2)


class Layout(unittest.TestCase):
    """The structures lie in memory as the compiler for Windows lays them out."""

    def assertions(self):
        for name in ("PlatformInfo", "CallbackRecord"):
            structure = getattr(nimbra, name)
            yield f"sizeof(CORVWinCF{name}) == {ctypes.sizeof(structure)}"
            for field, _ in structure._fields_:
                place = getattr(structure, field)
                for function, value in (("offsetof", place.offset), ("size_of", place.size)):
                    yield f"{function}(CORVWinCF{name}, {field}) == {value}"

    def compile(self, assertions):
        text = "#include <nimbra/nimbra.h>\n#define size_of(type, field) sizeof(((type*)0)->field)\n"
        text += "".join(f'_Static_assert({one}, "{one}");\n' for one in assertions)
        command = ["x86_64-w64-mingw32-gcc-posix", "-std=c11", "-fsyntax-only", "-x", "c", "-"]
        return subprocess.run(
            [*command, f"-I{SOURCE / 'include'}"], input=text, capture_output=True, text=True
        )

    def test_size_and_offsets_are_those_of_windows(self):
        done = self.compile(self.assertions())
        self.assertEqual(done.returncode, 0, done.stderr)

    def test_a_wrong_offset_would_be_noticed(self):
        done = self.compile(["offsetof(CORVWinCFCallbackRecord, context) == 0"])
        self.assertIn("static assertion failed", done.stderr)

    def test_no_field_is_missing(self):
        for name, fields in bindings.read_header().structs.items():
            structure = getattr(nimbra, bindings.shorter(name))
            self.assertEqual([field for field, _ in structure._fields_], [one.name for one in fields])


def load_recording():
    library = nimbra.load(RECORDING)
    for name in ("Reset", "Take"):
        getattr(library, f"Recording{name}").restype = ctypes.c_char_p
    library.RecordingData.restype = ctypes.c_void_p
    library.RecordingDataSize.restype = ctypes.c_size_t
    library.RecordingFindThumbnail.restype = ctypes.c_bool
    return library


def fetch_record(offset=0, length=-1):
    record = nimbra.CallbackRecord(transferKey=42, fullPath=b"C:\\Cloud\\a.bin")
    record.parameters[0], record.parameters[1] = offset, length
    return record


class RecordingCase(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.library = load_recording()
        self.library.RecordingReset()
        self.addCleanup(self.assert_no_complaints)
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.file = self.folder / "größer.bin"
        self.file.write_bytes(CONTENT)
        os.utime(self.file, (1_500_000_000, 1_500_000_000))

    def assert_no_complaints(self):
        self.assertEqual(self.library.RecordingReset().decode(), "")

    def taken(self):
        return self.library.RecordingTake().decode().splitlines()

    def expected_run(self, text):
        """The calls of an example, in their order, with the key 42 for the one fetch."""
        size = len(CONTENT)
        pieces = [(0, 1 << 20), (1 << 20, 1 << 20), (2 << 20, 3)]
        transfers = [f"SyncRootTransferData(1, 42, 0, {at}, {length}, 0)" for at, length in pieces]
        return [
            "IsWinVersionSupportFileStreaming()",
            'SyncRootNew("C:\\Cloud", 1)',
            "CallbackDelegatorNew()",
            f'SyncRootRegister(1, "{text}")',
            "CallbackDelegatorSetFetchCallback(2)",
            "CallbackDelegatorSetRenameCallback(2)",
            "CallbackDelegatorSetDeleteCallback(2)",
            "SyncRootConnect(1, 2)",
            f"PlaceholderMetaNew({', '.join(['1500000000'] * 4)}, {size}, 0)",
            'PlaceholderNew("C:\\Cloud/größer.bin")',
            'PlaceholderCreate(4, "größer.bin", 3)',
            "PlaceholderRelease(4)",
            "PlaceholderMetaRelease(3)",
            *transfers,
            "SyncRootAckRename(1, 42)",
            "SyncRootAckDelete(1, 42, 0, 0)",
            "SyncRootDisconnect(1)",
            "SyncRootUnregister(1)",
            "CallbackDelegatorRelease(2)",
            "SyncRootRelease(1)",
        ]


class Python(RecordingCase):
    """Run here, with this system's convention for calls, which is not that of Windows."""

    # Buffers and functions are not written down.
    UNSEEN = ("void*", "CORVWinCFCallback")

    def argument(self, parameter, number):
        """A value that no other parameter has, and how the recording writes it."""
        kind = parameter.type
        if kind in HANDLES:
            return self.handles[kind], str(self.handles[kind].value)
        if kind == "const char*":
            return f"text {number} ä".encode(), f'"text {number} ä"'
        if kind == "const wchar_t*":
            return f"text {number}", f'L"text {number}"'
        if kind in ("int64_t", "uint64_t"):
            value = 0x1122334455667700 + number
            value = -value if kind == "int64_t" else value + (1 << 63)
            return value, str(value)
        if kind in ("int32_t", "uint32_t"):
            value = -number - 7 if kind == "int32_t" else 0xFFFFFF00 + number
            return value, str(value)
        if kind == "const void*":
            return None, ""
        address = ctypes.create_string_buffer(70000)
        if kind == "CORVWinCFCallback":
            return nimbra.Callback(lambda record: None), ""
        return address, str(ctypes.addressof(address))

    def make_handles(self):
        library = self.library
        self.handles = {kind: make() for kind, (make, _) in HANDLES.items()}
        root, delegator, item, _ = self.handles.values()
        self.assertEqual(library.CORVWinCFSyncRootNew(ctypes.byref(root), b"C:\\Sync", 2**64 - 1), 0)
        self.assertEqual(library.CORVWinCFCallbackDelegatorNew(ctypes.byref(delegator), 4711), 0)
        self.assertEqual(library.CORVWinCFPlaceholderNew(ctypes.byref(item), b"C:/Sync/a"), 0)
        meta = library.CORVWinCFPlaceholderMetaNew(-1, 2, 3, 4, 2**40, 1)
        self.handles["CORVWinCFPlaceholderMetaHandle"] = meta
        self.assertEqual(
            self.taken(),
            [
                f'SyncRootNew("C:\\Sync", {2**64 - 1})',
                "CallbackDelegatorNew()",
                'PlaceholderNew("C:/Sync/a")',
                f"PlaceholderMetaNew(-1, 2, 3, 4, {2**40}, 1)",
            ],
        )

    def release_handles(self):
        for kind, (_, family) in HANDLES.items():
            handle = self.handles[kind]
            argument = ctypes.byref(handle) if family == "SyncRoot" else handle
            getattr(self.library, f"CORVWinCF{family}Release")(argument)
            self.assertEqual(self.taken(), [f"{family}Release({handle.value})"])

    def test_every_function_gets_its_arguments_whole(self):
        self.make_handles()
        done = 0
        for function in bindings.read_header().functions:
            short = bindings.shorter(function.name)
            special = ("GetPlatformInfo", "GenerateGuid", "ReleaseGuid", "SetThumbRetrieverCb")
            if short.endswith(("New", "Release")) or short in special:
                continue
            arguments, expected = [], []
            for number, parameter in enumerate(function.parameters):
                value, text = self.argument(parameter, number)
                arguments.append(value)
                if parameter.type not in (*self.UNSEEN, "const void*"):
                    expected.append(text)
            with self.subTest(function.name):
                result = getattr(self.library, function.name)(*arguments)
                self.assertEqual(self.taken(), [f"{short}({', '.join(expected)})"])
                self.assertFalse(result)
                if function.result.startswith("CORV"):
                    self.library.RecordingAnswer(short.encode(), ctypes.c_uint32(0x80070005))
                    result = getattr(self.library, function.name)(*arguments)
                    self.assertEqual(result & 0xFFFFFFFF, 0x80070005)
                    self.assertLess(result, 0)
                    self.taken()
            done += 1
        self.release_handles()
        self.assertEqual(done, 50, "of 62: eight make and release handles, four are tested below")

    def test_outputs_come_back(self):
        library = self.library
        info = nimbra.PlatformInfo()
        self.assertEqual(library.CORVWinCFGetPlatformInfo(ctypes.byref(info)), 0)
        self.assertEqual((info.buildNumber, info.revisionNumber, info.integrationNumber), (19041, 2, 3))
        guid = ctypes.c_void_p()
        self.assertEqual(library.CORVWinCFGenerateGuid(ctypes.byref(guid)), 0)
        self.assertEqual(len(ctypes.string_at(guid.value)), 38)
        library.CORVWinCFReleaseGuid(guid)
        library.RecordingSetIdentity(b"session.12")
        identity = ctypes.create_string_buffer(65536)
        self.assertEqual(library.CORVWinCFGetSyncRootIdentityByPath(b"C:\\", identity), 0)
        self.assertEqual(identity.value, b"session.12")

    def test_a_handle_of_another_kind_is_refused(self):
        with self.assertRaises(ctypes.ArgumentError):
            self.library.CORVWinCFSyncRootUnregister(nimbra.PlaceholderHandle(1))

    def test_the_thumbnail_retriever_is_asked(self):
        def find(item, image):
            for at, letter in enumerate(item + ".png"):
                image[at] = letter
            return True

        retriever = nimbra.ThumbRetriever(find)
        self.library.CORVWinCFSetThumbRetrieverCb(retriever)
        image = ctypes.create_unicode_buffer(260)
        self.assertTrue(self.library.RecordingFindThumbnail("C:\\a", image))
        self.assertEqual(image.value, "C:\\a.png")

    def run_example(self, *arguments, before_enter=lambda: None):
        def play(_):
            before_enter()
            for event in (b"Fetch", b"Rename", b"Delete"):
                self.library.RecordingPlay(event, ctypes.byref(fetch_record()))

        self.library.RecordingAnswer(b"IsWinVersionSupportFileStreaming", 1)
        output = io.StringIO()
        with unittest.mock.patch.dict(os.environ, NIMBRA_DLL=RECORDING):
            with unittest.mock.patch.object(builtins, "input", play):
                with contextlib.redirect_stdout(output), contextlib.redirect_stderr(output):
                    code = example.main(arguments)
        return code, output.getvalue()

    def test_the_example_serves_a_file_and_answers(self):
        code, output = self.run_example("C:\\Cloud", str(self.file))
        self.assertEqual(code, 0, output)
        self.assertEqual(self.taken(), self.expected_run("Python"))
        self.assertIn("fetch C:\\Cloud\\a.bin: sent", output)
        size = self.library.RecordingDataSize()
        self.assertTrue(ctypes.string_at(self.library.RecordingData(), size) == CONTENT)

    def test_the_example_says_that_the_data_does_not_come(self):
        code, output = self.run_example(
            "C:\\Cloud", str(self.file), before_enter=lambda: self.file.unlink()
        )
        self.assertEqual(code, 0, output)
        self.assertIn(f"SyncRootTransferData(1, 42, 0, 0, {len(CONTENT)}, 1)", self.taken())
        self.assertIn(": failed", output)

    def test_the_example_says_what_failed(self):
        self.library.RecordingAnswer(b"SyncRootRegister", ctypes.c_uint32(0x80040151))
        code, output = self.run_example("C:\\Cloud", str(self.file))
        self.assertEqual(code, 1)
        self.assertIn("not registered (0x80040151)", output)
        self.assertEqual(self.run_example()[0], 2)


@unittest.skipUnless(shutil.which("mcs"), "there is no C# compiler: see scripts/setup.sh")
class CSharp(RecordingCase):
    """Compiled, and run here on Mono, with this system's convention for calls."""

    def build(self):
        program = self.folder / "check.exe"
        sources = sorted((BINDINGS / "csharp").glob("*.cs"))
        check = pathlib.Path(__file__).with_name("Check.cs")
        run("mcs", "-warn:4", "-warnaserror", "-main:Check", f"-out:{program}", *sources, check)
        config = "".join(
            f'<dllmap dll="{name}" target="{RECORDING}"/>' for name in ("Nimbra", "recording")
        )
        (self.folder / "check.exe.config").write_text(f"<configuration>{config}</configuration>")
        return program

    def test_the_example_serves_a_file_and_answers(self):
        done = run("mono", self.build(), "C:\\Cloud", self.file)
        lines = done.stdout.splitlines()
        self.assertEqual(lines[-2:], ["data: whole", "complaints: "], done.stdout + done.stderr)
        self.assertEqual(lines[lines.index("calls:") + 1 : -2], self.expected_run("C#"))

    def test_the_declarations_are_all_there(self):
        text = (BINDINGS / "csharp" / "Nimbra.cs").read_text()
        self.assertEqual(text.count("[DllImport("), len(bindings.read_header().functions))


if __name__ == "__main__":
    unittest.main(verbosity=2)
