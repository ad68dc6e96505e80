"""Among the hosts of a soak one in Python: two managers and four threads, until the monotonic clock says END_NS.

    soak_host.py soak DIRECTORY URL END_NS SEED
"""

import concurrent.futures
import logging
import os
import random
import sys
import time

import brackenfen.sync as sync

directory, url, end_seconds, seed = sys.argv[2], sys.argv[3], int(sys.argv[4]) / 1e9, int(sys.argv[5])
FEATURE = "features/eu/signal_is/value__open__w005__z0.arrow"


def get_token() -> str:
    return os.environ["TORTURE_TOKEN"]


def work(number: int) -> None:
    draw = random.Random(seed * 4 + number)
    while time.monotonic() < end_seconds:
        manager = second if number % 2 else sync.SyncManager.get_or_create(directory, url, get_token, 0.2)
        known = manager.get_manifest()
        path = draw.choice(list(known.files)) if known else FEATURE
        manager.acquire()
        try:
            draw.choice([
                manager.sync, manager.request_for_sync, manager.needs_sync, lambda: manager.repair([path, "unknown"]), lambda: manager.report_corruption(path),
                lambda: manager.request_feature_files_for_sync(["value__open__w005__z0"]), lambda: manager.add_active_feature_paths([FEATURE]), manager.health,
            ])()  # fmt: skip
        except (sync.SyncError, sync.StateError, AttributeError):
            pass  # others stop the manager, begin an era or a version, or end together with it
        except ValueError as error:
            if "File not in manifest" not in str(error):
                raise
        finally:
            manager.release()
        if draw.random() < 0.1:
            manager.stop()


logging.basicConfig(format=f"%(levelno)s {os.getpid()} %(message)s", level=logging.DEBUG)
second = sync.SyncManager(directory, url, get_token, 0.2)
with concurrent.futures.ThreadPoolExecutor(4) as pool:
    done = list(pool.map(work, range(4)))  # raises what a thread has raised
for manager in (second, *sync.SyncManager._instances.values()):  # type: ignore[attr-defined]
    manager.stop()
