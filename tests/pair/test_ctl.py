"""The operator's tool on hosts of the lab: store, diff, fetch, dhcpd-conf, service."""

import json
import os
import select
import signal
from pathlib import Path

import pytest
from lab import wait_until
from lab.file_service import FileService

FINE, PROBLEM, WRONG_USE, CANNOT_TELL = range(4)
STORES = "/etc/quoradmind"
# Goes into the background as the real one does.
DHCPD = """#!/bin/sh
[ $# -gt 0 ] || { "$0" again >/dev/null 2>&1 & exit 0; }
while :; do sleep 1; done
"""
NETWORK = {
    "default_address": "10.77.0.1",
    "netmask": "255.255.255.0",
    "gateway": "10.77.0.254",
    "dns_list": "10.77.0.1",
    "ip_begin": "10.77.0.100",
    "ip_end": "10.77.0.200",
}


@pytest.fixture
def couple(empty_lab):
    """A master and a slave by their settings; no daemon runs."""
    master, slave = hosts = empty_lab.add_hosts(["master", "slave"])
    for host in hosts:
        host.config.fill(
            {
                "ha": "enable",
                "server_list": f"{master.address},{slave.address}",
                "master": master.address,
                "config_db_version": "20200101000000",
            }
        )
    return hosts


@pytest.mark.sanitizer
def test_looking_at_a_store_leaves_no_trace(couple, ctl, traces):
    master, _ = couple
    master.config.put("odd", b"a\nb\\\xff")
    master.config.put("place", "B\u00fcro \u202e\u0085")
    servers = master.config.get("server_list").decode()
    assert ctl(master, "store", "get", "server_list") == (FINE, servers + "\n", "")
    before = traces(master)  # The first call has made the tool appear.
    _, dump, _ = ctl(master, "store", "dump")
    assert "\nodd=a\\x0ab\\\\\\xff\n" in dump and f"\nserver_list={servers}\n" in dump
    _, text, _ = ctl(master, "store", "dump", "--json")
    records = json.loads(text)
    assert "\nplace=B\u00fcro \\xe2\\x80\\xae\\xc2\\x85\n" in dump
    assert len(records) == 6 and records["ha"] == "enable" and records["odd"] == "a\\x0ab\\\\\\xff"
    assert ctl(master, "store", "verify")[0] == FINE

    code, out, complaint = ctl(master, "store", "get", "no such")
    assert (code, out) == (PROBLEM, "") and "no such" in complaint
    code, out, complaint = ctl(master, "store", "dump", "--file", "client")
    assert (code, out) == (CANNOT_TELL, "") and f"{STORES}/client.db" in complaint
    assert traces(master) == before

    (master.root / "tmp/damaged.db").write_bytes(os.urandom(16384))
    code, _, complaint = ctl(master, "store", "verify", "--file", "/tmp/damaged.db")
    assert code == PROBLEM and "/tmp/damaged.db is damaged" in complaint
    assert ctl(master, "store", "get", "key", "--file", "/tmp/damaged.db")[0] == CANNOT_TELL


@pytest.mark.sanitizer
def test_changes_of_a_store(couple, ctl):
    master, slave = couple
    assert ctl(master, "store", "put", "dhcpcfg", "new")[0] == FINE
    assert ctl(master, "store", "list-add", "servers", "a")[0] == FINE
    assert ctl(master, "store", "list-add", "servers", "b")[0] == FINE
    assert ctl(master, "store", "list-remove", "servers", "a")[0] == FINE
    assert ctl(master, "store", "put", "mac", "x" * 1023, "--file", "client")[0] == FINE
    assert master.config.get("dhcpcfg") == b"new" and master.config.get("servers") == b"b"
    assert master.client.items() == {b"mac": b"x" * 1023}
    stamps = [master.config.get("config_db_version")]
    for _ in range(3):
        code, out, _ = ctl(master, "store", "bump", "config")
        stamps.append(master.config.get("config_db_version"))
        assert code == FINE and f"{stamps[-2].decode()} -> {stamps[-1].decode()}" in out
    assert stamps == sorted(set(stamps)) and all(len(stamp) == 14 for stamp in stamps)
    # An operator wants to see it beside what the daemon did.
    assert len(master.find_log("quorsyncctl: bump config_db_version")) == 3
    assert ctl(master, "store", "del", "servers")[0] == FINE
    assert master.config.get("servers") is None
    assert ctl(master, "store", "del", "servers")[0] == PROBLEM
    assert ctl(master, "store", "list-remove", "server_list", "10.9.9.9")[0] == PROBLEM
    assert not (master.root / "var/log/quorsyncd.log").exists()

    before = master.config.items(), master.client.items()
    for wrong in (
        ["put", "config_db_version", "a#b"],
        ["put", "mac", "x" * 1024, "--file", "client"],
        ["list-add", "server_list", "10.0.0.1,10.0.0.2"],
        ["bump", "disk"],
        ["put", "key"],
        ["put", "key", "value", "--file", "cleint"],
        ["put", "ha", "Enable"],
        ["put", "master", "bogus"],
        ["put", "server_list", "10.77.0.1, 10.77.0.2"],
        ["put", "mac", "v\nquorsyncd:2.1 INFO :become a master host", "--file", "client"],
        ["put", "note", "x", "--bump"],
    ):
        code, _, complaint = ctl(master, "store", *wrong)
        assert code == WRONG_USE and complaint, wrong
    assert (master.config.items(), master.client.items()) == before

    for mirrored in (["put", "dhcpcfg", "x"], ["bump", "client"], ["del", "config_db_version"]):
        code, _, complaint = ctl(slave, "store", *mirrored)
        assert code == WRONG_USE and "--force" in complaint
    assert slave.config.get("dhcpcfg") is None
    assert ctl(slave, "store", "put", "dhcpcfg", "x", "--force")[0] == FINE
    assert ctl(slave, "store", "put", "ha", "disable")[0] == FINE
    stamp = ["config_db_version", "20990101000000"]
    assert "store bump" in ctl(master, "store", "put", *stamp, "--wait")[2]
    master.shell(f"mv {STORES} {STORES}.away")
    code, _, complaint = ctl(master, "store", "put", "note", "x")
    assert code == PROBLEM and f"{STORES}: No such file or directory" in complaint
    master.shell(f"mv {STORES}.away {STORES}")
    assert slave.config.get("dhcpcfg") == b"x" and slave.config.get("ha") == b"disable"


def test_a_change_carries_its_stamps_along(couple, ctl):
    master, slave = couple
    # Its master learns of a slave's own settings by their stamp.
    slave.config.put("dsver", "20200101000000")
    assert ctl(slave, "store", "put", "note", "x", "--keep-dsver")[0] == FINE
    assert slave.config.get("dsver") == b"20200101000000"
    for change in (["put", "note", "y"], ["list-add", "notes", "z"], ["del", "note"]):
        before = slave.config.get("dsver")
        assert ctl(slave, "store", *change)[0] == FINE
        assert slave.config.get("dsver") > before
    before = slave.config.get("dsver")
    assert ctl(slave, "store", "bump", "dsver")[0] == FINE and slave.config.get("dsver") > before

    # An empty list under a new stamp would take the slave's clients.
    for missing in (True, False):
        code, _, complaint = ctl(master, "store", "bump", "client")
        assert code == WRONG_USE and ("is missing" if missing else "is empty") in complaint
        assert "restore" in complaint and "--force" in complaint
        master.client.fill({"mac": "v"})
        master.client.delete("mac")
    assert ctl(master, "store", "bump", "client", "--force")[0] == FINE
    # Nor one of less than half the records that its last stamp stood for.
    master.client.fill({f"mac{n}": "v" for n in range(5)})
    assert ctl(master, "store", "bump", "client")[0] == FINE
    for n in range(3):
        master.client.delete(f"mac{n}")
    before = master.config.items(), master.client.items()
    raising = [["bump", "client"], ["put", "client_db_version", "20990101000000"]]
    for change in (["put", "mac4", "w"], ["del", "mac3"], ["list-remove", "mac3", "v"]):
        raising.append([*change, "-f", "client", "--bump"])
    (master.root / "tmp/one").write_text('{"key": "mac4", "value": "w"}\n')
    (master.root / "tmp/stamp").write_text('{"key": "client_db_version", "value": "2099"}\n')
    raising += [["load", "/tmp/one", "-f", "client", "--bump"], ["load", "/tmp/stamp"]]
    for change in raising:
        code, _, complaint = ctl(master, "store", *change)
        assert code == WRONG_USE and " of the 5" in complaint and "--force" in complaint, change
    assert (master.config.items(), master.client.items()) == before
    assert "has 2 records, less than half" in ctl(master, "store", "bump", "client")[2]
    assert ctl(master, "store", "bump", "client", "--force")[0] == FINE
    code, out, hint = ctl(master, "store", "put", "mac", "v", "--file", "client")
    assert (code, out) == (FINE, "") and "store bump client" in hint
    before = master.config.get("client_db_version")
    assert ctl(master, "store", "put", "mac", "w", "-f", "client", "--bump") == (FINE, "", "")
    assert master.config.get("client_db_version") > before
    assert "did you mean" in ctl(master, "store", "put", "mastre", "10.77.0.1")[2]


def test_whole_stores_are_saved_and_loaded(couple, ctl):
    master, slave = couple
    records = {f"mac{n}": f"name=PC-{n}" for n in range(300)}
    records |= {b"zero\0": b"\xff\n\0", "text": "B\u00fcro \"x\" \\", "empty": ""}
    master.client.fill(records)
    whole = master.client.items()
    code, lines, _ = ctl(master, "store", "dump", "--jsonl", "-f", "client")
    assert code == FINE and len(lines.splitlines()) == len(whole)
    assert '"value":"B\u00fcro' in lines and '"key_base64":"emVybwA="' in lines
    (slave.root / "tmp/lines").write_text(lines)
    assert ctl(slave, "store", "load", "/tmp/lines", "-f", "/tmp/new.db", "--force")[0] == FINE
    assert slave.store("/tmp/new.db").items() == whole

    # One line that is no record, and nothing is stored.
    two = '{"key": "a", "value": "b"} {"key": "d", "value": "e"}'
    for wrong in ("{", '["key"]', '{"key": "a"}', '{"key": "a", "value_base64": "?"}', two):
        (master.root / "tmp/lines").write_text('{"key": "b", "value": "c"}\n' + wrong + "\n")
        code, _, complaint = ctl(master, "store", "load", "/tmp/lines", "-f", "client")
        assert code == WRONG_USE and "line 2" in complaint
    assert master.client.items() == whole
    (slave.root / "tmp/lines").write_text(
        '{"key": "a", "value": "b"}\n{"key": "config_db_version", "value": "2"}\n'
    )
    code, _, complaint = ctl(slave, "store", "load", "/tmp/lines")
    assert code == WRONG_USE and "config_db_version: this host is the slave" in complaint
    (master.root / "tmp/lines").write_text('{"key": "b", "value": "c"} \t\r\n')
    stamp = master.config.get("client_db_version")
    code, out, hint = ctl(master, "store", "load", "/tmp/lines", "-f", "client", "--bump")
    assert (code, out, hint) == (FINE, "", "") and master.client.get("b") == b"c"
    assert master.config.get("client_db_version") != stamp

    settings = master.config.items()
    code, out, _ = ctl(master, "store", "backup", "/tmp/saved")
    assert code == FINE and "/tmp/saved/client.db: " in out and "disk" not in out
    master.client.delete("b")
    master.config.put("ha", "disable")
    assert "bump client" in ctl(master, "store", "restore", "/tmp/saved/client.db")[2]
    assert ctl(master, "store", "restore", "/tmp/saved/config.db")[0] == FINE
    assert master.client.get("b") == b"c" and master.config.items() == settings
    (master.root / "tmp/saved/client.db").write_bytes(os.urandom(16384))
    code, _, complaint = ctl(master, "store", "restore", "/tmp/saved/client.db")
    assert code == WRONG_USE and "not a sound copy" in complaint and master.client.get("b") == b"c"


def test_a_restore_replaces_what_is_meant_and_keeps_it(couple, ctl):
    master, _ = couple
    master.client.fill({"mac": "v"})
    assert ctl(master, "store", "backup", "/tmp/saved")[0] == FINE
    settings = master.config.items()
    master.shell("cd /tmp/saved && cp client.db night.db && cp config.db client.db.previous")
    code, _, complaint = ctl(master, "store", "restore", "/tmp/saved/night.db")
    assert code == WRONG_USE and "--file" in complaint and master.config.items() == settings
    copy = "/tmp/saved/config.db"
    assert ctl(master, "store", "restore", "-f", "client", copy)[0] == FINE
    assert master.client.items() == settings == master.config.items()
    undo = ["store", "restore", f"{STORES}/client.db.before-restore"]
    master.shell(f"cp {copy} {STORES}/client.db.previous")  # of a push that was interrupted
    assert ctl(master, *undo)[0] == FINE and master.client.items() == {b"mac": b"v"}
    assert ctl(master, *undo)[0] == FINE and master.client.items() == settings
    assert ctl(master, *undo)[0] == FINE
    assert ctl(master, "store", "restore", "/tmp/saved/client.db.previous")[0] == FINE
    assert master.client.items() == settings == master.config.items()
    names = {path.name for path in (master.root / STORES[1:]).iterdir()}
    assert names == {"config.db", "client.db", "client.db.before-restore"}


def test_a_backup_that_others_could_change_or_without_a_store_is_none(couple, ctl, daemon_path):
    master, _ = couple
    for mode, owner, place in ((0o775, 0, "a"), (0o757, 0, "b"), (0o755, 65534, "c")):
        target = master.root / "tmp" / place
        target.mkdir()
        target.chmod(mode)
        os.chown(target, owner, 0)
        code, _, complaint = ctl(master, "store", "backup", f"/tmp/{place}")
        assert code == WRONG_USE and "other users" in complaint and not list(target.iterdir())
    tool = master.expose(daemon_path.parent / "quorsyncctl")
    master.shell(f"chmod 700 {STORES}")
    other = ["/usr/bin/setpriv", "--reuid=65534", tool, "store", "backup", "/tmp/c"]
    done = master.run(other)
    assert done.returncode == PROBLEM and b"config.db is not backed up: Perm" in done.stderr
    master.shell(f"rm {STORES}/*")
    code, out, complaint = ctl(master, "store", "backup", "/tmp/saved")
    assert (code, out) == (PROBLEM, "") and "nothing is backed up" in complaint


def test_a_wrong_word_is_named_beside_the_right_ones(couple, ctl):
    for wrong, group, verbs in (
        (["nonsense"], "quorsyncctl", "check, status, timeline, store, diff, fetch"),
        (["store", "gett", "ha"], "quorsyncctl store", "get, dump, verify, put"),
        (["service", "start", "boots"], "quorsyncctl service start", "boot, tftp, ravlo, dhcpd"),
    ):
        code, out, complaint = ctl(couple[0], *wrong)
        assert (code, out) == (WRONG_USE, "")
        word = wrong[group.count(" ")]
        assert f'"{group}" has no "{word}"; it wants one of {verbs}' in complaint
    code, _, complaint = ctl(couple[0], "store")
    assert code == WRONG_USE and '"quorsyncctl store" wants one of get' in complaint


def test_diff_tells_what_is_mirrored(couple, ctl):
    master, _ = couple
    copy = master.store("10.77.0.2.db")
    copy.fill({**master.config.items(), b"dhcp": b"on", b"dsver": b"1"})
    code, out, _ = ctl(master, "diff", "config", copy.path)
    assert code == FINE
    stamp = "20200101000000"
    rows = [line.split() for line in out.splitlines()]
    assert rows[2:-1] == [
        ["equal", "stamp", "config_db_version", stamp, stamp],
        ["only", "in", "B", "not", "pushed", "dhcp", "-", "on"],
        ["only", "in", "B", "dsver", "dsver", "-", "1"],
    ]

    # Stamps differ while a set is copied.
    master.config.put("config_db_version", "20200101000001")
    code, out, _ = ctl(master, "diff", "config", copy.path)
    assert code == FINE and "differs    stamp " in out and "are equal." in out
    master.config.put("dhcpcfg", "x" * 1024)
    assert "1 mirrored key differs." in ctl(master, "diff", "config", copy.path)[1]
    code, out, _ = ctl(master, "diff", "config", copy.path, "--json")
    keys = {entry["key"]: entry for entry in json.loads(out)["keys"]}
    assert code == PROBLEM
    assert keys["dhcpcfg"]["travels"] == "pushed" and "too long" in keys["dhcpcfg"]["misfit"]
    assert keys["config_db_version"]["state"] == "differs"
    assert ": No such file" in ctl(master, "store", "get", "-f", "", "ha")[2]
    code, _, complaint = ctl(master, "diff", "config", "/no/such.db")
    assert code == CANNOT_TELL and "/no/such.db" in complaint
    code, _, complaint = ctl(master, "diff", "config", "client")
    assert code == WRONG_USE and "has clients" in complaint


@pytest.mark.sanitizer
def test_diff_fetches_the_other_sides_file(couple, ctl, traces, daemon_path, daemon_env):
    master, slave = couple
    for host in couple:
        host.client.fill({f"mac{n}": "x" * 500 for n in range(100)})
    tool = master.expose(daemon_path.parent / "quorsyncctl")
    before = traces(master)

    def diff(name, peer=slave.address):
        answer = ctl(master, "diff", name, "--peer", *peer.split())
        assert traces(master) == before
        return answer

    with FileService(slave):
        code, out, complaint = diff("client")
        assert (code, complaint) == (FINE, "") and f"B {slave.address}:client\n" in out
        # The other server by the settings; nothing but the option says that it is asked.
        assert "stamp  config_db_version" in diff("config", "")[1]
        slave.client.put("mac7", "y")
        code, out, _ = diff("client")
        assert code == PROBLEM and "differs  pushed  mac7" in out and "mac8" not in out
        (slave.root / STORES[1:] / "client.db").write_bytes(os.urandom(16384))
        code, _, complaint = diff("client")
        assert code == CANNOT_TELL and "client.db of 10.77.0.2 does not verify" in complaint
        (slave.root / STORES[1:] / "client.db").unlink()
        code, out, complaint = diff("client")
        assert (code, out, complaint.count("\n")) == (CANNOT_TELL, "", 1)
        assert "refuses /etc/quoradmind/client.db" in complaint
    # A peer cannot fill the disk, nor keep a script.
    with FileService(slave, reply='{"length": "1073741825"}'):
        code, _, complaint = diff("config")
        assert code == CANNOT_TELL and "is of 1,073,741,825 bytes" in complaint
    with FileService(slave, pace=500):
        code, _, complaint = diff("config")
        assert code == CANNOT_TELL and "arrives too slowly" in complaint
    for wrong in ("10.77.0.1", "there"):
        assert diff("client", wrong)[0] == WRONG_USE
    assert ctl(master, "diff", "client")[0] == WRONG_USE
    code, _, complaint = diff("client")
    assert code == CANNOT_TELL and "Connection refused; its file service listens" in complaint

    # Ended in the middle, on a terminal.
    terminal, inner = os.openpty()
    with FileService(slave, pace=2000):
        command = [tool, "diff", "config", "--peer"]
        asked = master.popen(command, stderr=inner, env=daemon_env)
        assert select.select([terminal], [], [], 60)[0] and b" %  " in os.read(terminal, 4096)
        assert traces(master) == before
        asked.signal(signal.SIGINT)
        assert asked.wait() == -signal.SIGINT and traces(master) == before
    os.close(terminal)
    os.close(inner)


@pytest.mark.sanitizer
def test_fetch_replaces_a_file_when_all_of_it_has_come(empty_lab, ctl):
    here, there = empty_lab.add_hosts(["here", "there"])
    data = os.urandom(300_001)
    (there.root / "tmp/file").write_bytes(data)
    target = here.root / "tmp/fetched"

    def fetch(remote):
        answer = ctl(here, "fetch", there.address, remote, "/tmp/fetched")
        assert not Path(f"{target}.part").exists()
        return answer

    with FileService(there):
        code, out, complaint = fetch("/tmp/file")
        assert (code, complaint) == (FINE, "") and "293.0 KiB" in out
        assert target.read_bytes() == data
        code, _, complaint = fetch("/tmp/missing")
        assert code == PROBLEM and "No such file or directory" in complaint
    with FileService(there, reply='{"length": "1073741825"}'):
        code, _, complaint = fetch("/tmp/file")
        assert code == PROBLEM and "1,073,741,825 bytes; at most 1,073,741,824 are" in complaint
    code, _, complaint = fetch("/tmp/file")
    assert code == PROBLEM and "Connection refused; its file service listens" in complaint
    assert target.read_bytes() == data
    here.shell("mknod /tmp/null c 1 3")
    address = there.address
    for peer, local in (("there", "/tmp/fetched"), (address, "/no/f"), (address, "/tmp/null")):
        assert ctl(here, "fetch", peer, "/tmp/file", local)[0] == WRONG_USE
    assert list((here.root / "var/log").iterdir()) == []


def test_dhcpd_conf_writes_only_what_is_sound(empty_lab, ctl):
    host = empty_lab.add_host("host")
    conf = host.root / "etc/dhcpd.conf"
    conf.write_text("kept\n")
    host.config.fill({key: text for key, text in NETWORK.items() if key != "ip_end"})
    code, _, complaint = ctl(host, "dhcpd-conf", "write")
    assert code == PROBLEM and "ip_end" in complaint and conf.read_text() == "kept\n"
    host.config.put("ip_end", NETWORK["ip_end"])
    assert ctl(host, "dhcpd-conf", "write")[0] == FINE
    assert "subnet 10.77.0.0 netmask 255.255.255.0 {\n" in conf.read_text()

    host.shell("mount -t tmpfs tmpfs /usr/sbin")
    server = host.root / "usr/sbin/dhcpd"
    server.write_text(DHCPD)
    server.chmod(0o755)
    client = ["PC-10", "00:1E:4F:AA:0B:31", "10.77.0.21", "win11"]
    assert ctl(host, "dhcpd-conf", "host", *client)[0] == FINE
    written = conf.read_text()
    assert "\thost PC-10 {\n\thardware ethernet 00:1e:4f:aa:0b:31;\n" in written
    for place, wrong in [
        *((0, text) for text in ("a}b", "a\nb", "", "PC-1", "range")),
        *((1, text) for text in ("00:1e:4f:aa:0b", "00:1e:4f:aa:0b:3g")),
        *((2, "10.77.0.256"), (3, '"'), (3, "\x01")),
    ]:
        changed = [*client[:place], wrong, *client[place + 1 :]]
        code, _, complaint = ctl(host, "dhcpd-conf", "host", *changed)
        assert code == WRONG_USE and complaint, changed
    assert ctl(host, "dhcpd-conf", "write")[0] == WRONG_USE  # PC-10 would be lost.
    assert conf.read_text() == written
    server.write_text("#!/bin/sh\nexit 1\n")
    code, _, complaint = ctl(host, "dhcpd-conf", "host", *client)
    assert code == PROBLEM and "has the entry, but dhcpd reports a failure" in complaint
    server.unlink()
    code, _, complaint = ctl(host, "dhcpd-conf", "host", "PC-2", *client[1:])
    assert code == PROBLEM and "dhcpd does not run" in complaint
    conf.unlink()
    code, _, complaint = ctl(host, "dhcpd-conf", "host", *client)
    assert code == PROBLEM and "/etc/dhcpd.conf: No such file" in complaint
    assert not conf.exists()


def test_left_over_services_end_without_an_address_too(pair, ctl):
    """A slave whose own interface failed takes over, and its daemon is started anew meanwhile."""
    slave = pair.slave
    slave.shell("ip link set eth0 down")
    wait_until(lambda: slave.services.running() == ["quordhcpd", "stagd"], 30, "a take-over")
    pair.slave_daemon.kill()
    assert ctl(slave, "service", "stop", "boot", "--if-slave") == (FINE, "boot: stopped\n", "")
    assert not slave.services.running()


@pytest.mark.sanitizer
def test_services_by_hand(pair, ctl, daemon_path):
    code, _, complaint = ctl(pair.slave, "service", "start", "boot")
    assert code == WRONG_USE and "--force" in complaint and not pair.slave.services.running()
    for host, more in ((pair.slave, ["--force"]), (pair.master, [])):
        assert ctl(host, "service", "start", "boot", *more) == (FINE, "boot: started\n", "")
        assert host.services.running() == ["quordhcpd", "stagd"]
        assert host.config.get("dhcp") == b"on"
        assert ctl(host, "service", "start", "boot", *more) == (FINE, "boot: ran already\n", "")
        assert len(host.services.calls("stagd")) == 1
        # They keep nothing of the operator's terminal or pipe open.
        assert set(host.services.calls("stagd")[-1].descriptors.values()) == {"/dev/null"}
    # As a unit does before it starts the daemon: a slave's are left over, a master's are wanted.
    assert ctl(pair.slave, "service", "stop", "boot", "--if-slave")[0] == FINE
    assert ctl(pair.master, "service", "stop", "boot", "--if-slave")[0] == FINE
    assert not pair.slave.services.running() and pair.slave.config.get("dhcp") is None
    assert pair.master.services.running() == ["quordhcpd", "stagd"]
    code, out, _ = ctl(pair.master, "service", "status")
    assert code == FINE and out.count(" (pid ") == out.count(" since 20") == 2
    tool = pair.master.expose(daemon_path.parent / "quorsyncctl")
    for verb in ("start", "stop"):
        done = pair.master.run(["/usr/bin/setpriv", "--reuid=65534", tool, "service", verb, "boot"])
        assert done.returncode == PROBLEM and b"run this as root" in done.stderr
    pair.master.shell("killall -9 stagd")
    code, out, _ = ctl(pair.master, "service", "status", "--json")
    assert code == PROBLEM and [len(row["processes"]) for row in json.loads(out)] == [1, 0]
    assert ctl(pair.master, "service", "stop", "boot") == (FINE, "boot: stopped\n", "")
    assert not pair.master.services.running()
    assert ctl(pair.master, "service", "stop", "boot") == (FINE, "boot: did not run\n", "")
    assert ctl(pair.master, "service", "status")[0] == CANNOT_TELL

    pair.master.services.remove("stagd")
    code, _, complaint = ctl(pair.master, "service", "start", "boot")
    assert code == PROBLEM and "stagd does not run" in complaint
    assert ctl(pair.master, "service", "stop", "tftp")[0] == FINE
    for verb in ("start", "stop"):
        code, _, complaint = ctl(pair.master, "service", verb, "ravlo")
        assert code == PROBLEM and "/etc/init.d/ravlo: No such file" in complaint
