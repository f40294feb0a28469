"""What a long run leaves behind in a daemon: nothing."""

import lab
from lab import wait_until
from lab.file_service import FileService
from peer import (
    ALL,
    CLIENT,
    CONFIG,
    LIMIT,
    REQUEST,
    FakeMaster,
    FakeSlave,
    await_master,
    beat_back,
    heartbeat,
    record,
    request,
)

MIB = 1 << 20
LEAST = MIB // 8  # less than what 30 bytes lost with each heartbeat of the short form are
CLIENTS = lab.realistic_clients(100)


def warmed_up(daemon, step, times, what):
    """Do it often; the tenth part of it before the daemon is measured first."""
    for number in range(times // 10 + 1):
        step(-1 - number)
    memory, descriptors = daemon.rss(), len(daemon.descriptors())
    for number in range(times):
        step(number)
    wait_until(lambda: len(daemon.descriptors()) <= descriptors, LIMIT, "the old descriptors")
    # What the last step needed may be in use for a moment longer.
    wait_until(lambda: daemon.rss() - memory < LEAST, LIMIT, f"the memory from before {what}")
    print(f"{times:,} {what}: {memory / MIB:.1f} MiB {(daemon.rss() - memory) / MIB:+.2f}")


def test_a_master_stays_as_it_is(pair_factory, rounds):
    pair = pair_factory(clients=CLIENTS)
    daemon, ends = pair.start_master(), "refresh_dhcp open"
    await_master(pair.master)
    with FakeSlave(pair.slave, pair.master) as peer:
        quiet = heartbeat("", "")
        warmed_up(daemon, lambda _: peer.ask(quiet), 1000 * rounds, "heartbeats")
        warmed_up(daemon, lambda _: peer.ask(request(ALL)), 5 * rounds, "pushes")
        with FileService(pair.slave):

            def fetch(number):
                # One at a time: what is queued takes memory, and has a right to.
                mark = pair.master.log_mark()
                peer.ask(heartbeat(pair.slave.address, f"another {number}"))
                pair.master.wait_log(ends, LIMIT, mark)

            warmed_up(daemon, fetch, 5 * rounds, "fetches")


def test_a_slave_stays_as_it_is(pair_factory, rounds):
    pair = pair_factory(clients=CLIENTS)
    daemon = pair.start_slave()
    pushed = [record(CLIENT, key, value) for key, value in CLIENTS.items()]
    with FakeMaster(pair.master, pair.slave) as master:

        def is_stored(stamp):
            stored = lambda: pair.slave.config.get("client_db_version") == stamp.encode()
            wait_until(stored, LIMIT, "the stamp")

        def push(number):
            stamp = f"push {number}"
            # What it asks for at the first is left unread: the answer is already here.
            master.tell(beat_back(f"{stamp}#{stamp}"), record(CONFIG, "dbver", stamp), *pushed,
                        record(CLIENT, "dbver", stamp))
            assert master.hear(REQUEST) == request(CONFIG)
            assert master.hear(REQUEST) == request(CLIENT)
            is_stored(stamp)

        def beat(_):
            master.tell(beat_back("same#same"))

        warmed_up(daemon, push, 5 * rounds, "pushes")
        master.tell(record(CONFIG, "dbver", "same"), record(CLIENT, "dbver", "same"))
        warmed_up(daemon, beat, 1000 * rounds, "beats")
        is_stored("same")
    assert pair.slave.client.items() == CLIENTS
