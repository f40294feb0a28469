"""A lab: hosts on one switch, alone in the world."""

import fcntl
import glob
import ipaddress
import os
import shutil
import time
import uuid
from collections.abc import Sequence
from types import TracebackType

from .host import Host
from .line import Line
from .namespaces import Namespaces, check_requirements
from .network import Switch

DISK_PREFIX = "/var/tmp/quorsyncd-lab-"
NETWORK = ipaddress.ip_network("10.77.0.0/24")
SECOND_NETWORK = ipaddress.ip_network("10.78.0.0/24")
YOUNG_SECONDS = 60.0


def sweep_disk() -> None:
    """Remove directories whose keeper was killed. A young one may not be locked yet."""
    for path in glob.glob(DISK_PREFIX + "*"):
        try:
            handle = os.open(path, os.O_RDONLY | os.O_DIRECTORY)
        except OSError:
            continue
        try:
            fcntl.flock(handle, fcntl.LOCK_EX | fcntl.LOCK_NB)
            if time.time() - os.fstat(handle).st_ctime > YOUNG_SECONDS:
                shutil.rmtree(path, ignore_errors=True)
        except BlockingIOError:
            pass
        finally:
            os.close(handle)


class Lab:
    """A context manager; its end, or the end of this process however it comes, ends everything.

    Any number of labs can run side by side with the same names and addresses: nothing of a lab
    is known by name on the machine.
    """

    def __init__(self) -> None:
        check_requirements()
        self.hosts: list[Host] = []
        self._switch = Switch()
        self._switch_ready = False
        self._second_switch: Switch | None = None

    def add_hosts(self, names: Sequence[str], disk: bool = False) -> list[Host]:
        """Make hosts; the n-th of the lab has the address 10.77.0.n.

        With `disk`, /etc/quoradmind and /var/log lie on the machine's disk, for measurements.
        """
        if disk:
            sweep_disk()
        places = [f"{DISK_PREFIX}{uuid.uuid4().hex}" if disk else None for _ in names]
        inside = [Namespaces(name, disk=place) for name, place in zip(names, places)]
        fresh = []
        for each in inside:
            number = len(self.hosts) + 1
            address = str(NETWORK[number])
            fresh.append(Host(each, Line(each, self._switch, f"p{number}"), address))
            self.hosts.append(fresh[-1])
        if not self._switch_ready:
            self._switch.wait_ready()
            self._switch_ready = True
        for each, host in zip(inside, fresh):
            each.wait_ready()
            host.set_up(NETWORK.prefixlen)
        return fresh

    def add_host(self, name: str, disk: bool = False) -> Host:
        return self.add_hosts([name], disk)[0]

    def add_second_lines(self, hosts: Sequence[Host]) -> None:
        """Give hosts an interface on a second switch: there the n-th of the lab is 10.78.0.n."""
        if self._second_switch is None:
            self._second_switch = Switch()
            self._second_switch.wait_ready()
        for host in hosts:
            number = self.hosts.index(host) + 1
            address, length = str(SECOND_NETWORK[number]), SECOND_NETWORK.prefixlen
            host.add_second_line(self._second_switch, f"p{number}", address, length)

    def evidence(self) -> str:
        """The evidence of all hosts."""
        return "\n".join(host.evidence() for host in self.hosts)

    def close(self) -> None:
        """End all hosts side by side, and wait for their end."""
        members: list[Host | Switch] = [*self.hosts, self._switch]
        if self._second_switch is not None:
            members.append(self._second_switch)
        for member in members:
            member.begin_close()
        for member in members:
            member.close()

    def __enter__(self) -> "Lab":
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        value: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        self.close()
