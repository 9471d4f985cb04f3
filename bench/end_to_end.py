"""The library on the cloud filter: what programs that open files see, and what clients do.

Uses the pieces of the end-to-end tests. The baselines show the simulator's own cost: the same
through the platform's own functions, or from a file whose data is there already.
"""

import concurrent.futures
import json
import os
import statistics
import subprocess
import time
import unittest

from harness.case import EndToEndCase
from report.rows import make_row

MIB = 1 << 20


def nanoseconds(operation, *arguments):
    begun = time.perf_counter_ns()
    operation(*arguments)
    return time.perf_counter_ns() - begun


def first_byte(path):
    descriptor = os.open(path, os.O_RDONLY)
    try:
        assert len(os.read(descriptor, 1)) == 1
    finally:
        os.close(descriptor)


def read_with_cat(path):
    subprocess.run(["cat", path], stdout=subprocess.DEVNULL, check=True)


def read_all(paths):
    with concurrent.futures.ThreadPoolExecutor(len(paths)) as readers:
        list(readers.map(read_with_cat, paths))


class Measurements(EndToEndCase):
    """Not a test: unittest brings its parts up and takes them down."""

    seconds = 400
    quick = False
    large = False
    rows = []

    def add(self, *columns, **more):
        self.rows.append(make_row("filter", *columns, **more))

    def sample(self, root, rounds, names, read):
        """Reads that fetch, and twice the same reads with the data there."""
        fetching, there, again = [], [], []
        for _ in range(rounds):
            for name in names:
                assert root.item_status("dehydrateAll", name) == 0
            paths = [root.path / name for name in names]
            fetching.append(nanoseconds(read, paths))
            read_all(paths)
            there.append(nanoseconds(read, paths))
            again.append(nanoseconds(read, paths))
            root.provider.forget_events()
        return fetching, there, again

    def measure_first_byte(self, root):
        root.create("small", 64 << 10)
        rounds = 5 if self.quick else 150
        columns = self.sample(root, rounds, ["small"], lambda paths: first_byte(paths[0]))
        self.add("open to first byte, 64 KiB, beside a file that is there", "median", *columns)
        if rounds >= 100:
            late = [[statistics.quantiles(column, n=100)[98]] for column in columns]
            self.add("open to first byte, 64 KiB, beside a file that is there", "99 of 100", *late)

    def measure_large_file(self, root):
        size = (4 if self.quick else 1024 if self.large else 256) * MIB
        with open(root.source / "large", "wb") as file:
            piece = os.urandom(MIB)
            for _ in range(size // MIB):
                file.write(piece)
        root.create_placeholder("large", size, "large")
        rounds = 1 if self.quick else 3
        columns = self.sample(root, rounds, ["large"], lambda paths: read_with_cat(paths[0]))
        speed = size / MIB / (statistics.median(columns[0]) / 1e9)
        self.add(
            "cat, beside files that are there",
            f"one of {size // MIB} MiB",
            *columns,
            mibPerSecond=speed,
        )

    def measure_crowd(self, root):
        count = 4 if self.quick else 32
        names = [f"crowd-{number}" for number in range(count)]
        for name in names:
            root.create(name, MIB)
        columns = self.sample(root, 1 if self.quick else 5, names, read_all)
        self.add(
            "cat, beside files that are there",
            f"{count} of 1 MiB at once",
            *columns,
            mibPerSecond=count / (statistics.median(columns[0]) / 1e9),
        )

    def measure_placeholders(self, root):
        folder = root.client_path("placeholders")
        (root.path / "placeholders").mkdir()
        arguments = ["placeholders", f"--folder={folder}"]
        arguments += [f"--{name}" for name in ("quick", "large") if getattr(self, name)]
        done = self.prefix.run(
            self.bin / "nimbra-bench.exe",
            *arguments,
            timeout=300,
            CLOUD_FILTER_ENDPOINT=str(self.daemon.endpoint),
        )
        assert done.returncode == 0, done.stderr.decode(errors="replace")
        self.rows.extend(json.loads(line) for line in done.stdout.splitlines())

    def test_all(self):
        root = self.new_root("root")
        root.serve(pieceSize=4 * MIB)
        self.measure_first_byte(root)
        self.measure_large_file(root)
        self.measure_crowd(root)
        self.measure_placeholders(root)


def measure_end_to_end(quick, large, errors):
    """The rows, or none of them; what went wrong is written to `errors`."""
    Measurements.quick, Measurements.large = quick, large
    Measurements.rows = []
    suite = unittest.TestSuite([Measurements("test_all")])
    result = unittest.TextTestRunner(stream=errors, verbosity=0).run(suite)
    return Measurements.rows if result.wasSuccessful() else []
