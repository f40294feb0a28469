"""What the demo writes: lines that fit the terminal, and one that ticks while something is awaited.

Colours and the ticking line need a terminal; elsewhere a plain line now and then shows that the
demo is alive.
"""

import io
import os
import shutil
import sys
import threading
from collections.abc import Callable, Iterator
from contextlib import contextmanager

BOLD, DIM, RED, GREEN, YELLOW = "1", "2", "31", "32", "33"
ERASE_LINE = "\r\033[K"
WIDTH_OF_FILES = 120
TICK_ON_TERMINAL, TICK_ELSEWHERE = 0.1, 5.0  # seconds


def shortened(text: str, width: int) -> str:
    """One line of at most `width` characters; daemons log newlines, too."""
    text = "".join(c if c.isprintable() else " " for c in text).rstrip()
    return text if len(text) <= width else text[: max(width - 3, 0)] + "..."


class Console:
    """Standard output. Any thread."""

    def __init__(self) -> None:
        if isinstance(sys.stdout, io.TextIOWrapper):
            sys.stdout.reconfigure(errors="replace", line_buffering=True)
        self._live = sys.stdout.isatty() and os.environ.get("TERM") != "dumb"
        self._coloured = self._live and not os.environ.get("NO_COLOR")
        self._lock = threading.Lock()
        self._ticked = False

    @property
    def width(self) -> int:
        return shutil.get_terminal_size((WIDTH_OF_FILES, 24)).columns

    def line(self, text: str = "", colour: str = "") -> None:
        text = shortened(text, self.width)
        if colour and self._coloured:
            text = f"\033[{colour}m{text}\033[0m"
        with self._lock:
            erase = ERASE_LINE if self._ticked else ""
            self._ticked = False
            sys.stdout.write(f"{erase}{text}\n")

    def _tick(self, text: str) -> None:
        if not self._live:
            self.line(text)
            return
        with self._lock:
            self._ticked = True
            # In the last column the cursor would go on to the next line.
            sys.stdout.write(ERASE_LINE + shortened(text, self.width - 1))
            sys.stdout.flush()

    @contextmanager
    def ticking(self, text: Callable[[], str]) -> Iterator[None]:
        """Show the text again and again until the block ends."""
        done = threading.Event()
        period = TICK_ON_TERMINAL if self._live else TICK_ELSEWHERE

        def tick() -> None:
            while not done.wait(period):
                self._tick(text())

        thread = threading.Thread(target=tick, daemon=True)
        thread.start()
        try:
            yield
        finally:
            done.set()
            thread.join()
