"""What a run of the benchmarks prints: its progress, its figures, its goals."""

import statistics
import time

from experiments import Rest, Results, Sizes
from fetches import Fetches
from goals import Goal, percent
from lab.outcome import tally
from puts import Put

BEGIN = time.monotonic()


def progress(text: str) -> None:
    print(f"{time.monotonic() - BEGIN:6.1f} s  {text}", flush=True)


def show_sizes(results: list[Sizes]) -> None:
    print("\nFrom the beat back to equal stores, values of 200 bytes; medians")
    print(
        f"{'clients':>9} {'seconds':>9} {'records/s':>10} {'baseline s':>11} {'baseline/s':>11} "
        f"{'of baseline':>12} {'dump|load':>10} {'of that':>8}  take-over"
    )
    for each in results:
        daemon, baseline, load = (
            statistics.median(seconds) for seconds in (each.daemon, each.baseline, each.load)
        )
        print(
            f"{each.clients:>9,} {daemon:>9.3f} {each.clients / daemon:>10,.0f} "
            f"{baseline:>11.3f} {each.clients / baseline:>11,.0f} "
            f"{percent(baseline, daemon):>12} {load:>9.3f}s {percent(daemon, load):>8}  "
            f"{'YES' if each.took_over else 'no'}"
        )


def show_rests(rests: list[Rest]) -> None:
    print("\nAt rest                   master MiB  descriptors   slave MiB  descriptors")
    for rest in rests:
        figures = " ".join(f"{mib:>9.1f} {count:>12}" for mib, count in rest.daemons)
        print(f"  {rest.when:<24}{figures}")


def show_results(results: Results) -> None:
    show_sizes(results.sizes)
    rates = f"{results.daemon_rate:,.0f}; baseline {results.baseline_rate:,.0f}"
    print(f"\nHeartbeats answered in a second: {rates}")
    show_rests(results.rests)


def show_fetches(fetches: Fetches) -> None:
    daemon, baseline = fetches.daemon_rate, fetches.baseline_rate
    speed = f"{daemon:,.0f}, {baseline:,.0f} MiB/s: {percent(daemon, baseline)}"
    print(f"\nfetch of {fetches.mib:,} MiB, daemon and baseline: {speed}")


def show_puts(puts: list[Put]) -> None:
    print("\none value stored, by the library and written in place, milliseconds")
    for put in puts:
        print(f"  flushes that take {put.flush} ms more: {put.daemon:.1f}, {put.baseline:.1f}")


def show_goals(goals: list[Goal]) -> None:
    print("\nGoals")
    for goal in goals:
        print(f"  {goal.text:<62} {goal.value:>28}  {goal.outcome.value}")
    print(f"{tally((goal.outcome for goal in goals), 'goals')}.")
