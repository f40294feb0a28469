"""The lab must tell the truth and leave nothing behind, or every other test here means little."""

import os
import signal
from contextlib import ExitStack
from socket import SOCK_DGRAM

import lab
import pytest

PORT, LIMIT = 13233, 60.0


@pytest.fixture
def bound(empty_lab):
    """Makes hosts, each with its address and a socket that is bound to it."""
    with ExitStack() as stack:

        def make(*names):
            hosts = empty_lab.add_hosts(names)
            sockets = [stack.enter_context(host.line.open_socket(SOCK_DGRAM)) for host in hosts]
            for each in sockets:
                each.bind(("", PORT))
                each.settimeout(LIMIT)
            return [(host.line, (host.address, PORT)) for host in hosts], sockets

        yield make


def test_a_line_can_be_cut_one_way(bound):
    ((line, at_one), (other, at_two), (_, at_three)), (one, two, three) = bound("a", "b", "c")
    line.cut("out", peer=other)
    one.sendto(b"lost", at_two)  # A sender that noticed the cut would fail here.
    two.sendto(b"back", at_one)
    one.sendto(b"aside", at_three)
    assert (one.recv(9), three.recv(9)) == (b"back", b"aside")
    line.heal()
    one.sendto(b"healed", at_two)
    assert two.recv(9) == b"healed"


def test_a_line_can_lose_a_part(bound):
    ((line, _), (_, at_two)), (one, two) = bound("a", "b")
    line.cut("out", share=0.5)
    for _ in range(200):
        one.sendto(b"part", at_two)
    line.heal()
    one.sendto(b"end", at_two)
    assert 50 < len(list(iter(lambda: two.recv(9), b"end"))) < 150


def test_stubs_tell_what_they_inherited(empty_lab):
    host = empty_lab.add_host("one")
    masked = "env --block-signal=TERM --ignore-signal=PIPE --ignore-signal=CHLD /bin/sh -c"
    host.shell(f"{masked} 'exec 7>/tmp/leak; exec /usr/local/bin/quordhcpd'")
    (dirty,) = host.services.calls("quordhcpd")
    assert dirty.descriptors.keys() == {0, 1, 2, 7} and dirty.descriptors[7] == "/tmp/leak"
    assert dirty.blocked == {"SIGTERM"}
    # dash, the one in between, takes SIGCHLD back.
    assert dirty.ignored == {"SIGPIPE"}
    host.shell("killall -9 quordhcpd")
    lab.wait_until(lambda: not host.services.runs("quordhcpd"), what="the end of the service")

    host.services.configure("quordhcpd", status=3, detach=False)
    assert host.run(["/usr/local/bin/quordhcpd"]).returncode == 3
    clean = host.services.calls("quordhcpd")[-1]
    assert clean.descriptors.keys() == {0, 1, 2}
    assert not clean.blocked and not clean.ignored and not clean.caught
    assert not host.services.runs("quordhcpd")


def test_a_damaged_store_does_not_verify(empty_lab):
    store = empty_lab.add_host("one").client
    store.fill(lab.realistic_clients(200))
    assert store.verify()
    good = store.outer_path.read_bytes()
    store.outer_path.write_bytes(good[:4096] + os.urandom(len(good) - 4096))
    assert not store.verify()
    with pytest.raises(lab.StoreError):
        store.items()


def test_a_detached_program_is_found_alive_or_ended(empty_lab, tmp_path):
    host = empty_lab.add_host("one")
    program = tmp_path / "quorsyncd"
    program.write_text("#!/bin/sh\n(eval \"$WORK\") &\n")
    program.chmod(0o755)
    work = {"WORK": "while sleep 1; do :; done"}
    running = host.start_daemon(program, foreground=False, env=work)
    assert running.alive and running.launcher_status == 0
    assert running.descriptors()[1].startswith("/lab/out/")
    assert running.kill() == -signal.SIGKILL
    ended = host.start_daemon(program, foreground=False, env={"WORK": "exit 11"})
    assert ended.wait() == 11
