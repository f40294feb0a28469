"""A master that keeps copies of the other servers' settings, and the service it gets them from."""

import os
import re
import stat
import time
from collections import Counter
from contextlib import suppress

import lab
import pytest
from lab import tracing, wait_until
from lab.file_service import GET_FILE, FileService
from lab.reload_pipe import PATH as RELOAD_PIPE
from lab.reload_pipe import RELOAD, ReloadPipe
from peer import LIMIT, FakeSlave, await_master, beat_back, heartbeat

DOWNLOAD = "tmp/SyncDbFile.db"
ANSWER = [beat_back("config-1#client-1")]
QUEUED = "--add_to_sync_config_db--"
RUN = "Arg->op:256 --SyncQueueProcessor--"
FAILED = "Client.GetServerFile nRet:"


def ends(master):
    """How each job ended, in their order."""
    return [line.text for line in master.find_log(re.compile(f"^({FAILED}|refresh_dhcp$)"))]


class Fetcher(FakeSlave):
    """A real master, and a server that beats and whose file service is the test's."""

    def __init__(self, pair):
        super().__init__(pair.slave, pair.master)
        self.pair, self.master, self.slave = pair, pair.master, pair.slave
        self.copy = self.master.store(f"{self.slave.address}.db")
        self._pipe = self.enter_context(ReloadPipe(self.master))

    def start(self):
        self.pair.start_master()
        await_master(self.master)

    def beat(self, dsver, address=None):
        assert self.ask(heartbeat(address or self.slave.address, dsver)) == ANSWER

    def last_beat(self, dsver):
        """To a master that may end before it answers."""
        with suppress(OSError):
            self.ask(heartbeat(self.slave.address, dsver))

    def change(self, dsver):
        """Give the server another stamp and tell the master."""
        self.slave.config.put("dsver", dsver)
        self.beat(dsver)

    def await_copy(self):
        def equal():
            difference = self.copy.difference(self.slave.config)
            assert not difference, difference
            return True

        wait_until(equal, LIMIT, "an equal copy", interval=0.05)

    def reloads(self, number):
        """Wait for so many records in the pipe of the DHCP wrapper; the seconds they tell."""
        records = self._pipe.take(number, LIMIT)
        assert len(records) == number and {record.command for record in records} == {RELOAD}
        return [record.seconds for record in records]


@pytest.fixture(params=["one file system", "two file systems"])
def fetcher(request, pair_factory):
    pair = pair_factory(slave_config={"dsver": "20240101000000"})
    pair.slave.config.fill(lab.realistic_clients(300))
    if request.param == "two file systems":
        pair.master.shell("mount -t tmpfs other /tmp")
    with Fetcher(pair) as fresh:
        fresh.start()
        yield fresh


one_file_system = pytest.mark.parametrize("fetcher", ["one file system"], indirect=True)
two_file_systems = pytest.mark.parametrize("fetcher", ["two file systems"], indirect=True)


@pytest.mark.sanitizer
def test_another_stamp_fetches_a_copy(fetcher):
    master, slave = fetcher.master, fetcher.slave
    (master.root / "tmp/aim").write_bytes(b"precious")
    (master.root / DOWNLOAD).symlink_to("/tmp/aim")
    files = set(os.listdir(master.root / "etc/quoradmind")) | {fetcher.copy.outer_path.name}
    begin = int(time.time())
    with FileService(slave) as service:
        fetcher.beat("20240101000000")
        assert begin <= fetcher.reloads(1)[0] <= time.time()
        fetcher.await_copy()
        path = r"\/etc\/quoradmind\/config.db"
        (request,) = service.requests
        assert request.command == f'{{ "action": "get-file", "path": "{path}" }}'
        assert request.header == (GET_FILE, 0, 0, 88)

        for _ in range(3):  # The stamps are equal now.
            fetcher.beat("20240101000000")
        fetcher.beat("")
        assert len(master.find_log(QUEUED)) == len(service.requests) == 1
        slave.config.put("new", "record")
        fetcher.change("20240101000001")
        fetcher.reloads(1)
        fetcher.await_copy()
        fetcher.change("20240101000002" * 3)  # A beat carries its first 32 bytes.
        fetcher.reloads(1)
        for _ in range(3):
            fetcher.beat("20240101000002" * 3)
        assert len(master.find_log(QUEUED)) == 3
    assert stat.S_IMODE(fetcher.copy.outer_path.stat().st_mode) == 0o644
    assert set(os.listdir(master.root / "etc/quoradmind")) == files
    assert not (master.root / DOWNLOAD).exists()
    assert (master.root / "tmp/aim").read_bytes() == b"precious"
    assert not master.find_log("refresh_dhcp open")


@one_file_system
@pytest.mark.sanitizer
def test_a_fetch_that_fails_leaves_the_old_copy(fetcher):
    with FileService(fetcher.slave):
        fetcher.beat("20240101000000")
        fetcher.reloads(1)
    old = fetcher.copy.outer_path.read_bytes()
    fetcher.slave.config.fill(lab.realistic_clients(300, seed=2))
    size = fetcher.slave.config.outer_path.stat().st_size
    cases = [
        (-2, {"error": 7}),
        (-3, {"reply": "no JSON"}),
        (-4, {"reply": '{"length": "%s"}' % (size + 1)}),
        (-4, {"stop_after": size // 2, "pace": 50 * size}),
        (-1, {"pace": 0}),
    ]
    for number, (result, options) in enumerate(cases):
        mark = fetcher.master.log_mark()
        with FileService(fetcher.slave, **options):
            fetcher.change(f"change {number}")
            line = fetcher.master.wait_log(FAILED, LIMIT, mark)
        assert line.text.startswith(f"{FAILED}{result} --src/syncd--"), options
        assert fetcher.copy.outer_path.read_bytes() == old, options
    mark = fetcher.master.log_mark()
    fetcher.change("nobody there")
    fetcher.master.wait_log(f"{FAILED}-1 ", LIMIT, mark)
    assert fetcher.copy.outer_path.read_bytes() == old
    assert len(fetcher.master.find_log("refresh_dhcp")) == 1


@one_file_system
@pytest.mark.sanitizer
def test_beats_are_answered_while_a_fetch_hangs(fetcher):
    """Each of them queues one more job; they run in a row when the service wakes up."""
    with FileService(fetcher.slave) as service:
        service.process.freeze()
        fetcher.beat("20240101000000")
        fetcher.master.wait_log(RUN, LIMIT)
        for _ in range(10):
            fetcher.beat("20240101000000")
        service.process.thaw()
        wait_until(lambda: len(ends(fetcher.master)) == 11, LIMIT, "the end of all jobs")
        fetcher.reloads(11 - len(fetcher.master.find_log(FAILED)))  # The first waits 5 s only.
        fetcher.await_copy()
        fetcher.beat("20240101000000")
    lines = [line.text for line in fetcher.master.log_lines()]
    before_end = lines[: lines.index(ends(fetcher.master)[0])]
    hanging = before_end[next(n for n, text in enumerate(lines) if text.startswith(RUN)) :]
    assert len([text for text in hanging if text.startswith("beat back to ")]) >= 2
    assert len(fetcher.master.find_log(QUEUED)) == 11


@one_file_system
def test_a_name_that_is_no_address_gives_neither_file_nor_job(fetcher):
    folder = fetcher.master.root / "etc/quoradmind"
    before = sorted(os.listdir(folder))
    for name in ("../evil", "10.77.0.2/../../evil", "server", "x" * 32):
        fetcher.beat("another", name)
        line = f"serverip {name} is no address, ignored"
        assert len(fetcher.master.find_log(line)) == 1
    assert sorted(os.listdir(folder)) == before
    assert not fetcher.master.find_log(QUEUED)


@two_file_systems
@pytest.mark.sanitizer
def test_only_a_sound_download_takes_the_place_of_a_copy(fetcher):
    master, copy = fetcher.master, fetcher.copy.outer_path
    path = fetcher.slave.config.outer_path
    good = path.read_bytes()
    copy.write_bytes(b"damaged as well")
    with FileService(fetcher.slave):
        for bad in (b"no database", good[: len(good) // 2]):
            mark = master.log_mark()
            path.write_bytes(bad)
            fetcher.beat("20240101000000")
            master.wait_log(f"{fetcher.copy.path} not replaced, the download does not verify:",
                            LIMIT, mark)
            assert copy.read_bytes() == b"damaged as well"
        path.write_bytes(good)
        fetcher.beat("20240101000000")
        fetcher.reloads(1)
        fetcher.await_copy()
        fetcher.beat("20240101000000")
    assert len(master.find_log(QUEUED)) == 3
    assert len(master.find_log("refresh_dhcp")) == 1


@two_file_systems
def test_killed_at_each_step_of_putting_a_copy_in_place(fetcher):
    """A rename does not reach from another disk, so a copy beside the target is renamed."""
    pair, master, copy = fetcher.pair, fetcher.master, fetcher.copy.outer_path
    pair.master_daemon.kill()
    fetcher.copy.fill({"dsver": "old"})
    old, new = copy.read_bytes(), fetcher.slave.config.outer_path.read_bytes()
    trace, calls = "/lab/out/trace", "openat,sendfile,copy_file_range,fchmod,fsync,rename,unlink"
    paths = (f"{fetcher.copy.path}.new", f"/{DOWNLOAD}")

    def fetch(wrapper):
        """Whether the master outlived it."""
        copy.write_bytes(old)
        (copy.parent / "dhcp_reload.owed").unlink(missing_ok=True)
        pair.wrapper = wrapper
        fetcher.start()
        mark = master.log_mark()
        fetcher.last_beat("20240101000000")
        daemon = pair.master_daemon
        wait_until(lambda: not daemon.alive or master.find_log("refresh_dhcp", mark), LIMIT)
        alive = daemon.alive
        master.kill_daemons(pair.executable)
        return alive

    with FileService(fetcher.slave):
        assert fetch(tracing.recording(trace, calls, *paths)) and copy.read_bytes() == new
        seen = set()
        for call, times in Counter(s.call for s in tracing.recorded(master, trace)).items():
            for number in range(1, times + 1):
                assert not fetch(tracing.killed_at(call, number, *paths)), f"{call} {number}"
                seen.add(copy.read_bytes())
                assert seen <= {old, new}, f"killed at {call} {number}"
    assert seen == {old, new}


@one_file_system
def test_a_reload_that_was_owed_is_made_up_for(fetcher):
    """The master ends between putting the copy in place and telling the DHCP wrapper."""
    pair, master = fetcher.pair, fetcher.master
    pair.master_daemon.kill()
    pair.wrapper = tracing.killed_at("openat", 1, RELOAD_PIPE)
    fetcher.start()
    with FileService(fetcher.slave):
        fetcher.last_beat("20240101000000")
        wait_until(lambda: not pair.master_daemon.alive, LIMIT, "the kill")
    fetcher.await_copy()
    pair.wrapper = ()
    for owed in (True, False):
        mark = master.log_mark()
        fetcher.start()
        fetcher.beat("20240101000000")
        assert len(master.find_log("reload owed since the last run", mark)) == owed
        assert len(master.find_log("refresh_dhcp", mark)) == owed
        assert not master.find_log(QUEUED, mark)
        pair.master_daemon.kill()
    fetcher.reloads(1)
