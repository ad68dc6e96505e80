"""What the library logs, as lines for people, as a file of events, and as facts for a command."""

from __future__ import annotations

import json
import logging
import threading
import time
from collections.abc import Iterator, Mapping
from contextlib import contextmanager, nullcontext
from pathlib import Path
from typing import IO, Any

from brackenfen.sync_command.exits import SettingsError
from brackenfen.sync_command.output import Output
from brackenfen.sync_command.records import cause, event_of, told
from brackenfen.sync_command.texts import clean, duration, stamp

LOGGER = logging.getLogger("brackenfen.sync")
LOGGER.addHandler(logging.NullHandler())  # what no command listens to is no line on standard error
REPEAT_SECONDS = 60.0
VERSION_CHECK_FAILED = "Manifest version check failed: %s"


def opened(path: Path) -> IO[str]:
    try:
        return path.open("a", encoding="utf-8")
    except OSError as error:
        raise SettingsError(f"the file of events {path} cannot be written: {error.strerror}") from None


@contextmanager
def listening(handler: logging.Handler, level: int = logging.INFO, logger: logging.Logger = LOGGER) -> Iterator[None]:
    """The library's log goes to `handler` for the duration of the block; levels below `level` cost nothing."""
    before = logger.level
    handler.setLevel(level)
    logger.addHandler(handler)
    logger.setLevel(min(level, before or level))
    try:
        yield
    finally:
        logger.removeHandler(handler)
        logger.setLevel(before)


class Spoken(logging.Handler):
    """Lines for people. An outage is told at its begin and its end, a warning that comes at every poll once a minute."""

    def __init__(self, output: Output, everything: bool = False, progress: bool = False) -> None:
        """progress: the lines at info about passes and transitions too; everything: all there is."""
        super().__init__()
        self._output = output
        self._everything = everything
        self._progress = progress
        self._outage = False
        self._said: dict[str, float] = {}
        self._held = ""
        """A warning that an error may follow which says the same."""

    def emit(self, record: logging.LogRecord) -> None:
        event = event_of(record)
        if event is None:  # requests that fail after it belong to the same failure
            self._release_held()
        kind = event["event_type"] if event else ""
        if event and kind == "sync_unavailable_status":
            if not self._outage:
                self._output.say(clean(f"the server is not available ({cause(event)}). {event['next_action']}"), "yellow")
            self._outage = True
        elif event and kind == "sync_recovered_status":
            if self._outage:
                self._output.say(f"the server is back after {duration(event['elapsed_seconds'])}", "green")
            self._outage = False
        elif event and kind == "checksum_repair":
            self._output.say(clean(f"{event['file']}: the bytes are not the ones promised; it is fetched again"), "yellow")
        elif record.msg == VERSION_CHECK_FAILED and not self._progress:
            self._held = f"warning: {clean(record.getMessage())}"
        elif record.levelno >= logging.WARNING:
            self._once(f"warning: {clean(record.getMessage())}")
        elif self._everything or (self._progress and not event and record.levelno >= logging.INFO):
            self._output.say(clean(record.getMessage()), "dim" if record.levelno < logging.INFO else "")

    def end(self, error: BaseException | None) -> None:
        """The work is over: a warning that its error repeats is not said."""
        with self.lock or nullcontext():
            if error is not None and self._held.endswith(clean(str(error) or type(error).__name__)):
                self._held = ""
            self._release_held()

    def _release_held(self) -> None:
        held, self._held = self._held, ""
        if held:
            self._once(held)

    def _once(self, text: str) -> None:
        now = time.monotonic()
        if now >= self._said.get(text, 0.0):
            self._said[text] = now + REPEAT_SECONDS
            self._output.say(text, "yellow")


class EventLines(logging.Handler):
    """A JSON line for each event and each line from info up: `time`, `level`, `event_type` and the event's own fields.

    Lines of the log that are no event have `event_type` "log" with `message`, `format` and `args`. Where a line cannot be
    written, `error` says why; the library's work goes on.
    """

    def __init__(self, stream: IO[str]) -> None:
        super().__init__()
        self._stream = stream
        self.error: OSError | None = None

    def emit(self, record: logging.LogRecord) -> None:
        self.write(told(record), record.levelname, record.created)

    def write(self, event: Mapping[str, Any], level: str = "INFO", moment: float | None = None) -> None:
        line = json.dumps({"time": stamp(time.time() if moment is None else moment), "level": level, **event}, default=str)
        try:
            with self.lock or nullcontext():
                self._stream.write(line + "\n")
                self._stream.flush()
        except OSError as error:
            self.error = error


@contextmanager
def recording(path: Path, output: Output) -> Iterator[EventLines]:
    """Lines for the end of a file. Where it takes no more, a warning says so at last, and what was done stays as it is."""
    stream = opened(path)
    lines = EventLines(stream)
    try:
        yield lines
    finally:
        try:
            stream.close()  # tries again what could not be written
        except OSError as error:
            lines.error = error
        if lines.error is not None:
            output.say(clean(f"warning: events were lost, {path} could not be written: {lines.error.strerror}"), "yellow")


class OutageLimit(logging.Handler):
    """A stop_requested that ends a wait once an outage has lasted `seconds`; an answer begins the count anew."""

    def __init__(self, seconds: float) -> None:
        super().__init__()
        self._seconds = seconds
        self._lock_began = threading.Lock()
        self._began: float | None = None

    def emit(self, record: logging.LogRecord) -> None:
        if (event_of(record) or {}).get("event_type") == "sync_recovered_status":
            with self._lock_began:
                self._began = None

    def __call__(self) -> bool:
        with self._lock_began:
            if self._began is None:
                self._began = time.monotonic()
            return time.monotonic() - self._began >= self._seconds


class Heard(logging.Handler):
    """Keeps what is said, for a command that makes something of it itself."""

    def __init__(self) -> None:
        super().__init__()
        self.events: list[dict[str, Any]] = []
        self.lines: list[tuple[int, str]] = []

    def emit(self, record: logging.LogRecord) -> None:
        event = event_of(record)
        if event is not None:
            self.events.append(event)
        else:
            self.lines.append((record.levelno, record.getMessage()))

    @property
    def warnings(self) -> list[str]:
        return [text for level, text in self.lines if level >= logging.WARNING]

    def event(self, kind: str) -> dict[str, Any]:
        """The first of its kind, or an empty one."""
        return next((event for event in self.events if event["event_type"] == kind), {})
