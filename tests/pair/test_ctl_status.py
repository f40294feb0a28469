"""What the operator's tool tells of the present: verdict and exit code, JSON, metrics, changes."""

import json
import subprocess
from datetime import datetime
from pathlib import Path
from signal import SIGCONT, SIGSTOP, SIGTERM

import jsonschema
import pytest
from lab import realistic_clients, wait_until
from lab.file_service import FileService
from peer import LIMIT

FINE, PROBLEM, WRONG_USE, CANNOT_TELL = range(4)
ROOT = Path(__file__).resolve().parents[2]
SCHEMA = json.loads((ROOT / "docs/status.schema.json").read_text(encoding="utf-8"))
PROMTOOL = "/usr/bin/promtool"


@pytest.fixture
def told(ctl):
    """The exit code, the names of the problems, and all that `status --json` tells."""

    def ask(host, *options):
        code, out, _ = ctl(host, "status", "--json", *options)
        status = json.loads(out)
        jsonschema.Draft202012Validator(SCHEMA).validate(status)
        assert status["exit_code"] == code
        return code, [problem["name"] for problem in status["problems"]], status

    return ask


@pytest.fixture
def becomes(told):
    """Waits until that is told of a host; returns all of it."""

    def wait(host, code, *names):
        seen = None

        def is_so():
            nonlocal seen
            seen = told(host)
            return seen[:2] == (code, list(names))

        try:
            wait_until(is_so, LIMIT, f"{code} {names} of {host.name}")
        except Exception as error:
            raise AssertionError(f"{host.name}: {seen}") from error
        return seen[2]

    return wait


@pytest.fixture
def serving(pair, ctl):
    """The pair, with the boot services on the master."""
    assert ctl(pair.master, "service", "start", "boot")[0] == FINE
    return pair


@pytest.mark.sanitizer
def test_a_pair_that_is_well(pair_factory, ctl, told, becomes):
    pair = pair_factory(clients=realistic_clients(50))
    master, slave = pair.master, pair.slave
    becomes(slave, PROBLEM, "daemon_missing")
    with FileService(slave):
        pair.start()
        becomes(master, PROBLEM, "service_missing", "service_missing")
        assert ctl(master, "service", "start", "boot")[0] == FINE
        becomes(slave, FINE)  # Also while a set is being copied.
        wait_until(lambda: told(slave)[2]["state"]["sets"]["client"], LIMIT, "the client set")
        status = becomes(slave, FINE)
        state = status["state"]
        started = state["started"]
        moment = datetime.fromisoformat(started["time"] + started["zone"])
        assert moment.timestamp() == started["epoch"]
        assert (status["role"], state["master"]) == ("slave", str(master.address))
        assert state["sets"]["client"]["records"] == 50
        assert state["counters"]["records_stored"] == 52
        assert state["counters"]["transfers_broken"] == state["counters"]["take_overs"] == 0
        assert state["counters"]["heartbeats_answered"] > 0
        wait_until(lambda: list((master.root / "etc/quoradmind").glob("10.*.db")), LIMIT, "a copy")
        fetch = lambda: told(master)[2]["state"]["fetch"]
        wait_until(lambda: fetch()["last_result"] == 0, LIMIT, "the end of the fetch")
        status = becomes(master, FINE)
        assert status["state"]["sets"]["client"]["stamp"] == "client-1"
        assert status["state"]["counters"]["records_sent"] == 54  # With the two closing ones.
    assert f"of {slave.address}: " in ctl(master, "status")[1]
    assert ctl(master, "status", "--json", "--follow")[0] == WRONG_USE
    # Any user may ask.
    assert (slave.root / "run/quorsyncd.state").stat().st_mode & 0o777 == 0o644


def test_what_an_operator_must_act_on(serving, ctl, told, becomes):
    pair, master, slave = serving, serving.master, serving.slave
    becomes(slave, FINE)
    assert ctl(slave, "service", "start", "boot", "--force")[0] == FINE
    becomes(slave, PROBLEM, "both_serve")
    assert ctl(slave, "service", "stop", "boot")[0] == FINE
    becomes(slave, FINE)

    pair.slave_daemon.signal(SIGSTOP)
    becomes(slave, PROBLEM, "stands_still")
    pair.slave_daemon.signal(SIGCONT)
    becomes(slave, FINE)

    master.line.cut()
    becomes(slave, PROBLEM, "acting_master")
    wait_until(lambda: told(slave)[2]["state"]["services_start"], LIMIT, "the end of the start")
    status = becomes(slave, PROBLEM, "acting_master")
    assert (status["role"], status["in_sync"]["verdict"]) == ("acting master", "cannot tell")
    assert status["configured_role"]["role"] == "slave"
    assert status["state"]["services_start"]["result"] == "success"
    assert status["state"]["counters"]["heartbeats_missed"] >= 3
    becomes(master, PROBLEM, "slave_silent")
    slave.shell("killall -9 stagd")
    becomes(slave, PROBLEM, "acting_master", "service_missing")
    master.line.heal()
    becomes(slave, FINE)

    pair.slave_daemon.signal(SIGTERM)
    becomes(slave, PROBLEM, "stopped")
    pair.slave_daemon.kill()
    status = becomes(slave, PROBLEM, "daemon_missing")
    assert status["role"] == "ended" and status["state"]["counters"]["step_downs"] == 1


def test_an_ordinary_push_is_no_problem_at_any_time(
    pair_factory, ctl, told, becomes, daemon_path, daemon_env
):
    pair = pair_factory(clients=realistic_clients(30_000))
    pair.start()
    assert ctl(pair.master, "service", "start", "boot")[0] == FINE
    hosts = (pair.master, pair.slave)
    for host in hosts:
        becomes(host, FINE)
    pair.master.client.put("new", "record")
    wait_until(lambda: told(pair.master)[2]["warnings"], LIMIT, "a warning")
    assert ctl(pair.master, "store", "bump", "client")[0] == FINE
    assert ctl(pair.slave, "store", "bump", "client", "--force", "--wait")[0] == WRONG_USE
    seen = []

    def whole():
        seen.extend(told(host) for host in hosts)
        return all(
            status["state"]["sets"]["client"]["records"] == 30_001
            and status["in_sync"]["verdict"] == "yes"
            for _, _, status in seen[-2:]
        )

    wait_until(whole, LIMIT, "the new list on both")
    assert {(code, *names) for code, names, _ in seen} == {(FINE,)}
    masters = [status for _, _, status in seen[::2]]
    early = [each for each in masters if each["state"]["sets"]["client"]["records"] == 30_000]
    assert early and all(each["in_sync"]["verdict"] == "copying" for each in early)
    reasons = [status["in_sync"]["reason"] for _, _, status in seen]
    assert any(" of about 30,000 records of the client set" in reason for reason in reasons)
    assert seen[-2][2]["warnings"] == []
    code, line, _ = ctl(pair.master, "status", "--nagios")
    assert code == FINE and line.startswith("QUORSYNCD OK - master, in sync: ")
    put = ["store", "put", "-f", "client", "newer", "record", "--bump", "--wait"]
    code, out, _ = ctl(pair.master, *put)
    assert code == FINE and out.startswith("client: the slave has 2")
    assert pair.slave.client.get("newer") == b"record"
    pair.slave_daemon.signal(SIGSTOP)
    tool = pair.master.expose(daemon_path.parent / "quorsyncctl")
    code, _, complaint = ctl(pair.master, "store", "bump", "--wait", "2", "client")
    assert code == PROBLEM and "no slave has taken" in complaint
    stamp = pair.master.config.get("client_db_version")
    bump = [tool, "store", "bump", "--wait", "900", "client"]
    with open(pair.master.root / "tmp/complaint", "w+b") as complaint:
        waiting = pair.master.popen(bump, stderr=complaint, env=daemon_env)
        wait_until(lambda: pair.master.config.get("client_db_version") != stamp, LIMIT, "a stamp")
        pair.master_daemon.kill()
        assert waiting.wait() == PROBLEM
        complaint.seek(0)
        assert b"no longer master" in complaint.read()


def test_both_sides_at_once(serving, ctl, told, becomes):
    master, slave = serving.master, serving.slave
    becomes(master, FINE)
    with FileService(slave):
        code, names, status = told(master, "--peer")
        assert (code, names, status["peer"]["failure"]) == (FINE, [], None)
        here, there = status["peer"]["here"], status["peer"]["there"]
        assert here["settings"]["client_db_version"] == there["settings"]["client_db_version"]
        assert [side["configured_role"]["role"] for side in (here, there)] == ["master", "slave"]
        slave.config.put("master", slave.address)
        code, names, status = told(master, "--peer", slave.address)
        assert (code, names) == (PROBLEM, ["peer_disagrees"])
        code, out, _ = ctl(master, "status", "--peer")
        assert "two masters, which both serve clients" in out
        rows = [line.split() for line in out.splitlines()]
        assert ["master", master.address, slave.address, "DIFFER"] in rows
        assert f"not known from here of {slave.address}: its role now" in out
    code, names, status = told(master, "--peer")
    assert (code, names, status["peer"]["there"]) == (PROBLEM, ["peer_not_read"], None)
    assert told(master)[0] == FINE and "peer" not in told(master)[2]


@pytest.mark.parametrize("log", ["read-only", "missing"])
def test_a_log_that_cannot_be_written_hides_nothing(serving, becomes, log):
    slave = serving.slave
    becomes(slave, FINE)
    slave.shell("mount -t tmpfs -o ro tmpfs /var/log" if log == "read-only" else "rm -r /var/log")
    becomes(slave, PROBLEM, "log_not_written")
    serving.master.line.cut()
    status = becomes(slave, PROBLEM, "acting_master", "log_not_written")
    assert status["state"]["counters"]["log_lines_lost"] > 0
    both = ["quordhcpd", "stagd"]
    wait_until(lambda: slave.services.running() == both, LIMIT, "the boot services")


def test_without_a_page_the_daemon_goes_on_and_status_says_so(pair_factory, ctl, becomes):
    pair = pair_factory()
    pair.slave.shell("mount -t tmpfs -o ro tmpfs /run")
    # Before the first start, too, nobody knows a role.
    assert becomes(pair.slave, PROBLEM, "daemon_missing")["role"] == "unknown"
    assert "unknown: /run/quorsyncd.state" in ctl(pair.slave, "status")[1]
    pair.start()
    pair.slave.wait_log("/run/quorsyncd.state cannot be made", LIMIT)
    status = becomes(pair.slave, CANNOT_TELL)
    assert "No such file" in status["no_state"] and status["role"] == "unknown"
    assert "unknown: /run/quorsyncd.state" in ctl(pair.slave, "status")[1]


def test_metrics_and_alert_rules_are_well_formed(serving, ctl, becomes):
    for host, role in ((serving.master, "master"), (serving.slave, "slave")):
        becomes(host, FINE)
        code, metrics, _ = ctl(host, "status", "--prometheus")
        assert code == FINE
        done = subprocess.run(
            [PROMTOOL, "check", "metrics"], input=metrics, capture_output=True, text=True
        )
        assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
        assert f'\nquorsyncd_role{{role="{role}"}} 1\n' in metrics
        assert "\nquorsyncd_in_sync 1\n" in metrics and "\nquorsyncd_up 1\n" in metrics
    rules = ROOT / "packaging/examples/quorsyncd-alerts.yml"
    subprocess.run([PROMTOOL, "check", "rules", rules], check=True, capture_output=True)
    # An alert on a metric that does not exist never comes.
    for name in set(json.dumps(rules.read_text()).replace("(", " ").split()):
        if name.startswith("quorsyncd_"):
            assert name.partition("{")[0].partition("[")[0] in metrics
    serving.slave_daemon.kill()
    code, metrics, _ = ctl(serving.slave, "status", "--prometheus")
    assert code == PROBLEM and "\nquorsyncd_up 0\n" in metrics
    assert '\nquorsyncd_problem{name="daemon_missing"} 1\n' in metrics


def test_changes_are_followed_through_a_pipe(serving, daemon_path, becomes):
    master, slave = serving.master, serving.slave
    becomes(slave, FINE)
    seen = slave.root / "tmp/seen"
    tool = slave.expose(daemon_path.parent / "quorsyncctl")
    follower = slave.popen(["/bin/sh", "-c", f"{tool} status --follow | cat > /tmp/seen"])

    def comes(*texts):
        wait_until(lambda: all(text in seen.read_text() for text in texts), LIMIT, str(texts))

    wait_until(seen.exists, LIMIT, "the first line")
    comes("role    slave\n")
    master.client.put("new", "record")
    master.config.put("client_db_version", "client-2")
    comes("sync    client set whole, 21 records\n")
    master.line.cut()
    comes("answer  lost\n", "role    acting master\n")
    master.line.heal()
    comes("answer  back\n", "role    slave\n")
    slave.shell("killall quorsyncctl")
    assert follower.wait(LIMIT) == 0
