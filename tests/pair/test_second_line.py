"""Two lines between the servers: as long as one of them is whole, the slave stays a slave."""

import lab
import pytest
from lab import wait_until
from peer import LIMIT

PROMOTED = "become a master host"
RESTORED = "restore to be a slave host"


def await_beats(slave, number):
    mark = slave.log_mark()
    wait_until(lambda: len(slave.find_log("bottle=", mark)) >= number, LIMIT, f"{number} beats")


@pytest.mark.sanitizer
@pytest.mark.parametrize("direction", ["both", "out"])
def test_the_other_line_holds(pair_factory, direction):
    """Also when only the answers are lost: then the master still tries to give them."""
    pair = pair_factory(clients=lab.realistic_clients(20), second_lines=True)
    master, slave = pair.master, pair.slave
    pair.start()
    pair.wait_equal(LIMIT)
    mark = slave.log_mark()
    master.line.cut(direction)
    await_beats(slave, 7)
    assert not slave.find_log(PROMOTED, mark)
    # The data come on the line that works, too.
    master.client.fill({"new": "1"})
    master.config.put("client_db_version", "client-2")
    pair.wait_equal(LIMIT)
    assert slave.find_log(f"request data(2) from {master.second_address}", mark)
    assert not slave.find_log(PROMOTED, mark)

    master.second_line.cut()
    slave.wait_log(PROMOTED, LIMIT, mark)
    master.second_line.heal()
    slave.wait_log(RESTORED, LIMIT, mark)
    master.line.heal()
    mark = slave.log_mark()
    slave.wait_log("bottle=2, status=71", LIMIT, mark)
