"""The program behind every namespace of the lab: a keeper outside and PID 1 inside.

It is started as a script of its own, never imported: `python3 -IS init.py SETTINGS`, SETTINGS
being JSON. Two processes come of it:

* the keeper, outside the new PID namespace. It ends PID 1 when the owner (the Python process that
  uses the lab) dies, however it dies, and removes the directory on the real disk afterwards, when
  nobody can write into it any more.
* PID 1 of the new namespaces. It builds the private file tree, starts programs on request, reaps
  orphans, and ends when the control socket ends. The kernel then kills everything else in here.

The owner is watched through a pidfd: a forked child of the owner may hold a copy of the control
socket open, so an end of file alone would not do.
"""

import array
import ctypes
import fcntl
import json
import os
import select
import shutil
import signal
import socket
import sys
import traceback

CLONE_NEWNS = 0x00020000
CLONE_NEWUTS = 0x04000000
CLONE_NEWIPC = 0x08000000
CLONE_NEWPID = 0x20000000
CLONE_NEWNET = 0x40000000
MS_RDONLY, MS_REMOUNT, MS_BIND, MS_REC, MS_PRIVATE = 0x1, 0x20, 0x1000, 0x4000, 0x40000
PR_SET_PDEATHSIG = 1
SYS_PIVOT_ROOT = {"x86_64": 155, "aarch64": 41, "riscv64": 41}

MACHINE = "/.machine"
PRIVATE_DIRECTORIES = (
    "/etc/quoradmind",
    "/etc/quorsyncd",
    "/var/log",
    "/var/lib/quoradmind",
    "/lab/out",
    "/root",
    "/run",
    "/proc",
    "/dev",
)
MAX_MESSAGE = 1 << 18
MAX_DESCRIPTORS = 8

libc = ctypes.CDLL(None, use_errno=True)


def check(result, what):
    if result < 0:
        code = ctypes.get_errno()
        raise OSError(code, f"{what}: {os.strerror(code)}")


def mount(source, target, kind=None, flags=0, options=None):
    words = [None if text is None else os.fsencode(text) for text in (source, target, kind)]
    data = None if options is None else options.encode()
    check(libc.mount(*words, ctypes.c_ulong(flags), data), f"mount {target}")


def bind(source, target, read_only=False):
    """The new mount would inherit "read only" from its source: it is always set as wanted."""
    mount(source, target, flags=MS_BIND | MS_REC)
    mount(None, target, flags=MS_REMOUNT | MS_BIND | (MS_RDONLY if read_only else 0))


def move_to_empty_root():
    """Make an empty tmpfs the root directory; the machine's own tree stays under /.machine.

    Works in a plain chroot, too, where "/" is no mount point: the tree is first bound to a place
    of its own, because only a mount point can be a root that is exchanged.
    """
    machine = os.open("/", os.O_PATH | os.O_DIRECTORY)
    own = os.open("/proc/self/ns/mnt", os.O_RDONLY)
    check(libc.setns(own, CLONE_NEWNS), "setns")
    mount(None, "/", flags=MS_REC | MS_PRIVATE)
    os.fchdir(machine)
    mount(".", "tmp", flags=MS_BIND | MS_REC)
    os.chdir("tmp")
    os.chroot(".")
    mount("lab", "/tmp", "tmpfs", options="mode=755")
    os.mkdir("/tmp" + MACHINE)
    number = SYS_PIVOT_ROOT[os.uname().machine]
    check(libc.syscall(number, b"/tmp", os.fsencode("/tmp" + MACHINE)), "pivot_root")
    os.chdir("/")
    os.close(machine)
    os.close(own)


def bind_system():
    """The machine's programs and libraries, read only: nothing in here can change the machine."""
    for name in os.listdir(MACHINE):
        inside, outside = "/" + name, f"{MACHINE}/{name}"
        if os.path.islink(outside):
            os.symlink(os.readlink(outside), inside)
        elif name in ("usr", "bin", "sbin") or name.startswith("lib"):
            if name != "lab" and os.path.isdir(outside):
                os.mkdir(inside)
                bind(outside, inside, read_only=True)
    mount(None, MACHINE, flags=MS_REMOUNT | MS_BIND | MS_RDONLY)


def write_etc(hostname):
    """The few files of /etc that programs need; names are looked up in files only."""
    for name in ("passwd", "group", "ld.so.cache", "localtime", "services", "protocols"):
        if os.path.exists(f"{MACHINE}/etc/{name}"):
            shutil.copyfile(f"{MACHINE}/etc/{name}", f"/etc/{name}")
    if os.path.isdir(f"{MACHINE}/etc/alternatives"):
        os.mkdir("/etc/alternatives")
        bind(f"{MACHINE}/etc/alternatives", "/etc/alternatives", read_only=True)
    for name, text in (
        ("nsswitch.conf", "passwd: files\ngroup: files\nhosts: files\n"),
        ("hosts", f"127.0.0.1 localhost {hostname}\n"),
        ("hostname", f"{hostname}\n"),
    ):
        with open(f"/etc/{name}", "w", encoding="ascii") as file:
            file.write(text)


def build_files(settings):
    move_to_empty_root()
    os.umask(0o022)
    bind_system()
    for path in PRIVATE_DIRECTORIES:
        os.makedirs(path)
    os.mkdir("/tmp")
    os.chmod("/tmp", 0o1777)
    write_etc(settings["name"])
    mount("lab", "/usr/local/bin", "tmpfs", options="mode=755")
    mount("proc", "/proc", "proc")
    bind(MACHINE + "/dev", "/dev")
    if os.path.isdir("/dev/shm"):
        mount("lab", "/dev/shm", "tmpfs", options="mode=1777")
    if settings["disk"]:
        bind(f"{MACHINE}{settings['disk']}/etc", "/etc/quoradmind")
        bind(f"{MACHINE}{settings['disk']}/log", "/var/log")


def write_sysctl(name, value):
    path = "/proc/sys/net/" + name
    if os.path.exists(path):
        with open(path, "w", encoding="ascii") as file:
            file.write(value)


def prepare(settings):
    """Everything that must be so before the first program runs."""
    socket.sethostname(settings["name"])
    # Many short connections between two hosts would fill the machine-wide TIME_WAIT table.
    write_sysctl("ipv4/tcp_max_tw_buckets", "0")
    # Every kernel allows this one in a namespace. A machine's default that paces what it sends, as
    # bbr does, would give a push the speed of its timers.
    write_sysctl("ipv4/tcp_congestion_control", "reno")
    for scope in ("all", "default", "lo"):
        write_sysctl(f"ipv6/conf/{scope}/disable_ipv6", "1")
    if settings["files"]:
        build_files(settings)


def send(sock, message, descriptors=()):
    rights = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", descriptors))]
    try:
        sock.sendmsg([json.dumps(message).encode()], rights if descriptors else [])
    except OSError:
        pass  # The owner no longer wants to know.


def receive(sock):
    data, descriptors, _, _ = socket.recv_fds(sock, MAX_MESSAGE, MAX_DESCRIPTORS)
    for descriptor in descriptors:
        os.set_inheritable(descriptor, False)  # recv_fds of this Python ignores its flags.
    return (json.loads(data) if data else None), descriptors


def name_of(pid):
    with open(f"/proc/{pid}/comm", encoding="utf-8", errors="replace") as file:
        return file.read().rstrip("\n")


def parent_of(pid):
    with open(f"/proc/{pid}/stat", encoding="utf-8", errors="replace") as file:
        return int(file.read().rpartition(")")[2].split()[1])


class Init:
    """PID 1: answers the owner, starts programs, reaps whatever ends."""

    def __init__(self, control):
        self.control = control
        self.watched = {}  # pid -> socket that is told how the process ended
        self.reaped = {}  # pid -> (name, wait status) of those nobody watched

    def spawn(self, request, descriptors):
        *standard, answer = descriptors
        answer = socket.socket(fileno=answer)
        try:
            pid = os.posix_spawn(
                request["argv"][0],
                request["argv"],
                request["env"],
                file_actions=[(os.POSIX_SPAWN_DUP2, fd, n) for n, fd in enumerate(standard)],
                setsid=True,
                setsigmask=[],
                setsigdef=signal.valid_signals() - {signal.SIGKILL, signal.SIGSTOP},
            )
        except OSError as error:
            send(answer, {"error": f"{request['argv'][0]}: {error.strerror}"})
        else:
            self.watch(pid, answer)
        for fd in standard:
            os.close(fd)

    def watch(self, pid, answer):
        self.watched[pid] = answer
        handle = os.pidfd_open(pid)
        send(answer, {"pid": pid}, [handle])
        os.close(handle)

    def adopt(self, request, descriptors):
        """Find the process that a launcher left behind, alive or already ended."""
        answer = socket.socket(fileno=descriptors[0])
        name, after = request["name"], request["after"]
        for pid in sorted(int(entry) for entry in os.listdir("/proc") if entry.isdigit()):
            if pid > after and self.is_orphan(pid, name):
                self.watch(pid, answer)
                return
        for pid, (ended_name, status) in self.reaped.items():
            if pid > after and ended_name == name:
                send(answer, {"pid": pid})
                send(answer, {"status": status})
                return
        send(answer, {"error": f"no process {name} was left behind"})

    def is_orphan(self, pid, name):
        try:
            return parent_of(pid) == 1 and name_of(pid) == name and pid not in self.watched
        except OSError:
            return False

    def reap(self):
        while True:
            try:
                ended = os.waitid(os.P_ALL, 0, os.WEXITED | os.WNOHANG | os.WNOWAIT)
            except ChildProcessError:
                return
            if ended is None:
                return
            try:
                name = name_of(ended.si_pid)
            except OSError:
                name = ""  # Without files of its own, as in the switch, /proc is another one.
            pid, status = os.waitpid(ended.si_pid, 0)
            if pid in self.watched:
                with self.watched.pop(pid) as answer:
                    send(answer, {"status": status})
            else:
                self.reaped[pid] = (name, status)

    def serve(self):
        woken, waker = socket.socketpair()
        woken.setblocking(False)
        waker.setblocking(False)
        signal.set_wakeup_fd(waker.fileno(), warn_on_full_buffer=False)
        signal.signal(signal.SIGCHLD, lambda *_: None)
        send(self.control, {"ready": True}, [os.pidfd_open(os.getpid())])
        operations = {"spawn": self.spawn, "adopt": self.adopt}
        while True:
            ready, _, _ = select.select([self.control, woken], [], [])
            if woken in ready:
                woken.recv(4096)
                self.reap()
            if self.control in ready:
                request, descriptors = receive(self.control)
                if request is None:
                    return
                operations[request["op"]](request, descriptors)


def run_init(control, settings):
    """All that PID 1 does. It must never return into the keeper's code."""
    try:
        check(libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0), "prctl")
        prepare(settings)
        Init(control).serve()
    except BaseException:  # Whatever it is: the owner must be told, and PID 1 must end.
        send(control, {"error": traceback.format_exc()})
    finally:
        os._exit(0)


def keep(child, owner):
    """Wait until PID 1 has ended, or end it because the owner is gone."""
    handle = os.pidfd_open(child)
    poller = select.poll()
    poller.register(owner, select.POLLIN)
    poller.register(handle, select.POLLIN)
    if handle not in (fd for fd, _ in poller.poll()):
        os.kill(child, signal.SIGKILL)
    os.waitpid(child, 0)


def make_disk_directory(path):
    """The lock marks the directory as in use: a later lab sweeps those whose keeper was killed."""
    os.makedirs(path + "/etc")
    os.mkdir(path + "/log")
    fcntl.flock(os.open(path, os.O_RDONLY), fcntl.LOCK_EX)


def main():
    settings = json.loads(sys.argv[1])
    control = socket.socket(fileno=settings["control"])
    control.set_inheritable(False)
    os.set_inheritable(settings["owner"], False)
    try:
        if settings["disk"]:
            make_disk_directory(settings["disk"])
        wanted = CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID | CLONE_NEWIPC | CLONE_NEWUTS
        check(libc.unshare(wanted), "unshare")
        child = os.fork()
        if child == 0:
            run_init(control, settings)
        control.close()
        keep(child, settings["owner"])
    except OSError:
        send(control, {"error": traceback.format_exc()})
    if settings["disk"]:
        shutil.rmtree(settings["disk"], ignore_errors=True)


if __name__ == "__main__":
    main()
