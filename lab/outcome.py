"""How a promise ended: a step of the demo, a goal of the benchmarks."""

from collections.abc import Iterable
from enum import Enum


class Outcome(Enum):
    """The value is the word that a reader sees."""

    HELD = "held"
    FAILED = "FAILED"
    SKIPPED = "skipped"

    @classmethod
    def of(cls, held: bool | None) -> "Outcome":
        """None stands for what was not tried."""
        return cls.SKIPPED if held is None else cls.HELD if held else cls.FAILED


def tally(outcomes: Iterable[Outcome], what: str) -> str:
    """For example "7 of 8 goals held"."""
    every = list(outcomes)
    return f"{every.count(Outcome.HELD)} of {len(every)} {what} held"
