"""Faults that last for a while. Each takes effect in a pair for as long as it is entered."""

import shlex
from collections.abc import Callable, Iterator
from contextlib import AbstractContextManager, contextmanager

from .host import Host
from .pair import Pair

Fault = Callable[[Pair], AbstractContextManager[None]]
SPARE = 200  # KiB
LARGE = "50m"

# A daemon's wrapper that makes file modes hold for it: root usually passes over them.
BOUND_BY_MODES = ("/usr/bin/setpriv", "--bounding-set=-dac_override,-dac_read_search")


def cut(direction: str = "both", share: float = 1.0) -> Fault:
    """The master's line; direction and share as for Line.cut."""

    @contextmanager
    def fault(pair: Pair) -> Iterator[None]:
        pair.master.line.cut(direction, share=share)
        yield
        pair.master.line.heal()

    return fault


def slow(shortest: float, longest: float) -> Fault:
    """Every frame of the master takes its own time, in seconds, and some overtake others."""
    return lambda pair: pair.master.line.slow(shortest, longest)


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


def by_shell(side: str, break_it: str, mend_it: str) -> Fault:
    """What a shell of the host does, and then undoes."""

    @contextmanager
    def fault(pair: Pair) -> Iterator[None]:
        host: Host = getattr(pair, side)
        host.shell(break_it)
        yield
        host.shell(mend_it)

    return fault


def full(side: str, folder: str) -> Fault:
    """No space is left in the file system that the folder lies on."""
    path = shlex.quote(folder)
    return by_shell(
        side,
        f"mkdir /lab/kept && find {path} -maxdepth 1 -type f -exec mv -t /lab/kept {{}} +"
        f" && size=$(($(du -sk /lab/kept | cut -f1) + {SPARE}))k"
        f" && mount -t tmpfs -o size=$size small {path} && cp -a /lab/kept/. {path}"
        f" && rm -r /lab/kept && ! cat /dev/zero 2>&1 >{path}/filler | grep -v 'No space left'",
        f"mount -o remount,size={LARGE} {path} && rm {path}/filler",
    )


def read_only(side: str, folder: str) -> Fault:
    """As the kernel leaves a file system on which it has met an error."""
    path = shlex.quote(folder)
    return by_shell(
        side,
        f"mount --bind {path} {path} && mount -o remount,bind,ro {path}",
        f"mount -o remount,bind,rw {path}",
    )


def missing(side: str, folder: str) -> Fault:
    """The folder has another name."""
    path = shlex.quote(folder)
    return by_shell(side, f"mv {path} {path}.away", f"rm -rf {path}; mv {path}.away {path}")


def forbidden(side: str, folder: str) -> Fault:
    """Nobody may enter the folder; needs daemons that are BOUND_BY_MODES."""
    path = shlex.quote(folder)
    return by_shell(
        side,
        f"stat -c %a {path} >/lab/mode && chmod 0 {path}",
        f"chmod $(cat /lab/mode) {path}",
    )
