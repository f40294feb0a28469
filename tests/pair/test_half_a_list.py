"""A push that breaks off, or takes long: the slave takes over with one whole list or the other."""

import re
import signal
import time

import lab
import pytest
from lab import tracing, wait_until
from peer import CLIENT, DISK, LIMIT, FakeMaster, beat_back, record

PREVIOUS = "etc/quoradmind/client.db.previous"
AT_START = "/lab/at_start.db"
ONE_OLD = {"slave_config": {"client_db_version": "1"}, "slave_clients": {"old": "1"}}
# Stands before the DHCP wrapper and keeps the list that this one starts over.
KEEP_LIST = f"""cd /usr/local/bin; mv quordhcpd /lab; install /dev/stdin quordhcpd <<'end'
#!/bin/sh
cp /etc/quoradmind/client.db {AT_START}
exec /lab/quordhcpd "$@"
end"""


def break_off_a_push(pair):
    """Kill the master while it pushes, again should the push have been faster. The old list."""
    slave = pair.slave
    for number in range(2, 12):
        old, mark = slave.client.items(), slave.log_mark()
        pair.master.config.put("client_db_version", f"client-{number}")
        slave.wait_log("data 2:", LIMIT, mark)
        pair.master_daemon.kill()
        wait_until(slave.client.verify, LIMIT, "the end of the batch")
        if (slave.root / PREVIOUS).exists():
            return old, mark
        pair.start_master()
        pair.wait_equal(LIMIT)
    pytest.fail("no push was broken off")


@pytest.mark.sanitizer
@pytest.mark.parametrize("restarted", [False, True])
def test_a_broken_push_costs_no_client(pair_factory, restarted):
    pair = pair_factory(clients=lab.realistic_clients(300))
    slave = pair.slave
    slave.shell(KEEP_LIST)
    pair.start()
    pair.wait_equal(LIMIT)
    pair.master.client.fill(lab.realistic_clients(50000, seed=2))
    old, mark = break_off_a_push(pair)
    stamp = slave.config.get("client_db_version")
    if restarted:
        pair.slave_daemon.kill()
        pair.start_slave()
    line = slave.wait_log(f"client list put back: {len(old)} records, instead of ", LIMIT, mark)
    assert line.level == "ERROR"
    wait_until(lambda: slave.services.runs("stagd"), LIMIT, "the services")
    assert slave.store(AT_START).items() == slave.client.items() == old
    assert slave.config.get("client_db_version") == stamp
    pair.start_master()
    pair.wait_equal(LIMIT)
    assert not (slave.root / PREVIOUS).exists()


class SlowPush:
    """A push of which one record comes every now and then, to a slave that has another list."""

    def __init__(self, pair, master):
        self.slave = pair.slave
        self.daemon = pair.start_slave()
        master.tell(beat_back("#2"))
        wait_until(lambda: (self.slave.root / PREVIOUS).exists(), LIMIT, "an emptied list")
        self.link, self.sent = master.connect(), {}

    def send_until(self, line):
        while not self.slave.find_log(line):
            key = f"client{len(self.sent)}"
            self.sent[key.encode()] = b"new"
            self.link.sendall(record(CLIENT, key, "new"))
            time.sleep(0.2)

    def assert_no_take_over(self):
        assert not self.slave.find_log("become a master host")
        assert not self.slave.services.events(720007) and not self.slave.services.runs("stagd")


@pytest.fixture
def slow_push(pair_factory):
    pair = pair_factory(**ONE_OLD)
    with FakeMaster(pair.master, pair.slave) as master:
        yield SlowPush(pair, master)


def test_a_push_longer_than_the_slaves_patience_costs_no_take_over(slow_push):
    slave = slow_push.slave
    slow_push.send_until("bottle=-3")
    mark = slave.log_mark()
    slow_push.link.sendall(record(CLIENT, "more", "new") + record(CLIENT, "dbver", "2"))
    slave.wait_log(re.compile("^bottle=[23]"), LIMIT, mark)
    slow_push.assert_no_take_over()
    assert slave.config.get("client_db_version") == b"2"
    assert slave.client.items() == slow_push.sent | {b"more": b"new"}
    assert not slave.find_log("put back")


def test_a_master_that_dies_in_a_long_push_is_given_up(slow_push):
    slave = slow_push.slave
    slow_push.send_until("bottle=-2")
    slow_push.assert_no_take_over()
    # It says nothing more, and its end is not seen: the connection stays open.
    slave.wait_log("client list put back: 1 records, instead of ", LIMIT)
    wait_until(lambda: slave.services.runs("stagd"), LIMIT, "the services")
    assert len(slave.services.events(720007)) == 1
    assert slave.client.items() == {b"old": b"1"}


def test_sigterm_while_a_take_over_waits_starts_nothing(slow_push):
    slave = slow_push.slave
    slow_push.send_until("bottle=-2")
    slow_push.daemon.signal(signal.SIGTERM)
    slow_push.link.close()
    slave.wait_log("slave exit line", LIMIT)
    slow_push.assert_no_take_over()


def test_no_stamp_before_the_old_list_is_gone(pair_factory):
    pair = pair_factory(wrapper=tracing.kept_names(f"/{PREVIOUS}"), **ONE_OLD)
    slave = pair.slave
    daemon = pair.start_slave()
    with FakeMaster(pair.master, slave) as master:
        master.tell(beat_back("#2"))
        master.tell(record(CLIENT, "new", "1"), record(CLIENT, "dbver", "2"))
        slave.wait_log(f"/{PREVIOUS} cannot be removed:", LIMIT)
        mark = slave.log_mark()
        master.tell(beat_back("#2"))
        slave.wait_log(f"/{PREVIOUS} cannot be removed:", LIMIT, mark)
        assert slave.config.get("client_db_version") == b"1"
        assert slave.client.items() == {b"new": b"1"}
        slave.kill_daemons(pair.executable)
        pair.wrapper = ()
        mark = slave.log_mark()
        pair.start_slave()
        master.tell(beat_back("#2"), record(DISK, "behind", "it"))
        slave.wait_log("data 3: behind", LIMIT, mark)
    assert not daemon.alive
    assert slave.config.get("client_db_version") == b"2"
    assert slave.client.items() == {b"new": b"1"}
    assert not (slave.root / PREVIOUS).exists()


def test_records_that_come_while_the_old_list_is_put_back_are_not_mixed_into_it(pair_factory):
    """A master that pauses in its push goes on at just that moment."""
    wrapper = tracing.slow_names("/etc/quoradmind/client.db.previous", 2000)
    pair = pair_factory(wrapper=wrapper, **ONE_OLD)
    slave = pair.slave
    pair.start_slave()
    with FakeMaster(pair.master, slave) as master:
        link = master.connect()
        link.sendall(beat_back("#2") + record(CLIENT, "first", "new"))
        wait_until((slave.root / PREVIOUS).exists, LIMIT, "an emptied list")
        slave.wait_log("become a master host", LIMIT)
        wait_until(lambda: not (slave.root / PREVIOUS).exists(), LIMIT, "the old list in place")
        link.sendall(record(CLIENT, "more", "new") + record(CLIENT, "dbver", "2"))
        link.close()
        slave.wait_log("client list put back: 1 records, instead of 1 ", LIMIT)
        slave.wait_log("client_db_version not stored", LIMIT)
    assert slave.client.items() == {b"old": b"1"}
    assert slave.config.get("client_db_version") == b"1"
    slave.kill_daemons(pair.executable)


def test_an_emptied_master_costs_no_client(pair_factory, ctl):
    pair = pair_factory(clients=lab.realistic_clients(300))
    master, slave = pair.master, pair.slave
    pair.start()
    pair.wait_equal(LIMIT)
    old = slave.client.items()
    (master.root / "etc/quoradmind/client.db").unlink()
    code, out, _ = ctl(master, "check")
    assert code == 1 and "is missing, though the last stamp stood for 300 records" in out
    assert "for 300 records" in ctl(master, "store", "bump", "client")[2]
    master.config.put("client_db_version", "of a tool that does not look")
    line = slave.wait_log("client list shrunk: 300 -> 0 records", LIMIT)
    assert line.level == "ERROR" and "300 -> 0 records" in ctl(slave, "timeline")[1]
    wait_until(lambda: not pair.difference(), LIMIT, "equal lists")
    code, out, _ = ctl(slave, "check")
    assert code == 1 and "300 -> 0 records" in out

    kept = slave.root / "etc/quoradmind/client.db.before-shrink"
    (master.root / "tmp" / kept.name).write_bytes(kept.read_bytes())
    assert "bump client" in ctl(master, "store", "restore", f"/tmp/{kept.name}")[2]
    assert ctl(master, "store", "bump", "client")[0] == 0
    pair.wait_equal(LIMIT)
    assert slave.client.items() == old and kept.exists()
    assert "300 -> 0 records" not in ctl(slave, "check")[1]


def test_a_slave_made_the_master_serves_no_part_of_a_list(pair_factory):
    pair = pair_factory(**ONE_OLD)
    slave = pair.slave
    pair.start_slave()
    with FakeMaster(pair.master, slave) as master:
        master.tell(beat_back("#2"))
        wait_until(lambda: (slave.root / PREVIOUS).exists(), LIMIT, "an emptied list")
        pair.slave_daemon.kill()
    slave.config.put("master", slave.address)
    pair.start_slave()
    slave.wait_log("start master process", LIMIT)
    assert slave.client.items() == {b"old": b"1"}
    # Kept on, it would replace what the new master's list has become by then.
    assert not (slave.root / PREVIOUS).exists()
