"""Fixtures of the pair tests: pairs of real daemons that a failing test leaves evidence of."""

import os
import re
import secrets
import signal
import sys
from contextlib import ExitStack
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT))

import lab  # noqa: E402

ABSENT = "10.77.0.250"
LOOKED_FOR_LEAKS = "looked for leaks"
LABS = pytest.StashKey[list]()
SANITIZER_REPORT = re.compile(r"(Address|Thread|Leak|UndefinedBehavior)Sanitizer|runtime error:")


def pytest_configure(config):
    config.addinivalue_line(
        "markers", "sanitizer: runs under the sanitizers, too; nothing in it depends on speed"
    )
    config.addinivalue_line("markers", "soak: takes long; runs with --soak only")


def pytest_collection_modifyitems(config, items):
    if not config.getoption("--soak"):
        long = [item for item in items if item.get_closest_marker("soak")]
        config.hook.pytest_deselected(items=long)
        items[:] = [item for item in items if item not in long]


def pytest_addoption(parser):
    parser.addoption(
        "--daemon",
        default=str(ROOT / "build/release/quorsyncd"),
        help="the quorsyncd to test (default: %(default)s)",
    )
    parser.addoption("--soak", action="store_true", help="the long forms of the bad days, too")
    parser.addoption("--rounds", type=int, default=6, help="kills (default: %(default)s)")
    parser.addoption("--seed", type=int, help="for what is random (default: another every time)")


def pytest_generate_tests(metafunc):
    """One long test becomes several, which can run side by side."""
    if "soak_round" in metafunc.fixturenames:
        metafunc.parametrize("soak_round", range(metafunc.config.getoption("--rounds") // 20 + 1))


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """Add what the hosts look like to the report, while they still exist."""
    report = (yield).get_result()
    if report.failed:
        for each in item.stash.get(LABS, []):
            try:
                report.sections.append(("evidence", each.evidence()))
            except (lab.LabError, OSError) as error:
                report.sections.append(("evidence", f"cannot be had: {error}"))


@pytest.fixture
def rounds(request):
    return request.config.getoption("--rounds")


@pytest.fixture
def seed(request):
    """What the test's dice start from; a failed test shows it."""
    given = request.config.getoption("--seed")
    number = secrets.randbelow(1 << 32) if given is None else given
    print(f"--seed={number}")
    return number


@pytest.fixture
def daemon_path(request):
    """The executable under test."""
    path = Path(request.config.getoption("--daemon")).resolve()
    if not path.exists():
        pytest.fail(f"there is no {path}: build it or name another with --daemon")
    return path


@pytest.fixture
def daemon_env():
    """The settings of the sanitizers: a host passes nothing on by itself."""
    return {name: text for name, text in os.environ.items() if name.endswith("SAN_OPTIONS")}


@pytest.fixture
def ctl(daemon_path, daemon_env):
    """Runs the tool in a host: the exit code, standard output and standard error."""
    beside = daemon_path.parent / "quorsyncctl"
    # It has one thread, so the thread sanitizer's build leaves it out.
    tool = beside if beside.exists() else ROOT / "build/release/quorsyncctl"

    def run(host, *arguments):
        path = host.expose(tool)
        done = host.run([path, *arguments], env=daemon_env)
        return done.returncode, done.stdout.decode(), done.stderr.decode()

    return run


@pytest.fixture
def traces():
    """All that looking at a host may not change."""

    def see(host):
        places = [host.root / place for place in ("etc", "var/log", "var/lib")]
        files = [path for place in places for path in [place, *place.rglob("*")]]
        # Of /tmp only the contents: the thread sanitizer makes a file there at its start.
        files += (host.root / "tmp").rglob("*")
        return {(str(path), path.lstat().st_mtime_ns, path.lstat().st_ino) for path in files}

    return see


def look_for_leaks(daemon):
    """Have it look, where it was built to; what it finds is a report."""
    if daemon.alive and int(daemon.status_field("SigCgt"), 16) >> (signal.SIGUSR2 - 1) & 1:
        daemon.signal(signal.SIGUSR2)
        lab.wait_until(lambda: LOOKED_FOR_LEAKS in daemon.output_text(), 60, "its look for leaks")


def assert_no_sanitizer_report(opened):
    for host in getattr(opened, "lab", opened).hosts:
        for daemon in host.daemons:
            look_for_leaks(daemon)
            text = daemon.output_text()
            assert not SANITIZER_REPORT.search(text), f"{host.name}:\n{text[-20000:]}"


@pytest.fixture
def _labs(request):
    """Closes what a test opened, and remembers it for the evidence."""
    request.node.stash[LABS] = []
    with ExitStack() as stack:

        def open_one(opened):
            request.node.stash[LABS].append(opened)
            return stack.enter_context(opened)

        yield open_one
        for opened in request.node.stash[LABS]:
            assert_no_sanitizer_report(opened)


@pytest.fixture
def empty_lab(_labs):
    """An empty lab."""
    return _labs(lab.Lab())


@pytest.fixture
def run_daemon(daemon_path, daemon_env):
    """Starts the daemon in a host; the options are those of Host.start_daemon."""
    return lambda host, **options: host.start_daemon(daemon_path, env=daemon_env, **options)


@pytest.fixture
def pair_factory(_labs, daemon_path, daemon_env):
    """Makes pairs (not started); the arguments are those of lab.Pair after the executable."""
    return lambda **options: _labs(lab.Pair(daemon_path, env=daemon_env, **options))


@pytest.fixture
def lonely_slaves(empty_lab):
    """Makes hosts that are slaves of a master that is not there."""

    def make(*names):
        hosts = empty_lab.add_hosts(names)
        for host in hosts:
            servers = f"{ABSENT},{host.address}"
            host.config.fill({"ha": "enable", "server_list": servers, "master": ABSENT})
        return hosts

    return make


@pytest.fixture
def pair(pair_factory):
    """A running pair with a few boot clients."""
    fresh = pair_factory(clients=lab.realistic_clients(20))
    fresh.start()
    return fresh
