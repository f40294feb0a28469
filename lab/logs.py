"""The daemon's log lines: reading, remembering a place, waiting."""

import re
from collections.abc import Mapping
from dataclasses import dataclass, field
from datetime import datetime
from pathlib import Path

from .wait import wait_until

# A message with a newline inside gets none at its end, so a line may begin in the middle of one.
_PREFIX = re.compile(r"quorsyncd:2\.1 (\d{4}-\d\d-\d\d \d\d:\d\d:\d\d) ([A-Z]+) :")


@dataclass(frozen=True)
class LogLine:
    """One message. `text` is as written, without the newline that ends it."""

    time: datetime
    level: str
    text: str

    def __str__(self) -> str:
        return f"{self.time:%H:%M:%S} {self.level:5} {self.text}"


@dataclass(frozen=True)
class LogMark:
    """A place in the daily files: what lies behind it came later."""

    sizes: Mapping[str, int] = field(default_factory=dict)


def parse(text: str) -> list[LogLine]:
    """Cut text of a daily file, or of standard output, into messages; other text is dropped."""
    starts = list(_PREFIX.finditer(text))
    ends = [start.start() for start in starts[1:]] + [len(text)]
    lines = []
    for start, end in zip(starts, ends):
        message = text[start.end() : end]
        when = datetime.strptime(start[1], "%Y-%m-%d %H:%M:%S")
        lines.append(LogLine(when, start[2], message.removesuffix("\n")))
    return lines


class Logs:
    """The daily files of one host."""

    def __init__(self, root: Path) -> None:
        self._folder = root / "var/log"

    def _files(self) -> list[Path]:
        return sorted(self._folder.glob("quorsyncd_????_??_??.log"))

    def mark(self) -> LogMark:
        return LogMark({path.name: path.stat().st_size for path in self._files()})

    def text(self, after: LogMark | None = None) -> str:
        """The files' text. A file that shrank was made anew and is read from its start."""
        parts = []
        for path in self._files():
            skip = (after or LogMark()).sizes.get(path.name, 0)
            with path.open("rb") as file:
                size = file.seek(0, 2)
                file.seek(skip if skip <= size else 0)
                parts.append(file.read().decode(errors="replace"))
        return "".join(parts)

    def lines(self, after: LogMark | None = None) -> list[LogLine]:
        return parse(self.text(after))

    def find(
        self, pattern: str | re.Pattern[str], after: LogMark | None = None
    ) -> list[LogLine]:
        """Lines that contain the text, or in which the compiled expression is found."""
        if isinstance(pattern, str):
            return [line for line in self.lines(after) if pattern in line.text]
        return [line for line in self.lines(after) if pattern.search(line.text)]

    def wait(
        self, pattern: str | re.Pattern[str], timeout: float, after: LogMark | None, where: str
    ) -> LogLine:
        """The first such line, as soon as it is there."""
        wanted = pattern if isinstance(pattern, str) else pattern.pattern
        what = f"log line {wanted!r} of {where}"
        return wait_until(lambda: self.find(pattern, after), timeout, what)[0]
