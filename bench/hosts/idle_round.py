"""An idle round of the poll thread in a host: prints the processor time of the calling thread, in milliseconds.

    idle_round.py SERVER_URL DIRECTORY

That is more than the time for which the round holds the interpreter: most of it is the request, made without it.
"""

import json
import sys
import time

from brackenfen import sync

ROUNDS = 200

manager = sync.SyncManager.get_or_create(sys.argv[2], sys.argv[1], lambda: "bench")
manager.sync()
seen = []
for _ in range(ROUNDS):
    began = time.thread_time()
    manager._poll_once()  # type: ignore[attr-defined]
    seen.append((time.thread_time() - began) * 1e3)
print(json.dumps({"idle_round_ms": sorted(seen)[ROUNDS // 2]}))
