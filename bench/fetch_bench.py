"""How fast a server's file is fetched, beside a bare loop, and what a queued job allocates.

`measure` serves ./run bench; alone: /usr/bin/python3 bench/fetch_bench.py (PYTHONPATH: the root).
Files lie in memory. The service takes the time of both, from its first byte to the end that the
receiver makes of the connection.
"""

import argparse
import json
import socket
import statistics
import struct
import sys
from collections.abc import Callable
from pathlib import Path
from typing import NamedTuple

from lab import Host, LabError, Pair, Process, WaitTimeout, wait_until
from lab.file_service import PORT, FileService, answer_head, request

RELEASE = Path(__file__).resolve().parent.parent / "build/release"
SOURCE = "/etc/quoradmind/config.db"
FLOOR_TARGET = "/tmp/floor"
PEER_PORT = 13233
HEARTBEAT = "=H10x32s32s1088x"
MIB = 1 << 20
PATIENCE = 600.0


class Row(NamedTuple):
    """One figure; `good` is None where there is no goal."""

    text: str
    value: str
    good: bool | None


class FetchBench:
    """A master that fetches from a host which is nothing but a file service."""

    def __init__(self, build: Path, size: int) -> None:
        self.build, self.size = build, size
        self.pair = Pair(build / "quorsyncd")
        self.master, self.slave = self.pair.master, self.pair.slave
        with (self.slave.root / SOURCE[1:]).open("r+b") as file:
            file.truncate(0)
            file.truncate(size)
        self.service = FileService(self.slave)
        self.daemon = self.pair.start_master()
        self.master.wait_log("start master process......")
        self.copy = self.master.store(f"{self.slave.address}.db").outer_path
        self.floor_target = self.master.root / FLOOR_TARGET[1:]

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
        with self.slave.open_socket(socket.SOCK_DGRAM) as outlet:
            outlet.sendto(beat, (self.master.address, PEER_PORT))

    def _clear(self) -> None:
        """Both find the memory of the last transfer free; verifying a copy is no fetch's work."""
        self.copy.unlink(missing_ok=True)
        self.floor_target.unlink(missing_ok=True)

    def daemon_rate(self) -> float:
        self._clear()
        mark = self.master.log_mark()
        rate = self._timed(self._beat)
        self.master.wait_log("refresh_dhcp", PATIENCE, mark)
        if self.copy.stat().st_size != self.size:
            raise LabError("the copy is not in place")
        return rate

    def floor_rate(self) -> float:
        self._clear()
        reply = json.dumps({"length": str(self.size)}).encode()
        program = self.master.expose(self.build / "bench/fetch_floor")
        arguments = [FLOOR_TARGET, str(len(answer_head(reply))), str(self.size)]
        with self.master.open_socket() as connection:
            connection.connect((self.slave.address, PORT))
            floor = self.master.popen([program, *arguments], stdin=connection)
            rate = self._timed(lambda: self._hand_over(connection, floor))
        if self.floor_target.stat().st_size != self.size:
            raise LabError("the floor did not write the file")
        return rate

    @staticmethod
    def _hand_over(connection: socket.socket, floor: Process) -> None:
        """Ask in the floor's name and leave it the connection, which ends when it does."""
        connection.sendall(request(SOURCE))
        connection.close()
        if floor.wait(PATIENCE) != 0:
            raise LabError("the floor of the fetch failed")

    def memory(self) -> tuple[float, float]:
        """MiB of the daemon now, and the most that it ever had."""
        peak = int(self.daemon.status_field("VmHWM").split()[0]) / 1024
        return self.daemon.rss() / MIB, peak


def count_allocations(build: Path, host: Host) -> Row:
    path = host.expose(build / "bench/job_allocations")
    done = host.run([path], timeout=PATIENCE, check=True)
    jobs, start, steady = map(int, done.stdout.split())
    if start == 0:
        raise LabError("the count of allocations does not work")
    value = f"{steady} in {jobs:,} jobs"
    return Row("allocations of the job server in the steady state: 0", value, steady == 0)


def measure(
    build: Path, rounds: int = 5, size: int = 1 << 30, say: Callable[[str], None] = print
) -> list[Row]:
    """The rows of all figures; `say` is told the progress."""
    bench = FetchBench(build, size)
    with bench.pair:
        bench.daemon_rate()  # What the first fetch allocates for good is no growth.
        before, _ = bench.memory()
        rates = []
        for number in range(1, rounds + 1):
            rates.append((bench.daemon_rate(), bench.floor_rate()))
            say(f"fetch, {number} of {rounds}: daemon %.0f MiB/s, floor %.0f MiB/s" % rates[-1])
        after, peak = bench.memory()
        allocations = count_allocations(build, bench.master)
    daemon, floor = (statistics.median(values) for values in zip(*rates))
    text = f"fetch of {size // MIB:,} MiB, daemon and bare loop"
    speed = f"{daemon:,.0f}, {floor:,.0f} MiB/s: {100 * daemon / floor:.0f} %"
    memory = f"{after:.1f} MiB, {after - before:+.1f}, peak {peak - before:+.1f}"
    flat = after - before < 1 and peak - before < 1
    return [
        Row(text, speed, None),
        Row("memory of the daemon flat over all fetches", memory, flat),
        allocations,
    ]


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--build", type=Path, default=RELEASE, help="programs (%(default)s)")
    arguments = parser.parse_args()
    try:
        rows = measure(arguments.build, arguments.rounds)
    except (LabError, WaitTimeout) as error:
        print(error, file=sys.stderr)
        return 1
    words = {True: "reached", False: "MISSED", None: ""}
    for row in rows:
        print(f"  {row.text:<55} {row.value:>35}  {words[row.good]}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
