"""A peer that says exactly what a test wants: the other end of a real daemon."""

import socket
import struct
from contextlib import ExitStack

from lab import wait_until

PORT = 13233
SIZE = 1164
LIMIT = 60.0

REQUEST, HEARTBEAT, BEAT_BACK, RECORD = 1, 2, 3, 1
ALL, CONFIG, CLIENT, DISK = 0, 1, 2, 3

_RECORD = struct.Struct("<HHII128s1024s")
_HEARTBEAT = struct.Struct("<HH8x32s32s1088x")


def _bytes(text):
    return text.encode() if isinstance(text, str) else text


def message(kind_of_message, kind=0, tag=0, key=b"", value=b""):
    return _RECORD.pack(kind_of_message, 0, kind, tag, _bytes(key), _bytes(value))


def heartbeat(address, dsver):
    return _HEARTBEAT.pack(HEARTBEAT, 0, _bytes(address), _bytes(dsver))


def request(kind):
    return message(REQUEST, kind, tag=ord("R"))


def record(kind, key, value):
    return message(RECORD, kind, key=key, value=value)


def beat_back(stamps):
    return message(BEAT_BACK, value=stamps)


def split_messages(data):
    """The messages of a whole connection; nothing may be left over."""
    assert len(data) % SIZE == 0
    return [data[start : start + SIZE] for start in range(0, len(data), SIZE)]


def await_master(host):
    """Wait until a master can be asked. Trying to bind its port could take it away."""
    wanted = f":{PORT:04X} "
    wait_until(lambda: wanted in host.shell("cat /proc/net/udp"), LIMIT, "the master's port")


class FakeSlave(ExitStack):
    """Asks a real master and hears what it answers."""

    def __init__(self, host, master):
        super().__init__()
        self._host = host
        self.outlet = self.enter_context(host.line.open_socket(socket.SOCK_DGRAM))
        self.outlet.connect((master.address, PORT))
        self.listen()

    def listen(self):
        self.inlet = self.enter_context(self._host.line.open_socket())
        self.inlet.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.inlet.settimeout(LIMIT)
        self.inlet.bind(("", PORT))
        self.inlet.listen()

    def accept(self):
        return self.inlet.accept()[0]

    def read_all(self):
        """The messages of the next connection."""
        with self.accept() as connection:
            connection.settimeout(LIMIT)
            return split_messages(b"".join(iter(lambda: connection.recv(1 << 16), b"")))

    def ask(self, datagram):
        """Send a datagram; the messages of the connection that answers it."""
        self.outlet.send(datagram)
        return self.read_all()


class FakeMaster(ExitStack):
    """Tells a real slave things and hears what it asks for."""

    def __init__(self, host, slave):
        super().__init__()
        self._host = host
        self._target = (slave.address, PORT)
        self._inlet = self.enter_context(host.line.open_socket(socket.SOCK_DGRAM))
        self._inlet.settimeout(LIMIT)
        self._inlet.bind(("", PORT))

    def connect(self):
        """A connection, as soon as the slave listens."""
        return self.enter_context(wait_until(self.try_to_connect, LIMIT, "a slave that listens"))

    def try_to_connect(self):
        connection = self._host.line.open_socket()
        connection.settimeout(LIMIT)
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        if connection.connect_ex(self._target) == 0:
            return connection
        connection.close()
        return None

    def tell(self, *messages):
        """Everything in one piece on a connection of its own."""
        with self.connect() as connection:
            connection.sendall(b"".join(messages))

    def hear(self, kind_of_message):
        """The next datagram of this kind; others are passed over."""
        while True:
            datagram = self._inlet.recv(2 * SIZE)
            if datagram[0] == kind_of_message:
                return datagram
