"""A run of the demo: steps that hold or not, what proves them, and the table at its end."""

import re
import time
from collections.abc import Iterator
from contextlib import contextmanager

from console import BOLD, DIM, GREEN, RED, YELLOW, Console
from lab import Host, LabError, Pair
from lab.outcome import Outcome, tally
from lab.reload_pipe import ReloadPipe

LIMIT = 30.0  # seconds a step waits for what it shows; a healthy pair needs far less
MARGIN = " " * 10
COLOURS = {Outcome.HELD: GREEN, Outcome.FAILED: RED, Outcome.SKIPPED: YELLOW}


class NotTried(Exception):
    """A step without which this one makes no sense did not hold."""


class Step:
    """One promise. Its seconds and its log lines count from the last start of the run's clock."""

    def __init__(self, run: "Run", title: str) -> None:
        self.title = title
        self.seconds: float | None = None
        self.evidence = ""
        self.outcome = Outcome.SKIPPED
        self._run = run

    def needs(self, *titles: str) -> None:
        """Skip the rest of this step unless those steps held."""
        for step in self._run.steps:
            if step.title in titles and step.outcome is not Outcome.HELD:
                raise NotTried(f"needs: {step.title}")

    def stop_clock(self, moment: float | None = None) -> None:
        """The effect is there, or came at that monotonic time; what follows only shows it."""
        self.seconds = (time.monotonic() if moment is None else moment) - self._run.cause

    def tell(self, text: str) -> None:
        self._run.tell(text)

    def wait_log(self, host: Host, pattern: str) -> None:
        """Wait for a line that matches the regular expression."""
        host.wait_log(re.compile(pattern), LIMIT, self._run.marks[host])

    def show_log(self, host: Host, *patterns: str) -> None:
        """Show the lines that match, in their order; the step fails if a pattern finds none."""
        for pattern in patterns:
            self.wait_log(host, pattern)
        for line in host.find_log(re.compile("|".join(patterns)), self._run.marks[host]):
            self.quote(host, str(line))

    def quote(self, host: Host, line: str) -> None:
        self._run.console.line(f"{MARGIN}{host.name:6} | {line}", DIM)


class Run:
    """Steps in chapters. A step that fails ends its own block and nothing else."""

    def __init__(self, console: Console, pair: Pair, pipe: ReloadPipe) -> None:
        self.console = console
        self.pair = pair
        self.pipe = pipe
        self.steps: list[Step] = []
        self._begin = time.monotonic()
        self._evidence_shown = False
        self.start_clock()

    def start_clock(self) -> None:
        """Now happens what the next steps are the effect of."""
        self.cause = time.monotonic()
        self.marks = {host: host.log_mark() for host in self.pair.lab.hosts}

    @property
    def held(self) -> bool:
        return all(step.outcome is Outcome.HELD for step in self.steps)

    def _clock(self) -> str:
        return f"{time.monotonic() - self._begin:6.1f} s"

    def tell(self, text: str) -> None:
        self.console.line(f"{self._clock()}  {text}")

    def begin_chapter(self, number: int, title: str) -> None:
        self._evidence_shown = False
        self.console.line()
        self.console.line(f"{number}. {title}", BOLD)

    @contextmanager
    def step(self, title: str) -> Iterator[Step]:
        step = Step(self, title)
        self.steps.append(step)
        try:
            with self.console.ticking(lambda: self._waiting(step)):
                yield step
            step.outcome = Outcome.HELD
        except NotTried as reason:
            step.evidence = str(reason)
        except (AssertionError, LabError) as error:
            step.outcome = Outcome.FAILED
            step.evidence = str(error)
        self._end_step(step)

    def _waiting(self, step: Step) -> str:
        lines = self.pair.slave.log_lines(self.marks[self.pair.slave])
        newest = f" (slave: {lines[-1].text})" if lines else ""
        return f"{self._clock()}  ... {step.title}{newest}"

    def _end_step(self, step: Step) -> None:
        if step.outcome is Outcome.FAILED:
            step.seconds = None  # How long it took to give up says nothing.
        elif step.outcome is Outcome.HELD and step.seconds is None:
            step.stop_clock()
        after = "" if step.seconds is None else f" after {step.seconds:.1f} s"
        self.console.line(
            f"{self._clock()}  {step.outcome.value}: {step.title}{after}", COLOURS[step.outcome]
        )
        if step.outcome is Outcome.FAILED:
            self._show_failure(step)

    def _show_failure(self, step: Step) -> None:
        """Why, and once a chapter what the hosts look like."""
        for line in step.evidence.splitlines():
            self.console.line(f"{MARGIN}{line}", RED)
        if not self._evidence_shown:
            self._evidence_shown = True
            try:
                evidence = self.pair.evidence()
            except LabError as error:
                evidence = f"the hosts cannot be examined: {error}"
            for line in evidence.splitlines():
                self.console.line(f"{MARGIN}{line}", DIM)

    def summary(self) -> None:
        """The table."""
        wide = max(len(step.title) for step in self.steps)
        self.console.line()
        self.console.line(f" #  {'step':{wide}}  result   seconds  evidence", BOLD)
        for number, step in enumerate(self.steps, 1):
            seconds = "-" if step.seconds is None else f"{step.seconds:.1f}"
            self.console.line(
                f"{number:2}  {step.title:{wide}}  {step.outcome.value:7} {seconds:>8}  "
                f"{step.evidence}",
                COLOURS[step.outcome],
            )
        self.console.line()
        self.console.line("Seconds count from the start, the change, the kill or the return.")
        held = tally((step.outcome for step in self.steps), "steps")
        total = f"{held}, {self._clock().strip()} in all."
        self.console.line(total, BOLD)
