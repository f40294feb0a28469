"""A host that was booted: systemd is its PID 1, and it lies in a root folder of its own."""

import os
import signal
import subprocess
from collections.abc import Sequence
from pathlib import Path
from types import SimpleNamespace

from .network import Switch
from .wait import LabError, wait_until

BOOT_SECONDS = 120.0
ENTER = ["/usr/bin/nsenter", "--all", "--root", "--wd"]


def _children(pid: int) -> list[int]:
    try:
        return [int(n) for n in Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]
    except FileNotFoundError:
        return []


def _find_init(pid: int) -> int:
    """Below the process, the one that is PID 1 of a namespace; 0 if there is none yet."""
    for child in _children(pid):
        status = Path(f"/proc/{child}/status").read_text()
        numbers = next(row.split()[1:] for row in status.splitlines() if row.startswith("NSpid:"))
        found = child if len(numbers) > 1 and numbers[-1] == "1" else _find_init(child)
        if found:
            return found
    return 0


class BootedHost:
    """Its power can be cut and it can be booted again: what lies in its root stays."""

    def __init__(
        self, root: Path, packages: Path, switch: Switch, port: str, address: str
    ) -> None:
        """`packages` is a folder of the machine, /packages inside."""
        self.name = root.name
        self.address = address
        self._root = root
        self._packages = packages
        self._switch = switch
        self._port = port
        self._container: subprocess.Popen[bytes] | None = None
        self._pid = 0

    def boot(self) -> None:
        self._container = subprocess.Popen(
            [
                "/usr/bin/systemd-nspawn",
                *("--quiet", "--boot", "--register=no", "--keep-unit", "--private-network"),
                *("--link-journal=no", "--resolv-conf=off", "--timezone=off", "--console=pipe"),
                *(f"--directory={self._root}", f"--machine={self.name}"),
                f"--bind-ro={self._packages}:/packages",
            ],
            stdin=subprocess.DEVNULL,
            stdout=open(self._root.with_suffix(".console"), "wb"),  # noqa: SIM115
            stderr=subprocess.STDOUT,
        )
        container = self._container.pid
        self._pid = wait_until(
            lambda: _find_init(container), BOOT_SECONDS, f"the init of {self.name}"
        )
        self._switch.plug(self._port, SimpleNamespace(pid=self._pid), "eth0")
        self.shell(f"ip address add {self.address}/24 dev eth0; ip link set eth0 up")
        wait_until(self._is_up, BOOT_SECONDS, f"the end of the boot of {self.name}", 0.2)

    def _is_up(self) -> bool:
        state = self.shell("systemctl is-system-running", check=False).strip()
        return state in ("running", "degraded")

    def cut_power(self) -> None:
        """All its processes end at once, in the middle of whatever they do."""
        if self._container is None:
            return
        if self._container.poll() is None and self._pid:
            os.kill(self._pid, signal.SIGKILL)
        self._container.wait(BOOT_SECONDS)
        self._container = None

    def run(self, argv: Sequence[str]) -> subprocess.CompletedProcess[str]:
        return subprocess.run(
            [*ENTER, f"--target={self._pid}", "/usr/bin/env", "-i", "LANG=C.UTF-8",
             "DEBIAN_FRONTEND=noninteractive", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", *argv],
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=BOOT_SECONDS,
            check=False,
        )  # fmt: skip

    def shell(self, command: str, check: bool = True) -> str:
        """Both outputs of a shell command; LabError if it fails."""
        done = self.run(["/bin/sh", "-c", command])
        if check and done.returncode != 0:
            raise LabError(f"{self.name}: {command}: {done.stdout}{done.stderr}")
        return done.stdout + done.stderr
