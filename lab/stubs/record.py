"""Second half of a stub: records the call of its grandparent, then plays the service.

Usage: record.py PID BLOCKED IGNORED CAUGHT, the last three as in /proc/PID/status. Settings come
from /lab/stubs/NAME.json: "status" to exit with, "delay" in seconds before that, "detach" for a
process that stays behind; or "program", which then does what was asked for.
"""

import json
import os
import signal
import sys
import time

RECORDS = "/lab/calls.jsonl"


def read(path):
    with open(path, "rb") as file:
        return file.read()


def settings_of(name):
    try:
        return json.loads(read(f"/lab/stubs/{name}.json"))
    except FileNotFoundError:
        return {}


def descriptors_of(pid):
    folder = f"/proc/{pid}/fd"
    return {entry: os.readlink(f"{folder}/{entry}") for entry in os.listdir(folder)}


def describe(pid, blocked, ignored, caught):
    # The kernel put "mawk -Wexec" in front of the script and its arguments.
    argv = [os.fsdecode(word) for word in read(f"/proc/{pid}/cmdline").split(b"\0")[2:-1]]
    stat = read(f"/proc/{pid}/stat").decode(errors="replace")
    return {
        "time": time.time(),
        "monotonic": time.monotonic(),
        "name": os.path.basename(argv[0]),
        "argv": argv,
        "pid": int(pid),
        "ppid": int(stat.rpartition(")")[2].split()[1]),
        "descriptors": descriptors_of(pid),
        "blocked": blocked,
        "ignored": ignored,
        "caught": caught,
    }


def append(record):
    """One write to a file opened for appending: records of two calls never mix."""
    file = os.open(RECORDS, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o644)
    os.write(file, json.dumps(record).encode() + b"\n")
    os.close(file)


def stay_behind(name):
    """The service itself: keeps every inherited descriptor, so that a leak shows.

    Returns once it is up: whoever sees the foreground end finds the service by its name.
    """
    up, tell = os.pipe()
    if os.fork() == 0:
        os.setsid()
        with open("/proc/self/comm", "w", encoding="ascii") as file:
            file.write(name)
        os.close(up)
        os.close(tell)
        while True:
            signal.pause()
    os.close(tell)
    os.read(up, 1)


def main():
    record = describe(*sys.argv[1:])
    append(record)
    name = record["name"]
    settings = {"status": 0, "delay": 0, "detach": False, **settings_of(name)}
    if "program" in settings:
        os.execv(settings["program"], record["argv"])
    print(f"{name} was called", flush=True)
    time.sleep(settings["delay"])
    if settings["detach"]:
        stay_behind(name)
    return settings["status"]


if __name__ == "__main__":
    sys.exit(main())
