"""Pairs that have a fault for a while: who took over, what the services did, and how it healed."""

import random
import re
import time
from contextlib import ExitStack, contextmanager
from socket import SO_RCVBUF, SOCK_DGRAM, SOL_SOCKET

import lab
import pytest
from lab import faults, wait_until
from lab.file_service import FileService
from peer import CLIENT, LIMIT, PORT, record, request

PROMOTED = "become a master host"
RESTORED = "restore to be a slave host"
TURN = re.compile(f"{PROMOTED}|{RESTORED}")
CLIENTS = lab.realistic_clients(20)
MARGIN = 60.0
FOLDERS = ("/etc/quoradmind", "/var/log", "/tmp")
FOLDER_FAULTS = (faults.full, faults.read_only, faults.missing, faults.forbidden)

# A start of the services, and their stop, as the calls of the slave show them.
STEPS = {
    ("-9", "quordhcpd"): "w",
    ("/usr/local/bin/quordhcpd",): "W",
    ("-9", "stagd"): "b",
    ("/usr/local/bin/stagd",): "B",
}
START, STOP = "wWbB", "wb"


def steps(host):
    calls = [call for call in host.services.calls() if call.name != "evpost_ex"]
    return "".join(STEPS[call.argv[-2:] if call.name == "killall" else call.argv]
                   for call in calls)


class BadDay:
    """A pair and its fault. `takes_over` is None where chance decides."""

    def __init__(self, pair, name, seconds, fault, takes_over):
        self.pair, self.name, self.seconds, self.takes_over = pair, name, seconds, takes_over
        self._fault = fault
        self._undo = ExitStack()

    def start(self):
        self.pair.slave.services.record_stops()
        self._undo.enter_context(FileService(self.pair.slave))
        self.pair.start()

    def break_it(self):
        print(self.name)
        self.begin, self.role_changes_before = time.monotonic(), len(self.role_changes())
        self._fault_on = self._fault(self.pair)
        self._fault_on.__enter__()
        try:
            self._change("during")
        except lab.StoreError:
            pass  # The fault hits the site's own tools, too.

    def heal(self):
        self.assert_honest()
        self._fault_on.__exit__(None, None, None)

    def _change(self, when):
        """As a site's tools do it: records first, then the stamp."""
        self.pair.master.client.fill({f"changed {when}": when})
        self.pair.master.config.put("client_db_version", when)

    def role_changes(self):
        """Take-overs and steps back. Standard output has them, whatever becomes of the log."""
        return TURN.findall(self.pair.slave_daemon.output_text())

    def assert_honest(self):
        """A stamp stands for its whole set."""
        if self.pair.slave.config.get("client_db_version") == b"during":
            assert not self.pair.difference()

    def assert_healed(self):
        pair, slave = self.pair, self.pair.slave
        assert pair.master_daemon.alive and pair.slave_daemon.alive
        # Without any help of another stamp; then with it.
        pair.wait_equal(MARGIN)
        self._change("after")
        pair.wait_equal(MARGIN)
        wait_until(lambda: self.role_changes()[-1:] != [PROMOTED], LIMIT, "the way back")
        changes = self.role_changes()
        assert changes == [PROMOTED, RESTORED] * (len(changes) // 2)
        # In the order of the roles, not one too many, and none is left; so are never both active.
        wanted = (START + STOP) * (len(changes) // 2)
        wait_until(lambda: len(steps(slave)) >= len(wanted), LIMIT, "the last stop")
        assert steps(slave) == wanted
        wait_until(lambda: not slave.services.running(), LIMIT, "their end")
        wait_until(lambda: slave.config.get("dhcp") is None, LIMIT, "the mark to go")
        assert not steps(pair.master)
        since = len(changes) - self.role_changes_before
        assert since == {None: since, True: 2, False: 0}[self.takes_over], changes

    def assert_copy(self):
        """The master gets the slave's settings again."""
        self.pair.slave.config.put("dsver", "20380101000000")
        copy = self.pair.master.store(f"{self.pair.slave.address}.db")
        wait_until(lambda: not copy.difference(self.pair.slave.config), MARGIN, "an equal copy")

def heal_from(pair_factory, clients, trials, **options):
    options = {"clients": clients, "wrapper": faults.BOUND_BY_MODES, **options}
    days = [BadDay(pair_factory(**options), *trial) for trial in trials]
    with ExitStack() as stack:
        for day in days:
            stack.callback(day._undo.close)
            day.start()
        for day in days:
            day.pair.wait_equal(MARGIN)
        for day in days:
            day.break_it()
        for day in sorted(days, key=lambda day: day.begin + day.seconds):
            time.sleep(max(0.0, day.begin + day.seconds - time.monotonic()))
            day.heal()
        for day in days:
            day.assert_healed()
            day.assert_copy()


@contextmanager
def second_line(pair):
    """Of a pair that has one; else the only one."""
    line = getattr(pair.master, "second_line", pair.master.line)
    line.cut()
    yield
    line.heal()


@contextmanager
def strangers(pair, others=None):
    """Idle and half connections to the slave, datagrams that the master cannot answer, and one
    that asks for everything and takes next to nothing of it."""
    stranger, slow = others or pair.lab.add_hosts(["stranger", "slow"])
    with ExitStack() as stack:
        stranger.line.cut("in", peer=pair.master.line)
        outlet = stack.enter_context(stranger.line.open_socket(SOCK_DGRAM))
        for number in range(30):
            link = stack.enter_context(stranger.line.open_socket())
            link.connect((pair.slave.address, PORT))
            link.send(record(CLIENT, "half", "")[: number * 10 % 100])
            outlet.sendto(request(CLIENT), (pair.master.address, PORT))
        inlet = stack.enter_context(slow.line.open_socket())
        inlet.setsockopt(SOL_SOCKET, SO_RCVBUF, 4096)
        inlet.bind(("", PORT))
        inlet.listen()
        asker = stack.enter_context(slow.line.open_socket(SOCK_DGRAM))
        asker.sendto(request(CLIENT), (pair.master.address, PORT))
        yield
    stranger.line.heal()


def random_trial(dice):
    side, folder = dice.choice(("master", "slave")), dice.choice(FOLDERS)
    way, share = dice.choice(("in", "out", "both")), round(dice.uniform(0.05, 0.6), 2)
    kind = dice.choice(FOLDER_FAULTS)
    name, fault = dice.choice((
        (f"line cut {way}", faults.cut(way)),
        (f"frames lost {way} {share}", faults.cut(way, share)),
        (f"frames up to {share} s late", faults.slow(0, share)),
        (f"{side} stopped", faults.stopped(side)),
        ("second line cut", second_line),
        ("strangers", strangers),
        (f"{side}: {folder} {kind.__name__}", kind(side, folder)),
    ))
    return name, dice.uniform(0.5, 45), fault, None


LINE = [
    ("line cut", 1, faults.cut(), False),
    ("line cut", 5, faults.cut(), None),
    ("line cut", 12, faults.cut(), True),
    ("no beats", 12, faults.cut("out"), True),
    ("no heartbeats", 12, faults.cut("in"), True),
    ("every tenth frame lost", 10, faults.cut(share=0.1), None),
    ("every third frame lost", 10, faults.cut(share=0.33), None),
    ("frames late", 9, faults.slow(0.02, 0.1), False),
    ("frames late and out of order", 9, faults.slow(0.0, 0.6), None),
    ("slave stopped", 9, faults.stopped("slave"), False),
    ("master stopped", 4, faults.stopped("master"), None),
    ("master stopped", 12, faults.stopped("master"), True),
    ("both stopped", 9, faults.stopped("slave", "master"), False),
]
DISK = [
    (f"{side}: {folder} {kind.__name__}", 13, kind(side, folder), False)
    for side, folder in (
        ("slave", "/etc/quoradmind"),
        ("master", "/etc/quoradmind"),
        ("slave", "/var/log"),
        ("master", "/tmp"),
    )
    for kind in FOLDER_FAULTS
]


@pytest.mark.parametrize("trials", [LINE[:5], LINE[5:], DISK[:8], DISK[8:]],
                         ids=["line", "loss and standstill", "disk", "log and scratch"])
def test_a_pair_heals(pair_factory, trials):
    heal_from(pair_factory, CLIENTS, trials)


@pytest.mark.soak
def test_pairs_heal_from_anything(pair_factory, seed, soak_round):
    """Larger lists, so that pushes are under way when something breaks or heals."""
    dice, clients = random.Random(f"{seed} {soak_round}"), lab.realistic_clients(3000)
    trials = [random_trial(dice) for _ in range(6)]
    heal_from(pair_factory, clients, trials, second_lines=dice.random() < 0.5)
