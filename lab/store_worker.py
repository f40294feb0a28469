"""Reads and writes Berkeley DB files inside a host, as a process of its own.

The library may crash or loop on a damaged file; then only this process is lost. Started by
store.py as a script; requests and answers are pickled tuples on descriptor 0.

Locking is that of the daemon: flock on the database file itself, through a descriptor that is
used for nothing else. Who gets the lock looks whether the path still leads to the locked file,
because a file may be replaced by renaming.
"""

import contextlib
import fcntl
import hashlib
import os
import subprocess
import time
from multiprocessing.connection import Connection

from bsddb3 import db

CACHE_BYTES = 64 << 20
READ_RETRY_SECONDS = 2.0
RECORDS_PER_LOCK = 20000


@contextlib.contextmanager
def locked(path, kind):
    """Hold the lock on the file that `path` leads to."""
    while True:
        handle = os.open(path, os.O_RDONLY)
        try:
            fcntl.flock(handle, kind)
            held, current = os.fstat(handle), os.stat(path)
            if (held.st_dev, held.st_ino) == (current.st_dev, current.st_ino):
                yield
                return
        finally:
            os.close(handle)


@contextlib.contextmanager
def opened(path, flags, cache=0):
    """A handle on the file. The big cache is for fills: making it costs more than a lookup."""
    handle = db.DB()
    try:
        if cache:
            handle.set_cachesize(0, cache)
        handle.open(path, None, db.DB_HASH, flags, 0o664)
        yield handle
    finally:
        handle.close()


def create(path):
    """Make an empty file beside its place and link it in: nobody ever sees half a file."""
    if os.path.exists(path):
        return
    fresh = f"{path}.{os.getpid()}.new"
    with opened(fresh, db.DB_CREATE):
        pass
    try:
        os.link(fresh, path)
    except FileExistsError:
        pass
    finally:
        os.unlink(fresh)


def reading(path, action, default):
    """Run `action` on an open handle, again if somebody writes without a lock at the time."""
    limit = time.monotonic() + READ_RETRY_SECONDS
    while True:
        try:
            with locked(path, fcntl.LOCK_SH), opened(path, db.DB_RDONLY) as handle:
                return action(handle)
        except FileNotFoundError:
            return default
        except db.DBError:
            if time.monotonic() > limit:
                raise
        time.sleep(0.02)


def records(handle):
    cursor = handle.cursor()
    try:
        record = cursor.first()
        while record:
            yield record
            record = cursor.next()
    finally:
        cursor.close()


def digest(handle):
    """Number of records and a sum that does not depend on their order."""
    count = total = 0
    for key, value in records(handle):
        text = b"%d:%s%s" % (len(key), key, value)
        total += int.from_bytes(hashlib.blake2b(text, digest_size=16).digest(), "little")
        count += 1
    return count, total % (1 << 128)


def fill(path, pairs):
    """Store many records; the lock is let go now and then, a waiting daemon wants it, too."""
    create(path)
    for start in range(0, len(pairs), RECORDS_PER_LOCK):
        with locked(path, fcntl.LOCK_EX), opened(path, 0, CACHE_BYTES) as handle:
            for key, value in pairs[start : start + RECORDS_PER_LOCK]:
                handle.put(key, value)


def delete(path, key):
    """True if the key was there."""
    try:
        with locked(path, fcntl.LOCK_EX), opened(path, 0) as handle:
            handle.delete(key)
    except (FileNotFoundError, db.DBNotFoundError):
        return False
    return True


def verify(path):
    """Whether Berkeley DB finds the file sound. The binding's own verify never says no."""
    with locked(path, fcntl.LOCK_SH):
        done = subprocess.run(["/usr/bin/db5.3_verify", "-q", path], stderr=subprocess.DEVNULL)
        return done.returncode == 0


OPERATIONS = {
    "get": lambda path, key: reading(path, lambda handle: handle.get(key), None),
    "items": lambda path: reading(path, lambda handle: dict(records(handle)), {}),
    "digest": lambda path: reading(path, digest, (0, 0)),
    "fill": fill,
    "delete": delete,
    "verify": verify,
}


def main():
    connection = Connection(0)
    while True:
        try:
            operation, *arguments = connection.recv()
        except EOFError:
            return
        try:
            answer = (True, OPERATIONS[operation](*arguments))
        except (OSError, db.DBError) as error:
            answer = (False, f"{type(error).__name__}: {error}")
        connection.send(answer)


if __name__ == "__main__":
    main()
