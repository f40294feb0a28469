"""The boot services and the event tool of a host: stubs that tell how they were called."""

import json
import os
import signal
from dataclasses import dataclass
from pathlib import Path

SOURCES = Path(__file__).resolve().parent / "stubs"
SERVICES = ("quordhcpd", "stagd")
EVENT_TOOL = "evpost_ex"


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
    def parse(cls, line: bytes) -> "Call":
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
    def of(cls, call: Call) -> "Event":
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


class Stubs:
    """Installs the stubs in a host's file tree and reads what they recorded."""

    def __init__(self, root: Path) -> None:
        self._root = root
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

    def stand_before(self, name: str, program: str) -> str:
        """Make a stub that records and then runs `program`; its path, to be mounted over it."""
        path = f"lab/stubs/{name}"
        (self._root / path).write_bytes((SOURCES / "service.awk").read_bytes())
        (self._root / path).chmod(0o755)
        (self._root / f"{path}.json").write_text(json.dumps({"program": program}))
        return "/" + path

    def configure(
        self, name: str, status: int = 0, delay: float = 0.0, detach: bool = True
    ) -> None:
        """Exit status of the foreground, seconds until it ends, whether a process stays behind."""
        path = self._root / "lab/stubs" / f"{name}.json"
        fresh = path.with_suffix(".new")
        fresh.write_text(json.dumps({"status": status, "delay": delay, "detach": detach}))
        os.rename(fresh, path)

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
