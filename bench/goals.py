"""The goals, and whether what was measured holds them."""

import statistics
from collections.abc import Callable
from dataclasses import dataclass

from experiments import Results, Sizes
from fetches import Fetches
from lab.outcome import Outcome
from puts import Put

Format = Callable[[float], str]


def share(value: float) -> str:
    return f"{100 * value:.0f} %"


def mib(value: float) -> str:
    return f"{value:.1f} MiB"


def count(value: float) -> str:
    return f"{value:.0f}"


@dataclass(frozen=True)
class Promise:
    """What a figure must be: at least or at most so much."""

    text: str
    bound: str
    limit: float
    form: Format

    def holds(self, value: float) -> bool:
        return value >= self.limit if self.bound == "at least" else value <= self.limit


@dataclass(frozen=True)
class Goal:
    """The promise, what was measured of it, and how it ended."""

    text: str
    value: str
    outcome: Outcome


def speed_at(clients: int, least: float) -> Promise:
    return Promise(f"{clients:,} clients, of the baseline's speed", "at least", least, share)


# By the name of the figure.
PROMISES = {
    "speed 1000": speed_at(1_000, 0.5),
    "speed 10000": speed_at(10_000, 0.8),
    "speed 100000": speed_at(100_000, 1.0),
    "speed 300000": speed_at(300_000, 1.0),
    "load": Promise("100,000 clients, of the time of dump and load", "at most", 0.3, share),
    "rsync": Promise("100,000 clients, of the time of rsync", "at most", 1.6, share),
    "processor": Promise(
        "100,000 clients, processor of both", "at most", 0.8, lambda value: f"{value:.2f} s"
    ),
    "growth": Promise(
        "1,000,000 clients, time for each, of that at 100,000", "at most", 1.25, share
    ),
    "take-overs": Promise("pushes with a take-over", "at most", 0, count),
    "beats": Promise("heartbeats, of the baseline's speed", "at least", 1.0, share),
    "master's rest": Promise("master at rest", "at most", 8, mib),
    "slave's rest": Promise("slave at rest", "at most", 9.5, mib),
    "beats' memory": Promise("memory, growth by heartbeats", "at most", 1, mib),
    "master's peak": Promise("300,000 clients, master's peak beyond the file", "at most", 32, mib),
    "slave's peak": Promise("300,000 clients, slave's peak beyond the file", "at most", 32, mib),
    "fetches' memory": Promise("memory, growth by fetches", "at most", 1, mib),
    # The copy is verified, with a cache of 16 MiB.
    "fetch's peak": Promise("memory, peak of a fetch", "at most", 24, mib),
    # A disk that flushes as a real one does; a virtual one may not flush at all.
    "put": Promise("a put, flushes of 8 ms, of one in place", "at most", 1.5, share),
    "allocations": Promise("allocations of the job server at work", "at most", 0, count),
}


def ratio(part: list[float], whole: list[float]) -> float:
    return statistics.median(part) / statistics.median(whole)


def push_figures(sizes: list[Sizes]) -> dict[str, float]:
    figures = {f"speed {each.clients}": ratio(each.baseline, each.daemon) for each in sizes}
    figures["take-overs"] = sum(each.took_over for each in sizes)
    by_clients = {each.clients: each for each in sizes}
    if known := by_clients.get(100_000):
        figures["load"] = ratio(known.daemon, known.load)
        figures["rsync"] = ratio(known.daemon, known.rsync)
        figures["processor"] = statistics.median(known.processor)
        if largest := by_clients.get(1_000_000):
            figures["growth"] = ratio(largest.daemon, known.daemon) / 10
    if large := by_clients.get(300_000):
        figures["master's peak"], figures["slave's peak"] = (
            peak - large.file for peak in large.peaks
        )
    return figures


def figures_of(results: Results) -> dict[str, float]:
    rests = [[mebibytes for mebibytes, _ in rest.daemons] for rest in results.rests]
    master, slave = (max(values) for values in zip(*rests))
    return {
        **push_figures(results.sizes),
        "beats": results.daemon_rate / results.baseline_rate,
        "master's rest": master,
        "slave's rest": slave,
        "beats' memory": max(last - before for last, before in zip(rests[-1], rests[-2])),
    }


def fetch_figures(fetches: Fetches) -> dict[str, float]:
    return {
        "fetches' memory": fetches.growth,
        "fetch's peak": fetches.peak,
        "allocations": fetches.allocations,
    }


def put_figures(puts: list[Put]) -> dict[str, float]:
    slowest = puts[-1]
    return {"put": slowest.daemon / slowest.baseline}


def goals_of(figures: dict[str, float]) -> list[Goal]:
    """In the order of the table; what was not measured has no outcome."""
    goals = []
    for name, promise in PROMISES.items():
        value = figures.get(name)
        goals.append(
            Goal(
                f"{promise.text}: {promise.bound} {promise.form(promise.limit)}",
                "-" if value is None else promise.form(value),
                Outcome.of(None if value is None else promise.holds(value)),
            )
        )
    return goals
