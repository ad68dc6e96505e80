"""Many clients in one process, each with a directory and a manager of its own, as a small fleet.

    followers.py SERVER_URL POLL_SECONDS DIRECTORY...

Managers start at moments spread over one poll interval. It prints a line when all of them run, then waits for lines of its input:
`ERA VERSION PATH=SIZE...`. For each it waits until every client has that version, and those files in those sizes, and prints when
each of them had, in seconds since the epoch, as a JSON list. It ends with its input.
"""

from __future__ import annotations

import json
import os
import sys
import time

from brackenfen.sync import SyncManager

LOOK_SECONDS = 0.02
TOLERATED_SECONDS = 300
url, poll_seconds, directories = sys.argv[1], float(sys.argv[2]), sys.argv[3:]


def in_step(manager: SyncManager, directory: str, era: int, version: int, sizes: dict[str, int]) -> bool:
    manifest = manager.get_manifest()
    if manifest is None or (manifest.era_number, manifest.version) != (era, version):
        return False
    return all(os.stat(f"{directory}/{path}").st_size == size for path, size in sizes.items())


def wait_for(era: int, version: int, sizes: dict[str, int]) -> list[float]:
    late = dict(managers)
    seen = []
    deadline = time.monotonic() + TOLERATED_SECONDS
    while late:
        if time.monotonic() > deadline:
            raise SystemExit(f"{len(late)} clients did not come into step")
        for directory, manager in list(late.items()):
            if in_step(manager, directory, era, version, sizes):
                seen.append(time.time())
                del late[directory]
        time.sleep(LOOK_SECONDS)
    return seen


managers = {directory: SyncManager.get_or_create(directory, url, lambda: "t" * 40, poll_seconds) for directory in directories}
for manager in managers.values():
    manager.acquire()
    time.sleep(poll_seconds / len(managers))
print("running", flush=True)
for line in sys.stdin:
    era_text, version_text, *files = line.split()
    parts = (file.rsplit("=", 1) for file in files)
    print(json.dumps(wait_for(int(era_text), int(version_text), {path: int(size) for path, size in parts})), flush=True)
for manager in managers.values():
    manager.release()
