"""A line on which every frame takes its own time, so that frames also overtake each other.

Runs in the switch's network: slow_line.py ONE_INTERFACE THE_OTHER SHORTEST LONGEST (seconds). The
kernels in use have no delay of their own to offer.
"""

import heapq
import itertools
import random
import select
import socket
import sys
import time

ETH_P_ALL = 3
SOL_PACKET, PACKET_VNET_HDR, PACKET_IGNORE_OUTGOING = 263, 15, 23
LARGEST = 1 << 17


def open_interface(name: str) -> socket.socket:
    """All frames that come in, each behind what the kernel notes of its unfinished checksum."""
    raw = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
    raw.setsockopt(SOL_PACKET, PACKET_VNET_HDR, 1)
    raw.setsockopt(SOL_PACKET, PACKET_IGNORE_OUTGOING, 1)
    raw.bind((name, ETH_P_ALL))
    return raw


def main() -> None:
    one, other = open_interface(sys.argv[1]), open_interface(sys.argv[2])
    shortest, longest = float(sys.argv[3]), float(sys.argv[4])
    waiting: list[tuple[float, int, socket.socket, bytes]] = []
    numbers = itertools.count()
    while True:
        pause = max(0.0, waiting[0][0] - time.monotonic()) if waiting else None
        for source in select.select([one, other], [], [], pause)[0]:
            due = time.monotonic() + random.uniform(shortest, longest)
            target = other if source is one else one
            heapq.heappush(waiting, (due, next(numbers), target, source.recv(LARGEST)))
        while waiting and waiting[0][0] <= time.monotonic():
            _, _, target, frame = heapq.heappop(waiting)
            try:
                target.send(frame)
            except OSError:
                pass  # lost, as on any line


if __name__ == "__main__":
    main()
