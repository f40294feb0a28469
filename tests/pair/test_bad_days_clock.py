"""The wall clock is set while a pair runs; nothing but time stamps and file names may follow."""

import re
import time
from datetime import date, timedelta
from pathlib import Path

import lab
import pytest
from lab import wait_until
from peer import LIMIT

CLOCK = "/lab/clock"
# Preloaded it shifts the wall clock by what stands in a file, and leaves the monotonic clock.
SHIFTED = (
    "/usr/bin/env",
    "LD_PRELOAD=/usr/$LIB/faketime/libfaketimeMT.so.1",
    f"FAKETIME_TIMESTAMP_FILE={CLOCK}",
    "FAKETIME_NO_CACHE=1",
    "DONT_FAKE_MONOTONIC=1",
)
PERIOD = 2.0
BEAT = re.compile("^bottle=")
# Whether an answer is there before its beat is counted is chance: 1 is no missed one.
ANSWERED = re.compile("^bottle=[123], status=71")
DAY = timedelta(days=1)


def set_clocks(pair, days):
    for host in (pair.master, pair.slave):
        fresh = host.root / "lab/clock.new"
        fresh.write_text(f"{days:+}d\n")
        fresh.rename(host.root / CLOCK[1:])


def test_a_clock_that_is_set(pair_factory):
    if not any(Path("/usr/lib").glob("*/faketime/libfaketimeMT.so.1")):
        pytest.fail("libfaketime is missing: apt-get install faketime")
    pair = pair_factory(clients=lab.realistic_clients(20), wrapper=SHIFTED)
    slave = pair.slave
    set_clocks(pair, 0)
    pair.start()
    slave.wait_log(re.compile("^bottle=[23]"), LIMIT)
    marks, start = [host.log_mark() for host in (pair.master, slave)], time.monotonic()
    for days, stamp in ((1, "forward"), (-1, "back"), (0, "right")):
        mark, today = slave.log_mark(), date.today()
        set_clocks(pair, days)
        pair.master.config.put("client_db_version", stamp)
        wait_until(lambda mark=mark: len(slave.find_log(BEAT, mark)) >= 4, LIMIT, "4 beats")
        beats = slave.find_log(BEAT, mark)
        assert all(ANSWERED.search(beat.text) for beat in beats)
        wanted = {today + days * DAY, date.today() + days * DAY}  # It may be midnight.
        assert {line.time.date() for line in beats[1:]} <= wanted
        pair.wait_equal(LIMIT)
    answers = pair.master.find_log("beat back to", marks[0])
    beats, periods = slave.find_log(BEAT, marks[1]), (time.monotonic() - start) / PERIOD
    assert len(beats) <= periods + 1 and abs(len(beats) - len(answers)) <= 1
    assert len(list(slave.root.glob("var/log/quorsyncd_*.log"))) >= 3
    assert not slave.services.events() and pair.master_daemon.alive
