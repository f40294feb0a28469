"""What it costs to store one value by a changed copy that takes the file's place."""

import json
import subprocess
import tempfile
from dataclasses import dataclass
from pathlib import Path

FLUSHES = (0, 2, 8)  # Milliseconds, beyond what the disk itself takes.


@dataclass(frozen=True)
class Put:
    """Milliseconds for a value, where a flush takes so many more: ours, and written in place."""

    flush: int
    daemon: float
    baseline: float


def measure(build: Path) -> list[Put]:
    """On the disk of the build."""
    with tempfile.TemporaryDirectory(dir=build) as folder:
        options = ["format=json", "repetitions=3", "enable_random_interleaving=true"]
        command = [build / "bench/store_put", folder, *(f"--benchmark_{each}" for each in options)]
        done = subprocess.run(command, stdout=subprocess.PIPE, check=True)
    times = {each["name"]: each["real_time"] for each in json.loads(done.stdout)["benchmarks"]}

    def median(way: str, flush: int) -> float:
        return times[f"{way}/{flush}/real_time_median"]

    return [Put(flush, median("replaced", flush), median("in_place", flush)) for flush in FLUSHES]
