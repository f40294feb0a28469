"""The packet filter that comes with the package: a stranger is shut out, and the pair works."""

import re
import select
from contextlib import ExitStack
from pathlib import Path

from lab import realistic_clients, wait_until
from lab.file_service import PORT as FILE_PORT, FileService
from peer import LIMIT, PORT, FakeSlave, beat_back, heartbeat

FILTER = Path(__file__).resolve().parents[2] / "packaging/quorsyncd.nft"


def load_filter(pair):
    peers = f"{pair.master.address}, {pair.slave.address}"
    text, changed = re.subn(r"(?<=^define peers = { ).*(?= }$)", peers, FILTER.read_text(), 0, re.M)
    assert changed == 1
    for host in (pair.master, pair.slave) * 2:  # It may be loaded again.
        host.run(["/usr/sbin/nft", "-f", "-"], input=text.encode(), check=True)


def dropped(host):
    rules = host.shell("nft list chain inet quorsyncd peers_only")
    return int(re.search(r"counter packets (\d+)", rules)[1])


def assert_drops(host, knock):
    before = dropped(host)
    knock()
    wait_until(lambda: dropped(host) > before, LIMIT, f"a packet that {host.name} drops")


def test_only_the_pair_gets_through(pair_factory):
    pair = pair_factory(clients=realistic_clients(20))
    stranger = pair.lab.add_host("stranger")
    pair.start()
    pair.wait_equal(LIMIT)
    with ExitStack() as stack, FileService(pair.slave):
        peer = stack.enter_context(FakeSlave(stranger, pair.master))
        beat = heartbeat(stranger.address, "")
        assert peer.ask(beat) == [beat_back("config-1#client-1")]
        for port in (PORT, FILE_PORT):
            with stranger.line.open_socket() as knock:
                knock.connect((pair.slave.address, port))

        unedited = pair.slave.run(["/usr/sbin/nft", "-f", "-"], input=FILTER.read_bytes())
        assert unedited.returncode != 0 and b"ADDRESSES_OF_THE_PAIR_ARE_MISSING" in unedited.stderr
        assert pair.slave.shell("nft list ruleset") == ""
        load_filter(pair)
        mark = pair.master.log_mark()
        assert_drops(pair.master, lambda: peer.outlet.send(beat))
        for port in (PORT, FILE_PORT):
            knock = stack.enter_context(stranger.line.open_socket())
            knock.setblocking(False)
            assert_drops(pair.slave, lambda: knock.connect_ex((pair.slave.address, port)))
            assert select.select([], [knock], [], 0)[1] == []  # Neither open nor refused.

        pair.master.client.put("MAC", "another client")
        pair.master.config.put("client_db_version", "client-2")
        pair.wait_equal(LIMIT)  # The beat back and the push get through, and below the fetch.
        pair.slave.config.put("dsver", "20380101000000")
        copy = pair.master.store(f"{pair.slave.address}.db")
        wait_until(lambda: copy.get("dsver") == b"20380101000000", LIMIT, "a copy by the service")
        assert not pair.master.find_log(f"beat back to {stranger.address}", mark)
