"""A host whose searches run while features come and go below them, and pause while an era changes.

    BRACKENFEN_TOKEN=... python search_host.py DIRECTORY SERVER_URL UNIVERSE...
"""

import contextlib
import os
import sys
import threading
import time
from pathlib import Path
from typing import Any

from brackenfen import sync


class Search:
    """A worker on a thread of its own, which reads those features of one universe that are held."""

    def __init__(self, directory: str, named_universe: str) -> None:
        self.named_universe = named_universe  # by this name the library finds the search's vocabulary
        self._folder = Path(directory, "features", named_universe, "signal_is")
        self._features, self._lock, self._paused = list[str](), threading.Lock(), False
        threading.Thread(target=self._run, daemon=True).start()

    def refresh_rotation_scope(self, rotation_state: Any, scoped_vocabulary: dict[str, Any]) -> None:
        self._features = sorted(scoped_vocabulary["features"])  # on the syncing thread, once the files are there: be quick, do not sync
        print(f"{self.named_universe}: generation {rotation_state.generation}, {len(self._features)} features", flush=True)

    def on_era(self, event: str, era_number: int) -> None:
        """On the era thread, which waits: once a "kill" has returned nothing is read, for the files are about to change."""
        with self._lock:
            self._paused = event == "kill"
        print(f"{self.named_universe}: {event} in era {era_number}", flush=True)

    def _run(self) -> None:
        while True:
            for name in self._features:
                with self._lock, contextlib.suppress(FileNotFoundError):  # it has rotated out, of which it hears in a moment
                    if not self._paused:
                        (self._folder / f"{name}.arrow").read_bytes()
            time.sleep(0.1)


if __name__ == "__main__":
    directory, server_url, *universes = sys.argv[1:]
    Path(directory).mkdir(parents=True, exist_ok=True)
    manager = sync.SyncManager.get_or_create(directory, server_url, lambda: os.environ["BRACKENFEN_TOKEN"])
    for search in (Search(directory, universe) for universe in universes):
        manager.register_rotation_search_consumer(search)
        manager.register_era_callback(search.on_era)
    manager.stop_ends_waits = True  # else a stop waits until a server that is away answers
    with contextlib.suppress(KeyboardInterrupt), contextlib.ExitStack() as stack:
        with contextlib.suppress(sync.EraError):  # the server went on while this host was away: the watcher follows it
            manager.sync()  # tells the searches what is held, where nothing is new too
        manager.acquire()
        stack.callback(manager.release)
        while manager.is_alive():
            time.sleep(1)
