"""Two real daemons: stores that stay equal, a role that moves and comes back, and what breaks."""

import re
from signal import SIGTERM
from socket import SOCK_DGRAM

import lab
import pytest
from lab import tracing, wait_until
from peer import CLIENT, LIMIT, PORT, heartbeat, request

PROMOTED = "become a master host"
RESTORED = "restore to be a slave host"
BEATEN = re.compile("^bottle=[23], status=71")


def await_beats(slave, number):
    """Wait for so many periods that each had an answer."""
    mark = slave.log_mark()
    wait_until(lambda: len(slave.find_log(BEATEN, mark)) >= number, LIMIT, f"{number} beats")


def change(pair, stamp, **clients):
    """As a site's tools do it: the records first, then the stamp."""
    pair.master.client.fill(clients)
    pair.master.config.put("client_db_version", stamp)


def test_records_and_beats_cost_few_system_calls(pair_factory):
    """Bounds of their numbers, some twice what they are: one call more for each record, or a further
    look at all pages, breaks them. How long all this takes is for the benchmarks."""
    counts = "/lab/out/counts"
    clients = lab.realistic_clients(8000, value_size=200)
    pair = pair_factory(clients=clients, wrapper=tracing.counting(counts))
    pair.start()
    pair.wait_equal(LIMIT)
    change(pair, "client-2")
    pair.wait_equal(LIMIT)
    await_beats(pair.slave, 3)
    for host in (pair.master, pair.slave):
        host.kill_daemons(pair.executable)
        wait_until((host.root / counts[1:]).read_text, LIMIT, "the counts")
    master, slave = (tracing.counted(host, counts) for host in (pair.master, pair.slave))
    pages = pair.master.client.outer_path.stat().st_size // 4096
    sent = len(pair.master.find_log(re.compile("^ send data: ")))
    pushes = sent / len(clients)
    beats = len(pair.master.find_log("beat back to"))
    periods = len(pair.slave.find_log("bottle="))
    print(f"{pushes:.2f} pushes of {pages} pages, {beats} beats, {periods} periods", master, slave)
    assert master["sendto"] <= sent / 20 + 10 * beats
    assert master["write"] <= sent / 10 + 40 * beats
    assert master["openat"] <= sent / 20 + 40 * beats
    assert master["pread64"] <= 2.5 * pushes * pages + 40 * beats
    assert slave["write"] <= 2 * slave["recvfrom"] + 40 * periods
    assert slave["openat"] <= slave["recvfrom"] + 80 * periods + 400
    assert slave["pread64"] <= pushes * pages + 40 * periods
    assert slave["fdatasync"] + slave["fsync"] <= 18 * (pushes + 1)


@pytest.mark.sanitizer
def test_a_pair_through_its_life(pair_factory):
    clients = lab.realistic_clients(50)
    pair = pair_factory(clients=clients, master_config={"private": "stays"})
    master, slave = pair.master, pair.slave
    pair.start(foreground=False)
    pair.wait_equal(LIMIT)
    change(pair, "client-2", new="1")
    pair.wait_equal(LIMIT)
    # The set is made anew, so what the master no longer has is gone, too.
    master.client.delete("new")
    change(pair, "client-3", newer="2")
    pair.wait_equal(LIMIT)
    assert slave.client.items() == clients | {b"newer": b"2"}
    assert slave.config.get("private") is None
    assert slave.config.get("server_list") == master.config.get("server_list")

    mark = slave.log_mark()
    pair.master_daemon.kill()
    slave.wait_log(PROMOTED, LIMIT, mark)
    wait_until(lambda: slave.services.runs("stagd"), LIMIT, "the services")
    assert slave.services.runs("quordhcpd")
    assert slave.client.items() == clients | {b"newer": b"2"}
    change(pair, "client-4", newest="3")
    pair.start_master(foreground=False)
    slave.wait_log(RESTORED, LIMIT, mark)
    pair.wait_equal(LIMIT)
    for name in ("quordhcpd", "stagd"):
        wait_until(lambda: not slave.services.runs(name), LIMIT, f"the end of {name}")
    assert not master.services.calls()  # A configured master leaves its services to others.
    pair.master_daemon.signal(SIGTERM)
    assert pair.master_daemon.wait(LIMIT) == -SIGTERM


@pytest.mark.sanitizer
def test_a_master_that_stood_still_pushes_twice_at_most(pair_factory):
    """Ten answers come at once, and each makes the slave ask, before or after the first push."""
    pair = pair_factory(clients=lab.realistic_clients(20))
    master, slave = pair.master, pair.slave
    pair.start()
    pair.wait_equal(LIMIT)
    with slave.line.open_socket(SOCK_DGRAM) as outlet:
        for number in range(3):
            marks = master.log_mark(), slave.log_mark()
            pair.master_daemon.freeze()
            change(pair, f"again {number}", new=f"{number}")
            for _ in range(10):
                outlet.sendto(heartbeat("", ""), (master.address, PORT))
            pair.master_daemon.thaw()
            pair.wait_equal(LIMIT)
            await_beats(slave, 2)
            assert len(slave.find_log("request data(2)", marks[1])) > 2
            assert 1 <= len(master.find_log(re.compile("^db:2$"), marks[0])) <= 2
            assert not slave.find_log(PROMOTED, marks[1])


def test_silence_holds_nobody_for_long(pair):
    """The slave's caller says nothing; an asker of the master does not hear its call back."""
    master, slave = pair.master, pair.slave
    stranger = pair.lab.add_host("stranger")
    await_beats(slave, 1)
    mark = slave.log_mark()
    with master.line.open_socket() as caller, stranger.line.open_socket(SOCK_DGRAM) as outlet:
        caller.connect((slave.address, PORT))
        stranger.line.cut("in")
        outlet.sendto(request(CLIENT), (master.address, PORT))
        slave.wait_log("recvfrom() error:Resource temporarily unavailable", LIMIT, mark)
        master.wait_log("send data error:Broken pipe", LIMIT)
    await_beats(slave, 1)


def test_a_full_store_is_made_anew_and_then_left_alone(pair_factory):
    """Thousands of records over older ones; stamps and records at their limits, and beyond."""
    clients = lab.realistic_clients(5000)
    limits = {b"k" * 127: b"v" * 1023}
    too_long = {b"k" * 128: b"v", b"v": b"v" * 1024}
    pair = pair_factory(
        stamps=("c" * 127, "d" * 200),
        clients=clients | limits | too_long,
        slave_clients=lab.realistic_clients(5000, seed=2),
        slave_config={"client_db_version": "old"},
    )
    pair.start()
    stamp = b"d" * 127
    wait_until(lambda: pair.slave.config.get("client_db_version") == stamp, LIMIT, "the stamp")
    assert pair.slave.client.items() == clients | limits
    assert pair.slave.config.get("config_db_version") == b"c" * 127
    for key, value in too_long.items():
        sizes = f"(key {len(key)} bytes, value {len(value)} bytes)"
        assert pair.master.find_log(f"record too long, not sent: {key.decode()} {sizes}")
    # Requests that were under way may still come; then there is an end of them.
    await_beats(pair.slave, 2)
    asked = len(pair.slave.find_log("request data("))
    await_beats(pair.slave, 2)
    assert len(pair.slave.find_log("request data(")) == asked


def test_a_stamp_waits_for_a_disk_with_space(pair_factory):
    pair = pair_factory(clients=lab.realistic_clients(3000))
    slave = pair.slave
    slave.shell(
        "cp -a /etc/quoradmind /tmp/all && mount -t tmpfs -o size=200k small /etc/quoradmind"
        " && cp -a /tmp/all/. /etc/quoradmind"
    )
    pair.start()
    refused = "client_db_version not stored: a record of its set could not be stored"
    slave.wait_log(refused, LIMIT)
    await_beats(slave, 2)
    assert slave.config.get("client_db_version") is None
    slave.shell("mount -o remount,size=50m /etc/quoradmind")
    pair.wait_equal(LIMIT)
