"""Daemons that are killed, at any moment and in any order: what is on disk then, and after."""

import itertools
import random
import signal
from collections import Counter
from pathlib import Path

import lab
import pytest
from lab import tracing, wait_until
from lab.file_service import FileService
from peer import CLIENT, DISK, LIMIT, FakeMaster, beat_back, record

# What a daemon does when it changes something, and about how often for one change.
DEADLY = {
    "slave": {"pwrite64": 200, "write": 4000, "fdatasync,fsync": 12, "rename,link,unlink": 8,
              "openat": 2500, "sendto": 4},
    "master": {"pwrite64": 8, "write": 4000, "fdatasync,fsync": 3, "rename,link,unlink": 4,
               "openat": 2500, "sendto": 2000},
}
PROMOTED = "become a master host"
FOLDER, DOWNLOAD = "/etc/quoradmind", "/tmp/SyncDbFile.db"


class Victims:
    """A pair of which one side at a time is killed at a random system call."""

    def __init__(self, pair, dice):
        self.pair, self.dice, self.number = pair, dice, 0
        self.copy = pair.master.store(f"{pair.slave.address}.db")

    def change(self):
        """Other clients, another setting, another stamp of the slave's own: push and fetch."""
        self.number += 1
        pair, stamp = self.pair, f"change {self.number}"
        keys = self.dice.sample(sorted(pair.master.client.items()), 5)
        pair.master.client.delete(keys[0])
        pair.master.client.fill({key: stamp for key in [*keys[1:], f"new {self.number}"]})
        pair.master.config.fill({"dhcpcfg": stamp, "client_db_version": stamp})
        pair.master.config.put("config_db_version", stamp)
        pair.slave.config.put("dsver", stamp)

    def settled(self):
        stamp = self.pair.slave.config.get("dsver")
        return not self.pair.difference() and self.copy.get("dsver") == stamp

    def kill_one(self):
        pair, side = self.pair, self.dice.choice(("master", "slave"))
        host = getattr(pair, side)
        calls, most = self.dice.choice(sorted(DEADLY[side].items()))
        when = int(most ** self.dice.random())
        print(f"{self.number + 1}: {side} killed at {calls} {when}")
        host.kill_daemons(pair.executable)
        before = self.pair.slave.config.get("dsver")
        self.change()
        pair.wrapper = tracing.killed_at(calls, when)
        daemon = getattr(pair, f"start_{side}")()
        pair.wrapper = ()
        wait_until(lambda: not daemon.alive or self.settled(), LIMIT, "the kill")
        died = not daemon.alive
        # Strace ends by the signal that ends its daemon, which is never to end by any other.
        assert daemon.poll() in (None, -signal.SIGKILL), daemon.output_text()
        host.kill_daemons(pair.executable)
        self.assert_whole()
        assert self.copy.get("dsver") in (before, self.pair.slave.config.get("dsver"))
        getattr(pair, f"start_{side}")()
        return died

    def assert_whole(self):
        pair, stamp = self.pair, "client_db_version"
        if pair.slave.config.get(stamp) == pair.master.config.get(stamp):
            assert not pair.master.client.difference(pair.slave.client)
        assert self.copy.verify()

    def assert_converges(self):
        wait_until(self.settled, LIMIT, "equal stores and a new copy", interval=0.05)
        for host in (self.pair.master, self.pair.slave):
            assert host.config.verify() and host.client.verify()
        assert self.copy.verify()


def test_killed_at_any_moment(pair_factory, seed, rounds):
    pair = pair_factory(clients=lab.realistic_clients(2000))
    victims = Victims(pair, random.Random(seed))
    with FileService(pair.slave):
        pair.start()
        wait_until(victims.settled, LIMIT, "equal stores and a copy")
        died = 0
        for _ in range(rounds):
            died += victims.kill_one()
            victims.assert_converges()
    print(f"{rounds} kills, {died} of them in the middle of something")
    assert died


STEPS = "link,linkat,rename,renameat,renameat2,unlink,unlinkat,fsync,fdatasync,sync_file_range"
OLD, NEW = {b"old": b"1"}, {b"new": b"1", b"newer": b"1"}
SETTINGS = f"{FOLDER}/config.db.changed"  # What becomes config.db, a stamp included.
BEHIND = record(DISK, "behind", "it")


class Receiver:
    """A slave that gets one whole push, each time from the same start."""

    def __init__(self, pair, master):
        self.pair, self.slave, self.master = pair, pair.slave, master
        self.slave.config.put("client_db_version", "1")
        self.slave.client.fill(OLD)
        stores = (self.slave.config, self.slave.client)
        self._start = [(each.outer_path, each.outer_path.read_bytes()) for each in stores]

    def push(self, wrapper):
        """Whether the daemon outlived it. The set follows the answer that asks for it."""
        self.slave.shell(f"rm -f {FOLDER}/client.db*")
        for path, content in self._start:
            path.write_bytes(content)
        records = [record(CLIENT, key, value) for key, value in NEW.items()]
        return self._serve(wrapper, beat_back("#2"), *records, record(CLIENT, "dbver", "2"))

    def start_again(self):
        """With a master whose stamp is that of the new list."""
        assert self._serve((), beat_back("#2"))

    def _serve(self, wrapper, *messages):
        mark = self.slave.log_mark()
        self.pair.wrapper = wrapper
        daemon = self.pair.start_slave()
        # It may be killed before it listens.
        link = wait_until(lambda: not daemon.alive or self.master.try_to_connect(), LIMIT)
        if link is not True:
            with link:
                link.sendall(b"".join([*messages, BEHIND]))
        wait_until(lambda: not daemon.alive or self.slave.find_log("data 3: behind", mark), LIMIT)
        alive = daemon.alive
        self.slave.kill_daemons(self.pair.executable)
        return alive


def test_killed_at_every_step_of_a_push(pair_factory):
    """Where the stamp of the new list is stored, no start goes back to the old one."""
    pair = pair_factory(slave_config={"dsver": "1"})
    trace, stamps = "/lab/out/trace", []
    with FakeMaster(pair.master, pair.slave) as master:
        receiver = Receiver(pair, master)
        assert receiver.push(tracing.recording(trace, STEPS))
        steps = Counter(step.call for step in tracing.recorded(pair.slave, trace))
        for call, times in steps.items():
            for number in range(1, times + 1):
                receiver.push(tracing.killed_at(call, number))
                stamps.append(pair.slave.config.get("client_db_version"))
                receiver.start_again()
                if stamps[-1] == b"2":
                    assert pair.slave.client.items() == NEW, f"killed at {call} {number}"
    assert set(stamps) == {b"1", b"2"}, "no kill on one side of the stamp"


class Disk:
    """What a power failure could take back, as the traced calls of a daemon follow each other."""

    def __init__(self, host, trace):
        self.unflushed, self.names = set(), []
        for step in tracing.recorded(host, trace):
            if any(path.startswith((FOLDER, DOWNLOAD)) for path in step.paths):
                self.follow(step)

    def follow(self, step):
        if step.call in ("write", "pwrite64", "sendfile"):
            self.write(step.paths[0])
        elif step.call in ("fsync", "fdatasync"):
            self.unflushed.discard(step.paths[0])
        else:
            assert step.call == "unlink" or step.paths[0] not in self.unflushed, step
            self.names.append(step.paths)
            self.unflushed.add(FOLDER)

    def write(self, path):
        if path == SETTINGS:
            assert f"{FOLDER}/client.db" not in self.unflushed, "records behind their stamp"
            assert FOLDER not in self.unflushed, "a list or its end behind its stamp"
        self.unflushed.add(path)
        self.last_written = path


def test_what_a_power_failure_leaves_is_whole(pair_factory):
    """As strace sees it: no stamp and no name gets to the disk ahead of what it stands for."""
    trace = "/lab/out/trace"
    calls = "pwrite64,write,sendfile,fsync,fdatasync,rename,unlink"
    pair = pair_factory(
        clients=lab.realistic_clients(2000),
        slave_clients=lab.realistic_clients(10, seed=2),
        wrapper=tracing.recording(trace, calls),
    )
    copy = pair.master.store(f"{pair.slave.address}.db")
    pair.start()
    pair.wait_equal(LIMIT)
    with FileService(pair.slave):
        # Where a download can be renamed to its place, and where it has to be copied.
        for stamp, where in (("1", "true"), ("2", f"mount -t tmpfs none {Path(DOWNLOAD).parent}")):
            pair.master.shell(where)
            pair.slave.config.put("dsver", stamp)
            wait_until(lambda stamp=stamp: copy.get("dsver") == stamp.encode(), LIMIT, "a copy")
    disk = Disk(pair.slave, trace)
    assert disk.last_written == SETTINGS and not disk.unflushed
    assert (f"{FOLDER}/client.db.new", f"{FOLDER}/client.db") in disk.names
    assert (f"{FOLDER}/client.db.previous",) in disk.names
    names = Disk(pair.master, trace).names
    assert (DOWNLOAD, copy.path) in names and (f"{copy.path}.new", copy.path) in names
    for host in (pair.master, pair.slave):
        host.kill_daemons(pair.executable)


@pytest.mark.parametrize("orders", [0, 1])
def test_every_order_of_ending_and_starting(pair_factory, ctl, orders):
    """Right roles and bound ports; services of a daemon that ended promoted are stopped first."""
    pair = pair_factory(clients=lab.realistic_clients(20))
    pair.start()
    sides = ("master", "slave")
    every = list(itertools.product(itertools.permutations(sides), itertools.permutations(sides)))
    for ends, starts in every[orders::2]:
        pair.wait_equal(LIMIT)
        mark = pair.slave.log_mark()
        getattr(pair, f"{ends[0]}_daemon").kill()
        if ends[0] == "master":
            pair.slave.wait_log(PROMOTED, LIMIT, mark)
            wait_until(lambda: pair.slave.services.runs("stagd"), LIMIT, "the services")
        getattr(pair, f"{ends[1]}_daemon").kill()
        for side in starts:
            host, mark = getattr(pair, side), getattr(pair, side).log_mark()
            ctl(host, "service", "stop", "boot", "--if-slave")
            assert not host.services.running()
            getattr(pair, f"start_{side}")()
            host.wait_log(f"quorsyncd_role:{side}", LIMIT, mark)
        pair.master.config.put("client_db_version", f"{ends} {starts}")
    pair.wait_equal(LIMIT)
    # A slow start of the master may have cost a take-over, whose end follows the equal stores.
    wait_until(lambda: not pair.slave.services.running(), LIMIT, "the end of the services")
    wait_until(lambda: pair.slave.config.get("dhcp") is None, LIMIT, "the mark to go")
