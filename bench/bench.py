"""`./run bench`: how fast stores become equal and heartbeats are answered, beside floor programs.

A floor program does the unavoidable work of the same road and nothing else. Daemon and floor run in
turns, so that whatever else the machine does hits both; what counts are the ratios.
"""

import argparse
import os
import statistics
import sys
import time
from collections.abc import Iterable
from dataclasses import dataclass, field
from pathlib import Path

import fetch_bench
from lab import Host, LabError, Pair, Process, WaitTimeout, tracing, wait_until

RELEASE = Path(__file__).resolve().parent.parent / "build/release"
FLOOR_PORT = "14233"
LOAD_FILE = "/etc/quoradmind/loaded.db"
FLOOR_FILE = "/etc/quoradmind/floor.db"
FLOOR_LOG = "/var/log/floor.log"
DSVER = "20260101000000"
VALUE_SIZE = 200
REST_SECONDS = 3.0  # longer than a heartbeat's period
LIMIT_STEP = 200_000
SLOW_LOG_STEP = 1_000
DAILY_LOG = "/var/log/quorsyncd_%Y_%m_%d.log"
LIMIT_PATIENCE = 3600.0

# Gives a program one connection as its standard input, without standing in the way of the bytes.
LISTEN = """
import os, socket, sys
listener = socket.create_server(("", int(sys.argv[1])))
connection, _ = listener.accept()
os.dup2(connection.fileno(), 0)
os.execv(sys.argv[2], sys.argv[2:])
"""


@dataclass(frozen=True)
class Plan:
    """What is measured: (clients, repetitions), and (rounds, heartbeats a round)."""

    sizes: tuple[tuple[int, int], ...]
    rounds: int
    beats: int
    floor_beats: int


DEFAULT = Plan(
    sizes=((1_000, 5), (10_000, 5), (100_000, 3), (200_000, 1), (300_000, 1)),
    rounds=10,
    beats=10_000,
    floor_beats=3_000,
)
QUICK = Plan(((1_000, 3), (10_000, 3), (100_000, 3)), 3, 2_000, 2_000)


@dataclass
class Sizes:
    """The seconds of one number of clients, by road."""

    clients: int
    daemon: list[float] = field(default_factory=list)
    floor: list[float] = field(default_factory=list)
    load: list[float] = field(default_factory=list)
    took_over: bool = False


BEGIN = time.monotonic()


def progress(text: str) -> None:
    print(f"{time.monotonic() - BEGIN:6.1f} s  {text}", flush=True)


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
        # The master holds the others' data-set stamps: no beat makes it fetch a file.
        for host in (self.slave, self.asker):
            self.master.store(f"{host.address}.db").put("dsver", DSVER)

    def stamp(self) -> bytes:
        return f"client-{self.generation:06d}".encode()

    def program(self, host: Host, name: str, *arguments: str, output: int) -> Process:
        """Start a program of this directory; its log lines go where a daemon's go."""
        with (host.root / "lab/out/bench.out").open("wb") as lines:
            path = host.expose(self.build / "bench" / name)
            return host.popen([path, *arguments], stdout=lines, stderr=output)

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

    # Stores

    def resync(self, timeout: float) -> tuple[float, bool]:
        """Change a client on the master, raise the stamp: seconds from the beat back to equal
        stores, and whether the slave took over meanwhile."""
        self.generation += 1
        self.settle()
        mark = self.slave.log_mark()
        self.master.client.fill([client(self.generation, f"changed {self.generation}")])
        self.master.config.put("client_db_version", self.stamp())

        def stamp_arrived() -> bool:
            # Looking at the bytes takes no lock, which the daemon would have to wait for.
            return self.stamp() in self.slave.config.outer_path.read_bytes()

        beat = "start_data_syncd CLIENT"
        wait_until(lambda: self.slave.find_log(beat, mark), 30, f'"{beat}"', 0.001)
        begin = time.monotonic()
        wait_until(stamp_arrived, timeout, "the new stamp", 0.002)
        seconds = time.monotonic() - begin
        took_over = self.logged(self.slave, b"become a master host")
        if took_over:
            wait_until(lambda: self.logged(self.slave, b"restore to be a slave host"), 30)
        difference = self.pair.difference()
        if difference:
            raise LabError(difference)
        return seconds, took_over

    @staticmethod
    def logged(host: Host, text: bytes) -> bool:
        return any(text in path.read_bytes() for path in host.root.glob("var/log/quorsyncd_*.log"))

    def store_floor(self) -> float:
        self.settle()
        result = os.memfd_create("floor")
        try:
            receiver = self.program(
                self.slave, "store_floor", FLOOR_PORT, FLOOR_FILE, FLOOR_LOG, output=result
            )
            self.wait_bound(receiver, "tcp")
            target = (self.slave.address, FLOOR_PORT, self.master.client.path)
            sender = self.program(self.master, "record_sender", *target, output=result)
            self.finish([sender, receiver], result)
            records, seconds = os.pread(result, 100, 0).split()
        finally:
            os.close(result)
        if int(records) != self.clients:
            raise LabError(f"the floor stored {records!r} of {self.clients} records")
        return float(seconds)

    def dump_and_load(self) -> float:
        self.settle()
        self.slave.store(LOAD_FILE).outer_path.unlink(missing_ok=True)
        load = ["/usr/bin/python3", "-ISc", LISTEN, FLOOR_PORT, "/usr/bin/db5.3_load", LOAD_FILE]
        loader = self.slave.popen(load)
        self.wait_bound(loader, "tcp")
        link = f"/dev/tcp/{self.slave.address}/{FLOOR_PORT}"
        dump = f"exec /usr/bin/db5.3_dump {self.master.client.path} >{link}"
        begin = time.monotonic()
        dumper = self.master.popen(["/bin/bash", "-c", dump])
        self.finish([dumper, loader])
        return time.monotonic() - begin

    @staticmethod
    def finish(processes: Iterable[Process], errors: int = -1) -> None:
        for process in processes:
            if process.wait(600) != 0:
                text = os.pread(errors, 1000, 0).decode() if errors >= 0 else ""
                raise LabError(f"{' '.join(process.argv[:3])} failed: {text}")

    def measure_size(self, clients: int, repetitions: int) -> Sizes:
        self.fill(clients)
        # Now the slave has as many, and has stored them itself, as at a site.
        sizes = Sizes(clients, took_over=self.resync(600)[1])
        for number in range(1, repetitions + 1):
            seconds, took_over = self.resync(600)
            sizes.daemon.append(seconds)
            sizes.took_over |= took_over
            sizes.floor.append(self.store_floor())
            sizes.load.append(self.dump_and_load())
            progress(
                f"{clients:,} clients, {number} of {repetitions}: daemon {seconds:.3f} s, "
                f"floor {sizes.floor[-1]:.3f} s, dump and load {sizes.load[-1]:.3f} s"
                + (", with a take-over" if took_over else "")
            )
        return sizes

    # Heartbeats

    def ask(self, port: str, beats: int) -> float:
        """Heartbeats that a busy master answers in a second."""
        result = os.memfd_create("beats")
        try:
            arguments = [self.master.address, port, str(beats), self.asker.address, DSVER]
            load = self.program(self.asker, "beat_load", *arguments, output=result)
            self.finish([load], result)
            return beats / float(os.pread(result, 100, 0))
        finally:
            os.close(result)

    def ask_floor(self, beats: int) -> float:
        result = os.memfd_create("floor")
        try:
            arguments = [FLOOR_PORT, self.master.config.path, FLOOR_LOG, str(beats)]
            floor = self.program(self.master, "beat_floor", *arguments, output=result)
            self.wait_bound(floor, "udp")
            rate = self.ask(FLOOR_PORT, beats)
            self.finish([floor], result)
            return rate
        finally:
            os.close(result)

    @staticmethod
    def wait_bound(process: Process, protocol: str) -> None:
        """Wait until the program has bound FLOOR_PORT."""
        port = f" 00000000:{int(FLOOR_PORT):04X} "
        table = Path(f"/proc/{process.outer_pid}/net/{protocol}")
        wait_until(lambda: port in table.read_text(), what=f"{process.argv[0]} on its port")

    def measure_beats(self, plan: Plan) -> tuple[float, float]:
        daemon, floor = [], []
        for number in range(1, plan.rounds + 1):
            self.settle()
            daemon.append(self.ask("13233", plan.beats))
            floor.append(self.ask_floor(plan.floor_beats))
            progress(
                f"heartbeats, {number} of {plan.rounds}: daemon {daemon[-1]:,.0f} a second, "
                f"floor {floor[-1]:,.0f}"
            )
        return statistics.median(daemon), statistics.median(floor)

    # Memory

    def at_rest(self, when: str) -> tuple[str, list[tuple[float, int]]]:
        """Resident MiB and open descriptors of both daemons, some heartbeats later."""
        time.sleep(REST_SECONDS)
        daemons = (self.pair.master_daemon, self.pair.slave_daemon)
        return when, [(each.rss() / 2**20, len(each.descriptors())) for each in daemons if each]


def percent(part: float, whole: float) -> str:
    return f"{100 * part / whole:.0f} %"


def show_sizes(results: list[Sizes]) -> None:
    print("\nFrom the beat back to equal stores, values of 200 bytes; medians")
    print(
        f"{'clients':>9} {'seconds':>9} {'records/s':>10} {'floor s':>9} {'floor/s':>9} "
        f"{'of floor':>9} {'dump|load':>10} {'of that':>8}  take-over"
    )
    for each in results:
        daemon, floor, load = (statistics.median(x) for x in (each.daemon, each.floor, each.load))
        print(
            f"{each.clients:>9,} {daemon:>9.3f} {each.clients / daemon:>10,.0f} {floor:>9.3f} "
            f"{each.clients / floor:>9,.0f} {percent(floor, daemon):>9} {load:>9.3f}s "
            f"{percent(daemon, load):>8}  {'YES' if each.took_over else 'no'}"
        )


@dataclass(frozen=True)
class Goal:
    """`reached` is None for what this run did not measure."""

    text: str
    value: str
    reached: bool | None


def store_goals(results: list[Sizes]) -> list[Goal]:
    goals = []
    for each in results:
        share = statistics.median(each.floor) / statistics.median(each.daemon)
        text = f"{each.clients:,} clients: at least 80 % of the floor's speed"
        goals.append(Goal(text, f"{100 * share:.0f} %", share >= 0.8))
        if each.clients == 100_000:
            share = statistics.median(each.daemon) / statistics.median(each.load)
            text = "100,000 clients: at most half the time of dump and load"
            goals.append(Goal(text, f"{100 * share:.0f} %", share <= 0.5))
    quiet = {each.clients: not each.took_over for each in results}.get(200_000)
    value = "-" if quiet is None else "none" if quiet else "took over"
    return [*goals, Goal("no take-over during a re-sync of 200,000 clients", value, quiet)]


Memory = list[tuple[str, list[tuple[float, int]]]]


def memory_goals(memory: Memory) -> list[Goal]:
    goals = []
    for number, name in enumerate(("master", "slave")):
        sizes = [samples[number][0] for _, samples in memory]
        growth = sizes[-1] - sizes[-2]
        text = f"{name} at rest: below 16 MiB, no growth by heartbeats"
        value = f"{max(sizes):.1f} MiB, {growth:+.1f} MiB"
        goals.append(Goal(text, value, max(sizes) < 16 and growth < 1))
    return goals


def show_goals(goals: list[Goal]) -> None:
    print("\nGoals")
    words = {True: "reached", False: "MISSED", None: "not measured"}
    for goal in goals:
        print(f"  {goal.text:<62} {goal.value:>20}  {words[goal.reached]}")


def measure(bench: Bench, plan: Plan) -> list[Goal]:
    memory = [bench.at_rest("after the start")]
    results = []
    for clients, repetitions in plan.sizes:
        results.append(bench.measure_size(clients, repetitions))
    memory.append(bench.at_rest(f"after {bench.clients:,} clients"))
    daemon, floor = bench.measure_beats(plan)
    memory.append(bench.at_rest(f"after {plan.rounds * plan.beats:,} heartbeats"))

    show_sizes(results)
    print(f"\nHeartbeats answered in a second: {daemon:,.0f}; floor {floor:,.0f}")
    print("\nAt rest                   master MiB  descriptors   slave MiB  descriptors")
    for when, samples in memory:
        print(f"  {when:<24}" + " ".join(f"{mib:>9.1f} {count:>12}" for mib, count in samples))
    text = "heartbeats: at least 70 % of the floor's speed"
    beats = Goal(text, percent(daemon, floor), daemon / floor >= 0.7)
    return [*store_goals(results), beats, *memory_goals(memory)]


def measure_fetch(build: Path, quick: bool) -> list[Goal]:
    """On a pair of its own, when the other has ended."""
    rows = fetch_bench.measure(build, rounds=3 if quick else 5, say=progress)
    for row in rows:
        if row.good is None:
            print(f"\n{row.text}: {row.value}")
    return [Goal(row.text, row.value, row.good) for row in rows if row.good is not None]


def slow_log(arguments: argparse.Namespace) -> tuple[str, ...]:
    """The wrapper of daemons whose daily log lies on a disk as slow as asked for."""
    if not arguments.log_ms:
        return ()
    return tracing.slow_writes(time.strftime(DAILY_LOG), arguments.log_ms)


def find_limit(bench: Bench, busy: int, step: int) -> None:
    """Larger and larger stores until the slave takes over meanwhile."""
    for _ in range(busy):
        bench.slave.popen(["/bin/sh", "-c", "while :; do :; done"])
    patience = time.monotonic() + LIMIT_PATIENCE
    clients = step
    while time.monotonic() < patience:
        bench.fill(clients)
        seconds, took_over = bench.resync(LIMIT_PATIENCE)
        progress(f"{clients:,} clients: {seconds:.1f} s, {'' if took_over else 'no '}take-over")
        if took_over:
            print(f"\nThe slave takes over somewhere from {clients - step:,} clients on.")
            return
        clients += step
    print(f"\nNo take-over up to {clients - step:,} clients; patience ended.")


def run(bench: Bench, arguments: argparse.Namespace) -> list[Goal]:
    try:
        bench.pair.start()
        bench.pair.wait_equal()
        progress("a pair is at rest on the lab")
        if arguments.limit:
            find_limit(bench, arguments.busy, SLOW_LOG_STEP if arguments.log_ms else LIMIT_STEP)
            return []
        return measure(bench, QUICK if arguments.quick else DEFAULT)
    except (LabError, WaitTimeout):
        print(bench.pair.evidence(), file=sys.stderr)
        raise


def main() -> int:
    parser = argparse.ArgumentParser(prog="./run bench", description=__doc__)
    parser.add_argument("--quick", action="store_true", help="up to 100,000 clients, few rounds")
    parser.add_argument("--limit", action="store_true", help="only find where a slave takes over")
    parser.add_argument("--busy", type=int, default=0, help="with so many busy loops beside it")
    parser.add_argument(
        "--log-ms", type=float, default=0.0, help="every line of the daily log takes so much more"
    )
    parser.add_argument("--build", type=Path, default=RELEASE, help="programs (%(default)s)")
    arguments = parser.parse_args()
    try:
        bench = Bench(arguments.build, slow_log(arguments))
        with bench.pair:
            goals = run(bench, arguments)
        if goals:
            show_goals(goals + measure_fetch(arguments.build, arguments.quick))
    except KeyboardInterrupt:
        return 130
    except (LabError, WaitTimeout) as error:
        print(f"bench: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
