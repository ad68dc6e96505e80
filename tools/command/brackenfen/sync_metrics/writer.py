"""The figures of a host's manager, written by a thread of their own."""

from __future__ import annotations

import contextlib
import logging
import os
import threading
import time
import weakref
from pathlib import Path
from types import TracebackType

from brackenfen import sync
from brackenfen.sync_command.history import History
from brackenfen.sync_command.records import told

from brackenfen.sync_metrics.directory import DirectoryFigures
from brackenfen.sync_metrics.figures import counted, exposition
from brackenfen.sync_metrics.textfile import write_whole

LIBRARY = logging.getLogger("brackenfen.sync")
LOGGER = logging.getLogger("brackenfen.sync_metrics")
FIRST_SECONDS = 1.0  # by then a host has begun its work
JOIN_SECONDS = 5.0


class _Listener(logging.Handler):
    """Counts what the library logs, on the thread that logs it."""

    def __init__(self) -> None:
        super().__init__(logging.INFO)
        self._history = History(first=time.time())

    def emit(self, record: logging.LogRecord) -> None:
        with contextlib.suppress(Exception):  # whatever a line holds, who logs it goes on
            self._history.take_event({**told(record), "level": record.levelname}, record.created)

    def counters(self) -> dict[str, float | None]:
        self.acquire()
        try:
            return counted([self._history])
        finally:
            self.release()


class MetricsFile:
    """Writes the figures of a manager to a file, from now to `close`, for a collector such as that of node_exporter.

    A daemon thread does so every `interval_seconds`. It asks neither the server nor other processes, and keeps neither the
    process nor the manager alive: when one of them goes, the file stays as it is. A file that cannot be written is a warning
    in the logger `brackenfen.sync_metrics`, once until it can, and is tried again. In a child of a fork nothing is written.

    The counters are of all that this process's library logs from now on, so give each directory a process of its own where
    they shall tell directories apart. They are left out where the logger `brackenfen.sync` takes no lines at level info, and from
    where its handlers are replaced, as `logging.config` does: what a host logs is not this class's to change.
    """

    def __init__(
        self, manager: sync.SyncManager, directory: str | os.PathLike[str], path: str | os.PathLike[str], interval_seconds: float = 15.0
    ) -> None:
        """directory: the manager's. path: the file, outside of the directory; collectors want a name in .prom.

        Raises ValueError for an interval that is not positive, and for a path within the directory.
        """
        if not 0 < interval_seconds <= 86400:
            raise ValueError(f"interval_seconds must be positive and at most a day, not {interval_seconds!r}")
        self._manager = weakref.ref(manager)
        self._directory, self._path = Path(os.path.abspath(directory)), Path(os.path.abspath(path))
        if Path(os.path.realpath(self._path)).is_relative_to(os.path.realpath(self._directory)):
            raise ValueError(f"{path} is in the data directory, which is the library's own")
        self._interval_seconds = interval_seconds
        self._figures = DirectoryFigures(self._directory)
        self._pid = os.getpid()
        self._ended = threading.Event()
        self._has_warned = self._has_warned_of_counters = False
        self._listener = _Listener()
        LIBRARY.addHandler(self._listener)
        self._counted()
        self._thread = threading.Thread(target=self._run, name="brackenfen-metrics", daemon=True)
        self._thread.start()

    def __enter__(self) -> MetricsFile:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None, traceback: TracebackType | None) -> None:
        self.close()

    def close(self) -> None:
        """Writes the figures once more, with `running` as it is then, and ends. A second call does nothing."""
        if not self._ended.is_set() and os.getpid() == self._pid:
            self._ended.set()
            self._thread.join(JOIN_SECONDS)  # a disk that hangs does not hold the host up
            if not self._thread.is_alive():
                self._write()
        LIBRARY.removeHandler(self._listener)

    def _run(self) -> None:
        pause = min(FIRST_SECONDS, self._interval_seconds)
        while not self._ended.wait(pause) and self._write():
            pause = self._interval_seconds

    def _write(self) -> bool:
        """Whether there is still something to tell of."""
        manager = self._manager()
        if manager is None:
            LIBRARY.removeHandler(self._listener)
            return False
        try:
            health = manager.health()
            del manager
            write_whole(self._path, exposition(self._directory, self._collected(health, time.time())))
            self._has_warned = False
        except Exception as error:  # whatever it is, the host goes on, and the next turn may do better
            if not self._has_warned:
                LOGGER.warning("%s is not written: %s", self._path, error)
            self._has_warned = True
        return True

    def _counted(self) -> dict[str, float | None]:
        """The counters, and none where they would stand still: lines do not come here, or no longer."""
        if not LIBRARY.isEnabledFor(logging.INFO):
            why = "the logger brackenfen.sync takes no lines at level info"
        elif self._listener not in LIBRARY.handlers:  # which logging.config does to handlers that it has not set itself
            why = "the handlers of the logger brackenfen.sync were replaced"
        else:
            return self._listener.counters()
        if not self._has_warned_of_counters:
            LOGGER.warning("%s, so the counters are left out", why)
        self._has_warned_of_counters = True
        return {}

    def _collected(self, health: sync.Health, now: float) -> dict[str, float | None]:
        wait = health.waiting_for
        waited = max(0.0, now - wait.since) if wait is not None else 0.0
        is_known = health.last_good_pass_at is not None or health.last_error is not None or wait is not None
        return {
            **self._figures.now(time.monotonic()),
            **self._counted(),
            "collected_timestamp_seconds": now,
            "era_number": health.era_number,
            "manifest_version": health.version,
            "in_step": (health.last_error is None and wait is None) if is_known else None,
            "last_good_pass_timestamp_seconds": health.last_good_pass_at,
            "running": health.running,
            "failing": health.last_error is not None,
            "server_wait_seconds": waited if isinstance(wait, sync.Wait) else 0.0,
            "lock_wait_seconds": waited if isinstance(wait, sync.LockWait) else 0.0,
        }
