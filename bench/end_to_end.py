"""The library on the cloud filter: what programs that open files see, and what clients do.

Uses the pieces of the end-to-end tests. Three providers serve a sync root each and answer at once,
out of memory: the library's, one of the same program that calls the platform itself, and a native
one. The steps between them, and to a file whose data is there, tell what is the library's cost,
what is Wine's and what is the simulator's.
"""

import concurrent.futures
import json
import os
import pathlib
import random
import shutil
import statistics
import subprocess
import tempfile
import time
import unittest

from harness.case import EndToEndCase
from harness.wine import client_path, wine_program
from null_provider import NullProvider
from report.rows import make_row

MIB = 1 << 20
BLOCK = 100  # samples that give one median, and one 99th of 100
BLOCKS = 7

# Who, beside whom: the names of the samples below, and of the rows.
STEPS = (
    ("library", "bare", "the library, beside bare platform calls"),
    ("bare", "native", "bare platform calls, beside a native provider"),
    ("native", "there", "a native provider, beside data that is there"),
)


def nanoseconds(operation, *arguments):
    begun = time.perf_counter_ns()
    operation(*arguments)
    return time.perf_counter_ns() - begun


def first_byte(paths):
    descriptor = os.open(paths[0], os.O_RDONLY)
    try:
        assert len(os.read(descriptor, 1)) == 1
    finally:
        os.close(descriptor)


def read_with_cat(path):
    subprocess.run(["cat", path], stdout=subprocess.DEVNULL, check=True)


def read_all(paths):
    with concurrent.futures.ThreadPoolExecutor(len(paths)) as readers:
        list(readers.map(read_with_cat, paths))


def late(samples):
    """The time that 99 of 100 keep."""
    return statistics.quantiles(samples, n=100)[98]


class Measurements(EndToEndCase):
    """Not a test: unittest brings its parts up and takes them down."""

    seconds = 2400
    needs_provider = False
    null_provider = None
    files = None  # the folder for the sync roots
    quick = False
    large = False
    rows = []

    def add(self, *columns, **more):
        self.rows.append(make_row("filter", *columns, **more))

    # The providers

    def start_native_provider(self):
        self.native = NullProvider(self.null_provider, self.daemon.endpoint)
        self.addCleanup(self.native.close)

    def start_windows_providers(self):
        log = open(self.folder / "serving.log", "wb")
        self.addCleanup(log.close)
        program = subprocess.Popen(
            [
                wine_program(),
                self.bin / "nimbra-bench.exe",
                "serve",
                self.folder_argument(self.roots_folder),
            ],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=log,
            env=self.prefix.environment(CLOUD_FILTER_ENDPOINT=str(self.daemon.endpoint)),
            start_new_session=True,
        )
        self.addCleanup(self.stop_windows_providers, program)
        self.windows_providers = program
        said = program.stdout.readline().strip()
        assert said == b"ready", (self.folder / "serving.log").read_text(errors="replace")

    @staticmethod
    def stop_windows_providers(program):
        program.stdin.close()
        program.stdout.close()
        program.wait(20)

    @staticmethod
    def folder_argument(folder):
        return f"--folder={client_path(folder)}"

    def bring_up(self):
        self.roots_folder = pathlib.Path(tempfile.mkdtemp(dir=self.files or self.folder))
        self.addCleanup(shutil.rmtree, self.roots_folder, ignore_errors=True)
        self.roots = {name: self.roots_folder / name for name in ("library", "bare", "native")}
        for root in self.roots.values():
            root.mkdir()
        self.start_native_provider()
        self.start_windows_providers()
        self.native.call("serve", self.roots["native"])

    # What programs see

    def create(self, names, size):
        """The same placeholders in all roots, and with their data beside the native one's."""
        for root in self.roots.values():
            for name in names:
                self.native.call("create", root / name, size)
        for name in names:
            self.native.call("create", self.roots["native"] / f"{name} there", size)
        read_all([self.roots["native"] / f"{name} there" for name in names])

    def remove(self, names):
        for root in self.roots.values():
            for name in names:
                (root / name).unlink()
        for name in names:
            (self.roots["native"] / f"{name} there").unlink()

    def fetch(self, who, names, read):
        """How long programs take to read what is not there, and is not there afterwards."""
        paths = [self.roots[who] / name for name in names]
        taken = nanoseconds(read, paths)
        for path in paths:
            self.native.call("dehydrate", path)
        return taken

    def sample(self, rounds, names, read, warm_up=1):
        """Each provider's samples, and those of the baselines a second time."""
        there = [self.roots["native"] / f"{name} there" for name in names]
        measure = {who: lambda who=who: self.fetch(who, names, read) for who in self.roots}
        measure["there"] = lambda: nanoseconds(read, there)
        order = ["library", "bare", "native", "there", "there again", "native again", "bare again"]
        samples = {name: [] for name in order}
        # Whoever has just served serves faster once more, so nobody always follows the same.
        shuffle = random.Random(1).shuffle
        for number in range(-warm_up, rounds):
            shuffle(order)
            for name in order:
                taken = measure[name.removesuffix(" again")]()
                if number >= 0:
                    samples[name].append(taken)
        return samples

    def add_steps(self, group, samples, mib=None):
        for subject, baseline, name in STEPS:
            columns = [samples[key] for key in (subject, baseline, f"{baseline} again")]
            speeds = {}
            if mib is not None:
                speeds["mibPerSecond"] = mib / (statistics.median(columns[0]) / 1e9)
                speeds["baselineMibPerSecond"] = mib / (statistics.median(columns[1]) / 1e9)
            self.add(group, name, *columns, **speeds)

    def measure_first_byte(self):
        """Each block is from a new process: where the system puts its threads is part of chance."""
        medians, lates = {}, {}
        for number in range(1 if self.quick else BLOCKS):
            if number > 0:
                self.stop_windows_providers(self.windows_providers)
                self.start_windows_providers()
            self.create(["small"], 64 << 10)
            samples = self.sample(5 if self.quick else BLOCK, ["small"], first_byte)
            self.remove(["small"])
            for name, column in samples.items():
                medians.setdefault(name, []).append(statistics.median(column))
                lates.setdefault(name, []).append(late(column))
        self.add_steps("open to first byte, 64 KiB, median", medians)
        if not self.quick:
            self.add_steps("open to first byte, 64 KiB, 99 of 100", lates)

    def measure_large_file(self):
        mib = 4 if self.quick else 1024
        self.create(["large"], mib * MIB)
        # Memory that a machine gives for the first time is slow; a whole round would take too long.
        self.fetch("native", ["large"], read_all)
        samples = self.sample(1 if self.quick else 3, ["large"], read_all, warm_up=0)
        self.remove(["large"])
        self.add_steps(f"cat of {mib} MiB", samples, mib)

    def measure_crowd(self):
        names = [f"crowd-{number}" for number in range(4 if self.quick else 32)]
        self.create(names, MIB)
        samples = self.sample(1 if self.quick else 11, names, read_all)
        self.add_steps(f"cat of {len(names)} files of 1 MiB at once", samples, len(names))

    # What clients do

    def measure_placeholders(self):
        folder = self.roots["library"] / "placeholders"
        folder.mkdir()
        done = self.prefix.run(
            self.bin / "nimbra-bench.exe",
            "placeholders",
            self.folder_argument(folder),
            *(f"--{name}" for name in ("quick", "large") if getattr(self, name)),
            timeout=2000,
            CLOUD_FILTER_ENDPOINT=str(self.daemon.endpoint),
        )
        assert done.returncode == 0, done.stderr.decode(errors="replace")
        self.rows.extend(json.loads(line) for line in done.stdout.splitlines())

    def measure_native_client(self):
        root = self.roots["native"]
        counts = (10, 100) if self.quick else (1000, 10_000)
        for count in counts + ((100_000,) if self.large else ()):
            made, plain, again = self.native.columns("time", root / f"made {count}", count, 10)
            self.add(
                "creating a placeholder, native client, beside making a file on the mount",
                f"one of {count}",
                made,
                plain,
                again,
                perSecond=1e9 / statistics.median(made),
                growth=made[-1] / made[0],
                baselineGrowth=plain[-1] / plain[0],
            )
        times, rounds = (10, 2) if self.quick else (200, 15)
        asked, looked, again = self.native.columns("ask", root / "crowd-0", times, rounds)
        self.add(
            "asking about a placeholder, native client, beside stat on the mount",
            "placeholder info",
            asked,
            looked,
            again,
            perSecond=1e9 / statistics.median(asked),
        )

    def test_all(self):
        self.bring_up()
        self.measure_first_byte()
        self.measure_crowd()
        self.measure_large_file()
        self.measure_placeholders()
        self.measure_native_client()


def measure_end_to_end(null_provider, files, quick, large, errors):
    """The rows, or none of them; what went wrong is written to `errors`."""
    Measurements.null_provider, Measurements.files = null_provider, files
    Measurements.quick, Measurements.large = quick, large
    Measurements.rows = []
    suite = unittest.TestSuite([Measurements("test_all")])
    result = unittest.TextTestRunner(stream=errors, verbosity=0).run(suite)
    return Measurements.rows if result.wasSuccessful() else []
