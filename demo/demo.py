"""Shows a pair at work: equal stores, a change, a fetch, a take-over and the way back.

The exit status is 0 only if every step held.
"""

import argparse
import os
import sys
from contextlib import ExitStack
from pathlib import Path

from chapters import CHAPTERS, CLIENTS
from console import BOLD, Console
from lab import LabError, Pair
from lab.file_service import FileService
from lab.reload_pipe import ReloadPipe
from run import Run

DAEMON = Path(__file__).resolve().parent.parent / "build/release/quorsyncd"
FAILED, INTERRUPTED = 1, 130


def play(console: Console, daemon: Path) -> bool:
    """Run the chapters from start to end; whether every step held."""
    if not os.access(daemon, os.X_OK) or not daemon.is_file():
        raise LabError(f"there is no program {daemon}; ./run build makes the daemon")
    console.line("A pair of servers on this machine, in namespaces of their own", BOLD)
    console.line(f"daemon: {daemon}")
    with ExitStack() as stack:
        pair = stack.enter_context(Pair(daemon, clients=CLIENTS, second_lines=True))
        stack.enter_context(FileService(pair.slave))
        pipe = stack.enter_context(ReloadPipe(pair.master))
        run = Run(console, pair, pipe)
        for number, (title, chapter) in enumerate(CHAPTERS, 1):
            run.begin_chapter(number, title)
            chapter(run)
        run.summary()
        return run.held


def main() -> int:
    parser = argparse.ArgumentParser(prog="./run demo", description=__doc__)
    parser.add_argument("--daemon", type=Path, default=DAEMON, help="the daemon (%(default)s)")
    arguments = parser.parse_args()
    console = Console()
    try:
        return 0 if play(console, arguments.daemon.resolve()) else FAILED
    except LabError as error:
        print(f"demo: {error}", file=sys.stderr)
        return FAILED
    except BrokenPipeError:
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return FAILED  # Nobody reads on.
    except KeyboardInterrupt:
        console.line()
        console.line("Interrupted. Both servers have ended, nothing is left behind.")
        return INTERRUPTED


if __name__ == "__main__":
    sys.exit(main())
