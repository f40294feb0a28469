"""The line of one host to the switch: cuts, delays, and what waits in the host's sockets."""

import socket
from contextlib import AbstractContextManager
from pathlib import Path

from .namespaces import Namespaces
from .network import Loss, Switch
from .wait import LabError

TCP_LISTEN = "0A"  # where /proc/net/tcp shows connections as if they were bytes


class Line:
    """Of a host; `port` is the switch's end of it."""

    def __init__(self, inside: Namespaces, switch: Switch, port: str) -> None:
        self._inside = inside
        self._switch = switch
        self._port = port

    def plug(self, interface: str) -> None:
        self._switch.plug(self._port, self._inside, interface)

    def cut(self, direction: str = "both", peer: "Line | None" = None, share: float = 1.0) -> None:
        """Lose what comes in, what goes out, or both, to and from one other line or all.

        `share` below 1 loses that part of the frames at random. The sender notices nothing. A line
        that is cut both ways is like a pulled cable, so that after a while connecting fails for
        want of an ARP answer. One that is cut one way still carries ARP: otherwise the other way
        would soon be cut, too.
        """
        if direction not in ("both", "in", "out"):
            raise ValueError(f"direction {direction!r} is not both, in or out")
        other = peer._port if peer else None
        all_frames = direction == "both"
        outward = Loss(self._port, other, share, all_frames)
        inward = Loss(other, self._port, share, all_frames)
        losses = {"both": [outward, inward], "out": [outward], "in": [inward]}
        self._switch.add_losses(losses[direction])

    def slow(self, shortest: float, longest: float) -> AbstractContextManager[None]:
        """Meanwhile, each frame in or out takes its own time, between so many seconds."""
        return self._switch.slow(self._port, shortest, longest)

    def heal(self) -> None:
        """End every cut of this line."""
        self._switch.heal(self._port)

    def open_socket(self, kind: int = socket.SOCK_STREAM) -> socket.socket:
        """An IPv4 socket in the host's network, for a peer played by the caller."""
        return self._inside.open_socket(kind)

    def _sockets(self, protocol: str, port: int) -> list[list[str]]:
        """The kernel's rows of sockets with this local port."""
        table = Path(f"/proc/{self._inside.pid}/net/{protocol}").read_text().splitlines()
        rows = [line.split() for line in table]
        return [row for row in rows if row[1].endswith(f":{port:04X}")]

    def udp_queue(self, port: int) -> tuple[int, int]:
        """Of the socket bound to a UDP port: the bytes that wait, the datagrams it has lost."""
        for row in self._sockets("udp", port):
            return int(row[4].partition(":")[2], 16), int(row[-1])
        raise LabError(f"{self._inside.name}: nothing is bound to UDP port {port}")

    def tcp_waiting(self, port: int) -> int:
        """The bytes that wait to be read from the connections to a TCP port."""
        rows = [row for row in self._sockets("tcp", port) if row[3] != TCP_LISTEN]
        return sum(int(row[4].partition(":")[2], 16) for row in rows)
