"""How fast a server's file is fetched, beside a baseline program, and what a queued job allocates.

Files lie in memory. The service takes the time of both, from its first byte to the end that the
receiver makes of the connection.
"""

import json
import socket
import statistics
import struct
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

from lab import Host, LabError, Pair, Process, wait_until
from lab.file_service import PORT, FileService, answer_head, request

SOURCE = "/etc/quoradmind/config.db"
BASELINE_TARGET = "/tmp/baseline"
PEER_PORT = 13233
HEARTBEAT = "=H10x32s32s1088x"
MIB = 1 << 20
VALUE = 12000  # bytes; the pages of a sound database hold it nearly without loss
PATIENCE = 600.0


@dataclass(frozen=True)
class Fetches:
    """Sizes in MiB, rates in MiB a second."""

    mib: int
    daemon_rate: float
    baseline_rate: float
    after: float  # what the daemon has in memory after all of them
    growth: float  # since the first
    peak: float  # above what it had after the first
    allocations: int
    jobs: int


class FetchBench:
    """A master that fetches from a host which is nothing but a file service."""

    def __init__(self, build: Path, size: int) -> None:
        self.build = build
        self.pair = Pair(build / "quorsyncd")
        self.master, self.slave = self.pair.master, self.pair.slave
        self.slave.config.fill({f"filler {n}": "x" * VALUE for n in range(size // VALUE)})
        self.size = (self.slave.root / SOURCE[1:]).stat().st_size
        self.service = FileService(self.slave)
        self.daemon = self.pair.start_master()
        self.master.wait_log("start master process......")
        self.copy = self.master.store(f"{self.slave.address}.db").outer_path
        self.baseline_target = self.master.root / BASELINE_TARGET[1:]

    def _timed(self, start: Callable[[], object]) -> float:
        """MiB in a second of the transfer that `start` brings about."""
        known = len(self.service.transfers)
        start()
        wait_until(lambda: len(self.service.transfers) > known, PATIENCE, "the end of a transfer")
        sent, seconds = self.service.transfers[known]
        if sent < self.size:
            raise LabError(f"{sent} of {self.size} bytes were taken")
        return self.size / MIB / seconds

    def _beat(self) -> None:
        beat = struct.pack(HEARTBEAT, 2, self.slave.address.encode(), b"20260101000000")
        with self.slave.line.open_socket(socket.SOCK_DGRAM) as outlet:
            outlet.sendto(beat, (self.master.address, PEER_PORT))

    def _clear(self) -> None:
        """Both find the memory of the last transfer free; verifying a copy is no fetch's work."""
        self.copy.unlink(missing_ok=True)
        self.baseline_target.unlink(missing_ok=True)

    def daemon_rate(self) -> float:
        self._clear()
        mark = self.master.log_mark()
        rate = self._timed(self._beat)
        self.master.wait_log("refresh_dhcp", PATIENCE, mark)
        if self.copy.stat().st_size != self.size:
            raise LabError("the copy is not in place")
        return rate

    def baseline_rate(self) -> float:
        self._clear()
        reply = json.dumps({"length": str(self.size)}).encode()
        program = self.master.expose(self.build / "bench/fetch_baseline")
        arguments = [BASELINE_TARGET, str(len(answer_head(reply))), str(self.size)]
        with self.master.line.open_socket() as connection:
            connection.connect((self.slave.address, PORT))
            baseline = self.master.popen([program, *arguments], stdin=connection)
            rate = self._timed(lambda: self._hand_over(connection, baseline))
        if self.baseline_target.stat().st_size != self.size:
            raise LabError("the baseline did not write the file")
        return rate

    @staticmethod
    def _hand_over(connection: socket.socket, baseline: Process) -> None:
        """Ask in the baseline's name and leave it the connection, which ends when it does."""
        connection.sendall(request(SOURCE))
        connection.close()
        if baseline.wait(PATIENCE) != 0:
            raise LabError("the baseline of the fetch failed")

    def memory(self) -> tuple[float, float]:
        """MiB of the daemon now, and the most that it ever had."""
        peak = int(self.daemon.status_field("VmHWM").split()[0]) / 1024
        return self.daemon.rss() / MIB, peak


def count_allocations(build: Path, host: Host) -> tuple[int, int]:
    """Of the job server in its steady state, and in how many jobs."""
    path = host.expose(build / "bench/job_allocations")
    done = host.run([path], timeout=PATIENCE, check=True)
    jobs, start, steady = map(int, done.stdout.split())
    if start == 0:
        raise LabError("the count of allocations does not work")
    return steady, jobs


def measure(build: Path, rounds: int, say: Callable[[str], None], size: int = 50 * MIB) -> Fetches:
    bench = FetchBench(build, size)
    with bench.pair:
        bench.daemon_rate()  # What the first fetch allocates for good is no growth.
        before, _ = bench.memory()
        rates = []
        for number in range(1, rounds + 1):
            rates.append((bench.daemon_rate(), bench.baseline_rate()))
            say(f"fetch, {number} of {rounds}: daemon %.0f MiB/s, baseline %.0f MiB/s" % rates[-1])
        after, peak = bench.memory()
        allocations, jobs = count_allocations(build, bench.master)
    daemon, baseline = (statistics.median(values) for values in zip(*rates))
    memory = (after, after - before, peak - before)
    return Fetches(bench.size // MIB, daemon, baseline, *memory, allocations, jobs)
