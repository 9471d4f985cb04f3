"""The client, the filter and programs are killed at random points, over and over.

NIMBRA_CRASH_ROUNDS=N  that many rounds in place of the usual number
NIMBRA_SEED=N          begins with another round
"""

import os
import random
import time

from harness.case import EndToEndCase
from harness.churn import Churn
from harness.daemon import mounts_below

ROUNDS = int(os.environ.get("NIMBRA_CRASH_ROUNDS") or 20)
FIRST = int(os.environ.get("NIMBRA_SEED") or 1)
SECONDS_EACH = 30
ALL_END_WITHIN = 20
STATE_FILES = {"endpoint", "lock", "filter.db", "filter.db-wal", "filter.db-shm"}
KEPT = ("placeholder", "pinned", "excluded", "inSync", "identity")
SIZES = (1, 4097, 65_536, 130_003, 400_000)


class RandomCrashes(EndToEndCase):
    daemon_options = ("--request-timeout", 5)
    seconds = SECONDS_EACH * (ROUNDS + 4)

    def setUp(self):
        self.root = self.new_root(provider=self.start_provider())
        self.churn = Churn(self.root, random.Random(FIRST), self.folder)
        self.churn.make_files(6, SIZES)
        # They survive like the data does.
        names = [file.name for file in self.churn.files]
        self.assertEqual(self.root.item_status("pin", names[0]), 0)
        self.assertEqual(self.root.item_status("exclude", names[1]), 0)
        self.assertEqual(self.root.item_status("setNotInSync", names[2]), 0)
        self.deaths = {"client": 0, "filter": 0, "reader": 0}

    def states(self):
        """By identity, since names change."""
        states = {file.identity: self.root.state(file.name) for file in self.churn.files}
        return {name: {kept: state[kept] for kept in KEPT} for name, state in states.items()}

    def keep_busy(self, source):
        """Reads, renames and whatever else a kill may come in the middle of."""
        churn = self.churn
        self.root.serve(
            pieceSize=source.choice((8 << 10, 32 << 10, 128 << 10)),
            delayMs=source.choice((0, 1, 4)),
            threads=source.choice((1, 2)),
        )
        for file in source.sample(churn.files, 4):
            self.root.item_status("dehydrateAll", file.name)
        for _ in range(source.randrange(4, 10)):
            churn.read()
        for _ in range(source.randrange(0, 3)):
            churn.rename()
        if source.random() < 0.6:
            churn.command(source.choice(("hydrate", "hydrateAsync", "dehydrateAll")))
        if source.random() < 0.4:
            churn.create_meanwhile()
        if source.random() < 0.3 and len(churn.files) > 8:
            churn.delete()

    def crash(self, source):
        victims = source.choice(
            (("client",), ("filter",), ("filter",), ("client", "filter"), ("filter", "client"))
        )
        time.sleep(source.random() ** 2 * 0.1)
        if source.random() < 0.4:
            self.deaths["reader"] += self.churn.kill_reader()
        for victim in victims:
            self.deaths[victim] += 1
            if victim == "client":
                self.root.provider.kill()
            else:
                self.daemon.kill()

    def recover(self):
        """Both begin anew, as after any crash. Gives what was wrong."""
        wrong = self.churn.settle(ALL_END_WITHIN)
        self.root.provider.close()
        if not self.daemon.running():
            self.daemon.start()
        self.assertEqual(mounts_below(self.folder), [str(self.root.path)])
        self.root.attach(self.start_provider())
        self.assert_status(self.root.status("connect"))
        return wrong + self.churn.resolve_names()

    def test_after_every_crash_every_file_and_every_state_is_as_before(self):
        begun = time.monotonic()
        for number in range(FIRST, FIRST + ROUNDS):
            source = self.churn.random = random.Random(number)
            before = self.states()
            self.keep_busy(source)
            self.crash(source)
            wrong = self.recover()
            after = self.states()
            for identity, state in after.items():
                expected = before.get(identity, {**state, "placeholder": True})
                if state != expected:
                    wrong.append(f"{identity} was {expected} and is {state}")
            wrong += self.churn.wrong_files() + self.churn.wrong_identities()
            strange = {path.name for path in self.daemon.state.iterdir()} - STATE_FILES
            wrong += [f"left in the filter's folder: {strange}"] if strange else []
            self.assertEqual(wrong, [], f"round {number}; NIMBRA_SEED={number} begins with it")
        seconds = time.monotonic() - begun
        print(f"{ROUNDS} rounds in {seconds:.0f} s, killed: {self.deaths}; "
              f"{self.churn.good} reads succeeded, {self.churn.failed} did not")
        self.assertGreater(self.deaths["filter"], 0)
        self.assertGreater(self.churn.failed, 0)
        self.assertEqual(self.daemon.stop(), 0)
        self.assertEqual(mounts_below(self.folder), [])
