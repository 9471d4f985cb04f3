"""Data comes when a program needs it: every size, every way of asking, many programs at once."""

import hashlib
import mmap
import subprocess

from harness.case import EndToEndCase
from harness.content import sha256, sha256_of_file, write_big_content, write_content
from harness.waiting import wait_until
from harness.wine import client_path, dos_path

MIB = 1 << 20
SIZES = (0, 1, 4095, 4096, 4097, 64 << 10, 4 * MIB - 1, 4 * MIB, 4 * MIB + 1, 10 * MIB)


def chunks(size):
    """How 4 MiB pieces cover a file."""
    return [(at, min(4 * MIB, size - at)) for at in range(0, size, 4 * MIB)]


def whole(size):
    """The fetches that bring a whole file: none for an empty one."""
    return [(0, size)] if size else []


class Sizes(EndToEndCase):
    """For every size where an off-by-one would show."""

    def test_a_program_that_reads_gets_the_whole_content_by_one_fetch(self):
        root = self.new_root()
        for size in SIZES:
            with self.subTest(size=size):
                name = f"{size} bytes.bin"
                data = root.create(name, size, seed=size)
                self.assertEqual(root.bytes_on_disk(name), 0)
                self.assertEqual((root.path / name).stat().st_size, size)
                self.assertEqual(root.state(name)["hydrated"], size == 0)
                self.assert_content(root, name, data)
                self.assert_hydrated(root, name, size)
                self.assertEqual(self.fetched_ranges(root, name), whole(size))
                self.assert_transfers(root, name, chunks(size))
                self.assert_content(root, name, data)
                self.assertEqual(self.fetched_ranges(root, name), whole(size), "fetched again")

    def test_hydrate_all_brings_the_whole_content_before_it_returns(self):
        root = self.new_root()
        for size in SIZES:
            with self.subTest(size=size):
                name = f"{size} bytes.bin"
                data = root.create(name, size, seed=size)
                self.assertEqual(root.item_status("hydrate", name), 0)
                self.assert_hydrated(root, name, size)
                self.assertEqual(self.fetched_ranges(root, name), whole(size))
                self.assert_content(root, name, data)
                self.assertEqual(self.fetched_ranges(root, name), whole(size), "fetched again")

    def test_hydrate_all_async_brings_the_whole_content_after_it_returned(self):
        root = self.new_root()
        for size in SIZES:
            with self.subTest(size=size):
                name = f"{size} bytes.bin"
                data = root.create(name, size, seed=size)
                self.assertEqual(root.item_status("hydrateAsync", name), 0)
                wait_until(lambda: root.state(name)["hydrated"], what="hydration")
                self.assert_hydrated(root, name, size)
                self.assert_content(root, name, data)
                self.assertEqual(self.fetched_ranges(root, name), whole(size))

    def test_a_proactive_transfer_fills_the_file_without_any_fetch(self):
        root = self.new_root()
        for size in SIZES:
            with self.subTest(size=size):
                name = f"{size} bytes.bin"
                data = root.create(name, size, seed=size)
                self.assertEqual(self.transfer_proactively(root, name), 0)
                self.assert_hydrated(root, name, size)
                self.assert_content(root, name, data)
                self.assertEqual(self.fetched_ranges(root, name), [])

    def test_a_proactive_transfer_from_a_missing_file_fails_and_says_so(self):
        root = self.new_root()
        root.create("a.bin", 5000)
        (root.source / "a.bin").unlink()
        since = self.provider.mark()
        self.assertEqual(self.transfer_proactively(root, "a.bin"), -1)
        self.assert_online_only(root, "a.bin")
        path = dos_path(root.source / "a.bin")
        self.assertTrue(
            any(f"Get file size failed: {path}: ec = " in line for line in self.log(since)),
            self.log(since),
        )

    def log(self, since):
        return self.provider.log_lines(since)

    def transfer_proactively(self, root, name):
        return root.status(
            "proactiveTransfer",
            path=client_path(root.path / name),
            **{"from": dos_path(root.source / name)},
        )

    def test_a_file_of_300_mib_comes_in_75_transfers_of_4_mib(self):
        root = self.new_root()
        size = 300 * MIB
        write_big_content(root.source / "big.bin", size)
        root.create_placeholder("big.bin", size, "big.bin")
        self.assert_online_only(root, "big.bin")
        same = subprocess.run(["cmp", root.source / "big.bin", root.path / "big.bin"], timeout=25)
        self.assertEqual(same.returncode, 0)
        self.assert_hydrated(root, "big.bin", size)
        self.assert_transfers(root, "big.bin", chunks(size))


class Ways(EndToEndCase):
    """Different programs, and different ways in which the client may answer."""

    def test_sha256sum_cmp_and_cp_see_the_source_s_content(self):
        root = self.new_root()
        for tool in ("sha256sum", "cmp", "cp"):
            data = root.create(f"{tool}.bin", 123_457)
            source, item = root.source / f"{tool}.bin", root.path / f"{tool}.bin"
            copy = self.folder / "copy"
            commands = {
                "sha256sum": ["sha256sum", item],
                "cmp": ["cmp", source, item],
                "cp": ["cp", item, copy],
            }
            result = subprocess.run(commands[tool], capture_output=True, timeout=20)
            self.assertEqual(result.returncode, 0, result.stderr)
            if tool == "sha256sum":
                self.assertEqual(
                    result.stdout.split()[0].decode(), hashlib.sha256(data).hexdigest()
                )
            if tool == "cp":
                self.assertEqual(copy.read_bytes(), data)

    def test_a_memory_mapping_sees_the_content(self):
        root = self.new_root()
        data = root.create("mapped.bin", 3 * MIB + 17)
        code = (
            "import mmap, sys, hashlib\n"
            "file = open(sys.argv[1], 'rb')\n"
            "print(hashlib.sha256(mmap.mmap(file.fileno(), 0, prot=mmap.PROT_READ)).hexdigest())"
        )
        self.assertEqual(mmap.PAGESIZE % 4096, 0)
        result = subprocess.run(
            ["python3", "-c", code, root.path / "mapped.bin"], capture_output=True, timeout=20
        )
        self.assertEqual(result.stdout.decode().strip(), hashlib.sha256(data).hexdigest())

    def test_reading_one_byte_brings_the_whole_file(self):
        root = self.new_root()
        data = root.create("one.bin", 2 * MIB + 5)
        result = subprocess.run(
            ["dd", f"if={root.path / 'one.bin'}", "bs=1", "count=1", f"skip={MIB}"],
            capture_output=True,
            timeout=20,
        )
        self.assertEqual(result.stdout, data[MIB : MIB + 1])
        self.assert_hydrated(root, "one.bin", len(data))

    def test_listing_and_status_queries_fetch_nothing(self):
        root = self.new_root()
        root.create("a.bin", 100_000)
        subprocess.run(["ls", "-laR", root.path], stdout=subprocess.DEVNULL, check=True, timeout=20)
        subprocess.run(["find", root.path, "-newer", root.source], capture_output=True, timeout=20)
        subprocess.run(["du", "-s", root.path], stdout=subprocess.DEVNULL, check=True, timeout=20)
        self.assert_online_only(root, "a.bin")
        self.assertEqual(self.fetched_ranges(root, "a.bin"), [])

    def test_a_file_can_be_opened_and_looked_at_while_it_is_being_fetched(self):
        root = self.new_root()
        root.serve(pieceSize=64 << 10, delayMs=250)
        data = root.create("slow.bin", MIB)
        reader = subprocess.Popen(
            ["sha256sum", root.path / "slow.bin"], stdout=subprocess.PIPE, text=True
        )
        self.provider.wait_for("transfer", identity="slow.bin")
        code = "import os, sys; os.fstat(os.open(sys.argv[1], os.O_RDONLY))"
        for command in (
            ["stat", root.path / "slow.bin"],
            ["ls", "-la", root.path],
            ["python3", "-c", code, root.path / "slow.bin"],
        ):
            subprocess.run(command, stdout=subprocess.DEVNULL, check=True, timeout=1.5)
        self.assertFalse(root.item("state", "slow.bin", 1.5).number("hydrated") == 0)
        self.assertIsNone(reader.poll(), "the fetch was over too early to tell")
        self.assertEqual(reader.communicate(timeout=20)[0].split()[0], sha256(data))

    def test_the_answer_may_come_in_small_pieces_last_first_and_from_many_threads(self):
        root = self.new_root()
        for rules in (
            {"pieceSize": 4096},
            {"pieceSize": 64 << 10, "reverse": True},
            {"pieceSize": 64 << 10, "threads": 4},
            {"pieceSize": MIB, "reportProgress": True},
            {"pieceSize": 4096 * 5, "threads": 3, "reverse": True},
        ):
            with self.subTest(**rules):
                root.serve(**rules)
                name = "-".join(f"{rule}{value}" for rule, value in rules.items())
                data = root.create(name, MIB + 333)
                self.assert_content(root, name, data)
                results = {
                    event["result"] for event in self.provider.events("transfer", identity=name)
                }
                self.assertEqual(results, {"0"})

    def test_writing_a_part_of_an_online_only_file_keeps_the_rest_of_its_content(self):
        root = self.new_root()
        for offset, length in ((0, 10), (70_000, 5000), (299_990, 40)):
            with self.subTest(offset=offset):
                name = f"write at {offset}"
                expected = bytearray(root.create(name, 300_000))
                written = bytes(reversed(range(256))) * 20
                expected[offset : offset + length] = written[:length]
                subprocess.run(
                    ["dd", f"of={root.path / name}", "bs=1", "conv=notrunc", f"seek={offset}"],
                    input=written[:length],
                    stderr=subprocess.DEVNULL,
                    check=True,
                    timeout=20,
                )
                self.assert_content(root, name, bytes(expected))

    def test_truncating_an_online_only_file_needs_no_content(self):
        root = self.new_root()
        root.create("emptied.bin", 300_000)
        subprocess.run(
            ["truncate", "-s", "0", root.path / "emptied.bin"], check=True, timeout=20
        )
        self.assertEqual(root.read("emptied.bin"), b"")
        self.assertEqual(self.fetched_ranges(root, "emptied.bin"), [])

    def test_overwriting_an_online_only_file_leaves_the_new_content_alone(self):
        root = self.new_root()
        root.create("replaced.bin", 300_000)
        new = write_content(self.folder / "new", 1234)
        subprocess.run(
            ["cp", self.folder / "new", root.path / "replaced.bin"], check=True, timeout=20
        )
        self.assert_content(root, "replaced.bin", new)
        self.assertFalse(root.state("replaced.bin")["inSync"])

    def test_the_client_s_own_read_of_missing_data_is_refused_at_once(self):
        root = self.new_root()
        root.create("own.bin", 100_000)
        answer = self.provider.call("ownRead", 10, path=root.client_path("own.bin"))
        self.assertEqual(answer["whole"], "0")
        self.assertEqual(self.fetched_ranges(root, "own.bin"), [])
        self.assert_online_only(root, "own.bin")
        self.assertEqual(root.item_status("hydrate", "own.bin"), 0)
        answer = self.provider.call("ownRead", 10, path=root.client_path("own.bin"))
        self.assertEqual(answer["whole"], "1")


class Crowds(EndToEndCase):
    seconds = 60

    def test_32_programs_read_200_files_at_once_and_no_range_is_fetched_twice(self):
        root = self.new_root()
        names = [f"file-{number:03}.bin" for number in range(200)]
        for number, name in enumerate(names):
            root.create(name, 1000 + number * 977)
        expected = {name: sha256_of_file(root.source / name) for name in names}
        readers = []
        for number in range(32):
            start = number * 7 % len(names)
            order = names[start:] + names[:start]
            readers.append(
                subprocess.Popen(
                    ["sha256sum", *order], cwd=root.path, stdout=subprocess.PIPE, text=True
                )
            )
        for reader in readers:
            output = reader.communicate(timeout=50)[0]
            seen = dict(reversed(line.split("  ")) for line in output.splitlines())
            self.assertEqual(seen, expected)
        for name in names:
            fetched = self.fetched_ranges(root, name)
            self.assertEqual(fetched, [(0, (root.source / name).stat().st_size)], name)

    def test_many_programs_that_wait_for_one_file_are_served_by_one_fetch(self):
        root = self.new_root()
        root.serve(delayMs=300)
        data = root.create("wanted.bin", 500_000)
        readers = [
            subprocess.Popen(["sha256sum", root.path / "wanted.bin"], stdout=subprocess.PIPE)
            for _ in range(20)
        ]
        sums = {reader.communicate(timeout=20)[0].split()[0].decode() for reader in readers}
        self.assertEqual(sums, {hashlib.sha256(data).hexdigest()})
        self.assertEqual(self.fetched_ranges(root, "wanted.bin"), [(0, 500_000)])


class CappedFetches(EndToEndCase):
    """A filter that asks for no more than 1 MiB at a time."""

    daemon_options = ("--fetch-cap", MIB)

    def test_a_big_file_is_asked_for_piece_by_piece(self):
        root = self.new_root()
        data = root.create("big.bin", 3 * MIB + 5)
        self.assert_content(root, "big.bin", data)
        expected = [(0, MIB), (MIB, MIB), (2 * MIB, MIB), (3 * MIB, 5)]
        self.assertEqual(sorted(self.fetched_ranges(root, "big.bin")), expected)

    def test_an_explicit_hydration_brings_all_pieces_before_it_returns(self):
        root = self.new_root()
        data = root.create("big.bin", 2 * MIB + 5)
        self.assertEqual(root.item_status("hydrate", "big.bin"), 0)
        self.assert_hydrated(root, "big.bin", len(data))
        self.assert_content(root, "big.bin", data)


class WithoutMount(EndToEndCase):
    """A filter that may not mount: data comes when the client has it brought, not on a read."""

    daemon_options = ("--no-mount",)
    needs_fuse = False

    def test_explicit_hydration_and_dehydration_work(self):
        root = self.new_root()
        data = root.create("a.bin", 100_000)
        self.assert_online_only(root, "a.bin")
        self.assertEqual(root.item_status("hydrate", "a.bin"), 0)
        self.assert_hydrated(root, "a.bin", len(data))
        self.assert_content(root, "a.bin", data)
        self.assertEqual(root.item_status("dehydrateAll", "a.bin"), 0)
        self.assert_online_only(root, "a.bin")

    def test_a_proactive_transfer_works(self):
        root = self.new_root()
        data = root.create("a.bin", 5 * MIB)
        status = root.status(
            "proactiveTransfer",
            path=client_path(root.path / "a.bin"),
            **{"from": dos_path(root.source / "a.bin")},
        )
        self.assertEqual(status, 0)
        self.assert_content(root, "a.bin", data)
