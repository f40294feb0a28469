"""`/usr/bin/python3 -m lab shell`: a running pair for an operator to walk around in."""

import argparse
import signal
import sys
from pathlib import Path

from . import LabError, Pair, realistic_clients

DAEMON = Path(__file__).resolve().parent.parent / "build/release/quorsyncd"


def shell(executable: str, clients: int) -> None:
    with Pair(executable, clients=realistic_clients(clients)) as pair:
        pair.start_master()
        pair.start_slave()
        print("Two servers run. Logs are in /var/log, databases in /etc/quoradmind.")
        for host in pair.lab.hosts:
            print(f"\n{host.name} ({host.address}):\n  {host.enter_command}")
        print("\nCtrl-C ends both and leaves nothing behind.", flush=True)
        signal.sigwait({signal.SIGINT, signal.SIGTERM})


def main() -> int:
    parser = argparse.ArgumentParser(prog="/usr/bin/python3 -m lab", description=__doc__)
    parser.add_argument("verb", choices=["shell"])
    parser.add_argument("--daemon", default=str(DAEMON), help="the executable (%(default)s)")
    parser.add_argument("--clients", type=int, default=500, help="boot clients of the master")
    arguments = parser.parse_args()
    # Blocked and waited for: the end comes as a value, not in the middle of something.
    signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGINT, signal.SIGTERM})
    try:
        shell(arguments.daemon, arguments.clients)
    except LabError as error:
        print(f"lab: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
