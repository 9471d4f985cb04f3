"""Random schedules of programs, a client and the filter: right bytes or an error, and an end.

NIMBRA_E2E_SEEDS=N  that many schedules in place of the usual number
NIMBRA_SEED=N       that one alone
"""

import os
import random
import time

from harness.case import EndToEndCase
from harness.churn import Churn

SEEDS = int(os.environ.get("NIMBRA_E2E_SEEDS") or 30)
ONLY = int(os.environ.get("NIMBRA_SEED") or 0)
SECONDS_EACH = 45
# A silent client's readers fail after the filter's timer; every transfer starts that anew.
ALL_END_WITHIN = 25


class Schedules(EndToEndCase):
    daemon_options = ("--request-timeout", 1)
    seconds = SECONDS_EACH * (SEEDS + 2)

    def rules(self, source):
        """How the client answers from now on."""
        rules = {
            "pieceSize": source.choice((4096, 64 << 10, 256 << 10, 4 << 20)),
            "delayMs": source.choice((0, 0, 0, 2, 15)),
            "threads": source.choice((1, 1, 3)),
            "reverse": source.random() < 0.2,
            "heedCancel": source.random() < 0.7,
            "reportProgress": source.random() < 0.3,
            "acknowledges": source.random() < 0.85,
            "deleteStatus": source.choice((0, 0, 1)),
        }
        if rules["pieceSize"] == 4096:
            rules["delayMs"] = 0
        trouble = source.random()
        if trouble < 0.15:
            rules |= {"failStatus": source.choice((1, 2, 3)), "failCount": source.randrange(1, 4)}
        elif trouble < 0.3:
            rules["stopAfterBytes"] = source.randrange(0, 600_000)
        return rules

    def step(self, churn, source):
        root = churn.root
        chance = source.random()
        if chance < 0.45:
            churn.read()
        elif chance < 0.55:
            churn.kill_reader()
        elif chance < 0.63:
            churn.rename()
        elif chance < 0.66:
            churn.delete()
        elif chance < 0.74:
            root.serve(**self.rules(source))
        elif chance < 0.80:
            churn.command("hydrateAsync" if source.random() < 0.5 else "hydrate")
        elif chance < 0.86:
            churn.command("dehydrateAll")
        elif chance < 0.89:
            root.status("disconnect" if source.random() < 0.5 else "connect")
        elif chance < 0.91:
            self.restart_client(root)
        else:
            time.sleep(source.random() * 0.05)

    def restart_client(self, root):
        root.provider.kill()
        type(self).provider = self.start_provider()
        root.attach(self.provider)
        root.status("connect")

    def play(self, seed):
        source = random.Random(seed)
        root = self.new_root(f"seed-{seed}")
        churn = Churn(root, source, self.folder)
        churn.make_files(source.randrange(2, 6))
        root.serve(**self.rules(source))
        for _ in range(source.randrange(25, 60)):
            self.step(churn, source)
        wrong = churn.settle(ALL_END_WITHIN)
        root.status("disconnect")
        wrong += churn.resolve_names()
        wrong += churn.wrong_files(may_fail=True)
        root.serve(acknowledges=True, deleteStatus=0)
        self.assert_status(root.status("connect"))
        wrong += churn.wrong_files() + churn.wrong_identities()
        self.doCleanups()
        return wrong, churn

    def test_whatever_happens_readers_get_the_right_bytes_or_an_error_and_the_folder_is_whole(self):
        good = failed = 0
        for seed in [ONLY] if ONLY else range(1, SEEDS + 1):
            wrong, churn = self.play(seed)
            self.assertEqual(wrong, [], f"NIMBRA_SEED={seed} plays this again")
            good += churn.good
            failed += churn.failed
        print(f"{good} reads succeeded, {failed} did not")
        if not ONLY:
            self.assertGreater(good, SEEDS)
            self.assertGreater(failed, 0)
