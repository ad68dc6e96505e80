"""How far an operation has come: bars on a terminal, a line now and then in a pipe."""

from __future__ import annotations

import contextlib
import threading
import time
from collections.abc import Callable
from typing import Protocol

from brackenfen import sync
from rich.console import Group, RenderableType
from rich.live import Live
from rich.progress_bar import ProgressBar
from rich.table import Table
from rich.text import Text

from brackenfen.sync_command.output import Output
from brackenfen.sync_command.texts import cause, clean, counted, duration, holder_text, size

LIVE_SECONDS = 0.1
PLAIN_SECONDS = 0.5
PLAIN_LINE_SECONDS = 10.0
FILES_SHOWN = 8


class Source(Protocol):
    """What tells of progress: a SyncManager."""

    def progress(self) -> sync.Progress | None: ...


def wait_text(wait: sync.Wait | sync.LockWait, now: float) -> str:
    if isinstance(wait, sync.LockWait):
        return clean(f"waiting for {holder_text(wait.pid, wait.command)}, which works on the directory, since {duration(now - wait.since)}")
    left = wait.next_try_at - now
    following = f"next try in {duration(left)}" if left > 0 else "trying again"
    return clean(f"waiting for the server at {wait.endpoint}: {cause(wait.reason)}, attempt {wait.attempt}, {following}")


def amounts(progress: sync.Progress) -> str:
    """Files, bytes, rate and time left, as far as they are known."""
    parts = []
    if progress.files_total:
        parts.append(f"{progress.files_done:,} of {counted(progress.files_total, 'file')}")
    if progress.bytes_total:
        parts.append(f"{size(progress.bytes_done)} of {size(progress.bytes_total)}")
    if progress.bytes_per_second >= 1:
        parts.append(f"{size(progress.bytes_per_second)}/s")
        if progress.bytes_total > progress.bytes_done:
            parts.append(f"{duration((progress.bytes_total - progress.bytes_done) / progress.bytes_per_second)} left")
    return ", ".join(parts)


def bar(done: int, total: int, width: int) -> ProgressBar:
    return ProgressBar(total=max(total, 1), completed=min(done, total), width=width)


def shortened(path: str, width: int) -> str:
    """The end of a path says more than its begin."""
    text = clean(path)
    return text if len(text) <= width else "…" + text[1 - width :]


def drawing(progress: sync.Progress, width: int, height: int, now: float) -> RenderableType:
    since = duration(now - progress.started_at)
    rows: list[RenderableType] = [Text(clean(f"{progress.operation}: {progress.phase}, since {since}"), "bold")]
    if progress.bytes_total:
        total = Table.grid(padding=(0, 1, 0, 0))
        total.add_row(
            bar(progress.bytes_done, progress.bytes_total, min(width - 6, 74)), f"{progress.bytes_done / progress.bytes_total:.0%}"
        )
        rows.append(total)
    if text := amounts(progress):
        rows.append(Text(text))
    shown = progress.files_in_flight[: max(0, min(FILES_SHOWN, height - 8))]
    if shown:
        name_width = max(10, min(width - 40, 60))
        files = Table.grid(padding=(0, 1, 0, 0))
        for file in shown:
            sizes = Text(f"{size(file.bytes_done)} of {size(file.bytes_total)}")
            files.add_row(Text(shortened(file.relative_path, name_width), no_wrap=True), bar(file.bytes_done, file.bytes_total, 14), sizes)
        rows.append(files)
        if more := len(progress.files_in_flight) - len(shown):
            rows.append(Text(f"and {counted(more, 'file')} more", "dim"))
    if progress.wait is not None:
        rows.append(Text(wait_text(progress.wait, now), "yellow"))
    return Group(*rows)


class Display(threading.Thread):
    """Asks `source` and shows what it tells from start() to stop(). Its own thread touches nothing of the operation."""

    def __init__(self, source: Source, output: Output, idle: Callable[[], str] | None = None) -> None:
        """idle: what a terminal shows while nothing runs."""
        super().__init__(name="progress", daemon=True)
        self._source = source
        self._idle = idle
        self._output = output
        self._ended = threading.Event()
        self._live = Live(console=output.talk, auto_refresh=False, transient=True, redirect_stdout=False, redirect_stderr=False)
        self._last_line = ""
        self._last_state: object = None
        self._next_line = 0.0

    def __enter__(self) -> Display:
        self.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._ended.set()
        self.join()

    def run(self) -> None:
        with contextlib.suppress(OSError):  # of a terminal that has gone
            self._show()

    def _show(self) -> None:
        if not self._output.is_live:
            while not self._ended.wait(PLAIN_SECONDS):
                self._say(self._source.progress())
            return
        with self._live:
            while not self._ended.wait(LIVE_SECONDS):
                self._live.update(self._drawing(), refresh=True)

    def _drawing(self) -> RenderableType:
        progress = self._source.progress()
        if progress is None:
            return Text(self._idle(), "dim") if self._idle else ""
        return drawing(progress, self._output.talk.width, self._output.talk.height, time.time())

    def _say(self, progress: sync.Progress | None) -> None:
        """A line where a phase or a wait begins, and every ten seconds where something moves."""
        if progress is None:
            return
        wait = progress.wait
        state = (progress.operation, progress.phase, None if wait is None else (type(wait), wait.since))
        now = time.monotonic()
        if state == self._last_state and now < self._next_line:
            return
        told = [wait_text(wait, time.time())] if wait is not None else [progress.phase, *filter(None, [amounts(progress)])]
        line = f"{progress.operation}: {', '.join(told)}"
        if line != self._last_line:
            self._output.say(clean(line))
        self._last_line, self._last_state, self._next_line = line, state, now + PLAIN_LINE_SECONDS
