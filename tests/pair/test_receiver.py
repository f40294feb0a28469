"""A real slave, told things byte by byte."""

import re
import time

import lab
import pytest
from lab import wait_until
from peer import (
    CLIENT,
    CONFIG,
    DISK,
    HEARTBEAT,
    LIMIT,
    REQUEST,
    SIZE,
    FakeMaster,
    beat_back,
    heartbeat,
    message,
    record,
    request,
)


@pytest.fixture
def told(pair_factory):
    """Makes a slave whose master is the test; it is not started."""

    def make(**options):
        pair = pair_factory(**options)
        return pair, pair.slave, FakeMaster(pair.master, pair.slave)

    return make


def await_value(store, key, value):
    wait_until(lambda: store.get(key) == value.encode(), LIMIT, f"{key} = {value}")


@pytest.mark.sanitizer
def test_messages_on_one_connection_and_on_many(told):
    pair, slave, master = told()
    pair.start_slave()
    with master:
        assert master.hear(HEARTBEAT) == heartbeat(slave.address, slave.config.get("dsver"))
        master.tell(
            record(CONFIG, "dhcpcfg", "a"),
            record(CONFIG, "dbver", "7"),
            record(DISK, "disk", "d"),
            record(9, "odd", "o"),
            record(CLIENT, "dbver", "8"),
            record(CLIENT, "dbverx", "x"),
            record(CLIENT, "k" * 128, "v" * 1024),  # no end in either field
            record(CLIENT, "half", "lost")[: SIZE // 2],
        )
        # Connections are served in their order: with this one the first is done.
        link = master.connect()
        link.sendall(message(2) + record(CONFIG, "default_writeback", "b"))
        await_value(slave.config, "default_writeback", "b")
        wait_until(lambda: slave.services.events(720010), LIMIT, "the event")
        found = {key: slave.config.get(key) for key in ("config_db_version", "client_db_version")}
        assert list(found.values()) == [b"7", b"8"]
        assert slave.config.get("dhcpcfg") == b"a"
        assert slave.client.items() == {b"dbverx": b"x", b"k" * 128: b"v" * 1024}
        assert slave.find_log("data 3: disk=d") and slave.find_log("data 9: odd=o")
        assert not slave.find_log("recvfrom() error:")

        # A record in small pieces, with a rest in its middle. It is on disk while the connection
        # is open, and not because that was dropped: it takes one more.
        raw = record(CLIENT, "pieces", "p")
        for start in range(0, SIZE, 97):
            link.sendall(raw[start : start + 97])
            time.sleep(0.2 if start == 97 * 5 else 0.001)
        await_value(slave.client, "pieces", "p")
        link.sendall(record(CLIENT, "after", "1"))
        await_value(slave.client, "after", "1")
        link.close()
    assert len(slave.services.events(720010)) == 1


def test_what_a_beat_back_sets_off(told):
    stamps = {"config_db_version": "c", "client_db_version": "k"}
    pair, slave, master = told(slave_config=stamps, slave_clients={b"old": b"1"})
    pair.start_slave()
    with master:
        mark = slave.log_mark()
        master.tell(beat_back("c#k"))
        slave.wait_log(re.compile("^bottle=[23]"), LIMIT, mark)
        assert slave.client.items() == {b"old": b"1"}
        # The first request is this one: equal stamps asked for nothing.
        master.tell(beat_back("d#k"))
        assert master.hear(REQUEST) == request(CONFIG)
        # In the middle of a push the store is emptied between two records.
        master.tell(record(CLIENT, "a", "1"), beat_back("c#l"), record(CLIENT, "b", "2"))
        assert master.hear(REQUEST) == request(CLIENT)
        await_value(slave.client, "b", "2")
        assert slave.client.items() == {b"b": b"2"}
        master.tell(beat_back("d#l"))
        assert [master.hear(REQUEST) for _ in range(2)] == [request(CONFIG), request(CLIENT)]
        slave.client.put("c", "3")
        master.tell(beat_back("c"))
        assert master.hear(REQUEST) == request(CLIENT)
        assert slave.find_log("master_client_version == NULL !!")
        assert slave.client.items() == {}


@pytest.mark.sanitizer
def test_the_master_never_waits_for_a_stranger(told):
    """Strangers say nothing, half a message, or a record; only the master's own may wait."""
    pair, slave, master = told()
    stranger = pair.lab.add_host("stranger")
    pair.start_slave()
    with master, FakeMaster(stranger, slave) as idle:
        master.hear(HEARTBEAT)
        mark = slave.log_mark()
        link = idle.connect()
        link.sendall(record(CLIENT, "odd", "1") + record(CLIENT, "half", "2")[:100])
        await_value(slave.client, "odd", "1")
        for _ in range(20):
            idle.connect()
        for number in range(6):
            assert master.hear(HEARTBEAT)
            master.tell(beat_back("#"), record(CLIENT, f"{number}", "master"))
            await_value(slave.client, f"{number}", "master")
        assert not slave.find_log("become a master host")
        closed = f"closed, the last one from {stranger.address}"
        assert slave.find_log(closed, mark)
        # Of one address they are served in their order: these wait for the first one's end.
        assert slave.client.get("half") is None


def test_a_damaged_store_gives_way_to_the_first_record(told):
    pair, slave, master = told(slave_clients=lab.realistic_clients(200))
    path = slave.client.outer_path
    # The library's verifier would abort on this.
    damaged = path.read_bytes()[:4096] + b"\x0f" * (path.stat().st_size - 4096)
    path.write_bytes(damaged)
    pair.start_slave()
    with master:
        master.hear(HEARTBEAT)
        master.hear(HEARTBEAT)
        assert path.read_bytes() == damaged  # It may be the only copy there is.
        master.tell(record(CLIENT, "fresh", "1"))
        kept = path.with_name("client.db.damaged")
        wait_until(kept.exists, LIMIT, "the damaged file under its new name")
        await_value(slave.client, "fresh", "1")
    assert slave.client.items() == {b"fresh": b"1"}
    assert kept.read_bytes() == damaged
    assert slave.find_log("kept as /etc/quoradmind/client.db.damaged")
