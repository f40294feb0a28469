"""What a run of the benchmarks prints: its progress, its figures, its goals."""

import statistics
import time

from experiments import Rest, Results, Sizes
from fetches import Fetches
from goals import Goal, share
from lab.outcome import tally
from puts import Put

BEGIN = time.monotonic()


def progress(text: str) -> None:
    print(f"{time.monotonic() - BEGIN:6.1f} s  {text}", flush=True)


def show_sizes(results: list[Sizes]) -> None:
    print("\nFrom the beat back to equal stores, values of 200 bytes; medians, in seconds")
    print(
        f"{'clients':>9} {'daemon':>8} {'range':>13} {'records/s':>10} {'baseline':>9} "
        f"{'dump|load':>10} {'rsync':>7} {'processor':>10} {'peaks, MiB':>14} {'file':>6}  take-over"
    )
    for each in results:
        daemon, processor, baseline, load, rsync = (
            statistics.median(seconds)
            for seconds in (each.daemon, each.processor, each.baseline, each.load, each.rsync)
        )
        span = f"{min(each.daemon):.2f} to {max(each.daemon):.2f}"
        peaks = ", ".join(f"{peak:.0f}" for peak in each.peaks)
        print(
            f"{each.clients:>9,} {daemon:>8.3f} {span:>13} {each.clients / daemon:>10,.0f} "
            f"{baseline:>9.3f} {load:>10.3f} {rsync:>7.3f} {processor:>10.2f} {peaks:>14} "
            f"{each.file:>6.0f}  {'YES' if each.took_over else 'no'}"
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
    speed = f"{daemon:,.0f}, {baseline:,.0f} MiB/s: {share(daemon / baseline)}"
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
