"""What the operator's tool tells of a pair's past: its timeline."""

import datetime
import json
import re
from pathlib import Path

from lab import realistic_clients, wait_until
from peer import LIMIT

FINE, _, WRONG_USE, CANNOT_TELL = range(4)


def test_the_timeline_of_a_pair(pair_factory, ctl):
    pair = pair_factory(clients=realistic_clients(50))
    master, slave = pair.master, pair.slave
    code, _, complaint = ctl(slave, "timeline")
    assert code == CANNOT_TELL and "no daily log" in complaint
    assert ctl(slave, "timeline", "--since", "soon")[0] == WRONG_USE
    pair.start()
    pair.wait_equal()
    assert ctl(master, "service", "start", "boot")[0] == FINE
    assert ctl(slave, "check")[0] == FINE
    # So many regular beats tell a slave from a passer-by.
    wait_until(lambda: len(master.find_log("beat back to")) >= 3, LIMIT, "three answered beats")
    slave.wait_log("bottle=2", LIMIT)
    mark = slave.log_mark()
    master.line.cut()
    slave.wait_log("become a master host", LIMIT, mark)
    master.line.heal()
    slave.wait_log("restore to be a slave host", LIMIT, mark)

    code, out, _ = ctl(slave, "timeline", "--json")
    events = json.loads(out)["events"]
    kinds = [event["kind"] for event in events]
    assert code == FINE and kinds[0] == "start"
    assert kinds.index("last-answer") < kinds.index("take-over") < kinds.index("step-down")
    assert any(event["kind"] == "sync" and event["records"] == 50 for event in events)
    took_over = events[kinds.index("take-over")]
    at = took_over["at"]
    assert datetime.datetime.fromisoformat(at["time"] + at["zone"]).timestamp() == at["epoch"]
    assert 4 <= took_over["seconds_from"] <= took_over["seconds_to"]
    _, out, _ = ctl(slave, "timeline", "--since", "1h")
    assert re.search(r"take-over +takes over .* s after the master's last answer", out)
    _, out, _ = ctl(master, "timeline")
    assert re.search(r"push +client set sent: 50 records", out)
    assert re.search(r"change +service start boot by \w+\n", out)
    slave.daemons[-1].kill()
    last = lambda: ctl(master, "timeline", "-n", "1")[1]
    wait_until(lambda: "slave-silent" in last(), LIMIT, "the slave's silence")


def test_a_change_is_told_with_its_operator_and_value(empty_lab, daemon_path, daemon_env):
    host = empty_lab.add_host("a")
    tool = host.expose(daemon_path.parent / "quorsyncctl")
    for key, value in (("name", "B\u00fcro"), ("note", "x" * 81)):
        change = [tool, "store", "put", key, value, "--force"]
        assert host.run(change, env={**daemon_env, "SUDO_USER": "al\nice"}).returncode == FINE
    told = host.run([tool, "timeline"], env=daemon_env).stdout.decode()
    login = Path("/proc/self/loginuid").read_text()
    name = r"al\\\\x0aice" if login == str((1 << 32) - 1) else r"\w+"
    assert re.search(rf"change +put name in .*config.db by {name}: B\S+ro\n", told)
    assert re.search(rf"change +put note in .*config.db by {name}: x{{77}}\.\.\.\n", told)


def write_log(path, day, size):
    """A whole day of a slave that gets one client after the other, with a take-over now and then."""
    with open(path, "wb") as file:
        for minute in range(1440):
            stamp = f"quorsyncd:2.1 {day:%Y-%m-%d} {minute // 60:02}:{minute % 60:02}:00 "
            line = f"{stamp}INFO :data 2: 00:1E:4F:AA:0B:{minute:04}=name=PC|ip=192.168.0.21\n"
            file.write((line * (size // 1440 // len(line))).encode())
            if minute % 20 == 0:
                file.write(f"{stamp}INFO :become a master host\n".encode())


def test_a_large_log_is_not_read_from_its_beginning(empty_lab, daemon_path, daemon_env):
    host = empty_lab.add_host("a")
    tool = host.expose(daemon_path.parent / "quorsyncctl")
    yesterday = datetime.date.today() - datetime.timedelta(days=1)
    log = host.root / f"var/log/quorsyncd_{yesterday:%Y_%m_%d}.log"

    def bytes_read(arguments, output):
        script = f"{tool} {arguments} >/tmp/out; grep rchar /proc/$$/io"
        count = int(host.run(["/bin/sh", "-c", script], env=daemon_env).stdout.split()[1])
        assert output in (host.root / "tmp/out").read_text()
        return count

    try:
        write_log(log, yesterday, 500 << 20)
        ignored = bytes_read("--version", "2.1")
        assert bytes_read("status", "daemon") - ignored < 1 << 20
        assert bytes_read("timeline -n 1", f"{yesterday} 23:40:00  take-over") - ignored < 32 << 20
        late = f"timeline --since '{yesterday} 22:30'"
        assert bytes_read(late, "23:40:00  take-over") - ignored < 100 << 20
    finally:
        log.unlink()  # too much evidence of a failure
