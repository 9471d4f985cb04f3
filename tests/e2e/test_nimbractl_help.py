"""nimbractl's help: what it says, and that each of its examples does what it says."""

import pathlib
import re
import shutil

from harness.nimbractl import Listener, NimbractlCase
from harness.roots import SyncRoot

ITEM_COMMANDS = (
    "state", "identity", "hydrate", "dehydrate", "pin", "unpin", "exclude", "in-sync"
)
COMMANDS = (*ITEM_COMMANDS, "info", "roots", "register", "unregister", "explorer", "log")
SUBCOMMANDS = ("explorer register", "explorer unregister", "explorer list")


class Usage(NimbractlCase):
    needs_fuse = False
    needs_daemon = False

    def help_of(self, *command):
        return self.run_ctl(*command, "--help").output

    def test_the_help_names_each_command_has_examples_and_tells_the_exit_codes(self):
        text = self.help_of()
        for command in COMMANDS:
            self.assertRegex(text, rf"(?m)^  {command} +\w")
        self.assertIn("Examples:\n  nimbractl info", text)
        self.assertIn("Exit codes: 0 all went well, 1 something failed, 2 wrong arguments, 3", text)

    def test_the_help_of_each_command_shows_its_arguments_and_an_example(self):
        for command in (*COMMANDS, *SUBCOMMANDS):
            with self.subTest(command=command):
                text = self.help_of(*command.split())
                self.assertIn(f"Usage: nimbractl {command} [OPTIONS]", text)
                self.assertRegex(text, rf"Examples?:\n  nimbractl {command}")
                self.assertRegex(text, r"(?ms)^Exit codes: 0 .* 1 .*2 wrong")
                self.assertLess(max(map(len, text.splitlines())), 101, "too wide")
                if command in ITEM_COMMANDS:
                    self.assertIn("PATH...", text)

    def test_the_version_is_the_project_s(self):
        lists = pathlib.Path(__file__).parents[2] / "CMakeLists.txt"
        version = re.search(r"project\(Nimbra VERSION (\S+)", lists.read_text())[1]
        self.assertEqual(self.run_ctl("--version").output, f"nimbractl {version}\n")

    def test_wrong_arguments_are_named_with_where_to_look(self):
        for arguments, complaint in (
            ((), "a command is missing"),
            (("nonsense",), "there is no command 'nonsense'"),
            (("explorer", "nonsense"), "there is no command 'nonsense'"),
            (("state",), "PATH is required"),
            (("state", "--nope", "x"), "--nope"),
            (("roots", "extra"), "extra"),
            (("register", "x"), "--session is required"),
            (("register", "x", "--session", "2147483648"), "2147483648"),
            (("register", "x", "--session", "seven"), "seven"),
            (("hydrate", "--progress", "maybe", "x"), "maybe"),
            (("log", "--for", "-1"), "-1"),
            (("log", "--pid", "me"), "me"),
        ):
            with self.subTest(arguments=arguments):
                errors = self.failure(*arguments, code=2)
                self.assertIn(complaint, errors)
                self.assertIn("--help shows how to use it", errors)


class Examples(NimbractlCase):
    """On C:, where the examples have their folders: it lies in the Wine prefix."""

    needs_provider = True
    CLSID = "{96192FD0-AD1A-4677-B4FF-D6C144466725}"

    def setUp(self):
        self.drive = self.prefix.path / "drive_c"
        self.done = {}
        self.examples = {}
        for command in ("", *COMMANDS, *SUBCOMMANDS):
            text = self.run_ctl(*command.split(), "--help").output
            block = re.search(r"Examples?:\n((?:  nimbractl .*\n)+)", text)[1]
            self.examples[command] = [
                line.removeprefix("  nimbractl ") for line in block.splitlines()
            ]

    def every_example(self):
        return {example for examples in self.examples.values() for example in examples}

    def run_example(self, line):
        self.assertIn(line, self.every_example())
        self.done[line] = self.run_ctl(*line.split())

    def run_examples(self, *commands):
        for command in commands:
            for example in self.examples[command]:
                if example != "COMMAND --help":
                    self.run_example(example)

    def serve(self, cloud):
        """The client of the registered root, with the items of the examples."""
        root = SyncRoot(self.provider, cloud, 7)
        self.assertEqual(root.status("connect"), 0)
        for folder in ("2024", "tmp"):
            root.create_folder(folder)
        for name in ("a.txt", "two.jpg", "2024/one.jpg"):
            root.create(name, 5000)
        return root

    def listen_as_in_the_examples(self):
        for example in self.examples["log"]:
            log = Listener(self, *example.split()[1:])
            log.interrupt()
            self.assertEqual(log.finish(), 0)
            self.done[example] = log

    def test_each_example_of_each_help_does_what_it_says(self):
        (self.drive / "Client").mkdir()
        shutil.copy(self.bin / "mirror.exe", self.drive / "Client" / "client.exe")
        cloud = self.drive / "Cloud"
        cloud.mkdir()
        self.run_examples("register", "roots")
        self.assertIn("(Home, Cloud)", self.done["roots"].output)
        root = self.serve(cloud)
        self.run_examples("", "info", "state", "identity")
        self.assertEqual(len(self.done[r"state C:\Cloud\a.txt C:\Cloud\*.jpg"].rows), 2)
        self.run_examples("hydrate")
        self.assert_hydrated(root, "2024/one.jpg", 5000)
        self.run_examples("dehydrate", "pin")
        self.assert_online_only(root, "2024/one.jpg")
        self.assertTrue(root.state("2024/one.jpg")["pinned"])
        self.run_examples("unpin", "exclude", "in-sync")
        self.assertFalse(root.state("2024/one.jpg")["pinned"])
        self.assertTrue(root.state("tmp")["excluded"])
        self.assertFalse(root.state("a.txt")["inSync"])
        self.run_examples("explorer register", "explorer", "explorer list")
        self.assertIn(self.CLSID, self.done["explorer list"].output)
        for example in self.examples["explorer unregister"]:
            self.run_example(example)
            self.assertNotIn(self.CLSID, self.run_ctl("explorer", "list").output)
            self.run_example(next(one for one in self.examples["explorer register"]
                                  if self.CLSID in one))
        self.run_ctl("hydrate", "-r", "C:\\Cloud")
        self.assertEqual(root.status("disconnect"), 0)
        for example in self.examples["unregister"]:
            self.run_example(example)
            self.assertIn("lies in no sync root", self.failure("unregister", "C:\\Cloud"))
            self.run_example(self.examples["register"][0])
        self.run_ctl("unregister", "C:\\Cloud")
        self.listen_as_in_the_examples()
        self.assertEqual(self.every_example() - set(self.done), {"COMMAND --help"})
