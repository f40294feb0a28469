"""A real master, asked and heard byte by byte."""

from socket import SOCK_DGRAM

import lab
import pytest
from lab import tracing
from peer import (
    ALL,
    CLIENT,
    CONFIG,
    LIMIT,
    PORT,
    REQUEST,
    FakeSlave,
    await_master,
    beat_back,
    heartbeat,
    message,
    record,
    request,
)

PUSHED = {b"dhcpcfg": lab.pair.DHCP_SETTINGS.encode(), b"default_writeback": b"/srv/writeback"}


@pytest.fixture
def asked(pair_factory):
    """Starts a master; the host beside it asks."""

    def make(**options):
        pair = pair_factory(**options)
        pair.start_master()
        await_master(pair.master)
        return pair.master, pair.slave, FakeSlave(pair.slave, pair.master)

    return make


def answer_to_a_beat(peer):
    return peer.ask(heartbeat("10.77.0.2", "20240101000000"))


def assert_set(messages, kind, records, stamp):
    """These records in any order, then the stamp; to the byte, so the rest is zero."""
    assert len(messages) == len(records) + 1
    assert sorted(messages[:-1]) == sorted(record(kind, *pair) for pair in records.items())
    assert messages[-1] == record(kind, "dbver", stamp)


@pytest.mark.sanitizer
def test_every_request_is_answered_on_a_connection_of_its_own(asked):
    clients = lab.realistic_clients(300)
    others = {f"setting{number}": "stays here" for number in range(20)}
    master, _, peer = asked(clients=clients, master_config=others)
    with peer:
        assert answer_to_a_beat(peer) == [beat_back("config-1#client-1")]
        everything = peer.ask(request(ALL))
        assert len(everything) == 2 + 1 + 300 + 1
        assert_set(everything[:3], CONFIG, PUSHED, "config-1")
        assert_set(everything[3:], CLIENT, clients, "client-1")
        assert_set(peer.ask(request(CONFIG)), CONFIG, PUSHED, "config-1")
        assert_set(peer.ask(request(CLIENT)), CLIENT, clients, "client-1")
        assert peer.ask(request(1 << 31)) == []

        # Cut short, filled to the brim without an end, empty, unknown: nothing stops it.
        assert peer.ask(b"\2") == [beat_back("config-1#client-1")]
        assert peer.ask(b"\2\0" + b"\xff" * 1162) == [beat_back("config-1#client-1")]
        assert_set(peer.ask(message(REQUEST, CONFIG, 7, b"\xff" * 128)), CONFIG, PUSHED, "config-1")
        mark = master.log_mark()
        for unknown in (b"", message(3), b"\2\1"):
            assert peer.ask(unknown) == []
        assert len(master.find_log("unknow udp package.", mark)) == 3


def test_an_asker_that_does_not_listen_holds_nobody_up(asked):
    master, _, peer = asked(clients=lab.realistic_clients(5))
    with peer:
        answer_to_a_beat(peer)
        peer.inlet.close()
        for datagram in (heartbeat("", ""), request(CLIENT)):
            peer.outlet.send(datagram)
        lab.wait_until(lambda: master.services.events(720003), LIMIT, "the event")
        peer.listen()
        assert answer_to_a_beat(peer) == [beat_back("config-1#client-1")]
    assert len(master.find_log("sendto error:")) == 1
    assert len(master.find_log("send data error:")) == 6
    assert len(master.services.events()) == 1


def narrow(*hosts):
    """Little fits on the way: a push waits for its reader."""
    for host in hosts:
        host.shell("cd /proc/sys/net/ipv4; for f in tcp_?mem; do echo 4096 8192 8192 >$f; done")


@pytest.mark.sanitizer
def test_requests_that_a_push_has_answered_are_dropped(asked):
    clients = lab.realistic_clients(1000)
    master, slave, peer = asked(clients=clients)
    narrow(master, slave)
    with peer:
        for whole in (True, False):
            mark = master.log_mark()
            peer.outlet.send(request(CLIENT))
            lab.wait_until(lambda mark=mark: master.find_log("db:2", mark), LIMIT, "a push")
            for datagram in (CLIENT, CLIENT, CONFIG, CLIENT):
                peer.outlet.send(request(datagram))
            peer.outlet.send(heartbeat("10.77.0.2", "20240101000000"))
            dropped = "3 requests for data set 2 dropped, 10.77.0.2 has just been sent it"
            if not whole:  # A push that broke answers none of them.
                peer.accept().close()
                dropped = dropped.replace("3", "2", 1)
            assert_set(peer.read_all(), CLIENT, clients, "client-1")
            assert_set(peer.read_all(), CONFIG, PUSHED, "config-1")
            assert peer.read_all() == [beat_back("config-1#client-1")]
            assert len(master.find_log(dropped, mark)) == 1
            assert len(master.find_log("dropped", mark)) == 1
            assert answer_to_a_beat(peer) == [beat_back("config-1#client-1")]


@pytest.mark.sanitizer
def test_a_stranger_that_cannot_be_reached_delays_no_server(pair_factory):
    pair = pair_factory()
    master = pair.master
    stranger = pair.lab.add_host("stranger")
    pair.start_master()
    await_master(master)
    stranger.line.cut("in")
    with FakeSlave(pair.slave, master) as peer, stranger.line.open_socket(SOCK_DGRAM) as outlet:
        for _ in range(3):
            outlet.sendto(request(CONFIG), (master.address, PORT))
        for _ in range(3):
            assert answer_to_a_beat(peer) == [beat_back("config-1#client-1")]
        assert not master.find_log("send data error:")  # The stranger's answer is under way.
        stranger.line.heal()
        lab.wait_until(lambda: master.find_log("db:1"), LIMIT, "its turn")


def test_a_stranger_that_cannot_be_reached_delays_no_second_line(pair_factory):
    """The address of a slave's second line is in no list; it was reached before."""
    pair = pair_factory(second_lines=True)
    master, slave = pair.master, pair.slave
    stranger = pair.lab.add_host("stranger")
    pair.start()
    master.line.cut(peer=slave.line)
    lab.wait_until(
        lambda: master.find_log(f"beat back to {slave.second_address}"), LIMIT, "the second line"
    )
    stranger.line.cut("in")
    mark = slave.log_mark()
    with stranger.line.open_socket(SOCK_DGRAM) as outlet:
        for _ in range(7):
            outlet.sendto(heartbeat(stranger.address, "20240101000000"), (master.address, PORT))
            beat = slave.log_mark()
            slave.wait_log("bottle=", LIMIT, beat)
    assert not slave.find_log("become a master host", mark)


def test_a_set_that_cannot_be_read_is_not_pushed(asked):
    master, _, peer = asked(clients=lab.realistic_clients(200))
    path = master.client.outer_path
    good = path.read_bytes()
    with peer:
        path.write_bytes(good[:4096] + b"\xa5" * (len(good) - 4096))
        assert_set(peer.ask(request(ALL)), CONFIG, PUSHED, "config-1")
        assert peer.ask(request(CLIENT)) == []
        path.write_bytes(good)
        assert len(peer.ask(request(CLIENT))) == 201


def test_a_master_without_a_thread_for_its_answers_ends(pair_factory):
    pair, trace = pair_factory(), "/lab/out/trace"
    pair.wrapper = tracing.recording(trace, "clone3")
    pair.start_master()
    pair.start_slave()
    pair.master.wait_log("beat back", LIMIT)
    threads = len(tracing.recorded(pair.master, trace))
    pair.master.kill_daemons(pair.executable)
    for number in (threads - 2, threads - 1, threads):
        mark = pair.master.log_mark()
        pair.wrapper = tracing.failing_from("clone3", number)
        assert pair.start_master().wait(LIMIT) == 1
        assert pair.master.find_log("no thread to receive and answer datagrams", mark)
