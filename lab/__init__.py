"""Hosts on this machine for demo, measurements and pair tests; see README.md."""

from .host import Daemon, Host
from .lab import Lab
from .logs import LogLine, LogMark
from .namespaces import Process
from .pair import Pair, realistic_clients
from .services import Call, Event
from .store import Store, StoreError, describe_difference
from .wait import LabError, WaitTimeout, wait_until

__all__ = [
    "Call",
    "Daemon",
    "Event",
    "Host",
    "Lab",
    "LabError",
    "LogLine",
    "LogMark",
    "Pair",
    "Process",
    "Store",
    "StoreError",
    "WaitTimeout",
    "describe_difference",
    "realistic_clients",
    "wait_until",
]
