"""The pipe by which a host's daemon tells the DHCP wrapper to reload, read in the wrapper's place.

A record is a 32-bit command and 64 bytes of text, the seconds since the epoch.
"""

from __future__ import annotations

import os
import struct
from typing import TYPE_CHECKING, NamedTuple

from .wait import wait_until

if TYPE_CHECKING:
    from .host import Host

PATH = "/var/lib/quoradmind/dhcp_fifo"
RECORD = struct.Struct("=I64s")
RELOAD = 23322


class Reload(NamedTuple):
    """One record, decoded."""

    command: int
    seconds: int


class ReloadPipe:
    """Makes the pipe and reads from it until it is closed."""

    def __init__(self, host: Host) -> None:
        path = host.root / PATH[1:]
        os.mkfifo(path)
        self._reader = os.open(path, os.O_RDONLY | os.O_NONBLOCK)

    def _read(self) -> bytes:
        try:
            return os.read(self._reader, RECORD.size)
        except BlockingIOError:
            return b""

    def take(self, number: int, timeout: float) -> list[Reload]:
        """Wait for so many records and take them out."""
        data = b""
        while len(data) < RECORD.size * number:
            data += wait_until(self._read, timeout, f"{number} records")
        return [
            Reload(command, int(text.rstrip(b"\0"))) for command, text in RECORD.iter_unpack(data)
        ]

    def close(self) -> None:
        os.close(self._reader)

    def __enter__(self) -> ReloadPipe:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()
