"""How a daemon starts, decides its role, and ends when it cannot."""

import re
import socket

from lab import wait_until
from peer import LIMIT, PORT

ERROR_FILE = "/var/log/qudpserver.err"
# What a daemon opens itself, for good or for a moment.
OWN = re.compile(
    r"socket:|anon_inode:|/run/quorsyncd.lock|/var/log/quorsyncd|/etc/quoradmind/|/proc/"
)
# Holds a descriptor open that a detached daemon must not keep.
LEAKING = ("/bin/sh", "-c", 'exec 7</etc/passwd; exec "$@"', "sh")


def test_a_detached_daemon_is_alone(pair_factory):
    pair = pair_factory(wrapper=LEAKING)
    master, slave = pair.master, pair.slave
    tail = "an older line\n" * 5000
    (master.root / ERROR_FILE[1:]).write_text(tail)
    (slave.root / ERROR_FILE[1:]).mkdir()  # Cannot be opened.
    pair.start(foreground=False)
    slave.wait_log("bottle=2, status=71", LIMIT)
    daemons = (pair.master_daemon, pair.slave_daemon)
    for host, daemon, output in zip((master, slave), daemons, (ERROR_FILE, "/dev/null")):
        assert daemon.launcher_status == 0
        assert (daemon.pid, 1, daemon.pid, "quorsyncd") in host.processes()
        assert host.shell(f"readlink /proc/{daemon.pid}/cwd") == "/\n"
        descriptors = daemon.descriptors()
        assert [descriptors[number] for number in range(3)] == [output] * 3
        assert not [link for link in set(descriptors.values()) - {output} if not OWN.match(link)]
    text = (master.root / ERROR_FILE[1:]).read_text()
    assert text.startswith("quorsyncd:2.1 ") and text.endswith(tail[-1000:])
    assert len(text) == len(tail)  # Written over from the start, not cut, not added to.


def test_a_reader_of_the_output_that_ends_leaves_the_daemon(pair_factory):
    pair = pair_factory(wrapper=("/bin/bash", "-c", 'exec > >(head -n 1); exec "$@"', "bash"))
    pair.start()
    pair.slave.wait_log("bottle=2, status=71", LIMIT)
    beats = len(pair.slave.find_log("bottle=2, status=71"))
    wait_until(lambda: len(pair.slave.find_log("bottle=2, status=71")) > beats, LIMIT, "one more")
    assert pair.master_daemon.alive and pair.slave_daemon.alive


def test_a_taken_port_ends_a_daemon(pair_factory, run_daemon):
    """Attached and detached: a library's threads must not keep a detached one from ending."""
    pair = pair_factory()
    master, slave = pair.master, pair.slave
    with slave.line.open_socket() as listener, master.line.open_socket(socket.SOCK_DGRAM) as udp:
        listener.bind(("", PORT))
        listener.listen()
        udp.bind(("", PORT))
        late = [run_daemon(host, foreground=False) for host in (master, slave)]
        assert [daemon.launcher_status for daemon in late] == [0, 0]
        assert [daemon.wait(LIMIT) for daemon in late] == [1, 11]
        late = [run_daemon(host) for host in (master, slave)]
        assert [daemon.wait(LIMIT) for daemon in late] == [1, 11]
    assert len(master.find_log("Bind error:Address already in use")) == 2
    deaf = "TcpBuildListen error:Address already in use --slave_thread--237"
    assert len(slave.find_log(deaf)) == 2


def test_a_second_daemon_leaves_no_trace(pair_factory):
    def state(host):
        """The settings, and the semaphore but for the time of its last use: a start sets it."""
        table = [line.split() for line in host.shell("cat /proc/sysvipc/sem").splitlines()]
        return host.config.items(), [row[:-2] + row[-1:] for row in table]

    pair = pair_factory()
    pair.start()
    pair.slave.wait_log("bottle=2, status=71", LIMIT)
    both = (pair.master, pair.master_daemon, 1), (pair.slave, pair.slave_daemon, 11)
    for host, first, status in both:
        before, text = state(host), f"runs on this host, pid {first.pid}; this one ends"
        for arguments in (["--help"], []):
            mark = host.log_mark()
            second = host.run([host.expose(pair.executable), *arguments])
            assert second.returncode == status
            assert second.stderr.decode() == f"quorsyncd: another one {text}\n"
            assert [line.level for line in host.find_log(f"another daemon {text}", mark)] == ["ERROR"]
        assert len(host.find_log("ha :")) == 1
        # Without the page of the first one, the settings tell its role.
        (host.root / "run/quorsyncd.state").unlink()
        assert host.run([host.expose(pair.executable)]).returncode == status
        assert state(host) == before and first.alive
    assert not pair.slave.find_log("become a master host")


def test_marks_in_the_configuration_at_start(pair_factory):
    pair = pair_factory(slave_config={"dsver": "", "dhcp": "on"})
    pair.start()
    wait_until(lambda: pair.master.config.get("dsver"), LIMIT, "the master's stamp")
    assert re.fullmatch(rb"\d{14}", pair.master.config.get("dsver"))
    pair.slave.wait_log("bottle=", LIMIT)
    assert pair.slave.config.get("dsver") == b""
    pair.slave_daemon.kill()

    # A slave that gets no semaphore ends before its first heartbeat; the mark has gone by then.
    pair.slave.config.put("dhcp", "on")
    pair.slave.shell("echo '250 32000 32 0' > /proc/sys/kernel/sem; ipcrm --all=sem")
    mark = pair.slave.log_mark()
    assert pair.start_slave().wait(LIMIT) == 1
    assert pair.slave.find_log("failed to initialize semaphore", mark)
    assert not pair.slave.find_log("bottle=", mark)
    assert pair.slave.config.get("dhcp") is None


def test_a_host_without_a_role_waits_for_one(empty_lab, run_daemon):
    switched_off, third, alone = empty_lab.add_hosts(["off", "third", "alone"])
    hosts = (switched_off, third, alone)
    off, three, one = (host.address for host in hosts)
    everyone = f"{off},{one},{three}"
    common = {"ha": "enable", "server_list": everyone, "master": off}
    switched_off.config.fill(common | {"ha": "Enable"})
    third.config.fill(common)
    alone.config.fill(common | {"server_list": one})
    daemons = [run_daemon(host) for host in hosts]
    switched_off.wait_log("ha :Enable", LIMIT)
    third.wait_log("first_ip:", LIMIT)
    alone.wait_log(f"server_list:1,{one}", LIMIT)

    switched_off.config.put("ha", "enable")
    third.config.put("server_list", f"{off},{three}")
    alone.config.put("server_list", f"{one},{off}")
    for host, role in ((switched_off, "master"), (third, "slave"), (alone, "slave")):
        host.wait_log(f"quorsyncd_role:{role}", LIMIT)
        texts = [line.text for line in host.log_lines()]
        attempts = texts[: texts.index(f"quorsyncd_role:{role}")]
        assert len([text for text in attempts if text.startswith("ha :")]) > 1
    assert all(daemon.alive for daemon in daemons)
