"""What the unit runs around the daemon: before each start, and to end it."""

import os
import re
import signal
from pathlib import Path

import pytest
from lab import wait_until
from peer import LIMIT

ROOT = Path(__file__).resolve().parents[2]
BEFORE_START = re.compile(r"^ExecStartPre=-/usr/sbin/quorsyncctl (.*)$", re.M)


@pytest.fixture
def before_start(ctl):
    """Runs in a host what comes before a start."""
    lines = BEFORE_START.findall((ROOT / "debian/quorsyncd.service").read_text())
    assert len(lines) == 2

    def run(host):
        for line in lines:
            assert ctl(host, *line.split())[0] == 0, line

    return run


def both_run(host):
    return host.services.running() == ["quordhcpd", "stagd"]


def test_a_start_ends_what_a_killed_acting_master_left(lonely_slaves, run_daemon, before_start):
    (slave,) = lonely_slaves("slave")
    daemon = run_daemon(slave)
    wait_until(lambda: both_run(slave), LIMIT, "both services of the acting master")
    before_start(slave)
    assert both_run(slave)  # As of one that was started by hand.
    daemon.kill()
    before_start(slave)
    assert not slave.services.running()


@pytest.mark.parametrize("ha", ["enable", "off"])
def test_a_start_leaves_the_services_of_other_hosts(pair_factory, ctl, before_start, ha):
    """Of a master, and where the pair is switched off: the site serves from such a host."""
    pair = pair_factory(master_config={"ha": ha}, slave_config={"ha": ha})
    hosts = (pair.master, pair.slave) if ha == "off" else (pair.master,)
    for host in hosts:
        assert ctl(host, "service", "start", "boot")[0] == 0
        before_start(host)
        assert both_run(host)


JOURNAL = """import os, socket, sys
os.makedirs(os.path.dirname(sys.argv[1]), exist_ok=True)
journal = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
journal.bind(sys.argv[1])
with open("/tmp/journal", "wb", 0) as file:
    while True:
        file.write(journal.recv(65536) + b"\\0")"""


def test_the_journal_gets_the_lines_with_their_priority(lonely_slaves, daemon_path, daemon_env):
    (slave,) = lonely_slaves("slave")
    unit = (ROOT / "debian/quorsyncd.service").read_text()
    environment = dict(re.findall(r"^Environment=(\w+)=(.*)$", unit, re.M))
    assert "\nStandardOutput=null\n" in unit  # They would come twice.
    slave.popen(["/usr/bin/python3", "-c", JOURNAL, environment["QUORSYNCD_JOURNAL"]])
    entries = slave.root / "tmp/journal"
    wait_until(entries.exists, LIMIT, "the journal")
    daemon = slave.start_daemon(daemon_path, env=daemon_env | environment)
    wait_until(lambda: b"DEBUG :bottle=1" in entries.read_bytes(), LIMIT, "an entry")
    marks = {b"INFO :": b"6", b"DEBUG :": b"7"}
    for entry in entries.read_bytes().split(b"\n\0"):
        for word, priority in marks.items():
            assert word not in entry or entry.startswith(b"PRIORITY=" + priority + b"\n")
    assert "DEBUG :bottle=1" in daemon.output_text()


def end(host, daemon):
    path = host.expose(ROOT / "packaging/end-daemon")
    host.run([path, str(daemon.pid)], timeout=LIMIT, check=True)


def test_the_end_of_a_slave_and_of_a_master(pair_factory):
    """A slave's process stays, but has nothing left that SIGKILL could hurt."""
    pair = pair_factory()
    pair.start()
    end(pair.slave, pair.slave_daemon)
    assert pair.slave_daemon.poll() is None
    assert len(os.listdir(f"/proc/{pair.slave_daemon.outer_pid}/task")) == 1
    assert pair.slave.shell("cat /proc/sysvipc/sem").count("\n") == 1  # The heading.
    end(pair.master, pair.master_daemon)
    assert pair.master_daemon.wait(LIMIT) == -signal.SIGTERM
    end(pair.master, pair.master_daemon)  # Nobody is there any more: no failure.
