"""Boot services on a role change: how they are started, ended, and outlive a daemon."""

import re
import signal

import pytest
from lab import wait_until
from peer import LIMIT, PORT, FakeMaster, beat_back

ROLE_LINES = re.compile(r"^(bottle=|become a|restore to)")
OUT_OF_BEATS = ["bottle=1, status=71", "bottle=0, status=71", "bottle=-1, status=71"]
PROMOTED = "become a master host"
RESTORED = "restore to be a slave host"


def role_lines(host, after=None):
    return [line.text for line in host.find_log(ROLE_LINES, after)]


def service_calls(host):
    return [call for call in host.services.calls() if call.name != "evpost_ex"]


def started(host):
    return [call.name for call in service_calls(host)]


def pids(host):
    return host.services.pids("quordhcpd") + host.services.pids("stagd")


def await_services(host):
    wait_until(lambda: host.services.runs("stagd"), LIMIT, "the boot-load daemon")


def semaphores(host):
    return host.shell("cat /proc/sysvipc/sem").splitlines()[1:]


@pytest.mark.sanitizer
def test_a_silent_master_is_replaced_and_gets_its_place_back(lonely_slaves, run_daemon):
    slave, other = lonely_slaves("slave", "other")
    daemon = run_daemon(slave)
    slave.wait_log(PROMOTED, LIMIT)
    await_services(slave)
    seen = role_lines(slave)
    assert seen[: seen.index(PROMOTED)] == OUT_OF_BEATS

    dhcpd, stagd = service_calls(slave)
    assert dhcpd.argv == ("/usr/local/bin/quordhcpd",) and stagd.argv == ("/usr/local/bin/stagd",)
    assert dhcpd.descriptors.keys() == stagd.descriptors.keys() == {0, 1, 2}
    # Nobody asked for the wrapper's output to be kept: it goes where the daemon's goes.
    assert "quordhcpd was called" in daemon.output_text()
    wait_until(lambda: slave.config.get("dhcp") is None, LIMIT, "the mark to go")

    # One answer, and no more: it steps down, then takes over again.
    mark = slave.log_mark()
    with FakeMaster(other, slave) as master:
        master.tell(beat_back("#"))
    slave.wait_log(RESTORED, LIMIT, mark)
    slave.wait_log(PROMOTED, LIMIT, mark)
    seen = role_lines(slave, mark)
    back, gone = seen.index(RESTORED), seen.index(PROMOTED)
    # The answer gives three beats; mostly the next period has taken one when it is noticed.
    assert seen[back - 1] in ("bottle=2, status=75", "bottle=3, status=75")
    assert seen[gone - 3 : gone] == OUT_OF_BEATS and gone - back in (4, 5)
    wait_until(lambda: len(service_calls(slave)) == 4, LIMIT, "the second start")
    wait_until(lambda: len(slave.services.events()) == 3, LIMIT, "the events")
    posted = sorted(event.argv for event in slave.services.events())
    for argv, code in zip(posted, ("720007", "720007", "720008"), strict=True):
        assert argv[:6] == ("quorsyncd", "0", "720000", "22", "0", code)
        assert argv[6].isdigit() and argv[7:] == ("",)

    # Asked to stop it stays, idle, and so do the services; a new one finds everything free.
    mark = slave.log_mark()
    assert len(semaphores(slave)) == 1
    daemon.signal(signal.SIGTERM)
    slave.wait_log("slave exit line292", LIMIT, mark)
    listens = f":{PORT:04X} 00000000:0000 0A"
    wait_until(lambda: listens not in slave.shell("cat /proc/net/tcp"), LIMIT, "the port")
    assert daemon.alive and not semaphores(slave)
    assert slave.services.runs("quordhcpd") and slave.services.runs("stagd")
    again = run_daemon(slave)
    slave.wait_log("quorsyncd_role:slave", LIMIT, mark)
    again.signal(signal.SIGINT)
    assert again.wait(LIMIT) == -signal.SIGINT


def test_the_last_beat_may_still_be_answered(lonely_slaves, run_daemon):
    """Three beats are lost, the fourth is answered as soon as it counts as missed."""
    slave, other = lonely_slaves("slave", "other")
    run_daemon(slave)
    with FakeMaster(other, slave) as master:

        def answered_in_time():
            mark = slave.log_mark()
            master.tell(beat_back("#"))
            slave.wait_log(re.compile("bottle=[23], status=71"), LIMIT, mark)
            link = master.connect()
            slave.wait_log("bottle=-1, status=71", LIMIT, mark)
            link.sendall(beat_back("#"))
            slave.wait_log(re.compile(r"bottle=[23], status="), LIMIT, mark)
            link.close()
            return not slave.find_log(PROMOTED, mark)

        # A machine that is busy may miss the quarter of a second, but not again and again.
        wait_until(answered_in_time, LIMIT, "an answer that counts")


def test_starts_that_do_not_go_well(lonely_slaves, run_daemon):
    failing, missing, hanging, old = hosts = lonely_slaves("failing", "missing", "hanging", "old")
    failing.services.configure("quordhcpd", status=1, detach=False)
    missing.services.remove("quordhcpd")
    hanging.services.configure("quordhcpd", delay=1000)
    for name in ("quordhcpd", "stagd"):
        old.run([f"/usr/local/bin/{name}"], check=True)  # Of an earlier daemon.
    before = pids(old)
    (old.root / "var/log/dhcpd_start.log").write_text("")
    daemons = [run_daemon(host) for host in hosts]

    # Marked as on before the wrapper is up; one that is killed while starting counts as started.
    wait_until(lambda: hanging.services.calls("quordhcpd"), LIMIT, "the call of the wrapper")
    assert hanging.config.get("dhcp") == b"on"
    assert not hanging.services.calls("stagd")
    hanging.shell("killall -9 quordhcpd")

    for host in (missing, hanging, old):
        await_services(host)
    # A period later nothing was started that should not be.
    failing.wait_log("dhcpd start result:", LIMIT)
    failing.wait_log("bottle=-2, status=75", LIMIT)
    assert started(failing) == ["quordhcpd"] and started(missing) == ["stagd"]
    assert started(hanging) == ["quordhcpd", "stagd"]
    assert len(pids(old)) == 2 and not set(pids(old)) & set(before)
    assert "quordhcpd was called" in (old.root / "var/log/dhcpd_start.log").read_text()
    assert all(daemon.alive for daemon in daemons)
