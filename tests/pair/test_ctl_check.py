"""What the operator's tool finds on a host: check."""

import json

import pytest
from lab import wait_until
from lab.faults import BOUND_BY_MODES
from lab.file_service import FileService
from peer import LIMIT

FINE, PROBLEM, WRONG_USE, CANNOT_TELL = range(4)
PIPE = "/var/lib/quoradmind/dhcp_fifo"
LISTENER = "import socket, time; s = socket.create_server(('', 13233)); time.sleep(1000)"
DROPS = b"""table inet t {
    chain c {
        type filter hook input priority 0
        tcp dport %d drop
    }
}"""
READER = f"import os, time; os.open('{PIPE}', os.O_RDONLY | os.O_NONBLOCK); time.sleep(1000)"


@pytest.fixture
def host(empty_lab, ctl):
    """A master by its settings, on which nothing is wrong; no daemon runs."""
    one, two = empty_lab.add_hosts(["one", "two"])
    servers = f"{one.address},{two.address}"
    one.good = {"ha": "enable", "server_list": servers, "master": one.address}
    one.config.fill(one.good | {"config_db_version": "1", "dsver": "20261116035226"})
    one.client.put("MAC", "settings")
    one.shell(f"mkdir -p {PIPE.rpartition('/')[0]}; mkfifo {PIPE}")
    assert ctl(one, "check")[0] == FINE
    return one


@pytest.fixture
def faults(ctl, traces):
    """Runs check: the exit code, and by name what is not well. It must leave no trace."""

    def run(host):
        before = traces(host)
        code, out, _ = ctl(host, "check", "--json")
        assert not traces(host) ^ before
        bad = [each for each in json.loads(out)["findings"] if each["mark"] != "ok"]
        assert all(each["remedy"] for each in bad)
        return code, {each["name"]: f"{each['mark']}: {each['text']}" for each in bad}

    return run


SETTINGS = [
    ("ha", "Enable", {"ha": "not exactly", "role": "'ha' is not exactly"}),
    ("server_list", "10.77.0.1", {"server_list": "fewer than two", "role": "fewer than two"}),
    ("server_list", "10.77.0.1, 10.77.0.2", {"server_list": "blank"}),
    ("server_list", "10.77.0.8,10.77.0.9", {"address": "10.77.0.1 is not in"}),
    ("master", "", {"master": "missing", "role": "'master' is missing"}),
    ("server_list", "10.77.0.8,10.77.0.9,10.77.0.1", {}),
    ("master_paths", "10.77.0.9", {}),
    ("master_paths", "10.77.0.2,ten", {"master_paths": '"ten" is not a dotted IPv4 address'}),
    ("master_paths", "10.99.0.1", {"master_paths": "10.99.0.1 cannot be reached: no route"}),
    ("config_db_version", "one#two", {"settings": "separates the two stamps"}),
    ("dhcpcfg", "x" * 1024, {"settings": '"dhcpcfg" too long'}),
]


@pytest.mark.sanitizer
def test_settings_that_keep_a_pair_from_work(host, faults):
    for key, value, expected in SETTINGS:
        host.config.put(key, value)
        code, found = faults(host)
        assert code == (PROBLEM if expected else FINE), (key, value, found)
        for name, text in expected.items():
            assert found[name].startswith("problem: ") and text in found[name]
        host.config.delete(key)
        host.config.fill(host.good)
    assert "no later change" in faults(host)[1]["config_db_version"]
    host.config.fill({"master": "10.77.0.2", "server_list": "10.77.0.2,10.77.0.3,10.77.0.1"})
    code, found = faults(host)
    host.config.put("master_paths", "10.77.0.1")
    assert "an address of this host" in faults(host)[1]["master_paths"]
    host.config.delete("master_paths")
    assert code == PROBLEM and "this host: no role, waits for ever" in found["role"]
    assert "the master is 10.77.0.2, the slave 10.77.0.3" in found["role"]
    assert "config_db_version" not in found
    host.config.fill(host.good)
    host.shell("ip link set eth0 down")
    code, found = faults(host)
    assert code == PROBLEM and "no interface eth*" in found["address"] and "role" in found


# Not for the sanitizers: the library leaks memory when it finds a file damaged.
def test_database_files_that_are_not_well(host, faults, ctl):
    host.client.put("LONG", "x" * 1024)
    host.client.put("dbver", "1")
    code, found = faults(host)
    assert code == PROBLEM and "2 of 3 records cannot be sent" in found["clients"]
    assert '"LONG" too long' in found["clients"] and '"dbver"' in found["clients"]
    stores = host.root / "etc/quoradmind"
    previous = stores / "client.db.previous"
    previous.write_bytes((stores / "client.db").read_bytes())
    assert "has not ended" in faults(host)[1][previous.name]
    previous.write_bytes(b"")
    assert "too short" in faults(host)[1][previous.name]
    previous.unlink()
    for name in ("__db.client.db", "client.db.damaged"):
        (stores / name).touch()
    (stores / "10.77.0.2.db").write_bytes(b"no database, but longer than the page's head")
    client = stores / "client.db"
    client.write_bytes(client.read_bytes()[:4096] + b"\xff" * 4096)
    code, found = faults(host)
    assert code == PROBLEM and "does not verify" in found["client.db"]
    assert "not a hash database" in found["10.77.0.2.db"]
    assert found["__db.client.db"].startswith("warning: left by a process that was killed")
    assert "found damaged" in found["client.db.damaged"]
    client.unlink()
    started = faults(host)[1]["client list"]
    assert started.startswith("warning") and "a master empties its slave" in started
    host.config.put("client_db_version", "1")
    assert faults(host)[1]["client list"].startswith("problem")
    (stores / "config.db").unlink()
    code, found = faults(host)
    assert code == PROBLEM and "is missing" in found["config.db"] and "ha" not in found
    code, out, complaint = ctl(host, "check", "--warn")
    assert code == FINE and not out and "PROBLEM: config.db" in complaint
    code, out, _ = ctl(host, "status")
    assert code == PROBLEM and "config.db cannot be read" in out and "'ha'" not in out


def test_what_cannot_be_read_is_not_fine(host, daemon_path):
    host.shell("chmod 0 /etc/quoradmind")
    tool = host.expose(daemon_path.parent / "quorsyncctl")
    done = host.run([*BOUND_BY_MODES, tool, "check", "--json"])
    marks = {each["mark"] for each in json.loads(done.stdout)["findings"]}
    assert (done.returncode, marks) == (CANNOT_TELL, {"ok", "unknown"})


@pytest.mark.sanitizer
def test_a_host_that_is_not_well(host, faults, run_daemon, ctl):
    host.services.remove("stagd")
    host.shell("chmod 644 /usr/local/bin/evpost_ex; mount -t tmpfs -o size=64k tmpfs /var/log")
    listener = host.popen(["/usr/bin/python3", "-c", LISTENER])
    port = "port 13233/tcp"
    wait_until(lambda: port in faults(host)[1], LIMIT, "the listener")
    code, found = faults(host)
    assert code == PROBLEM and f"held by python3 (pid {listener.pid})" in found[port]
    assert "is missing" in found["/usr/local/bin/stagd"]
    assert "cannot be executed" in found["/usr/local/bin/evpost_ex"]
    assert "full" in found["/var/log"]
    listener.kill()
    host.shell("umount /var/log; chmod 755 /usr/local/bin/evpost_ex")
    host.services.install("stagd")

    # Nobody reads the pipe of a running quordhcpd; then somebody does.
    host.shell("/usr/local/bin/quordhcpd")
    assert "no process reads it" in faults(host)[1][PIPE]
    reader = host.popen(["/usr/bin/python3", "-c", READER])
    wait_until(lambda: PIPE not in faults(host)[1], LIMIT, "the reader")
    assert f"read by python3 (pid {reader.pid})" in ctl(host, "check")[1]
    (host.root / PIPE[1:]).unlink()
    (host.root / PIPE[1:]).touch()
    assert "is not a named pipe" in faults(host)[1][PIPE]

    # Two daemons that wait for a role, and what a killed slave leaves behind.
    host.config.put("ha", "off")
    daemons = [run_daemon(host)]
    wait_until(lambda: host.find_log("ha :off"), LIMIT, "the first daemon")
    host.shell("mount -t tmpfs -o ro tmpfs /run")  # so that no lock tells of it
    daemons.append(run_daemon(host))
    host.wait_log("cannot be made, goes on without a state page", LIMIT)
    host.shell("umount /run")
    code, found = faults(host)
    assert "listens on no port" in found["daemon"]
    assert "2 daemons" in ctl(host, "check")[1]
    code, out, _ = ctl(host, "status")
    assert code == PROBLEM and "PROBLEM" in out
    assert "2 daemons run" in out and "waits for a role" in out
    for daemon in daemons:
        daemon.kill()
    host.config.fill(host.good | {"master": "10.77.0.2"})
    slave = run_daemon(host)
    host.wait_log("bottle=1", LIMIT)
    slave.kill()
    assert "left over" in faults(host)[1]["semaphore"]


def test_a_running_pair_and_its_settings(pair, ctl):
    master, slave = pair.master, pair.slave
    pair.wait_equal(LIMIT)

    def found(host, *options):
        told = json.loads(ctl(host, "check", "--json", *options)[1])["findings"]
        return {each["name"]: f"{each['mark']}: {each['text']}; {each['remedy']}" for each in told}

    def pair_findings(host, *options):
        return {name: text for name, text in found(host, *options).items() if "peer" in name}

    told = found(master)
    assert told["quordhcpd"].startswith("problem") and "start boot" in told["stagd"]
    assert told["copy of 10.77.0.2"].startswith("warning: never fetched")
    assert "copy of 10.77.0.2  never fetched\n" in ctl(master, "status")[1]
    assert ctl(master, "service", "start", "boot")[0] == FINE
    assert ctl(slave, "service", "start", "boot", "--force")[0] == FINE
    assert not {"quordhcpd", "stagd"} & set(found(master))
    assert found(slave)["stagd"].startswith("problem: runs on a slave")
    assert ctl(slave, "service", "stop", "boot")[0] == FINE
    with FileService(slave), FileService(master):
        for host in (master, slave):
            told = pair_findings(host, "--peer")
            assert {text.partition(":")[0] for text in told.values()} == {"ok"}, told
            assert "carry heartbeats and answers" in told["peer ports"]
            assert found(host)["running role"].startswith("ok")
        # What a daemon was started with stays, whatever the settings say now.
        slave.config.fill({"master": slave.address, "master_paths": "10.77.0.99"})
        text = found(slave)["running role"]
        assert text.startswith("problem: the daemon runs as slave") and "restart needed" in text
        told = pair_findings(master, "--peer", slave.address)
        assert told["peer master"].startswith("problem") and "two masters" in told["peer master"]
        slave.config.put("master", master.address)
        told = pair_findings(master, "--peer")
        assert "10.77.0.99 is no address of this host" in told["peer master_paths"]
        slave.config.put("server_list", f"{master.address},10.77.0.9")
        told = pair_findings(master, "--peer", slave.address)
        assert told["peer server_list"].startswith("problem"), told

        # A packet filter that drops, and nobody who listens.
        slave.run(["/usr/sbin/nft", "-f", "-"], input=DROPS % 3223, check=True)
        told = pair_findings(master, "--peer", slave.address)
        assert "does not answer" in told["peer config.db"]
        assert "a packet filter drops" in told["peer config.db"]
        slave.shell("nft flush ruleset")
    text = pair_findings(master, "--peer", slave.address)["peer config.db"]
    assert text.startswith("problem") and "Connection refused" in text
    # Heartbeats come in, and no answer goes out.
    slave.run(["/usr/sbin/nft", "-f", "-"], input=DROPS % 13233, check=True)

    def unanswered():
        text = pair_findings(master, "--peer", slave.address)["peer ports"]
        return text.startswith("problem: no answered heartbeat") and "a packet filter" in text

    wait_until(unanswered, LIMIT, "answers that are missed")
