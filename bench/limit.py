"""`./run bench --limit`: from how many clients on a push costs a take-over."""

import time
from dataclasses import dataclass

from experiments import Bench, Say
from lab import tracing

STEP = 200_000
SLOW_LOG_STEP = 1_000
PATIENCE = 3600.0  # seconds
DAILY_LOG = "/var/log/quorsyncd_%Y_%m_%d.log"


@dataclass(frozen=True)
class Burden:
    """What makes it harder: busy loops beside the slave, milliseconds for each log line."""

    busy: int = 0
    log_ms: float = 0.0

    def wrapper(self) -> tuple[str, ...]:
        """Of daemons whose daily log lies on a disk as slow as asked for."""
        if not self.log_ms:
            return ()
        return tracing.slow_writes(time.strftime(DAILY_LOG), self.log_ms)


def find(bench: Bench, burden: Burden, say: Say) -> str:
    """Larger and larger stores until the slave takes over meanwhile; what came of it."""
    for _ in range(burden.busy):
        bench.slave.popen(["/bin/sh", "-c", "while :; do :; done"])
    step = SLOW_LOG_STEP if burden.log_ms else STEP
    end = time.monotonic() + PATIENCE
    clients = step
    while time.monotonic() < end:
        bench.fill(clients)
        seconds, took_over = bench.resync(PATIENCE)
        say(f"{clients:,} clients: {seconds:.1f} s, {'' if took_over else 'no '}take-over")
        if took_over:
            return f"The slave takes over somewhere from {clients - step:,} clients on."
        clients += step
    return f"No take-over up to {clients - step:,} clients in {PATIENCE / 60:.0f} minutes."
