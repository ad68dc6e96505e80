"""A host that keeps a directory up to date and follows the server from era to era.

    BRACKENFEN_TOKEN=... python host.py DIRECTORY SERVER_URL

Ctrl-C ends it. Whatever ends it, the next start goes on from there.
"""

import contextlib
import logging
import os
import signal
import sys
import threading
from pathlib import Path

from brackenfen import sync


def token() -> str:
    """Asked for each request, so that a renewed one counts at once."""
    return os.environ["BRACKENFEN_TOKEN"]


def on_era(event: str, era_number: int) -> None:
    """Before the files of an era change ("kill"), and after it ("restart") or where that was called off ("abort")."""
    print(f"{event}: {'stop' if event == 'kill' else 'start'} what reads the files, era {era_number}", flush=True)


def main() -> None:
    directory, server_url = Path(sys.argv[1]), sys.argv[2]
    directory.mkdir(parents=True, exist_ok=True)
    logging.basicConfig(level=logging.INFO, format="%(asctime)s %(levelname)s %(message)s")
    stopped = threading.Event()
    signal.signal(signal.SIGTERM, lambda *_: stopped.set())

    manager = sync.SyncManager.get_or_create(directory, server_url, token)
    # First pass, then acquire: the watcher moves from the era that is here to the next one, so in a directory without a
    # manifest it has nothing to follow. Where there is a manifest, of an era long past too, the watcher sees to all the rest.
    if manager.get_manifest() is None:
        manager.sync()
    manager.register_era_callback(on_era)
    manager.stop_ends_waits = True  # else a stop waits until a server that is away answers
    manager.acquire()
    try:
        if manifest := manager.get_manifest():
            print(f"era {manifest.era_number} is here: {len(manifest.files):,} files", flush=True)
        while not stopped.wait(timeout=1):  # without a timeout a signal that comes just before the wait would be missed
            pass  # your work goes here
    finally:
        manager.release()


if __name__ == "__main__":
    with contextlib.suppress(KeyboardInterrupt):
        main()
