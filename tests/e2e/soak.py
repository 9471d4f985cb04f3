"""A constant load for a long time, and proof that nothing grows: run.py --soak SECONDS."""

import dataclasses
import os
import pathlib
import random
import statistics
import threading
import time

from harness.case import EndToEndCase

FILES = 24
SIZES = (1, 4096, 65_537, 300_001, 1 << 20)
READERS = 3
SAMPLES = 60
PROBES = 8  # first bytes that are timed for one sample; the quickest counts
# What a process may have gained over the second half of the run: the larger of both.
MEMORY_NOISE = 4 << 20
MEMORY_SHARE = 0.05
FILES_NOISE = 6
# How much slower than the first the last third of the second half may be.
LATENCY_FACTOR = 2.0
LATENCY_NOISE = 0.010


def soak_seconds():
    return int(os.environ.get("NIMBRA_SOAK_SECONDS") or 120)


@dataclasses.dataclass
class Sample:
    second: float
    client_memory: int
    filter_memory: int
    client_files: int
    filter_files: int
    latency: float
    reads: int


def memory_of(process_id):
    for line in pathlib.Path(f"/proc/{process_id}/status").read_text().splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1]) << 10
    raise AssertionError(f"process {process_id} has no memory")


def open_files_of(process_id):
    return len(os.listdir(f"/proc/{process_id}/fd"))


def growth(samples, name):
    """What a least-squares line through the samples gains from the first to the last."""
    times = [sample.second for sample in samples]
    values = [getattr(sample, name) for sample in samples]
    slope, _ = statistics.linear_regression(times, values)
    return slope * (times[-1] - times[0])


class Load:
    """Programs that read, rename and change files, and a client that frees their space again."""

    def __init__(self, root, files):
        self.root = root
        self.files = files
        self.reads = 0
        self.wrong = []
        self._ended = threading.Event()
        self._locks = {name: threading.Lock() for name in files}
        self._threads = [
            threading.Thread(target=self._work, args=(number,)) for number in range(READERS)
        ]

    def start(self):
        for thread in self._threads:
            thread.start()

    def stop(self):
        self._ended.set()
        for thread in self._threads:
            thread.join(60)
        if any(thread.is_alive() for thread in self._threads):
            self.wrong.append("a program hangs")

    def _work(self, number):
        source = random.Random(number)
        try:
            while not self._ended.wait(0.02):
                self._one(source)
        except Exception as error:  # pylint: disable=broad-except
            self.wrong.append(repr(error))

    def _one(self, source):
        name = source.choice(list(self.files))
        with self._locks[name]:
            if (self.root.path / name).read_bytes() != self.files[name]:
                self.wrong.append(f"{name} has other bytes")
            self.reads += 1
            if source.random() < 0.2:
                moved = self.root.path / f"moved-{name}"
                (self.root.path / name).rename(moved)
                moved.rename(self.root.path / name)
            if source.random() < 0.8:
                self.root.item_status("dehydrateAll", name)

    def first_byte(self, name):
        """Seconds until a program has the first byte of a file that is online only."""
        with self._locks[name]:
            self.root.item_status("dehydrateAll", name)
            begun = time.perf_counter()
            with open(self.root.path / name, "rb", buffering=0) as file:
                file.read(1)
            return time.perf_counter() - begun


class Soak(EndToEndCase):
    @property
    def seconds(self):
        return soak_seconds() + 120

    def sample(self, load, begun):
        probed = [load.first_byte("file-0") for _ in range(PROBES)]
        client, daemon = self.provider.pid, self.daemon.pid
        self.provider.forget_events()
        return Sample(
            time.monotonic() - begun,
            memory_of(client),
            memory_of(daemon),
            open_files_of(client),
            open_files_of(daemon),
            min(probed),
            load.reads,
        )

    def run_load(self, load):
        seconds = soak_seconds()
        begun = time.monotonic()
        samples = []
        load.start()
        try:
            while (passed := time.monotonic() - begun) < seconds:
                samples.append(self.sample(load, begun))
                due = begun + seconds * len(samples) / SAMPLES
                time.sleep(max(0.0, min(due - time.monotonic(), seconds - passed)))
        finally:
            load.stop()
        return samples

    def print_table(self, samples):
        print("\nsecond  client MiB  filter MiB  client files  filter files  first byte ms   reads")
        for sample in samples[:: max(1, len(samples) // 12)]:
            print(
                f"{sample.second:6.0f}  {sample.client_memory / (1 << 20):10.1f}"
                f"  {sample.filter_memory / (1 << 20):10.1f}  {sample.client_files:12}"
                f"  {sample.filter_files:12}  {sample.latency * 1000:13.2f}  {sample.reads:6}"
            )

    def check_steady(self, samples):
        half = samples[len(samples) // 2 :]
        for name in ("client_memory", "filter_memory"):
            gained = growth(half, name)
            bound = max(MEMORY_NOISE, MEMORY_SHARE * getattr(half[0], name))
            print(f"{name}: {gained / 1024:+.0f} KiB in the second half, at most "
                  f"{bound / 1024:.0f}")
            self.assertLess(gained, bound, name)
        for name in ("client_files", "filter_files"):
            gained = growth(half, name)
            print(f"{name}: {gained:+.1f} in the second half, at most {FILES_NOISE}")
            self.assertLess(gained, FILES_NOISE, name)
        third = max(1, len(half) // 3)
        first = statistics.median(sample.latency for sample in half[:third])
        last = statistics.median(sample.latency for sample in half[-third:])
        print(f"first byte: {first * 1000:.2f} ms, at the end {last * 1000:.2f} ms")
        self.assertLess(last, first * LATENCY_FACTOR + LATENCY_NOISE, "first byte")

    def test_memory_files_and_latency_stay_as_they_are(self):
        root = self.new_root()
        root.serve(pieceSize=256 << 10)
        files = {}
        for number in range(FILES):
            name = f"file-{number}"
            files[name] = root.create(name, SIZES[number % len(SIZES)])
        load = Load(root, files)
        samples = self.run_load(load)
        self.print_table(samples)
        self.assertEqual(load.wrong, [])
        self.assertGreater(len(samples), SAMPLES // 2, "too few samples to judge")
        self.assertGreater(load.reads, 10 * len(samples))
        self.check_steady(samples)
