"""Reading, writing and comparing the Berkeley DB files of a host."""

from __future__ import annotations

import os
import socket
import threading
from collections.abc import Iterable, Mapping
from multiprocessing.connection import Connection
from pathlib import Path
from typing import TYPE_CHECKING, Any, TypeVar

from .wait import LabError

if TYPE_CHECKING:
    from .host import Host
    from .namespaces import Process

WORKER = Path(__file__).resolve().parent / "store_worker.py"
MACHINE = "/.machine"
Text = bytes | str
Key = TypeVar("Key", bytes, str)


class StoreError(LabError):
    """The file cannot be read or written; the message names it."""


def as_bytes(text: Text) -> bytes:
    return text.encode() if isinstance(text, str) else text


class StoreWorker:
    """The process in the host that touches the files; started when needed, replaced if lost."""

    def __init__(self, host: Host) -> None:
        self._host = host
        self._lock = threading.Lock()
        self._connection: Connection | None = None
        self._process: Process | None = None

    def start(self) -> None:
        ours, theirs = socket.socketpair()
        with theirs:
            self._process = self._host.popen(
                ["/usr/bin/python3", "-I", MACHINE + str(WORKER)], stdin=theirs
            )
        self._connection = Connection(ours.detach())

    def _drop(self) -> None:
        if self._connection is not None and self._process is not None:
            self._connection.close()
            self._process.kill()
        self._connection = self._process = None

    def ask(self, timeout: float, operation: str, *arguments: Any) -> Any:
        """Run an operation. A crash or a loop of the library becomes a StoreError."""
        with self._lock:
            if self._connection is None:
                self.start()
            assert self._connection is not None
            try:
                self._connection.send((operation, *arguments))
                if not self._connection.poll(timeout):
                    raise StoreError(f"{operation} {arguments[0]}: no end after {timeout:.0f} s")
                good, answer = self._connection.recv()
            except (EOFError, ConnectionError) as error:
                self._drop()
                raise StoreError(f"{operation} {arguments[0]}: the library crashed") from error
            except StoreError:
                self._drop()
                raise
        if not good:
            raise StoreError(f"{operation} {arguments[0]}: {answer}")
        return answer


class Store:
    """One file. Reading a missing file finds nothing and does not create it; writing does."""

    def __init__(self, worker: StoreWorker, host_name: str, root: Path, path: str) -> None:
        self._worker = worker
        self.path = path
        self.name = f"{host_name}:{os.path.basename(path)}"
        self._outer = root / path.lstrip("/")
        self.timeout = 120.0

    def _ask(self, operation: str, *arguments: Any) -> Any:
        return self._worker.ask(self.timeout, operation, self.path, *arguments)

    @property
    def exists(self) -> bool:
        return self._outer.exists()

    @property
    def outer_path(self) -> Path:
        """The file as the machine sees it, to damage it or to look at its inode."""
        return self._outer

    def get(self, key: Text) -> bytes | None:
        return self._ask("get", as_bytes(key))

    def put(self, key: Text, value: Text) -> None:
        self._ask("fill", [(as_bytes(key), as_bytes(value))])

    def fill(self, pairs: Mapping[Key, Text] | Iterable[tuple[Key, Text]]) -> None:
        """Store many records, in one go as far as that is possible."""
        items = pairs.items() if isinstance(pairs, Mapping) else pairs
        self._ask("fill", [(as_bytes(key), as_bytes(value)) for key, value in items])

    def delete(self, key: Text) -> bool:
        """True if the key was there."""
        return self._ask("delete", as_bytes(key))

    def items(self) -> dict[bytes, bytes]:
        return self._ask("items")

    def digest(self) -> tuple[int, int]:
        """Number of records and an order-free checksum: comparing big stores without copying."""
        return self._ask("digest")

    def count(self) -> int:
        return self.digest()[0]

    def verify(self) -> bool:
        """Whether Berkeley DB finds the file sound."""
        return self._ask("verify")

    def difference(self, other: Store, limit: int = 8) -> str:
        """Empty if both hold the same records; otherwise what differs, for a reader."""
        if self.digest() == other.digest():
            return ""
        return describe_difference(self.name, self.items(), other.name, other.items(), limit)


def describe_difference(
    left_name: str,
    left: Mapping[bytes, bytes],
    right_name: str,
    right: Mapping[bytes, bytes],
    limit: int = 8,
) -> str:
    """Records that only one side has or that differ, the first few of them by name."""
    only_left = sorted(left.keys() - right.keys())
    only_right = sorted(right.keys() - left.keys())
    unequal = sorted(key for key in left.keys() & right.keys() if left[key] != right[key])
    if not (only_left or only_right or unequal):
        return ""
    text = [
        f"{left_name} has {len(left)} records, {right_name} {len(right)}: "
        f"{len(only_left)} only in the first, {len(only_right)} only in the second, "
        f"{len(unequal)} differ"
    ]
    text += [f"  only {left_name}: {key!r} = {left[key]!r}" for key in only_left[:limit]]
    text += [f"  only {right_name}: {key!r} = {right[key]!r}" for key in only_right[:limit]]
    text += [f"  {key!r}: {left[key]!r} against {right[key]!r}" for key in unequal[:limit]]
    return "\n".join(text)
