"""A host over a directory that is up to date: prints the milliseconds that the construction and the call took, and the memory held.

    library_check.py SERVER_URL DIRECTORY (construct|needs_sync|sync)
"""

from __future__ import annotations

import json
import re
import sys
import time
from pathlib import Path

from brackenfen.sync import SyncManager

began = time.perf_counter()
manager = SyncManager.get_or_create(sys.argv[2], sys.argv[1], lambda: "bench")
constructed = time.perf_counter()
match sys.argv[3]:
    case "needs_sync":
        assert not manager.needs_sync()
    case "sync":
        assert manager.sync().bytes_downloaded == 0
called = time.perf_counter()
held = re.search(r"VmRSS:\s+(\d+) kB", Path("/proc/self/status").read_text())
assert held is not None
figures = {"construct_ms": (constructed - began) * 1e3, "call_ms": (called - constructed) * 1e3, "held_mib": int(held[1]) / 1024}
print(json.dumps(figures))
