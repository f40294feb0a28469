"""A pair with two lines through many random faults: how long did both servers serve for nothing?"""

import random
import threading
import time
from contextlib import ExitStack, contextmanager
from socket import SO_RCVBUF, SOCK_DGRAM, SOL_SOCKET

import lab
import pytest
from lab import faults
from peer import CLIENT, PORT, record, request

MARGIN = 120.0
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
        both_since = None
        while not self.ended.wait(0.1):
            now = time.monotonic()
            if not (self.reachable() and self.pair.slave.services.running()):
                both_since = None
                continue
            since_last = 0.0 if both_since is None else now - self.last
            both_since = both_since or now
            self.last = now
            self.seconds += since_last
            self.beyond += since_last if now - both_since > STEP_DOWN else 0.0


@contextmanager
def second_line(pair, _stranger):
    pair.master.second_line.cut()
    yield
    pair.master.second_line.heal()


@contextmanager
def strangers(pair, stranger):
    """Idle and half connections to the slave, datagrams that cannot be answered to the master."""
    with ExitStack() as stack:
        stranger.line.cut("in", peer=pair.master.line)
        outlet = stack.enter_context(stranger.line.open_socket(SOCK_DGRAM))
        for number in range(30):
            link = stack.enter_context(stranger.line.open_socket())
            link.connect((pair.slave.address, PORT))
            link.send(record(3, "half", "")[: number * 10 % 100])
            outlet.sendto(request(CLIENT), (pair.master.address, PORT))
        yield
    stranger.line.heal()


@contextmanager
def slow_reader(pair, stranger):
    """A stranger that asks for everything and takes next to nothing of it."""
    with stranger.line.open_socket() as inlet, stranger.line.open_socket(SOCK_DGRAM) as outlet:
        inlet.setsockopt(SOL_SOCKET, SO_RCVBUF, 4096)
        inlet.bind(("", PORT))
        inlet.listen()
        outlet.sendto(request(CLIENT), (pair.master.address, PORT))
        yield


FAULTS = {
    "line": lambda pair, _: faults.cut()(pair),
    "second line": second_line,
    "standstill": lambda pair, _: faults.stopped("master")(pair),
    "strangers": strangers,
    "slow reader": slow_reader,
}


@pytest.mark.soak
def test_both_serve_only_where_no_line_is_whole(pair_factory, seed, rounds):
    dice = random.Random(f"{seed} lines")
    pair = pair_factory(clients=lab.realistic_clients(2000), second_lines=True)
    stranger = pair.lab.add_host("stranger")
    pair.start()
    pair.wait_equal(MARGIN)
    watch = Watch(pair)
    watch.start()
    for number in range(rounds):
        names = dice.sample(sorted(FAULTS), dice.choice((1, 1, 1, 2)))
        seconds = dice.uniform(1, 30)
        with ExitStack() as stack:
            for name in names:
                stack.enter_context(FAULTS[name](pair, stranger))
            watch.faults = set(names)
            pair.master.client.fill({f"new {number}": "x" * dice.randrange(500)})
            pair.master.config.put("client_db_version", f"stamp {number}")
            time.sleep(seconds)
        watch.faults = set()
        before = watch.beyond
        print(f"{' and '.join(names)} for {seconds:.1f} s")
        pair.wait_equal(MARGIN)  # A difference under equal stamps would stay.
        assert watch.is_alive()
        print(f"    both served {watch.seconds:.1f} s so far, {before:.1f} s beyond a step-down")
    watch.ended.set()
    watch.join()
    print(f"{rounds} faults: both served {watch.seconds:.1f} s while a line was whole, "
          f"{watch.beyond:.1f} s of it beyond {STEP_DOWN:.0f} s of a step-down")
