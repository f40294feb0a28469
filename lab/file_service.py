"""The file service of a server, from which a master fetches configurations. Honest, or as told.

Request: 16-byte header (business, 0, 0, body size), encoded body {"action": "get-file", "path": P}.
Answer: 20-byte header (0, 0, error code, 0, body size), encoded body {"length": "N"}, N raw bytes.

`FileService` runs it in a host. By hand: /usr/bin/python3 -m lab.file_service --help
"""

from __future__ import annotations

import argparse
import base64
import errno
import fcntl
import itertools
import json
import socket
import socketserver
import struct
import sys
import time
from dataclasses import dataclass
from pathlib import Path
from typing import TYPE_CHECKING, Any

from .store import MACHINE
from .wait import wait_until

if TYPE_CHECKING:
    from .host import Host

PORT = 3223
GET_FILE = 0x8008
ALPHABET = b"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"
REQUEST_HEADER = struct.Struct("=IIII")
ANSWER_HEADER = struct.Struct("=IIiIi")
PAUSE = 0.05


def encode(text: bytes) -> bytes:
    """Whole groups are those of base64; the tails keep their low bits at the low end."""
    whole = len(text) // 3 * 3
    head, tail = base64.b64encode(text[:whole]), text[whole:]
    if len(tail) == 1:
        return head + bytes((ALPHABET[tail[0] >> 2], ALPHABET[tail[0] & 3])) + b"=="
    if len(tail) == 2:
        bits = int.from_bytes(tail, "big")
        indexes = (bits >> 10, bits >> 4 & 63, bits & 15)
        return head + bytes(ALPHABET[index] for index in indexes) + b"="
    return head


def decode(text: bytes) -> bytes:
    """The bytes of an encoded text; ValueError if it is none."""
    if not text.endswith(b"="):
        return base64.b64decode(text, validate=True)
    head, tail = base64.b64decode(text[:-4], validate=True), text[-4:].rstrip(b"=")
    bits = 0
    for character in tail[:-1]:
        bits = bits << 6 | ALPHABET.index(character)
    last = ALPHABET.index(tail[-1])
    if len(tail) == 2:
        return head + bytes((bits << 2 | last,))
    return head + (bits << 4 | last).to_bytes(2, "big")


def request(path: str) -> bytes:
    """What a client sends to get a file."""
    body = encode(json.dumps({"action": "get-file", "path": path}).encode())
    return REQUEST_HEADER.pack(GET_FILE, 0, 0, len(body)) + body


def answer_head(reply: bytes, error: int = 0) -> bytes:
    """Header and body of an answer."""
    body = encode(reply)
    return ANSWER_HEADER.pack(0, 0, error, 0, len(body)) + body


def read_locked(path: str) -> bytes:
    """The whole file as no writer that keeps to the lock is changing it."""
    with open(path, "rb") as file:
        fcntl.flock(file, fcntl.LOCK_SH)
        return file.read()


def tell(**facts: Any) -> None:
    """A line of JSON for the owner."""
    print(json.dumps(facts), flush=True)


class Connection(socketserver.BaseRequestHandler):
    """One request and its answer."""

    request: socket.socket
    server: Server
    left: float
    sent = 0

    def handle(self) -> None:
        options = self.server.options
        header = REQUEST_HEADER.unpack(self.receive(REQUEST_HEADER.size))
        command = decode(self.receive(header[3])).decode()
        tell(header=header, command=command)
        self.left = float("inf") if options.stop_after is None else options.stop_after
        if options.pace == 0:
            self.request.recv(1)  # Until the client gives up.
            return
        head, data = self.answer(json.loads(command))
        begin = time.monotonic()
        try:
            self.send(head)
            self.send(data)
            self.request.shutdown(socket.SHUT_WR)
            self.request.recv(1)  # The client closes when it has everything.
        except OSError:
            pass  # It left earlier.
        tell(sent=self.sent, seconds=time.monotonic() - begin)

    def receive(self, size: int) -> bytes:
        data = self.request.recv(size, socket.MSG_WAITALL)
        if len(data) != size:
            raise ConnectionError("a request that breaks off")
        return data

    def answer(self, command: dict[str, str]) -> tuple[bytes, bytes]:
        options = self.server.options
        try:
            if command["action"] != "get-file":
                raise OSError(errno.EINVAL, "unknown action")
            data = read_locked(command["path"])
        except OSError as error:
            return answer_head(b"", error.errno or errno.EIO), b""
        if options.error:
            return answer_head(b"", options.error), b""
        reply = json.dumps({"length": str(len(data))}) if options.reply is None else options.reply
        return answer_head(reply.encode()), data

    def send(self, data: bytes) -> None:
        pace = self.server.options.pace
        view = memoryview(data)[: int(min(len(data), self.left))]
        self.left -= len(view)
        step = len(view) or 1 if pace is None else max(1, int(pace * PAUSE))
        for start in range(0, len(view), step):
            piece = view[start : start + step]
            self.request.sendall(piece)
            self.sent += len(piece)
            if pace is not None:
                time.sleep(PAUSE)


class Server(socketserver.ThreadingTCPServer):
    allow_reuse_address = True
    daemon_threads = True
    request_queue_size = 64

    def __init__(self, options: argparse.Namespace) -> None:
        self.options = options
        super().__init__(("", options.port), Connection)

    def handle_error(self, request: Any, client_address: Any) -> None:
        tell(error=str(sys.exc_info()[1]))


@dataclass(frozen=True)
class Request:
    """What a client asked for; `command` is the decoded body as it came."""

    header: tuple[int, ...]
    command: str


class FileService:
    """A file service in a host; the options are those of the program, with their names there."""

    _numbers = itertools.count(1)

    def __init__(self, host: Host, **options: object) -> None:
        self._output = host.root / f"lab/out/file_service-{next(self._numbers)}.json"
        arguments = [f"--{name.replace('_', '-')}={value}" for name, value in options.items()]
        root = Path(__file__).resolve().parent.parent
        with self._output.open("wb") as file:
            self.process = host.popen(
                ["/usr/bin/python3", "-B", "-m", "lab.file_service", *arguments],
                stdout=file,
                stderr=file,
                env={"PYTHONPATH": MACHINE + str(root)},
            )
        wait_until(self._told, what=f"the file service of {host.name}")

    def _told(self) -> list[dict[str, Any]]:
        lines = self._output.read_text().splitlines(keepends=True)
        return [json.loads(line) for line in lines if line.endswith("\n")]

    @property
    def requests(self) -> list[Request]:
        """All requests so far, in the order of their arrival."""
        told = [fact for fact in self._told() if "command" in fact]
        return [Request(tuple(fact["header"]), fact["command"]) for fact in told]

    @property
    def transfers(self) -> list[tuple[int, float]]:
        """Bytes sent and seconds taken, until the client closed, of every ended answer."""
        return [(fact["sent"], fact["seconds"]) for fact in self._told() if "sent" in fact]

    def stop(self) -> None:
        """End it, and with it all its connections."""
        self.process.kill()

    def __enter__(self) -> FileService:
        return self

    def __exit__(self, *_: object) -> None:
        self.stop()


def main() -> None:
    parser = argparse.ArgumentParser(
        prog="/usr/bin/python3 -m lab.file_service", description="Serve the files of this host."
    )
    parser.add_argument("--port", type=int, default=PORT)
    parser.add_argument("--error", type=int, default=0, help="answer with this error code")
    parser.add_argument("--reply", help="say this instead of the file's length")
    parser.add_argument("--stop-after", type=int, help="close after so many bytes of an answer")
    parser.add_argument("--pace", type=int, help="bytes a second, in small pieces; 0: no answer")
    options = parser.parse_args()
    with Server(options) as server:
        tell(listens=options.port)
        server.serve_forever()


if __name__ == "__main__":
    main()
