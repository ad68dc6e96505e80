"""A host that computes in Python while a set is fetched: by a pass on another of its threads, or by another process.

    gil_share.py SERVER_URL DIRECTORY (same|other) (share|waits)

With `share` it prints how many rounds of computing it did in a second. With `waits` it gives up the GIL after each, for a call
that is over at once, and prints how long it was until it had it back, in milliseconds: the 99.9th percentile and the longest.
Beside another process no one else wants the GIL: what is then waited for is a core.
"""

from __future__ import annotations

import json
import os
import subprocess
import sys
import threading
import time
from collections.abc import Callable
from pathlib import Path

from brackenfen.sync import SyncManager

URL, DIRECTORY, WHERE, WHAT = sys.argv[1:]


def compute() -> None:
    """About 50 µs of nothing but Python."""
    total = 0
    for number in range(1000):
        total += number


def begin() -> Callable[[], bool]:
    """Begins the fetch and returns what tells whether it goes on."""
    if WHERE == "other":
        command = [sys.executable, str(Path(__file__).with_name("library_fetch.py")), URL, DIRECTORY]
        process = subprocess.Popen(command, stdout=subprocess.DEVNULL)
        return lambda: process.poll() is None
    manager = SyncManager.get_or_create(DIRECTORY, URL, lambda: "bench")
    thread = threading.Thread(target=manager.sync)
    thread.start()
    return thread.is_alive


def share() -> dict[str, float]:
    goes_on = begin()
    rounds = 0
    began = time.perf_counter()
    while goes_on():
        for _ in range(100):
            compute()
        rounds += 100
    return {"rounds_per_s": rounds / (time.perf_counter() - began)}


def waits() -> dict[str, float]:
    seen = []
    goes_on = begin()
    while goes_on():
        for _ in range(100):
            compute()
            began = time.perf_counter()
            os.fstat(1)
            seen.append((time.perf_counter() - began) * 1e3)
    seen.sort()
    return {"wait_ms_999": seen[int(len(seen) * 0.999)], "wait_ms_longest": seen[-1], "waits": len(seen)}


print(json.dumps(share() if WHAT == "share" else waits()))
