"""A pair of servers as operators run it, and boot clients to fill it with."""

import random
from collections.abc import Mapping
from contextlib import ExitStack
from pathlib import Path
from types import TracebackType

from .host import Daemon, Host
from .lab import Lab
from .wait import wait_until

PUSHED_KEYS = ("dhcpcfg", "default_writeback", "config_db_version", "client_db_version")
IMAGES = ("win10-lab", "win11-office", "cad-2024", "debian-12", "exam-room", "library")
ROOMS = ("A101", "A102", "B204", "B207", "C310", "LIB", "OFFICE", "WORKSHOP")
DHCP_SETTINGS = "netmask=255.255.255.0;gateway=10.77.0.254;begin=10.77.0.100;end=10.77.0.200"


def realistic_clients(
    count: int, seed: int = 1, value_size: int | None = None
) -> dict[bytes, bytes]:
    """Boot client records: the MAC as key, about 120 to 200 bytes of settings as value.

    The same seed gives the same records. `value_size` pads or cuts every value to that size.
    """
    dice = random.Random(seed)
    clients: dict[bytes, bytes] = {}
    while len(clients) < count:
        number = len(clients) + 1
        mac = ":".join(f"{byte:02X}" for byte in (0x00, 0x1E, *dice.randbytes(4)))
        room = dice.choice(ROOMS)
        fields = {
            "name": f"PC-{room}-{number:05d}",
            "mac": mac,
            "ip": f"10.{dice.randrange(256)}.{number >> 8 & 255}.{number & 255}",
            "image": f"{dice.choice(IMAGES)}-v{dice.randrange(1, 40)}",
            "disks": ",".join(f"disk{n}" for n in range(1, dice.randrange(2, 6))),
            "writeback": f"/srv/writeback/{room.lower()}/{number}",
            "flags": f"{dice.getrandbits(16):04x}",
            "note": "x" * dice.randrange(0, 40),
        }
        value = "|".join(f"{name}={text}" for name, text in fields.items()).encode()
        if value_size is not None:
            value = value.ljust(value_size, b".")[:value_size]
        clients[mac.encode()] = value
    return clients


class Pair:
    """Two hosts, `master` with the first address and `slave` with the second, ready to start.

    Both know the pair (ha, server_list, master). The master also has the stamps, the settings
    that are pushed, and the clients, where they are given. The slave's stores are otherwise
    empty unless `slave_config` and `slave_clients` say more. With `second_lines` each host has a
    second interface, and the slave knows the master's other address.
    """

    def __init__(
        self,
        executable: str | Path,
        *,
        stamps: tuple[str, str] | None = ("config-1", "client-1"),
        clients: Mapping[bytes, bytes] | None = None,
        master_config: Mapping[str, str] | None = None,
        slave_config: Mapping[str, str] | None = None,
        slave_clients: Mapping[bytes, bytes] | None = None,
        disk: bool = False,
        env: Mapping[str, str] | None = None,
        wrapper: tuple[str, ...] = (),
        second_lines: bool = False,
    ) -> None:
        self.executable = Path(executable)
        self.env = dict(env or {})
        self.wrapper = wrapper
        self.master_daemon: Daemon | None = None
        self.slave_daemon: Daemon | None = None
        with ExitStack() as undo:
            self.lab = undo.enter_context(Lab())
            self.master, self.slave = self.lab.add_hosts(["master", "slave"], disk)
            config = dict(self._settings())
            paths = {}
            if second_lines:
                self.lab.add_second_lines(self.lab.hosts)
                paths = {"master_paths": self.master.second_address}
            self.slave.config.fill({**config, **paths, **(slave_config or {})})
            config |= {"dhcpcfg": DHCP_SETTINGS, "default_writeback": "/srv/writeback"}
            if stamps:
                config |= {"config_db_version": stamps[0], "client_db_version": stamps[1]}
            self.master.config.fill({**config, **(master_config or {})})
            if clients:
                self.master.client.fill(clients)
            if slave_clients:
                self.slave.client.fill(slave_clients)
            undo.pop_all()

    def _settings(self) -> Mapping[str, str]:
        servers = f"{self.master.address},{self.slave.address}"
        return {"ha": "enable", "server_list": servers, "master": self.master.address}

    def _start(self, host: Host, foreground: bool) -> Daemon:
        return host.start_daemon(self.executable, foreground, self.env, self.wrapper)

    def start_master(self, foreground: bool = True) -> Daemon:
        """Start (again) the daemon of the master."""
        self.master_daemon = self._start(self.master, foreground)
        return self.master_daemon

    def start_slave(self, foreground: bool = True) -> Daemon:
        """Start (again) the daemon of the slave."""
        self.slave_daemon = self._start(self.slave, foreground)
        return self.slave_daemon

    def start(self, foreground: bool = True) -> None:
        """Start both and wait until each has decided its role."""
        marks = (self.master.log_mark(), self.slave.log_mark())
        self.start_master(foreground)
        self.start_slave(foreground)
        self.master.wait_log("quorsyncd_role:master", 30, marks[0])
        self.slave.wait_log("quorsyncd_role:slave", 30, marks[1])

    def difference(self) -> str:
        """Empty if the slave has what the master pushes; otherwise what differs."""
        text = []
        for key in PUSHED_KEYS:
            left, right = self.master.config.get(key), self.slave.config.get(key)
            if left != right:
                text.append(f"config.db {key}: master {left!r}, slave {right!r}")
        # Comparing all clients takes its time; unequal stamps already say that they differ.
        if not text:
            text = [self.master.client.difference(self.slave.client)]
        return "\n".join(text)

    def wait_equal(self, timeout: float = 30.0) -> None:
        """Wait until the slave has what the master pushes."""

        def equal() -> bool:
            difference = self.difference()
            assert not difference, difference
            return True

        wait_until(equal, timeout, "equal stores", interval=0.05)

    def evidence(self) -> str:
        return self.lab.evidence()

    def close(self) -> None:
        self.lab.close()

    def __enter__(self) -> "Pair":
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        value: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        self.close()
