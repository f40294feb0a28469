"""What the operator's tool tells of a pair's past: timeline, and status with it."""

import json
import re
from signal import SIGTERM

from lab import realistic_clients, wait_until
from peer import LIMIT

FINE, PROBLEM, WRONG_USE, CANNOT_TELL = range(4)


def test_the_timeline_of_a_pair(pair_factory, ctl):
    pair = pair_factory(clients=realistic_clients(50))
    master, slave = pair.master, pair.slave
    code, _, complaint = ctl(slave, "timeline")
    assert code == CANNOT_TELL and "no daily log" in complaint
    assert ctl(slave, "timeline", "--since", "soon")[0] == WRONG_USE
    pair.start()
    pair.wait_equal()
    for host in (master, slave):
        wait_until(lambda: ctl(host, "status")[0] == FINE, LIMIT, "a pair in sync")  # noqa: B023
        assert ctl(host, "check")[0] == FINE
    mark = slave.log_mark()
    master.line.cut()
    slave.wait_log("become a master host", LIMIT, mark)
    code, out, _ = ctl(slave, "status", "--json")
    told = json.loads(out)
    assert code == PROBLEM and told["log"]["role"] == "acting master"
    assert told["in_sync"]["verdict"] == "cannot tell" and told["forecast"]["role"] == "slave"
    master.line.heal()
    slave.wait_log("restore to be a slave host", LIMIT, mark)
    wait_until(lambda: ctl(slave, "status")[0] == FINE, LIMIT, "a pair in sync again")

    code, out, _ = ctl(slave, "timeline", "--json")
    events = json.loads(out)["events"]
    kinds = [event["kind"] for event in events]
    assert code == FINE and kinds[0] == "start"
    assert kinds.index("last-answer") < kinds.index("take-over") < kinds.index("step-down")
    assert any(event["kind"] == "sync" and event["records"] == 50 for event in events)
    took_over = events[kinds.index("take-over")]
    assert 4 <= took_over["seconds_from"] <= took_over["seconds_to"]
    _, out, _ = ctl(slave, "timeline", "--since", "1h")
    assert re.search(r"take-over +takes over .* s after the master's last answer", out)
    _, out, _ = ctl(master, "timeline")
    assert re.search(r"push +client set sent: 50 records", out)
    assert str(slave.address) in ctl(master, "status")[1]
    pair.slave_daemon.signal(SIGTERM)
    slave.wait_log("slave exit", LIMIT)
    code, out, _ = ctl(slave, "status")
    assert code == PROBLEM and "stopped its work on request" in out and "in sync" in out
    assert not re.search("in sync +yes", out)
    pair.slave_daemon.kill()
    code, out, _ = ctl(slave, "status")
    assert code == PROBLEM and "the daemon does not run" in out
