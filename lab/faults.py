"""Faults that last for a while. Each takes effect in a pair for as long as it is entered."""

import shlex
from collections.abc import Callable, Iterator
from contextlib import AbstractContextManager, contextmanager

from .host import Host
from .pair import Pair

Fault = Callable[[Pair], AbstractContextManager[None]]
SMALL = "200k"
LARGE = "50m"


def cut(direction: str = "both", share: float = 1.0) -> Fault:
    """The master's line; direction and share as for Host.cut."""

    @contextmanager
    def fault(pair: Pair) -> Iterator[None]:
        pair.master.cut(direction, share=share)
        yield
        pair.master.heal()

    return fault


def slow(shortest: float, longest: float) -> Fault:
    """Every frame of the master takes its own time, in seconds, and some overtake others."""
    return lambda pair: pair.master.slow_line(shortest, longest)


def stopped(*sides: str) -> Fault:
    """The daemons of "master" and "slave" stand still; their peers can still connect to them."""

    @contextmanager
    def fault(pair: Pair) -> Iterator[None]:
        daemons = [getattr(pair, f"{side}_daemon") for side in sides]
        for daemon in daemons:
            daemon.freeze()
        yield
        for daemon in daemons:
            daemon.thaw()

    return fault


def full(side: str, folder: str) -> Fault:
    """No room is left in the file system that the folder lies on."""
    path = shlex.quote(folder)

    @contextmanager
    def fault(pair: Pair) -> Iterator[None]:
        host: Host = getattr(pair, side)
        host.shell(
            f"mkdir /lab/kept && find {path} -maxdepth 1 -type f -exec mv -t /lab/kept {{}} +"
            f" && mount -t tmpfs -o size={SMALL} small {path} && mv /lab/kept/* {path}"
            f"; rm -r /lab/kept; ! cat /dev/zero 2>&1 >{path}/filler | grep -v 'No space left'"
        )
        yield
        host.shell(f"mount -o remount,size={LARGE} {path} && rm {path}/filler")

    return fault


def read_only(side: str, folder: str) -> Fault:
    """As the kernel leaves a file system on which it has met an error."""
    path = shlex.quote(folder)

    @contextmanager
    def fault(pair: Pair) -> Iterator[None]:
        host: Host = getattr(pair, side)
        host.shell(f"mount --bind {path} {path} && mount -o remount,bind,ro {path}")
        yield
        host.shell(f"mount -o remount,bind,rw {path}")

    return fault


def missing(side: str, folder: str) -> Fault:
    """The folder has another name."""
    path = shlex.quote(folder)

    @contextmanager
    def fault(pair: Pair) -> Iterator[None]:
        host: Host = getattr(pair, side)
        host.shell(f"mv {path} {path}.away")
        yield
        host.shell(f"rm -rf {path}; mv {path}.away {path}")

    return fault
