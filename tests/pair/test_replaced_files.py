"""Whatever replaces a file, killed at each of its steps or on a full disk: the old file or the new.

A slave's client list goes through the same in test_bad_days_crash.py, a master's copy in
test_fetch.py.
"""

import signal
from collections import Counter

import pytest
from lab import tracing
from lab.file_service import FileService

STEPS = (
    "openat,write,pwrite64,sendfile,copy_file_range,ftruncate,fchown,fchmod,"
    "fsync,fdatasync,rename,renameat,link,unlink,close"
)
DISK, TRACE = "/disk", "/lab/out/steps"
ENTRY = "\thost {0} {{\n\thardware ethernet 00:1e:4f:aa:0b:31;\n\tfixed-address 10.77.0.21;\n" \
    '\toption PXE.info "win11";\n\t}}\n'
HOSTS = [f"PC-{number:03}" for number in range(100)]
CONF = "subnet 10.77.0.0 netmask 255.255.255.0 {\n" + "".join(map(ENTRY.format, HOSTS))
SETTINGS = {f"setting{number:03}": "v" * 75 for number in range(88)}  # One more splits a bucket.
CHANGES = {
    "store put": ["put", "another", "v" * 75],
    "store del": ["del", "setting007"],
    "store list-add": ["list-add", "setting007", "item" * 500],
    "store list-remove": ["list-remove", "setting007", "v" * 75],
}
SERVER = "#!/bin/sh\nexit 1\n"  # One that stays would keep strace waiting.
PAGE = 4096


class Replacement:
    """A file on a disk of its own, and the call of the tool that replaces it."""

    def __init__(self, host, tool, name, beside, old, arguments):
        self._host, self._tool, self._arguments, self._old = host, tool, arguments, old
        self.paths = [DISK, *(f"{DISK}/{each}" for each in (name, *beside))]
        host.shell(f"mkdir -p {DISK} && mount -t tmpfs -o size={16 * PAGE} small {DISK}")
        self._folder = host.root / DISK[1:]
        self.outer_path = self._folder / name
        self.reset()

    def reset(self):
        self.outer_path.write_bytes(self._old)

    def run(self, wrapper=()):
        return self._host.run([*wrapper, self._tool, *self._arguments]).returncode

    def content(self):
        return self.outer_path.read_bytes()

    def names(self):
        return sorted(path.name for path in self._folder.iterdir())

    def leave_pages(self, number):
        """Fill the disk up to so many."""
        filler = self._folder / "filler"
        self._host.shell(f"! cat /dev/zero 2>/dev/null >{DISK}/filler")
        size = filler.stat().st_size
        with filler.open("r+b") as file:
            file.truncate(size - number * PAGE)

    def free(self):
        (self._folder / "filler").unlink()


@pytest.fixture(params=["dhcpd.conf", "fetched file", *CHANGES])
def replacement(request, empty_lab, daemon_path):
    host, server = empty_lab.add_hosts(["host", "server"])
    tool = host.expose(daemon_path.parent / "quorsyncctl")
    if request.param == "dhcpd.conf":
        arguments = ["dhcpd-conf", "host", "PC-new", "00:1e:4f:aa:0b:32", "10.77.0.22", "linux"]
        host.shell("mount -t tmpfs programs /usr/sbin")
        program = host.root / "usr/sbin/dhcpd"
        program.write_text(SERVER)
        program.chmod(0o755)
        (host.root / "etc/dhcpd.conf").symlink_to(f"{DISK}/dhcpd.conf")
        old = (CONF + "}\n").encode()
        yield Replacement(host, tool, "dhcpd.conf", [".dhcpd.conf.new"], old, arguments)
    elif request.param in CHANGES:
        store = host.store("/tmp/some.db")
        store.fill(SETTINGS)
        verb, *words = CHANGES[request.param]
        arguments = ["store", verb, "--file", f"{DISK}/some.db", *words]
        old = store.outer_path.read_bytes()
        yield Replacement(host, tool, "some.db", ["some.db.changed"], old, arguments)
    else:
        (server.root / "tmp/file").write_bytes(b"new" * 6000)
        arguments = ["fetch", server.address, "/tmp/file", f"{DISK}/copy"]
        with FileService(server):
            yield Replacement(host, tool, "copy", ["copy.part"], b"old" * 6000, arguments)


def test_killed_at_each_step_it_leaves_the_old_file_or_the_new_one(replacement, empty_lab):
    host, old = empty_lab.hosts[0], replacement.content()
    replacement.run(tracing.recording(TRACE, STEPS, *replacement.paths))
    new, names, seen = replacement.content(), replacement.names(), set()
    assert new != old
    steps = Counter(step.call for step in tracing.recorded(host, TRACE))
    assert {"openat", "fsync", "rename"} <= set(steps)
    for call, times in steps.items():
        for number in range(1, times + 1):
            replacement.reset()
            killed = tracing.killed_at(call, number, *replacement.paths)
            # A file that has lain for a moment is verified once, one that has not, twice.
            whole = replacement.run(killed) != -signal.SIGKILL
            seen.add(replacement.content())
            assert not whole or replacement.content() == new
            assert seen <= {old, new}, f"killed at {call} {number}"
            replacement.reset()
            replacement.run()
            assert (replacement.content(), replacement.names()) == (new, names)
    assert seen == {old, new}


def test_on_a_disk_that_is_full_at_any_page_the_old_file_stays(replacement):
    old, names, seen = replacement.content(), replacement.names(), []
    replacement.run()
    new = replacement.content()
    for pages in range(8):
        replacement.reset()
        replacement.leave_pages(pages)
        replacement.run()
        replacement.free()
        seen.append(replacement.content())
        assert seen[-1] in (old, new), f"{pages} pages"
        assert replacement.names() == names
    assert seen[0] == old and seen[-1] == new
