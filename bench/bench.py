"""`./run bench`: how fast stores become equal, heartbeats are answered and files are fetched,
beside baseline programs. What counts are the ratios."""

import argparse
import sys
from collections.abc import Callable
from pathlib import Path

import experiments
import fetches
import goals
import limit
import puts
import report
from experiments import Bench, Results
from lab import LabError, WaitTimeout

RELEASE = Path(__file__).resolve().parent.parent / "build/release"


def on_a_pair(build: Path, wrapper: tuple[str, ...], work: Callable[[Bench], None]) -> None:
    bench = Bench(build, wrapper)
    with bench.pair:
        try:
            bench.pair.start()
            bench.pair.wait_equal()
            report.progress("a pair is at rest on the lab")
            work(bench)
        except (LabError, WaitTimeout):
            print(bench.pair.evidence(), file=sys.stderr)
            raise


def find_limit(build: Path, burden: limit.Burden) -> None:
    def work(bench: Bench) -> None:
        print("\n" + limit.find(bench, burden, report.progress))

    on_a_pair(build, burden.wrapper(), work)


def measure(build: Path, quick: bool) -> None:
    """The fetches come on a pair of their own, when the other has ended."""
    measured: list[Results] = []

    def work(bench: Bench) -> None:
        plan = experiments.QUICK if quick else experiments.DEFAULT
        measured.append(experiments.measure(bench, plan, report.progress))
        report.show_results(measured[0])

    on_a_pair(build, (), work)
    fetched = fetches.measure(build, rounds=3 if quick else 5, say=report.progress)
    report.show_fetches(fetched)
    stored = puts.measure(build)
    report.show_puts(stored)
    figures = goals.figures_of(measured[0])
    figures |= goals.fetch_figures(fetched) | goals.put_figures(stored)
    report.show_goals(goals.goals_of(figures))
    report.show_table(measured[0], fetched, stored)


def main() -> int:
    parser = argparse.ArgumentParser(prog="./run bench", description=__doc__)
    parser.add_argument("--quick", action="store_true", help="up to 100,000 clients, few rounds")
    parser.add_argument("--limit", action="store_true", help="only find where a slave takes over")
    parser.add_argument("--busy", type=int, default=0, help="--limit with so many busy loops")
    parser.add_argument(
        "--log-ms", type=float, default=0.0, help="--limit with log lines that take so much more"
    )
    parser.add_argument("--build", type=Path, default=RELEASE, help="programs (%(default)s)")
    arguments = parser.parse_args()
    if not arguments.limit and (arguments.busy or arguments.log_ms):
        parser.error("--busy and --log-ms go with --limit")
    try:
        if arguments.limit:
            find_limit(arguments.build, limit.Burden(arguments.busy, arguments.log_ms))
        else:
            measure(arguments.build, arguments.quick)
    except KeyboardInterrupt:
        return 130
    except (LabError, WaitTimeout) as error:
        print(f"bench: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
