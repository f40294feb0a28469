"""The goals, and whether what was measured holds them."""

import statistics
from dataclasses import dataclass

from experiments import Rest, Results, Sizes
from fetches import Fetches
from lab.outcome import Outcome
from puts import Put


@dataclass(frozen=True)
class Goal:
    """The promise, what was measured of it, and how it ended."""

    text: str
    value: str
    outcome: Outcome


def percent(part: float, whole: float) -> str:
    return f"{100 * part / whole:.0f} %"


def store_goals(results: list[Sizes]) -> list[Goal]:
    goals = []
    for each in results:
        share = statistics.median(each.baseline) / statistics.median(each.daemon)
        text = f"{each.clients:,} clients: at least 80 % of the baseline's speed"
        goals.append(Goal(text, f"{100 * share:.0f} %", Outcome.of(share >= 0.8)))
        if each.clients == 100_000:
            share = statistics.median(each.daemon) / statistics.median(each.load)
            text = "100,000 clients: at most half the time of dump and load"
            goals.append(Goal(text, f"{100 * share:.0f} %", Outcome.of(share <= 0.5)))
    quiet = {each.clients: not each.took_over for each in results}.get(200_000)
    value = "-" if quiet is None else "none" if quiet else "took over"
    text = "no take-over during a re-sync of 200,000 clients"
    return [*goals, Goal(text, value, Outcome.of(quiet))]


def beat_goal(daemon: float, baseline: float) -> Goal:
    text = "heartbeats: at least 70 % of the baseline's speed"
    return Goal(text, percent(daemon, baseline), Outcome.of(daemon / baseline >= 0.7))


def memory_goals(rests: list[Rest]) -> list[Goal]:
    goals = []
    for number, name in enumerate(("master", "slave")):
        sizes = [rest.daemons[number][0] for rest in rests]
        growth = sizes[-1] - sizes[-2]
        text = f"{name} at rest: below 16 MiB, no growth by heartbeats"
        value = f"{max(sizes):.1f} MiB, {growth:+.1f} MiB"
        goals.append(Goal(text, value, Outcome.of(max(sizes) < 16 and growth < 1)))
    return goals


def fetch_goals(fetches: Fetches) -> list[Goal]:
    memory = f"{fetches.after:.1f} MiB, {fetches.growth:+.1f}, peak {fetches.peak:+.1f}"
    flat = fetches.growth < 1 and fetches.peak < 1
    counted = f"{fetches.allocations} in {fetches.jobs:,} jobs"
    return [
        Goal("memory of the daemon flat over all fetches", memory, Outcome.of(flat)),
        Goal("allocations of the job server in the steady state: 0", counted,
             Outcome.of(fetches.allocations == 0)),
    ]


def put_goal(puts: list[Put]) -> Goal:
    """For a disk that flushes as a real one does; a virtual one may not flush at all."""
    slowest = puts[-1]
    text = f"put, flushes of {slowest.flush} ms: at most 150 % of one in place"
    share = percent(slowest.daemon, slowest.baseline)
    return Goal(text, share, Outcome.of(slowest.daemon <= 1.5 * slowest.baseline))


def goals_of(results: Results) -> list[Goal]:
    beats = beat_goal(results.daemon_rate, results.baseline_rate)
    return [*store_goals(results.sizes), beats, *memory_goals(results.rests)]
