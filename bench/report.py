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


# The rows of the table in docs/figures.md, whose first column a test compares with these.
SYNC = "100,000 clients, from the heartbeat to equal stores"
PROCESSOR = "the same, processor time of both daemons"
LOAD = "the same by `db5.3_dump` and `db5.3_load`"
RSYNC = "the same file by `rsync`"
BEATS = "heartbeats answered in a second"
FETCH = "fetch of a slave's settings, MiB in a second"
PUT = "one value stored, where a flush takes 8 ms"
REST = "memory at rest, master and slave"


def sync_rows(sizes: list[Sizes]) -> list[tuple[str, str, str]]:
    known = next(each for each in sizes if each.clients == 100_000)
    daemon, baseline, processor, load, rsync = (
        f"{statistics.median(seconds):.1f} s"
        for seconds in (known.daemon, known.baseline, known.processor, known.load, known.rsync)
    )
    return [
        (SYNC, daemon, baseline),
        (PROCESSOR, processor, ""),
        (LOAD, "", load),
        (RSYNC, "", rsync),
    ]


def show_table(results: Results, fetches: Fetches, puts: list[Put]) -> None:
    """As docs/figures.md has it, to be pasted there."""
    rest = " and ".join(f"{mib:.1f} MiB" for mib, _ in results.rests[-1].daemons)
    slowest = puts[-1]
    print("\n| what | daemon | plain program |\n|---|---|---|")
    for row in [
        *sync_rows(results.sizes),
        (BEATS, f"{results.daemon_rate:,.0f}", f"{results.baseline_rate:,.0f}"),
        (FETCH, f"{fetches.daemon_rate:,.0f}", f"{fetches.baseline_rate:,.0f}"),
        (PUT, f"{slowest.daemon:.0f} ms", f"{slowest.baseline:.0f} ms"),
        (REST, rest, ""),
    ]:
        print(f"| {' | '.join(row)} |")


def show_goals(goals: list[Goal]) -> None:
    print("\nGoals")
    for goal in goals:
        print(f"  {goal.text:<62} {goal.value:>28}  {goal.outcome.value}")
    print(f"{tally((goal.outcome for goal in goals), 'goals')}.")
