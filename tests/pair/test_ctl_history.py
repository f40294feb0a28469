"""What the operator's tool tells of a pair's past: its timeline."""

import json
import re

from lab import realistic_clients
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
    for host in (master, slave):
        assert ctl(host, "check")[0] == FINE
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
    assert 4 <= took_over["seconds_from"] <= took_over["seconds_to"]
    _, out, _ = ctl(slave, "timeline", "--since", "1h")
    assert re.search(r"take-over +takes over .* s after the master's last answer", out)
    _, out, _ = ctl(master, "timeline")
    assert re.search(r"push +client set sent: 50 records", out)
