"""The boot services and the event tool of a host: stubs that tell how they were called."""

from __future__ import annotations

import json
import os
import signal
from dataclasses import dataclass
from pathlib import Path
from typing import TYPE_CHECKING

from .store import MACHINE

if TYPE_CHECKING:
    from .host import Host

SOURCES = Path(__file__).resolve().parent / "stubs"
SERVICES = ("quordhcpd", "stagd")
EVENT_TOOL = "evpost_ex"
KILLALL = "/usr/bin/killall"


def _signal_names(mask: str) -> frozenset[str]:
    bits = int(mask, 16)
    return frozenset(s.name for s in signal.Signals if bits >> (s - 1) & 1)


@dataclass(frozen=True)
class Call:
    """One call of a stub, as the called process found its world.

    `time` is wall time, `monotonic` the machine's monotonic clock (comparable with
    time.monotonic of the caller). `descriptors` maps numbers to what they lead to.
    """

    time: float
    monotonic: float
    name: str
    argv: tuple[str, ...]
    pid: int
    ppid: int
    descriptors: dict[int, str]
    blocked: frozenset[str]
    ignored: frozenset[str]
    caught: frozenset[str]

    @classmethod
    def parse(cls, line: bytes) -> Call:
        record = json.loads(line)
        record["argv"] = tuple(record["argv"])
        record["descriptors"] = {int(n): link for n, link in record["descriptors"].items()}
        for mask in ("blocked", "ignored", "caught"):
            record[mask] = _signal_names(record[mask])
        return cls(**record)


@dataclass(frozen=True)
class Event:
    """One posted event: what an operator would see."""

    time: float
    monotonic: float
    level: int
    code: int
    errno: int
    message: str
    argv: tuple[str, ...]

    @classmethod
    def of(cls, call: Call) -> Event:
        words = call.argv[1:]
        return cls(
            call.time,
            call.monotonic,
            level=int(words[1]),
            code=int(words[5]),
            errno=int(words[6]),
            message=words[7],
            argv=words,
        )


class Services:
    """Of one host: its stubs, what they recorded, and the processes that they left behind."""

    def __init__(self, host: Host) -> None:
        self._host = host
        self._root = root = host.root
        (root / "lab/stubs").mkdir(parents=True)
        (root / "lab/stubs/record.py").write_bytes((SOURCES / "record.py").read_bytes())
        for name in (*SERVICES, EVENT_TOOL):
            self.install(name)
        for name in SERVICES:
            self.configure(name)

    def install(self, name: str) -> None:
        """Put the stub in /usr/local/bin (again)."""
        path = self._root / "usr/local/bin" / name
        path.write_bytes((SOURCES / "service.awk").read_bytes())
        path.chmod(0o755)

    def remove(self, name: str) -> None:
        """As if the program were not installed."""
        (self._root / "usr/local/bin" / name).unlink()

    def record_stops(self) -> None:
        """From now on `calls` also has every killall, in its place between the starts."""
        stub = "lab/stubs/killall"
        (self._root / stub).write_bytes((SOURCES / "service.awk").read_bytes())
        (self._root / stub).chmod(0o755)
        (self._root / f"{stub}.json").write_text(json.dumps({"program": MACHINE + KILLALL}))
        self._host.run(["/usr/bin/mount", "--bind", f"/{stub}", KILLALL], check=True)

    def configure(
        self, name: str, status: int = 0, delay: float = 0.0, detach: bool = True
    ) -> None:
        """Exit status of the foreground, seconds until it ends, whether a process stays behind."""
        path = self._root / "lab/stubs" / f"{name}.json"
        fresh = path.with_suffix(".new")
        fresh.write_text(json.dumps({"status": status, "delay": delay, "detach": detach}))
        os.rename(fresh, path)

    def pids(self, name: str) -> list[int]:
        """Background processes of a service; the calls that start one do not count."""
        every = self._host.processes()
        return [pid for pid, _, session, comm in every if (pid, name) == (session, comm)]

    def runs(self, name: str) -> bool:
        return bool(self.pids(name))

    def running(self) -> list[str]:
        """The boot services that run, in the order in which they are started."""
        return [name for name in SERVICES if self.runs(name)]

    def calls(self, name: str | None = None) -> list[Call]:
        """All calls so far, in order."""
        try:
            lines = (self._root / "lab/calls.jsonl").read_bytes().splitlines()
        except FileNotFoundError:
            return []
        calls = [Call.parse(line) for line in lines]
        return [call for call in calls if name in (None, call.name)]

    def events(self, code: int | None = None) -> list[Event]:
        """All events posted so far, in order."""
        events = [Event.of(call) for call in self.calls(EVENT_TOOL)]
        return [event for event in events if code in (None, event.code)]
