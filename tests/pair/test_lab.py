"""The lab must tell the truth and leave nothing behind, or every other test here means little."""

import os
import signal
import subprocess
import sys
from pathlib import Path

import lab
import pytest

ROOT = Path(__file__).resolve().parents[2]
KINDS = ("mnt", "net", "pid", "ipc", "uts")

# Says which namespaces and directories it made, and forks a child that keeps every descriptor.
OWNER = """
import os, sys, time
sys.path.insert(0, sys.argv[1])
import lab
one_lab = lab.Lab()
host = one_lab.add_host("one", disk=True)
host.config.put("a", "b")
host.popen(["/bin/sleep", "1000"])
child = os.fork()
if child == 0:
    time.sleep(1000)
for each in (host._inside, one_lab._switch._inside):
    print(*(os.readlink(f"/proc/{each.pid}/ns/{kind}") for kind in %r))
print(child)
print(os.stat(host.root / "etc/quoradmind/config.db").st_ino, flush=True)
time.sleep(1000)
""" % (KINDS,)


def namespaces_in_use():
    found = set()
    for entry in os.listdir("/proc"):
        for kind in KINDS if entry.isdigit() else ():
            try:
                found.add(os.readlink(f"/proc/{entry}/ns/{kind}"))
            except OSError:
                pass
    return found


def disk_files():
    return {path.stat().st_ino for path in Path("/var/tmp").glob("quorsyncd-lab-*/etc/*")}


def mounts():
    return Path("/proc/self/mountinfo").read_text()


def test_nothing_is_left_after_the_owner_was_killed():
    mounted = mounts()
    with subprocess.Popen(
        [sys.executable, "-c", OWNER, str(ROOT)], stdout=subprocess.PIPE, text=True
    ) as owner:
        made = set((owner.stdout.readline() + owner.stdout.readline()).split())
        child, inode = int(owner.stdout.readline()), int(owner.stdout.readline())
        try:
            assert made <= namespaces_in_use() and inode in disk_files()
            owner.kill()
            lab.wait_until(lambda: not made & namespaces_in_use(), 30, "the end of the hosts")
            lab.wait_until(lambda: inode not in disk_files(), 30, "the end of the directory")
        finally:
            os.kill(child, signal.SIGKILL)
    assert mounts() == mounted


LISTENER = """
import socket
inlet = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
inlet.bind(("", 13233))
print("listening", flush=True)
while True:
    print(inlet.recv(100).decode(), flush=True)
"""


class Listener:
    """Collects datagrams in a host."""

    def __init__(self, host):
        self.host = host
        self.output = host.root / "tmp/heard"
        with self.output.open("wb") as file:
            host.popen(["/usr/bin/python3", "-c", LISTENER], stdout=file)
        lab.wait_until(lambda: self.heard(), what=f"the listener of {host.name}")

    def heard(self):
        return self.output.read_text().split()

    def send(self, peer, words):
        lines = "; ".join(
            f"s.sendto(b'{word}', ('{peer.host.address}', 13233))" for word in words
        )
        code = f"import socket; s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); {lines}"
        self.host.run(["/usr/bin/python3", "-c", code], check=True)


def test_a_line_can_be_cut_one_way(empty_lab):
    one, two, three = map(Listener, empty_lab.add_hosts(["one", "two", "three"]))
    one.host.line.cut("out", peer=two.host.line)
    one.send(two, ["lost"])  # A sender that noticed the cut would fail here.
    two.send(one, ["back"])
    one.send(three, ["aside"])
    lab.wait_until(lambda: "back" in one.heard(), what="the way back")
    lab.wait_until(lambda: "aside" in three.heard(), what="the way to another host")
    one.host.line.heal()
    one.send(two, ["healed"])
    lab.wait_until(lambda: "healed" in two.heard(), what="the healed way")
    assert "lost" not in two.heard()


def test_a_line_can_lose_a_part(empty_lab):
    one, two = map(Listener, empty_lab.add_hosts(["one", "two"]))
    one.host.line.cut("out", share=0.5)
    one.send(two, [f"n{number}" for number in range(400)])
    one.host.line.heal()
    one.send(two, ["end"])
    lab.wait_until(lambda: "end" in two.heard(), what="the end")
    assert 100 < len(two.heard()) < 300


def test_stubs_tell_what_they_inherited(empty_lab):
    host = empty_lab.add_host("one")
    host.run(
        [
            "/usr/bin/env",
            "--block-signal=TERM",
            "--ignore-signal=PIPE",
            "--ignore-signal=CHLD",
            "/bin/sh",
            "-c",
            "exec 7>/tmp/leak; exec /usr/local/bin/quordhcpd",
        ],
        check=True,
    )
    (dirty,) = host.services.calls("quordhcpd")
    assert dirty.descriptors.keys() == {0, 1, 2, 7} and dirty.descriptors[7] == "/tmp/leak"
    assert dirty.blocked == {"SIGTERM"}
    # dash, the one in between, takes SIGCHLD back.
    assert dirty.ignored == {"SIGPIPE"}
    (service,) = host.services.pids("quordhcpd")
    assert os.path.samefile(host.root / f"proc/{service}/fd/7", host.root / "tmp/leak")
    host.run(["/usr/bin/killall", "-9", "quordhcpd"], check=True)
    lab.wait_until(lambda: not host.services.runs("quordhcpd"), what="the end of the service")

    host.services.configure("quordhcpd", status=3, detach=False)
    assert host.run(["/usr/local/bin/quordhcpd"]).returncode == 3
    clean = host.services.calls("quordhcpd")[-1]
    assert clean.descriptors.keys() == {0, 1, 2}
    assert not clean.blocked and not clean.ignored and not clean.caught
    assert not host.services.runs("quordhcpd")


def test_events_are_read_as_posted(empty_lab):
    host = empty_lab.add_host("one")
    host.shell('/usr/local/bin/evpost_ex  quorsyncd 0 720000 22 0 720007 11 "" &')
    lab.wait_until(host.services.events, what="the event")
    (event,) = host.services.events()
    assert (event.level, event.code, event.errno, event.message) == (0, 720007, 11, "")


def test_stores_keep_to_the_lock(empty_lab):
    host = empty_lab.add_host("one")
    host.config.put("key", "old")
    outlet, inlet = os.pipe()
    command = "/usr/bin/flock /etc/quoradmind/config.db /bin/sh -c 'echo > /tmp/held; read x'"
    holder = host.popen(["/bin/sh", "-c", command], stdin=outlet)
    os.close(outlet)
    lab.wait_until((host.root / "tmp/held").exists, what="the lock")
    host.config.timeout = 1.0
    with pytest.raises(lab.StoreError, match="no end after 1 s"):
        host.config.put("key", "new")
    os.close(inlet)
    holder.wait()
    assert host.config.get("key") == b"old"


def test_a_damaged_store_is_an_error_and_nothing_worse(empty_lab):
    host = empty_lab.add_host("one")
    host.client.fill(lab.realistic_clients(200))
    path = host.client.outer_path
    good = path.read_bytes()
    path.write_bytes(good[:4096] + os.urandom(len(good) - 4096))
    host.client.timeout = 10.0
    assert not host.client.verify()
    with pytest.raises(lab.StoreError):
        host.client.items()
    host.config.put("key", "value")
    assert host.config.items() == {b"key": b"value"}


def test_a_detached_program_is_found_alive_or_ended(empty_lab, tmp_path):
    host = empty_lab.add_host("one")
    program = tmp_path / "quorsyncd"
    program.write_text("#!/bin/sh\n(eval \"$WORK\") &\n")
    program.chmod(0o755)
    work = {"WORK": "while sleep 1; do :; done"}
    running = host.start_daemon(program, foreground=False, env=work)
    assert running.alive and running.launcher_status == 0
    assert running.descriptors()[1].startswith("/lab/out/")
    running.freeze()
    assert running.state() == "T"
    assert running.kill() == -signal.SIGKILL
    ended = host.start_daemon(program, foreground=False, env={"WORK": "exit 11"})
    assert ended.wait() == 11
