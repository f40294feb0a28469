"""What is measured on a pair: stores becoming equal, heartbeats answered, memory at rest.

A baseline program does the unavoidable work of one path and nothing else. Daemon and baseline run
in turns, so that whatever else the machine does hits both.
"""

import os
import statistics
import time
from collections.abc import Callable, Iterable, Iterator
from contextlib import contextmanager
from dataclasses import dataclass, field
from pathlib import Path

from lab import Host, LabError, Pair, Process, wait_until

BASELINE_PORT = "14233"
LOAD_FILE = "/etc/quoradmind/loaded.db"
BASELINE_FILE = "/etc/quoradmind/baseline.db"
BASELINE_LOG = "/var/log/baseline.log"
DSVER = "20260101000000"
VALUE_SIZE = 200
RSYNC_FOLDER = "/etc/quoradmind/copies"
RSYNC_SETTINGS = "/etc/quoradmind/rsyncd.conf"
MIB = 2**20
REST_SECONDS = 3.0  # longer than a heartbeat's period
PUSH_LIMIT = 600.0

# Gives a program one connection as its standard input, without standing in the way of the bytes.
LISTEN = """
import os, socket, sys
listener = socket.create_server(("", int(sys.argv[1])))
connection, _ = listener.accept()
os.dup2(connection.fileno(), 0)
os.execv(sys.argv[2], sys.argv[2:])
"""

Say = Callable[[str], None]


@dataclass(frozen=True)
class Plan:
    """What is measured: (clients, repetitions), and (rounds, heartbeats a round)."""

    sizes: tuple[tuple[int, int], ...]
    rounds: int
    beats: int
    baseline_beats: int


DEFAULT = Plan(
    sizes=((1_000, 5), (10_000, 5), (100_000, 3), (200_000, 1), (300_000, 3), (1_000_000, 1)),
    rounds=10,
    beats=10_000,
    baseline_beats=3_000,
)
QUICK = Plan(((1_000, 3), (10_000, 3), (100_000, 3)), 3, 2_000, 2_000)


@dataclass
class Sizes:
    """The seconds that one number of clients took, by what was at work."""

    clients: int
    daemon: list[float] = field(default_factory=list)
    processor: list[float] = field(default_factory=list)  # of both daemons together
    baseline: list[float] = field(default_factory=list)
    load: list[float] = field(default_factory=list)
    rsync: list[float] = field(default_factory=list)
    file: float = 0.0  # MiB of the master's
    peaks: tuple[float, ...] = ()  # MiB that a daemon had in memory at most, master first
    took_over: bool = False


@dataclass(frozen=True)
class Rest:
    """The daemons when nothing happens, master first: resident MiB, open descriptors."""

    when: str
    daemons: tuple[tuple[float, int], ...]


@dataclass(frozen=True)
class Results:
    """Of a whole plan; the rates are heartbeats answered in a second."""

    sizes: list[Sizes]
    daemon_rate: float
    baseline_rate: float
    rests: list[Rest]


def client(number: int, note: str = "") -> tuple[str, str]:
    """A boot client's record; numbers are spread over the key space as addresses are."""
    mac = ":".join(f"{byte:02X}" for byte in (number * 2654435761 % 2**32).to_bytes(6, "big"))
    room = f"{number // 40:04d}"
    value = (
        f"name=PC-{room}-{number:06d}|mac={mac}|ip=10.{number >> 16}.{number >> 8 & 255}."
        f"{number & 255}|image=win10-lab-v{number % 37}|disks=disk1,disk2,disk3|"
        f"writeback=/srv/writeback/{room}|note={note}"
    )
    return mac, value.ljust(VALUE_SIZE, ".")[:VALUE_SIZE]


def processor_seconds(process: Process) -> float:
    """Of the program itself and in the kernel."""
    text = Path(f"/proc/{process.outer_pid}/stat").read_text(encoding="utf-8", errors="replace")
    fields = text.rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def logged(host: Host, text: bytes) -> bool:
    return any(text in path.read_bytes() for path in host.root.glob("var/log/quorsyncd_*.log"))


class Bench:
    """A pair at rest, a third host that asks, and the programs of this directory."""

    def __init__(self, build: Path, wrapper: tuple[str, ...] = ()) -> None:
        self.build = build
        self.generation = 0
        self.clients = 0
        self.pair = Pair(
            build / "quorsyncd", slave_config={"dsver": DSVER}, disk=True, wrapper=wrapper
        )
        self.master, self.slave = self.pair.master, self.pair.slave
        self.asker = self.pair.lab.add_host("asker")
        servers = ",".join(host.address for host in (self.master, self.slave, self.asker))
        self.master.config.put("server_list", servers)  # asks as a server does, not as a stranger
        # The master holds the others' data-set stamps: no beat makes it fetch a file.
        for host in (self.slave, self.asker):
            self.master.store(f"{host.address}.db").put("dsver", DSVER)

    def settle(self) -> None:
        """Nothing of the last measurement may be left to write while the next one runs."""
        for host in (self.master, self.slave):
            for path in (*host.root.glob("var/log/*.log"), *host.root.glob("lab/out/*.out")):
                os.truncate(path, 0)
        os.sync()

    def fill(self, clients: int) -> None:
        """Bring the master to so many clients."""
        self.master.client.fill(client(number) for number in range(self.clients, clients))
        self.clients = clients

    def resync(self, timeout: float) -> tuple[float, bool]:
        """Change a client on the master, raise the stamp: seconds from the beat back to equal
        stores, and whether the slave took over meanwhile."""
        self.generation += 1
        stamp = f"client-{self.generation:06d}".encode()
        self.settle()
        mark = self.slave.log_mark()
        self.master.client.fill([client(self.generation, f"changed {self.generation}")])
        self.master.config.put("client_db_version", stamp)

        def stamp_arrived() -> bool:
            # Looking at the bytes takes no lock, which the daemon would have to wait for.
            return stamp in self.slave.config.outer_path.read_bytes()

        beat = "start_data_syncd CLIENT"
        wait_until(lambda: self.slave.find_log(beat, mark), 30, f'"{beat}"', 0.001)
        begin = time.monotonic()
        wait_until(stamp_arrived, timeout, "the new stamp", 0.0005)
        seconds = time.monotonic() - begin
        took_over = logged(self.slave, b"become a master host")
        if took_over:
            wait_until(lambda: logged(self.slave, b"restore to be a slave host"), 30)
        difference = self.pair.difference()
        if difference:
            raise LabError(difference)
        return seconds, took_over

    @property
    def daemons(self) -> list[Process]:
        """Master first."""
        pair = self.pair
        return [daemon for daemon in (pair.master_daemon, pair.slave_daemon) if daemon]

    def at_rest(self, when: str) -> Rest:
        """Some heartbeats later."""
        time.sleep(REST_SECONDS)
        each = ((daemon.rss() / MIB, len(daemon.descriptors())) for daemon in self.daemons)
        return Rest(when, tuple(each))

    def processor(self) -> float:
        """Seconds that both daemons have had."""
        return sum(processor_seconds(daemon) for daemon in self.daemons)

    def forget_peaks(self) -> None:
        for daemon in self.daemons:
            Path(f"/proc/{daemon.outer_pid}/clear_refs").write_text("5")

    def peaks(self) -> tuple[float, ...]:
        """MiB that each daemon had in memory at most since."""
        return tuple(int(each.status_field("VmHWM").split()[0]) / 1024 for each in self.daemons)


class Programs:
    """The programs of this directory, and the result that they write down in the end."""

    def __init__(self, build: Path) -> None:
        self._build = build
        self._result = os.memfd_create("result")

    def start(self, host: Host, name: str, *arguments: str) -> Process:
        """Log lines go where a daemon's go."""
        with (host.root / "lab/out/bench.out").open("wb") as lines:
            path = host.expose(self._build / "bench" / name)
            return host.popen([path, *arguments], stdout=lines, stderr=self._result)

    def finish(self, *processes: Process) -> list[bytes]:
        """The words of the result."""
        finish(processes, self._result)
        return os.pread(self._result, 100, 0).split()

    def close(self) -> None:
        os.close(self._result)


@contextmanager
def programs(build: Path) -> Iterator[Programs]:
    fresh = Programs(build)
    try:
        yield fresh
    finally:
        fresh.close()


def finish(processes: Iterable[Process], errors: int = -1) -> None:
    for process in processes:
        if process.wait(PUSH_LIMIT) != 0:
            text = os.pread(errors, 1000, 0).decode() if errors >= 0 else ""
            raise LabError(f"{' '.join(process.argv[:3])} failed: {text}")


def wait_bound(process: Process, protocol: str) -> None:
    """Wait until the program has bound BASELINE_PORT."""
    port = f" 00000000:{int(BASELINE_PORT):04X} "
    table = Path(f"/proc/{process.outer_pid}/net/{protocol}")
    wait_until(lambda: port in table.read_text(), what=f"{process.argv[0]} on its port")


# Stores


def store_baseline(bench: Bench) -> float:
    bench.settle()
    with programs(bench.build) as run:
        place = (BASELINE_PORT, BASELINE_FILE, BASELINE_LOG)
        receiver = run.start(bench.slave, "store_baseline", *place)
        wait_bound(receiver, "tcp")
        target = (bench.slave.address, BASELINE_PORT, bench.master.client.path)
        sender = run.start(bench.master, "record_sender", *target)
        records, seconds = run.finish(sender, receiver)
    if int(records) != bench.clients:
        raise LabError(f"the baseline stored {records!r} of {bench.clients} records")
    return float(seconds)


def dump_and_load(bench: Bench) -> float:
    bench.settle()
    bench.slave.store(LOAD_FILE).outer_path.unlink(missing_ok=True)
    load = ["/usr/bin/python3", "-ISc", LISTEN, BASELINE_PORT, "/usr/bin/db5.3_load", LOAD_FILE]
    loader = bench.slave.popen(load)
    wait_bound(loader, "tcp")
    link = f"/dev/tcp/{bench.slave.address}/{BASELINE_PORT}"
    dump = f"exec /usr/bin/db5.3_dump {bench.master.client.path} >{link}"
    begin = time.monotonic()
    dumper = bench.master.popen(["/bin/bash", "-c", dump])
    finish([dumper, loader])
    return time.monotonic() - begin


def rsync(bench: Bench) -> float:
    """The master's file, whole, by a client to a server that runs already."""
    bench.settle()
    folder = bench.slave.root / RSYNC_FOLDER.lstrip("/")
    folder.mkdir(exist_ok=True)
    for copy in folder.iterdir():
        copy.unlink()
    settings = f"""use chroot = no
        uid = root
        gid = root
        [copies]
        path = {RSYNC_FOLDER}
        read only = no
        """
    (bench.slave.root / RSYNC_SETTINGS.lstrip("/")).write_text(settings)
    options = [f"--config={RSYNC_SETTINGS}", f"--port={BASELINE_PORT}", "--ipv4"]
    server = bench.slave.popen(["/usr/bin/rsync", "--daemon", "--no-detach", *options])
    try:
        wait_bound(server, "tcp")
        target = f"rsync://{bench.slave.address}:{BASELINE_PORT}/copies/"
        begin = time.monotonic()
        finish([bench.master.popen(["/usr/bin/rsync", "-W", bench.master.client.path, target])])
        return time.monotonic() - begin
    finally:
        server.kill()


def measure_size(bench: Bench, clients: int, repetitions: int, say: Say) -> Sizes:
    bench.fill(clients)
    # Now the slave has as many, and has stored them itself, as at a site.
    sizes = Sizes(clients, took_over=bench.resync(PUSH_LIMIT)[1])
    sizes.file = bench.master.client.outer_path.stat().st_size / MIB
    bench.forget_peaks()
    for number in range(1, repetitions + 1):
        before = bench.processor()
        seconds, took_over = bench.resync(PUSH_LIMIT)
        sizes.processor.append(bench.processor() - before)
        sizes.daemon.append(seconds)
        sizes.took_over |= took_over
        sizes.baseline.append(store_baseline(bench))
        sizes.load.append(dump_and_load(bench))
        sizes.rsync.append(rsync(bench))
        say(
            f"{clients:,} clients, {number} of {repetitions}: daemon {seconds:.3f} s, "
            f"baseline {sizes.baseline[-1]:.3f} s, dump and load {sizes.load[-1]:.3f} s, "
            f"rsync {sizes.rsync[-1]:.3f} s" + (", with a take-over" if took_over else "")
        )
    sizes.peaks = bench.peaks()
    return sizes


# Heartbeats


def ask(bench: Bench, port: str, beats: int) -> float:
    """Heartbeats that a busy master answers in a second."""
    with programs(bench.build) as run:
        arguments = [bench.master.address, port, str(beats), bench.asker.address, DSVER]
        (seconds,) = run.finish(run.start(bench.asker, "beat_load", *arguments))
    return beats / float(seconds)


def ask_baseline(bench: Bench, beats: int) -> float:
    with programs(bench.build) as run:
        arguments = [BASELINE_PORT, bench.master.config.path, BASELINE_LOG, str(beats)]
        baseline = run.start(bench.master, "beat_baseline", *arguments)
        wait_bound(baseline, "udp")
        rate = ask(bench, BASELINE_PORT, beats)
        run.finish(baseline)
    return rate


def measure_beats(bench: Bench, plan: Plan, say: Say) -> tuple[float, float]:
    """Medians: of the daemon, and of the baseline."""
    daemon, baseline = [], []
    for number in range(1, plan.rounds + 1):
        bench.settle()
        daemon.append(ask(bench, "13233", plan.beats))
        baseline.append(ask_baseline(bench, plan.baseline_beats))
        say(
            f"heartbeats, {number} of {plan.rounds}: daemon {daemon[-1]:,.0f} a second, "
            f"baseline {baseline[-1]:,.0f}"
        )
    return statistics.median(daemon), statistics.median(baseline)


def measure(bench: Bench, plan: Plan, say: Say) -> Results:
    rests = [bench.at_rest("after the start")]
    sizes = [measure_size(bench, *size, say) for size in plan.sizes]
    rests.append(bench.at_rest(f"after {bench.clients:,} clients"))
    rates = measure_beats(bench, plan, say)
    rests.append(bench.at_rest(f"after {plan.rounds * plan.beats:,} heartbeats"))
    return Results(sizes, *rates, rests)
