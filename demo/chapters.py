"""The chapters of the demo, in the order of this file. A chapter is one function with a title."""

import re
import shlex
import shutil
import subprocess
import tempfile
from collections.abc import Callable
from pathlib import Path

from lab import Host, Pair, describe_difference, realistic_clients, wait_until
from lab.pair import PUSHED_KEYS
from lab.reload_pipe import PATH, RELOAD
from run import LIMIT, Step, Run

CLIENTS = realistic_clients(500)
NEW_CLIENT = realistic_clients(1, seed=2)
SERVICES = ("quordhcpd", "stagd")
TOOK_OVER, STEPPED_DOWN = 720007, 720008
ENOUGH_BEATS = 6  # more than a take-over would need

# Steps that later ones stand on.
FILLED = "master filled, slave empty"
ROLES = "roles decided"
SERVED = "boot services started"

Chapter = Callable[[Run], None]
CHAPTERS: list[tuple[str, Chapter]] = []


def chapter(title: str) -> Callable[[Chapter], Chapter]:
    def enter(function: Chapter) -> Chapter:
        CHAPTERS.append((title, function))
        return function

    return enter


@chapter("Two servers, 500 boot clients")
def meet(run: Run) -> None:
    pair = run.pair
    with run.step(FILLED) as step:
        for host in (pair.master, pair.slave):
            counts = f"{len(host.config.items())} settings, {host.client.count()} clients"
            step.tell(f"{host.name} {host.address}: {counts}")
        mac, record = next(iter(CLIENTS.items()))
        step.tell(f"one of them: {mac.decode()} = {record.decode()}")
        assert pair.master.client.items() == CLIENTS, "the master's client.db is not as filled"
        assert pair.slave.client.count() == 0, "the slave has clients already"
        step.evidence = f"client.db: {len(CLIENTS)} records on the master, none on the slave"

    with run.step(ROLES) as step:
        run.start_clock()
        pair.start_master(foreground=False)
        pair.start_slave(foreground=False)
        for host in (pair.master, pair.slave):
            step.show_log(host, "^first_ip:", "^quorsyncd start", f"^quorsyncd_role:{host.name}$")
        step.evidence = "logged: quorsyncd_role:master, quorsyncd_role:slave"


@chapter("The slave gets what the master has")
def first_copy(run: Run) -> None:
    with run.step("empty slave equal to the master") as step:
        step.needs(FILLED, ROLES)
        step.evidence = wait_equal_records(run.pair)
        step.stop_clock()
        mac = next(iter(CLIENTS)).decode()
        step.show_log(run.pair.master, "^beat back to")
        step.show_log(run.pair.slave, "^request data", "^data 1:", f"^data 2: ({mac}|dbver)=")


@chapter("A client is changed on the master")
def change(run: Run) -> None:
    pair = run.pair
    with run.step("change seen on the slave") as step:
        step.needs(FILLED, ROLES)
        mac, record = next(iter(CLIENTS.items()))
        changed = re.sub(rb"^name=[^|]*", b"name=PC-RENAMED", record)
        pair.master.client.put(mac, changed)
        step.tell(f"on the master: {mac.decode()} = {changed.decode()}")
        raise_stamp(step, pair.master, "client-2")
        run.start_clock()
        wait_until(lambda: pair.slave.client.get(mac) == changed, LIMIT, "the changed client")
        step.stop_clock()
        step.show_log(pair.slave, "master_client_version:client-2", f"^data 2: {mac.decode()}=")
        step.evidence = f"slave's client.db: {mac.decode()} = name=PC-RENAMED|..."

    with run.step("all records equal") as step:
        step.needs(FILLED, ROLES)
        step.evidence = wait_equal_records(pair)


@chapter("The slave's own configuration changes, and the master fetches it")
def fetch(run: Run) -> None:
    master, slave = run.pair.master, run.pair.slave
    copy = master.store(f"{slave.address}.db")
    with run.step("master's copy of the slave's config.db") as step:
        step.needs(ROLES)
        run.pipe.take(1, LIMIT)  # set off by the first copy, after the start
        slave.config.put("ip_begin", "10.77.0.100")
        slave.config.put("dsver", "20261121120000")
        step.tell("on the slave: ip_begin = 10.77.0.100, dsver = 20261121120000")
        run.start_clock()
        wait_until(lambda: not copy.difference(slave.config), LIMIT, "an equal copy")
        step.stop_clock()
        step.show_log(master, "^serverip:.*--add_to_sync", "^Arg->op:256", "^refresh_dhcp$")
        ours, theirs = slave.config.items(), copy.items()
        unequal = describe_difference(slave.name, ours, "copy", theirs)
        assert not unequal, unequal
        step.evidence = f"{slave.address}.db: {len(theirs)} records compared: none differs"

    with run.step("DHCP wrapper told to reload") as step:
        step.needs(ROLES)
        (record,) = run.pipe.take(1, LIMIT)
        step.stop_clock()
        assert record.command == RELOAD, f"command {record.command}"
        step.evidence = f"{PATH}: 68 bytes, command {record.command}, seconds {record.seconds}"


@chapter("One line is cut, the other holds")
def hold(run: Run) -> None:
    pair = run.pair
    with run.step("answers come over the other line") as step:
        step.needs(ROLES)
        mark = pair.slave.log_mark()
        run.start_clock()
        pair.master.line.cut()
        step.tell(f"the line between {pair.master.address} and {pair.slave.address} is cut")

        def beats() -> bool:
            return len(pair.slave.find_log("bottle=", mark)) >= ENOUGH_BEATS

        wait_until(beats, LIMIT, "heartbeats")
        step.stop_clock()
        step.show_log(pair.master, f"^beat back to {pair.slave.second_address}")
        assert not pair.slave.find_log("become a master host", mark), "the slave took over"
        assert not running_services(pair.slave), "the slave runs boot services"
        step.evidence = f"{ENOUGH_BEATS} heartbeats without a take-over"
        pair.master.line.heal()


@chapter("The master dies")
def take_over(run: Run) -> None:
    pair = run.pair
    with run.step("slave takes over") as step:
        step.needs(ROLES)
        early = running_services(pair.slave)
        assert not early, f"the slave runs {', '.join(early)} beside a healthy master"
        assert pair.master_daemon is not None
        run.start_clock()
        pair.master_daemon.kill()
        step.tell(f"on the master: kill -9 {pair.master_daemon.pid}")
        step.wait_log(pair.slave, "^become a master host$")
        step.stop_clock()
        step.show_log(pair.slave, "^bottle=", "^become a master host$")
        step.evidence = "logged: become a master host"

    with run.step(f"event {TOOK_OVER} posted") as step:
        step.needs(ROLES)
        show_event(step, pair.slave, TOOK_OVER)

    with run.step(SERVED) as step:
        step.needs(ROLES)
        wait_until(lambda: all_services_run(pair.slave), LIMIT, "the boot services")
        show_service_calls(step, pair.slave)
        step.evidence = f"processes on the slave: {', '.join(running_services(pair.slave))}"


@chapter("The master returns; clients were changed while its daemon was down")
def give_back(run: Run) -> None:
    pair = run.pair
    with run.step("changes made meanwhile arrive") as step:
        step.needs(ROLES)
        gone, new = list(CLIENTS)[1], next(iter(NEW_CLIENT))
        pair.master.client.delete(gone)
        pair.master.client.fill(NEW_CLIENT)
        step.tell(f"on the master: {gone.decode()} deleted, {new.decode()} added")
        raise_stamp(step, pair.master, "client-3")
        run.start_clock()
        daemon = pair.start_master(foreground=False)
        step.tell(f"on the master: daemon started again, pid {daemon.pid}")
        wait_until(lambda: pair.slave.client.get(new), LIMIT, "the new client on the slave")
        step.stop_clock()
        step.show_log(pair.master, "^quorsyncd_role:master$", "^beat back to")
        step.evidence = f"slave's client.db: {new.decode()} = {NEW_CLIENT[new].decode()}"

    with run.step("slave steps down") as step:
        step.needs(ROLES)
        step.wait_log(pair.slave, "^restore to be a slave host$")
        step.stop_clock()
        step.show_log(pair.slave, "^bottle=", "^restore to be a slave host$")
        step.evidence = "logged: restore to be a slave host"

    with run.step(f"event {STEPPED_DOWN} posted") as step:
        step.needs(ROLES)
        show_event(step, pair.slave, STEPPED_DOWN)

    with run.step("boot services stopped") as step:
        step.needs(SERVED)
        wait_until(lambda: not running_services(pair.slave), LIMIT, "the services' end")
        step.stop_clock()
        step.evidence = f"no process {' or '.join(SERVICES)} on the slave"

    with run.step("stores equal again") as step:
        step.needs(ROLES)
        step.evidence = wait_equal_records(pair)


@chapter("What an operator sees of it")
def look_back(run: Run) -> None:
    pair = run.pair
    with run.step("boot services on the master") as step:
        step.needs(ROLES)
        step.tell("on the master, as its start script does: quorsyncctl service start boot")
        program = pair.master.expose(pair.executable.parent / "quorsyncctl")
        pair.master.run([program, "service", "start", "boot"], check=True)
        wait_until(lambda: len(pair.master.services.running()) == 2, LIMIT, "the boot services")
        step.evidence = "they run"
    for host in (pair.master, pair.slave):
        for verb in ("status", "timeline"):
            with run.step(f"{verb} of the {host.name}") as step:
                step.needs(ROLES)
                step.tell(f"on the {host.name}: quorsyncctl {verb}")
                program = host.expose(pair.executable.parent / "quorsyncctl")
                lines = wait_until(lambda: printed(host, program, verb), LIMIT, "exit status 0")
                for line in lines:
                    step.quote(host, line)
                step.evidence = lines[-1]
    with run.step("both timelines as a page") as step:
        step.needs(ROLES)
        step.evidence = draw_page(step, pair)


def draw_page(step: Step, pair: Pair) -> str:
    """Copy the logs of both servers to a folder that stays, as an operator would; the page."""
    folder = Path(tempfile.mkdtemp(prefix="quorsyncd-demo-"))
    for host in (pair.master, pair.slave):
        shutil.copytree(host.root / "var/log", folder / host.name)
    step.tell(f"in {folder}: quorsyncctl timeline --html pair.html --dir master --dir slave")
    tool = pair.executable.parent / "quorsyncctl"
    command = [tool, "timeline", "--html", "pair.html", "--dir", "master", "--dir", "slave"]
    done = subprocess.run(command, cwd=folder, capture_output=True, text=True, check=False)
    assert done.returncode == 0, f"exit status {done.returncode}: {done.stdout}{done.stderr}"
    page = (folder / "pair.html").read_text(encoding="utf-8")
    for sign in (pair.master.address, pair.slave.address, "#s-take-over", "#s-step-down"):
        assert sign in page, f"{sign} is not in the page"
    return str(folder / "pair.html")


def printed(host: Host, program: str, verb: str) -> list[str]:
    """What the tool says; it cannot tell at once whether the stores are in sync."""
    done = host.run([program, verb])
    text = done.stdout.decode()
    assert done.returncode == 0, f"exit status {done.returncode}: {text}{done.stderr.decode()}"
    return text.splitlines()


def raise_stamp(step: Step, master: Host, stamp: str) -> None:
    """What tells the slave that clients have changed."""
    master.config.put("client_db_version", stamp)
    step.tell(f"on the master: client_db_version = {stamp}")


def wait_equal_records(pair: Pair) -> str:
    """Wait until both servers have the same; says what was compared.

    All of it is repeated, because the slave empties its store whenever it asks for a set again.
    """
    master, slave = pair.master.client, pair.slave.client

    def compare() -> str:
        unequal = pair.difference()
        assert not unequal, unequal
        ours, theirs = master.items(), slave.items()
        unequal = describe_difference(master.name, ours, slave.name, theirs)
        assert not unequal, unequal
        return f"{len(ours)} clients, {len(PUSHED_KEYS)} settings compared one by one: none differs"

    return wait_until(compare, LIMIT, "equal stores", interval=0.05)


def show_event(step: Step, host: Host, code: int) -> None:
    """Exactly one event with this code; the step took as long as until it was posted."""
    wait_until(lambda: host.services.events(code), LIMIT, f"event {code} on {host.name}")
    events = host.services.events(code)
    assert len(events) == 1, f"event {code} was posted {len(events)} times"
    step.stop_clock(events[0].monotonic)
    step.evidence = f"called: evpost_ex {shlex.join(events[0].argv)}"


def running_services(host: Host) -> list[str]:
    return [f"{name} (pid {pid})" for name in SERVICES for pid in host.services.pids(name)]


def all_services_run(host: Host) -> bool:
    missing = [name for name in SERVICES if not host.services.runs(name)]
    assert not missing, f"not running on {host.name}: {', '.join(missing)}"
    return True


def show_service_calls(step: Step, host: Host) -> None:
    """How the services were called, and which descriptors they were given."""
    calls = [call for call in host.services.calls() if call.name in SERVICES]
    step.stop_clock(calls[-1].monotonic)
    for call in calls:
        opened = " ".join(str(number) for number in sorted(call.descriptors))
        step.tell(f"called: {shlex.join(call.argv)} (pid {call.pid}, descriptors {opened})")
