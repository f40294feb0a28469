"""Two servers that systemd has booted, with stand-ins for the site's programs."""

import shutil
import subprocess
import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT))

from lab.booted import BootedHost  # noqa: E402
from lab.network import Switch  # noqa: E402

WORK = ROOT / "build/systemd"
SERVICE = """#!/bin/sh
setsid --fork /usr/local/lib/boot/{name} infinity </dev/null >/dev/null 2>&1
"""


def put_site_programs(root):
    """The boot services each leave a process of their own name behind; the event tool does nothing."""
    kept = root / "usr/local/lib/boot"
    kept.mkdir()
    for name in ("quordhcpd", "stagd"):
        shutil.copy(root / "usr/bin/sleep", kept / name)
        program = root / "usr/local/bin" / name
        program.write_text(SERVICE.format(name=name))
        program.chmod(0o755)
    shutil.copy(root / "usr/bin/true", root / "usr/local/bin/evpost_ex")


@pytest.fixture(scope="session")
def hosts():
    """The master and the slave; the tests follow each other on the same two."""
    switch = Switch()
    switch.wait_ready()
    made = []
    try:
        for number, name in enumerate(("master", "slave"), 1):
            root = WORK / name
            shutil.rmtree(root, ignore_errors=True)
            # With its device files, which Python would read.
            subprocess.run(["cp", "--archive", WORK / "bare", root], check=True)
            put_site_programs(root)
            made.append(BootedHost(root, WORK / "packages", switch, f"p{number}", f"10.77.0.{number}"))
            made[-1].boot()
        yield made
    finally:
        for host in made:
            host.cut_power()
        switch.close()


@pytest.fixture
def master(hosts):
    return hosts[0]


@pytest.fixture
def slave(hosts):
    return hosts[1]


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """Of a failed test: the journals of both."""
    report = (yield).get_result()
    if report.failed and "hosts" in item.funcargs:
        for host in item.funcargs["hosts"]:
            report.sections.append((host.name, host.shell("journalctl --no-pager -n 60 -u quorsyncd", False)))


def pytest_collection_modifyitems(session):
    """A story in steps: behind a failed one, the others say nothing."""
    session.config.option.maxfail = 1
