"""Hosts on this machine for demo, measurements and pair tests; see README.md."""

from .host import Host
from .lab import Lab
from .namespaces import Process
from .pair import Pair, realistic_clients
from .store import StoreError, describe_difference
from .wait import LabError, WaitTimeout, wait_until

__all__ = [
    "Host",
    "Lab",
    "LabError",
    "Pair",
    "Process",
    "StoreError",
    "WaitTimeout",
    "describe_difference",
    "realistic_clients",
    "wait_until",
]
