"""One host of the lab: its programs, stores and logs."""

import itertools
import os
import re
import subprocess
from collections.abc import Mapping, Sequence
from pathlib import Path
from typing import Protocol, TypeVar

from .line import Line
from .logs import LogLine, LogMark, Logs
from .namespaces import Namespaces, Process
from .network import Switch
from .services import KILLALL, Services
from .store import MACHINE, Store, StoreWorker
from .wait import LabError, wait_until

DETACH_SECONDS = 20.0
EVIDENCE_LINES = 60
COMM_LENGTH = 15


class HasFileno(Protocol):
    """A file, a socket."""

    def fileno(self) -> int: ...


Stream = int | HasFileno | None
P = TypeVar("P", bound=Process)


class Daemon(Process):
    """A running quorsyncd: the daemon itself, also where it detached itself from its launcher.

    `output` holds what went to standard output and error: a file of the lab for the foreground
    form, for the detached form the error file that the daemon opens itself. `launcher_status`
    is how the launcher of the detached form ended.
    """

    output: Path
    launcher_status: int | None = None

    def output_text(self) -> str:
        try:
            return self.output.read_bytes().decode(errors="replace")
        except (FileNotFoundError, IsADirectoryError):
            return ""


class Host:
    """Made by Lab.add_hosts. Paths given to its methods are paths inside the host."""

    def __init__(self, inside: Namespaces, line: Line, address: str) -> None:
        self.name = inside.name
        self.address = address
        self.line = line
        self.daemons: list[Daemon] = []
        self._inside = inside
        self._numbers = itertools.count(1)

    def set_up(self, prefix_length: int) -> None:
        """The second half of making a host, once its init is ready."""
        self._connect(self.line, "eth0", self.address, prefix_length)
        self.services = Services(self)
        self.logs = Logs(self.root)
        self._worker = StoreWorker(self)
        self._worker.start()
        self.config = self.store("config.db")
        self.client = self.store("client.db")

    def add_second_line(self, switch: Switch, port: str, address: str, prefix_length: int) -> None:
        """Another interface, eth1, on another switch."""
        self.second_line, self.second_address = Line(self._inside, switch, port), address
        self._connect(self.second_line, "eth1", address, prefix_length)

    def _connect(self, line: Line, interface: str, address: str, prefix_length: int) -> None:
        line.plug(interface)
        self.run(
            ["/usr/sbin/ip", "-batch", "-"],
            input=f"link set lo up\naddr add {address}/{prefix_length} dev {interface}\n"
            f"link set {interface} up\n".encode(),
            check=True,
        )

    @property
    def root(self) -> Path:
        """The host's file tree as a path on the machine. Absolute links in it lead astray."""
        return self._inside.root

    @property
    def enter_command(self) -> str:
        """What an operator types to get a shell in the host."""
        return (
            f"/usr/bin/nsenter --target {self._inside.pid} --all --root --wd "
            f"/usr/bin/env -i TERM=$TERM PS1='{self.name}# ' /bin/sh"
        )

    # Programs

    def popen(
        self,
        argv: Sequence[str],
        stdin: Stream = None,
        stdout: Stream = None,
        stderr: Stream = None,
        env: Mapping[str, str] | None = None,
    ) -> Process:
        """Start a program (absolute path). Streams not given are /dev/null."""
        return self._popen(Process, argv, (stdin, stdout, stderr), env)

    def _popen(
        self,
        kind: type[P],
        argv: Sequence[str],
        streams: tuple[Stream, Stream, Stream],
        env: Mapping[str, str] | None,
    ) -> P:
        null = os.open("/dev/null", os.O_RDWR)
        try:
            numbers = [
                null if stream is None else stream if isinstance(stream, int) else stream.fileno()
                for stream in streams
            ]
            return self._inside.spawn(kind, argv, numbers, env)
        finally:
            os.close(null)

    def run(
        self,
        argv: Sequence[str],
        input: bytes = b"",
        timeout: float = 60.0,
        check: bool = False,
        env: Mapping[str, str] | None = None,
    ) -> subprocess.CompletedProcess[bytes]:
        """Run a program to its end. Output goes through memory files, so that a process it
        leaves behind cannot hold the caller up."""
        with (
            os.fdopen(os.memfd_create("stdin"), "w+b") as given,
            os.fdopen(os.memfd_create("stdout"), "w+b") as out,
            os.fdopen(os.memfd_create("stderr"), "w+b") as err,
        ):
            given.write(input)
            given.seek(0)
            process = self.popen(argv, given, out, err, env)
            try:
                status = process.wait(timeout)
            except LabError:
                process.kill()
                raise
            out.seek(0)
            err.seek(0)
            done = subprocess.CompletedProcess(list(argv), status, out.read(), err.read())
        if check and status != 0:
            raise LabError(f"{self.name}: {' '.join(argv)}: {done.stderr.decode().strip()}")
        return done

    def shell(self, command: str, timeout: float = 60.0, check: bool = True) -> str:
        """Run a shell command and return its output; LabError if it fails."""
        done = self.run(["/bin/sh", "-c", command], timeout=timeout, check=check)
        return done.stdout.decode(errors="replace")

    def expose(self, path: str | Path) -> str:
        """Make a file of the machine appear in here, read only, under the same absolute path.

        The same path inside and outside is what symbolizers and debuggers need.
        """
        real = os.path.realpath(path)
        inner = self.root / real.lstrip("/")
        if not os.path.isfile(real):
            raise LabError(f"there is no file {real}")
        if inner.exists():
            if os.path.samestat(inner.stat(), os.stat(real)):
                return real
            self.run(["/usr/bin/umount", "--lazy", real])  # It was rebuilt meanwhile.
        inner.parent.mkdir(parents=True, exist_ok=True)
        inner.touch()
        self.run(["/usr/bin/mount", "--bind", MACHINE + real, real], check=True)
        return real

    def start_daemon(
        self,
        executable: str | Path,
        foreground: bool = True,
        env: Mapping[str, str] | None = None,
        wrapper: Sequence[str] = (),
        arguments: Sequence[str] | None = None,
    ) -> Daemon:
        """Start a daemon of the machine in here.

        The foreground form gets one argument and is a child of the init. The detached form gets
        none; its launcher is waited for and the daemon it left behind is found. `wrapper` is put
        in front of the command, for example ["/usr/bin/setarch", "-R"]. `arguments` replaces the
        usual ones.
        """
        path = self.expose(executable)
        if arguments is None:
            arguments = ["foreground"] if foreground else []
        argv = [*wrapper, path, *arguments]
        output = self.root / f"lab/out/{next(self._numbers)}.out"
        with output.open("ab") as file:
            daemon = self._popen(Daemon, argv, (None, file, file), env)
        daemon.output = output
        if not foreground:
            daemon = self._find_detached(path, daemon)
        self.daemons.append(daemon)
        return daemon

    def kill_daemons(self, executable: str | Path) -> None:
        """SIGKILL to every process of this program, also where a wrapper stands before it."""
        name = os.path.basename(executable)[:COMM_LENGTH]

        def none_left() -> bool:
            self.run([KILLALL, "-9", name])
            return name not in (comm for *_, comm in self.processes())

        wait_until(none_left, DETACH_SECONDS, f"the end of every {name} of {self.name}")

    def _find_detached(self, path: str, launcher: Daemon) -> Daemon:
        status = launcher.wait(DETACH_SECONDS)
        name = os.path.basename(path)[:COMM_LENGTH]

        def find() -> Daemon | None:
            try:
                return self._inside.adopt(Daemon, name, launcher.pid, launcher.argv)
            except LabError:
                return None

        daemon = wait_until(find, DETACH_SECONDS, f"the detached {name} of {self.name}")
        assert daemon is not None
        daemon.launcher_status = status
        daemon.output = self.root / "var/log/qudpserver.err"
        return daemon

    def processes(self) -> list[tuple[int, int, int, str]]:
        """(pid, ppid, session, name) of every process in here."""
        found = []
        for entry in os.listdir(self.root / "proc"):
            if entry.isdigit():
                try:
                    text = (self.root / "proc" / entry / "stat").read_text(errors="replace")
                except (FileNotFoundError, ProcessLookupError):
                    continue
                head, _, tail = text.rpartition(") ")
                fields = tail.split()
                name = head.partition("(")[2]
                if fields[0] not in "ZX":
                    found.append((int(entry), int(fields[1]), int(fields[3]), name))
        return sorted(found)

    # Stores and logs

    def store(self, name: str) -> Store:
        """A database file of /etc/quoradmind, or any other by its absolute path."""
        path = name if name.startswith("/") else f"/etc/quoradmind/{name}"
        return Store(self._worker, self.name, self.root, path)

    def log_mark(self) -> LogMark:
        return self.logs.mark()

    def log_lines(self, after: LogMark | None = None) -> list[LogLine]:
        return self.logs.lines(after)

    def find_log(
        self, pattern: str | re.Pattern[str], after: LogMark | None = None
    ) -> list[LogLine]:
        """Lines that contain the text, or in which the compiled expression is found."""
        return self.logs.find(pattern, after)

    def wait_log(
        self,
        pattern: str | re.Pattern[str],
        timeout: float = 20.0,
        after: LogMark | None = None,
    ) -> LogLine:
        """Wait for a line behind the mark (or any line) and return it."""
        return self.logs.wait(pattern, timeout, after, self.name)

    def evidence(self) -> str:
        """What a reader of a failed test wants to see of this host."""
        text = [f"===== {self.name} {self.address}", "--- last log lines"]
        text += [str(line) for line in self.log_lines()[-EVIDENCE_LINES:]]
        for daemon in self.daemons:
            status = daemon.poll()
            state = "runs" if status is None else f"ended with {status}"
            text.append(f"--- output of {' '.join(daemon.argv)} (pid {daemon.pid}, {state})")
            text += daemon.output_text().splitlines()[-EVIDENCE_LINES:]
        text.append("--- calls of the stubs")
        text += [f"{call.monotonic:.3f} {' '.join(call.argv)}" for call in self.services.calls()]
        text.append("--- processes")
        text.append(self.shell("/usr/bin/ps -eo pid,ppid,stat,etimes,args", check=False))
        return "\n".join(text)

    def begin_close(self) -> None:
        self._inside.begin_close()

    def close(self) -> None:
        self._inside.close()
