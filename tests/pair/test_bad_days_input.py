"""Whatever a stranger sends: both daemons stay, and the next honest heartbeat is answered."""

import random
from socket import SOCK_DGRAM

import lab
import pytest
from lab import wait_until
from peer import ALL, CLIENT, CONFIG, LIMIT, PORT, SIZE, beat_back, heartbeat, record, request

# No address that nobody has: each would be asked for its file for 20 seconds.
HONEST = [
    heartbeat("", "20260101000000"),
    heartbeat("..", "20260101000000"),
    request(ALL),
    request(CONFIG),
    beat_back("one#two"),
    record(CLIENT, "key", "value"),
    record(CONFIG, "dbver", "stamp"),
]


def garbage(dice):
    """Bytes of any number, or a message of which some bytes are others."""
    if dice.random() < 0.2:
        return dice.randbytes(dice.randrange(2 * SIZE))
    data = bytearray(dice.choice(HONEST))
    for _ in range(dice.randrange(1, 6)):
        data[dice.choice((dice.randrange(16), dice.randrange(SIZE)))] = dice.randrange(256)
    return bytes(data[: dice.choice((SIZE, SIZE, dice.randrange(SIZE)))])


@pytest.mark.sanitizer
def test_a_stranger_sends_anything(pair_factory, seed, rounds):
    pair = pair_factory(clients=lab.realistic_clients(5))
    stranger = pair.lab.add_host("stranger")
    for host in (pair.master, pair.slave):
        host.services.remove("evpost_ex")  # Recording its calls would take most of the time.
    pair.start()
    pair.wait_equal(LIMIT)
    dice = random.Random(seed)

    def tell(data):
        with stranger.line.open_socket() as stream:
            stream.settimeout(LIMIT)
            stream.connect((pair.slave.address, PORT))
            stream.sendall(data)

    with stranger.line.open_socket(SOCK_DGRAM) as outlet:
        for number in range(40 * rounds):
            mark = pair.master.log_mark()
            for _ in range(20):
                outlet.sendto(garbage(dice), (pair.master.address, PORT))
            # Its datagrams are answered in their order, each before the next one is looked at.
            outlet.sendto(heartbeat("", f"number {number}"), (pair.master.address, PORT))
            tell(b"".join(garbage(dice) for _ in range(dice.randrange(5))))
            pair.master.wait_log(f"serverip: dsver:number {number}", LIMIT, mark)
            assert not pair.master.find_log("too many datagrams", mark)
    _, lost = pair.master.line.udp_queue(PORT)
    assert lost == 0, "the master's queue overflowed"
    # Connections are served in their order: none of the stranger's may follow the last push.
    tell(record(CONFIG, "the end", "of it"))
    wait_until(lambda: pair.slave.config.get("the end"), LIMIT, "the end of the strange streams")
    for key in ("config_db_version", "client_db_version"):
        pair.master.config.put(key, "the last")
    pair.wait_equal(LIMIT)
    assert pair.master_daemon.alive and pair.slave_daemon.alive
