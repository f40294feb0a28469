"""A pair with two lines through many random faults: how long did both servers serve for nothing?"""

import random
import threading
import time
from contextlib import ExitStack

import lab
import pytest
from lab import faults
from test_bad_days_faults import MARGIN, second_line, strangers

STEP_DOWN = 2.0  # seconds that a slave may need to step down once it could be answered


class Watch(threading.Thread):
    """Adds up the seconds in which the slave serves although it could be answered."""

    def __init__(self, pair):
        super().__init__(daemon=True)
        self.pair, self.faults, self.ended = pair, set(), threading.Event()
        self.seconds = self.beyond = 0.0

    def reachable(self):
        return "standstill" not in self.faults and not {"line", "second line"} <= self.faults

    def run(self):
        both_since = last = None
        while not self.ended.wait(0.1):
            now = time.monotonic()
            if not (self.reachable() and self.pair.slave.services.running()):
                both_since = None
                continue
            since_last = 0.0 if both_since is None else now - last
            both_since, last = both_since or now, now
            self.seconds += since_last
            self.beyond += since_last if now - both_since > STEP_DOWN else 0.0


@pytest.mark.soak
def test_both_serve_only_where_no_line_is_whole(pair_factory, seed, rounds):
    dice = random.Random(f"{seed} lines")
    pair = pair_factory(clients=lab.realistic_clients(2000), second_lines=True)
    others = pair.lab.add_hosts(["stranger", "slow"])
    causes = {
        "line": faults.cut(),
        "second line": second_line,
        "standstill": faults.stopped("master"),
        "strangers": lambda pair: strangers(pair, others),
    }
    pair.start()
    pair.wait_equal(MARGIN)
    watch = Watch(pair)
    watch.start()
    for number in range(rounds):
        names = dice.sample(sorted(causes), dice.choice((1, 1, 1, 2)))
        seconds = dice.uniform(1, 30)
        with ExitStack() as stack:
            for name in names:
                stack.enter_context(causes[name](pair))
            watch.faults = set(names)
            pair.master.client.fill({f"new {number}": "x" * dice.randrange(500)})
            pair.master.config.put("client_db_version", f"stamp {number}")
            time.sleep(seconds)
        watch.faults = set()
        pair.wait_equal(MARGIN)  # A difference under equal stamps would stay.
        assert watch.is_alive()
        print(f"{' and '.join(names)} for {seconds:.1f} s: both served {watch.seconds:.1f} s so "
              f"far, {watch.beyond:.1f} s beyond a step-down")
    watch.ended.set()
    watch.join()
    # The watch and the daemons may be late on a busy machine.
    assert watch.beyond < 1 + rounds / 50
