"""The owner's side of a set of namespaces: start it, run programs in it, end it."""

import ctypes
import json
import os
import shutil
import signal
import socket
import subprocess
import threading
import time
from collections.abc import Mapping, Sequence
from pathlib import Path
from typing import Any, TypeVar

from .wait import LabError

INIT = Path(__file__).resolve().parent / "init.py"
PYTHON = "/usr/bin/python3"
START_TIMEOUT = 30.0
CLONE_NEWNET = 0x40000000
MAX_MESSAGE = 1 << 18
ENVIRONMENT = {
    "PATH": "/usr/local/sbin:/usr/sbin:/usr/bin:/sbin:/bin:/usr/local/bin",
    "HOME": "/root",
    "LANG": "C.UTF-8",
}
TOOLS = {
    "/usr/bin/db5.3_verify": "db5.3-util",
    "/usr/bin/mawk": "mawk",
    "/usr/bin/killall": "psmisc",
    "/usr/bin/nsenter": "util-linux",
    "/usr/bin/mount": "mount",
    "/usr/bin/ps": "procps",
    "/usr/bin/strace": "strace",
    "/usr/sbin/ip": "iproute2",
    "/usr/sbin/nft": "nftables",
}


def check_requirements() -> None:
    """One clear line instead of a failure deep inside."""
    if os.geteuid() != 0:
        raise LabError("the lab makes namespaces: run it as root")
    path = os.pathsep.join(("/usr/sbin", "/usr/bin", "/sbin", "/bin"))
    missing = [
        package for tool, package in TOOLS.items() if not shutil.which(Path(tool).name, path=path)
    ]
    if missing:
        raise LabError("the lab needs the Debian packages " + " ".join(missing))


def receive(sock: socket.socket) -> tuple[dict[str, Any] | None, list[int]]:
    """A message and the descriptors that came along; None at the end of the connection."""
    data, descriptors, _, _ = socket.recv_fds(sock, MAX_MESSAGE, 1)
    for descriptor in descriptors:
        os.set_inheritable(descriptor, False)  # recv_fds of this Python ignores its flags.
    return (json.loads(data) if data else None), list(descriptors)


def outer_pid_of(pidfd: int) -> int:
    """The number under which the machine's own /proc shows the process."""
    for line in Path(f"/proc/self/fdinfo/{pidfd}").read_text(encoding="ascii").splitlines():
        if line.startswith("Pid:"):
            return int(line.split()[1])
    raise LabError("the kernel does not show the process of a pidfd")


class Process:
    """A program running in a host. `pid` is its number in there, `outer_pid` on the machine.

    Signals go through a pidfd, so they never hit another process that got the same number.
    """

    def __init__(self, answer: socket.socket, argv: Sequence[str], timeout: float) -> None:
        self.argv = list(argv)
        self._answer = answer
        self._status: int | None = None
        self._lock = threading.Lock()
        answer.settimeout(timeout)
        message, handles = receive(answer)
        message = message or {"error": "the host has ended"}
        if "error" in message:
            raise LabError(message["error"])
        self.pid: int = message["pid"]
        self._pidfd = handles[0] if handles else -1
        self.outer_pid = outer_pid_of(self._pidfd) if handles else 0

    def __del__(self) -> None:
        if getattr(self, "_pidfd", -1) >= 0:
            os.close(self._pidfd)

    def poll(self) -> int | None:
        """Exit status, the negative signal number, or None while the process runs."""
        return self._collect(0.0)

    def wait(self, timeout: float = 20.0) -> int:
        """Wait for the end; LabError if the process still runs after `timeout` seconds."""
        status = self._collect(timeout)
        if status is None:
            raise LabError(f"{self.argv[0]} (pid {self.pid}) still runs after {timeout:.1f} s")
        return status

    def _collect(self, timeout: float) -> int | None:
        with self._lock:
            if self._status is None:
                self._answer.settimeout(timeout)
                try:
                    data = self._answer.recv(MAX_MESSAGE)
                except (BlockingIOError, TimeoutError):
                    return None
                # End of file: the host was closed, and its end killed everything inside.
                raw = json.loads(data)["status"] if data else int(signal.SIGKILL)
                self._status = os.waitstatus_to_exitcode(raw)
            return self._status

    @property
    def alive(self) -> bool:
        return self.poll() is None

    def signal(self, number: int) -> None:
        """Send a signal; nothing happens if the process has ended already."""
        if self._pidfd < 0:
            return
        try:
            signal.pidfd_send_signal(self._pidfd, number)
        except ProcessLookupError:
            pass

    def kill(self, timeout: float = 20.0) -> int:
        """SIGKILL and wait for the end."""
        self.signal(signal.SIGKILL)
        return self.wait(timeout)

    def freeze(self) -> None:
        """SIGSTOP, and wait until the process really stands still."""
        self.signal(signal.SIGSTOP)
        limit = time.monotonic() + 5.0
        while self.alive and self.state() != "T" and time.monotonic() < limit:
            time.sleep(0.002)

    def thaw(self) -> None:
        """SIGCONT."""
        self.signal(signal.SIGCONT)

    def state(self) -> str:
        """The kernel's state letter (R, S, D, T, Z)."""
        text = Path(f"/proc/{self.outer_pid}/stat").read_text(encoding="utf-8", errors="replace")
        return text.rpartition(")")[2].split()[0]

    def status_field(self, name: str) -> str:
        """A line of /proc/PID/status, for example "Threads" or "SigIgn"."""
        for line in Path(f"/proc/{self.outer_pid}/status").read_text().splitlines():
            if line.startswith(name + ":"):
                return line.partition(":")[2].strip()
        raise LabError(f"/proc/PID/status has no line {name}")

    def rss(self) -> int:
        """Resident memory in bytes."""
        # Exact, unlike what "status" shows, which lags behind by some pages of each thread.
        rows = Path(f"/proc/{self.outer_pid}/smaps_rollup").read_text().splitlines()
        return next(int(row.split()[1]) * 1024 for row in rows if row.startswith("Rss:"))

    def descriptors(self) -> dict[int, str]:
        """Open descriptors with what they lead to, as paths inside the host."""
        root = os.readlink(f"/proc/{self.outer_pid}/root")
        found = {}
        for entry in os.listdir(f"/proc/{self.outer_pid}/fd"):
            try:
                link = os.readlink(f"/proc/{self.outer_pid}/fd/{entry}")
            except FileNotFoundError:
                continue
            found[int(entry)] = link.removeprefix(root) if link.startswith(root + "/") else link
        return found


P = TypeVar("P", bound=Process)


class Namespaces:
    """Mount, network, PID, IPC and UTS namespaces with an init. They end with this process.

    With `files` the inside has a file tree of its own (see init.py); without, only the network
    is of interest. `disk` names a directory to be made for /etc/quoradmind and /var/log, which
    the keeper removes in the end.

    The constructor returns at once; `wait_ready` waits for the init. Several can thus start
    side by side.
    """

    def __init__(self, name: str, files: bool = True, disk: str | None = None) -> None:
        self.name = name
        self._lock = threading.Lock()
        ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        owner = os.pidfd_open(os.getpid())
        settings = {
            "name": name,
            "files": files,
            "disk": disk,
            "control": theirs.fileno(),
            "owner": owner,
        }
        self._control = ours
        try:
            self._keeper = subprocess.Popen(
                [PYTHON, "-IS", str(INIT), json.dumps(settings)],
                pass_fds=(theirs.fileno(), owner),
                stdin=subprocess.DEVNULL,
                stdout=subprocess.DEVNULL,
                stderr=subprocess.DEVNULL,
                start_new_session=True,
                cwd="/",
            )
        finally:
            os.close(owner)
            theirs.close()
        self.pid = 0

    def wait_ready(self) -> None:
        self._control.settimeout(START_TIMEOUT)
        message, handles = receive(self._control)
        message = message or {"error": "it ended at once"}
        if "error" in message:
            self.close()
            raise LabError(f"cannot make host {self.name}: {message['error']}")
        self._control.settimeout(None)
        self.pid = outer_pid_of(handles[0])
        os.close(handles[0])

    @property
    def root(self) -> Path:
        """The file tree inside, as a path on the machine. Absolute links in it lead astray."""
        if not self.pid:
            raise LabError(f"host {self.name} is closed")
        return Path(f"/proc/{self.pid}/root")

    def _request(self, message: Mapping[str, object], descriptors: Sequence[int]) -> socket.socket:
        ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        with theirs, self._lock:
            if not self.pid:
                raise LabError(f"host {self.name} is closed")
            data = json.dumps(message).encode()
            socket.send_fds(self._control, [data], [*descriptors, theirs.fileno()])
        return ours

    def spawn(
        self,
        kind: type[P],
        argv: Sequence[str],
        streams: Sequence[int],
        env: Mapping[str, str] | None = None,
    ) -> P:
        """Start a program (absolute path) as a child of PID 1 in a session of its own.

        It gets the three streams and no other descriptor, default signals and an empty mask.
        """
        message = {"op": "spawn", "argv": list(argv), "env": {**ENVIRONMENT, **(env or {})}}
        return kind(self._request(message, streams), argv, START_TIMEOUT)

    def adopt(self, kind: type[P], name: str, after: int, argv: Sequence[str]) -> P:
        """The process that a launcher (pid `after`) left behind under PID 1, alive or ended."""
        message = {"op": "adopt", "name": name, "after": after}
        return kind(self._request(message, []), argv, START_TIMEOUT)

    def open_socket(self, kind: int) -> socket.socket:
        """An IPv4 socket of this network in the calling process."""
        made: list[socket.socket] = []

        def make() -> None:
            with open(f"/proc/{self.pid}/ns/net", encoding="ascii") as network:
                if ctypes.CDLL(None).setns(network.fileno(), CLONE_NEWNET) == 0:
                    made.append(socket.socket(socket.AF_INET, kind))

        # A thread of its own: only the thread that changes its network leaves the machine's.
        thread = threading.Thread(target=make)
        thread.start()
        thread.join()
        if not made:
            raise LabError(f"no socket in host {self.name}")
        return made[0]

    def begin_close(self) -> None:
        """Tell the init to end; shutdown, because a forked child may hold a copy of the socket."""
        with self._lock:
            self.pid = 0
            try:
                self._control.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def close(self) -> None:
        """End everything inside and wait until it has ended."""
        self.begin_close()
        self._keeper.wait()
        self._control.close()
