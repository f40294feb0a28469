"""Waiting for conditions instead of sleeping for a guess."""

import time
from collections.abc import Callable
from typing import TypeVar

T = TypeVar("T")


class LabError(Exception):
    """The lab itself cannot do what was asked."""


class WaitTimeout(AssertionError):
    """A condition did not come true in time; an assertion, because a test waits for a promise."""


def wait_until(
    predicate: Callable[[], T], timeout: float = 20.0, what: str = "", interval: float = 0.02
) -> T:
    """Call `predicate` until its result is true and return that result.

    The last result and the last AssertionError raised inside stand in the message of the
    WaitTimeout, so that a failing test says what it saw instead of only that it waited.
    """
    begin = time.monotonic()
    while True:
        failure: AssertionError | None = None
        result: object = None
        try:
            result = predicate()
        except AssertionError as error:
            failure = error
        if result:
            return result  # type: ignore[return-value]
        waited = time.monotonic() - begin
        if waited > timeout:
            seen = f"{failure}" if failure else f"last result: {result!r}"
            name = what or getattr(predicate, "__name__", "condition")
            raise WaitTimeout(f"waited {waited:.1f} s for {name}; {seen}") from failure
        time.sleep(interval)
