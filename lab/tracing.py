"""Daemons under strace: what they did, in order or in numbers, a kill at a chosen system call, slow
writes."""

import re
from dataclasses import dataclass

from .host import Host

STRACE = ("/usr/bin/strace", "-qq", "-f", "-e", "signal=none")
LINE = re.compile(r"^\d+ +(\w+)\((.*)$", re.MULTILINE)
PATH = re.compile(r'"(/[^"]*)"|[0-9]<(/[^>]*)>')


@dataclass(frozen=True)
class Step:
    """A system call and the absolute paths among its arguments."""

    call: str
    paths: tuple[str, ...]


def only(paths: tuple[str, ...]) -> list[str]:
    """Strace's options for calls that have to do with one of these files, or all calls."""
    return [option for path in paths for option in ("-P", path)]


def recording(file: str, calls: str, *paths: str) -> tuple[str, ...]:
    """A daemon's wrapper that writes down these system calls (joined by commas)."""
    return (*STRACE, "-y", "-o", file, *only(paths), "-e", f"trace={calls}")


def recorded(host: Host, file: str) -> list[Step]:
    """What the wrapper has written down so far."""
    text = (host.root / file.lstrip("/")).read_text(errors="replace")
    return [
        Step(call, tuple(quoted or opened for quoted, opened in PATH.findall(rest)))
        for call, rest in LINE.findall(text)
    ]


def counting(file: str) -> tuple[str, ...]:
    """A daemon's wrapper that writes down at its end how often each system call was made."""
    return ("/usr/bin/strace", "-qq", "-f", "-c", "-U", "calls,name", "-o", file)


def counted(host: Host, file: str) -> dict[str, int]:
    """What that wrapper has written down, without the calls that were never made."""
    rows = (line.split() for line in (host.root / file.lstrip("/")).read_text().splitlines())
    return {row[1]: int(row[0]) for row in rows if len(row) == 2 and row[0].isdigit()}


def killed_at(calls: str, number: int, *paths: str) -> tuple[str, ...]:
    """A daemon's wrapper that kills it where a thread makes one of these calls the n-th time."""
    kill = f"inject={calls}:signal=KILL:when={number}"
    return (*STRACE, "-o", "/dev/null", *only(paths), "-e", f"trace={calls}", "-e", kill)


def failing_from(call: str, number: int) -> tuple[str, ...]:
    """A daemon's wrapper under which the call fails from the n-th time in a thread on."""
    fail = f"inject={call}:error=EAGAIN:when={number}+"
    return (*STRACE, "-o", "/dev/null", "-e", f"trace={call}", "-e", fail)


def slow_writes(file: str, milliseconds: float) -> tuple[str, ...]:
    """A daemon's wrapper under which every write to the file takes so much longer."""
    slow = f"inject=write:delay_exit={round(1000 * milliseconds)}"
    options = ("--seccomp-bpf", "-o", "/dev/null", "-P", file, "-e", "trace=write", "-e", slow)
    return (*STRACE, *options)


def slow_names(file: str, milliseconds: float) -> tuple[str, ...]:
    """A daemon's wrapper under which giving or taking the file its name takes so much longer."""
    calls = "link,linkat,rename,renameat,renameat2,unlink,unlinkat"
    slow = f"inject={calls}:delay_exit={round(1000 * milliseconds)}"
    options = ("--seccomp-bpf", "-o", "/dev/null", "-P", file, "-e", f"trace={calls}", "-e", slow)
    return (*STRACE, *options)


def kept_names(file: str) -> tuple[str, ...]:
    """A daemon's wrapper under which the file cannot be removed."""
    fail = "inject=unlink,unlinkat:error=EIO"
    options = ("--seccomp-bpf", "-o", "/dev/null", "-P", file, "-e", "trace=unlink,unlinkat")
    return (*STRACE, *options, "-e", fail)
