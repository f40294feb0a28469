"""The switch between the hosts, and the losses of its lines."""

import os
import subprocess
import threading
from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path

from .namespaces import PYTHON, Namespaces, Process
from .wait import LabError

TABLE = "table bridge losses"
SLOW_LINE = Path(__file__).resolve().parent / "slow_line.py"


@dataclass(frozen=True)
class Loss:
    """Frames from one port to another get lost; None stands for every port.

    `share` is the part of them that does. Without `all_frames` only IPv4 gets lost.
    """

    source: str | None
    target: str | None
    share: float
    all_frames: bool

    def rule(self) -> str:
        words = []
        if self.source:
            words.append(f'iifname "{self.source}"')
        if self.target:
            words.append(f'oifname "{self.target}"')
        if not self.all_frames:
            words.append("ether type ip")
        if self.share < 1.0:
            words.append(f"numgen random mod 1000 < {round(self.share * 1000)}")
        return " ".join([*words, "drop"])


class Switch:
    """A bridge in a network namespace of its own, one port per host.

    Faults are made here and not in the hosts, as frames that the bridge does not forward: the
    sender notices nothing, as with a real line, whereas a packet dropped in the sender's own
    namespace makes its send fail with EPERM.
    """

    def __init__(self) -> None:
        self._inside = Namespaces("switch", files=False)
        self._losses: list[Loss] = []
        self._lock = threading.Lock()

    def wait_ready(self) -> None:
        self._inside.wait_ready()
        self._ip("link add br0 type bridge", "link set br0 up")

    def _run(self, *argv: str, text: str) -> None:
        """Run a tool of the machine in the switch's network namespace."""
        done = subprocess.run(
            ["/usr/bin/nsenter", f"--net=/proc/{self._inside.pid}/ns/net", *argv],
            input=text,
            capture_output=True,
            text=True,
            check=False,
        )
        if done.returncode != 0:
            raise LabError(f"{argv[0]}: {done.stderr.strip()}")

    def plug(self, port: str, host: Namespaces, interface: str) -> None:
        """Lay a line from a new port to the host; no end is ever in another namespace."""
        self._ip(
            f"link add {port} type veth peer name {interface} netns {host.pid}",
            f"link set {port} master br0 up",
        )

    @contextmanager
    def slow(self, port: str, shortest: float, longest: float) -> Iterator[None]:
        """Meanwhile, frames to and from the port take between so many seconds."""
        here, there = f"{port}s", f"{port}r"
        self._ip(
            f"link add {here} type veth peer name {there}",
            f"link set {here} master br0 up",
            f"link set {there} up",
            f"link set {port} nomaster",
        )
        with open(os.devnull, "r+b") as null:
            program = [PYTHON, "-IS", str(SLOW_LINE), port, there, str(shortest), str(longest)]
            line = self._inside.spawn(Process, program, [null.fileno()] * 3)
        yield
        line.kill()
        self._ip(f"link del {here}", f"link set {port} master br0")

    def _ip(self, *commands: str) -> None:
        self._run("/usr/sbin/ip", "-batch", "-", text="\n".join([*commands, ""]))

    def add_losses(self, losses: Sequence[Loss]) -> None:
        with self._lock:
            self._apply([*self._losses, *losses])

    def heal(self, port: str) -> None:
        """Remove every fault that the port takes part in."""
        with self._lock:
            self._apply([f for f in self._losses if port not in (f.source, f.target)])

    def _apply(self, losses: list[Loss]) -> None:
        """Exchange all rules in one transaction."""
        rules = "\n".join(fault.rule() for fault in losses)
        chain = f"chain lines {{\ntype filter hook forward priority 0\n{rules}\n}}"
        text = f"{TABLE}\ndelete {TABLE}\n{TABLE} {{\n{chain}\n}}\n"
        self._run("/usr/sbin/nft", "-f", "-", text=text)
        self._losses = losses

    def begin_close(self) -> None:
        self._inside.begin_close()

    def close(self) -> None:
        self._inside.close()
