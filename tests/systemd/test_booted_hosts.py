"""The package on two servers, from its installation to its purge: each test builds on the one before."""

import pytest
from lab import wait_until

LIMIT = 60.0
SETTINGS = {"server_list": "10.77.0.1,10.77.0.2", "master": "10.77.0.1", "ha": "enable"}
pytestmark = pytest.mark.usefixtures("hosts")


def unit(host, field):
    return host.shell(f"systemctl show --value -p {field} quorsyncd").strip()


def status(host):
    return host.shell("quorsyncctl status", check=False)


def is_fine(host):
    return host.run(["quorsyncctl", "status"]).returncode == 0


def serves(host):
    return all(host.run(["pidof", name]).returncode == 0 for name in ("quordhcpd", "stagd"))


def journal(host, *options):
    return host.run(["journalctl", "--no-pager", "-o", "cat", *options]).stdout


def both_are_fine(master, slave):
    wait_until(lambda: is_fine(master) and is_fine(slave), LIMIT, "both in sync", 0.5)
    assert serves(master) and not serves(slave)


def test_an_installation_starts_nothing(master, slave):
    for host in (master, slave):
        host.shell("apt-get install --yes --no-install-recommends /packages/first.deb")
        assert host.shell("systemctl is-enabled quorsyncd", check=False).strip() == "disabled"
        assert unit(host, "ActiveState") == "inactive"


def test_the_first_start_as_the_readme_tells_it(master, slave):
    for host in (master, slave):
        for key, value in SETTINGS.items():
            host.shell(f"quorsyncctl store put {key} {value}")
    records = "seq 300 | sed 's/.*/{\"key\": \"client&\", \"value\": \"v\"}/'"
    master.shell(f"{records} | quorsyncctl store load - --file client")
    master.shell("quorsyncctl store bump config && quorsyncctl store bump client")
    for host in (master, slave):
        host.shell("quorsyncctl check")
    master.shell("quorsyncctl service start boot && systemctl enable --now quorsyncd")
    slave.shell("systemctl enable --now quorsyncd")
    both_are_fine(master, slave)
    assert "client set" in slave.shell("quorsyncctl timeline")
    assert slave.shell("quorsyncctl store dump --file client").count("client") == 300
    assert not journal(slave, "-u", "quorsyncd", "-p", "err")


def test_a_killed_daemon_comes_back_before_its_slave_takes_over(master, slave):
    old = unit(master, "MainPID")
    master.shell(f"kill -KILL {old}")
    wait_until(lambda: unit(master, "MainPID") not in ("0", old), LIMIT, "the restart", 0.2)
    assert serves(master), "the boot services outlive the daemon"
    both_are_fine(master, slave)
    slave.shell("quorsyncctl store bump dsver")  # the master asks for its settings; nobody answers
    errors = lambda: journal(master, "-u", "quorsyncd", "-p", "err")
    wait_until(lambda: "Client.GetServerFile nRet:-1" in errors(), LIMIT, "an error", 0.2)


def test_a_power_cut_and_the_way_back(master, slave):
    master.cut_power()
    wait_until(lambda: serves(slave), LIMIT, "the take-over", 0.5)
    assert "become a master host" in journal(slave, "-u", "quorsyncd")
    assert "acting master" in status(slave)
    master.boot()
    master.shell("quorsyncctl service start boot")
    both_are_fine(master, slave)


def test_an_upgrade_leaves_the_daemon_alone(master, slave):
    for host in (slave, master):
        old = unit(host, "MainPID")
        said = host.shell("apt-get install --yes /packages/newer.deb")
        assert "still runs" in said
        assert unit(host, "MainPID") == old
        host.shell("systemctl restart quorsyncd")
        assert unit(host, "MainPID") != old
        both_are_fine(master, slave)


def test_a_removal_ends_the_daemon_and_a_purge_its_logs(master, slave):
    for host in (slave, master):
        served = serves(host)
        host.shell("apt-get remove --yes quorsyncd")
        assert host.run(["pidof", "quorsyncd"]).returncode != 0
        assert serves(host) == served, "the boot services go on"
        assert host.shell("ls /var/log/quorsyncd_*.log")
        host.shell("touch /var/log/quorsyncd_2020_01_02.log.1.gz")
        said = host.shell("apt-get purge --yes quorsyncd")
        assert "/etc/quoradmind stay" in said
        assert not host.shell("ls /var/log | grep quorsyncd", check=False)
        assert host.shell("ls /etc/quoradmind/config.db /etc/quoradmind/client.db")
