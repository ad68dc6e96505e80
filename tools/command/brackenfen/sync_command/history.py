"""What events tell: passes, outages, eras, warnings and the last verify. In bounded memory, however many there are."""

from __future__ import annotations

import json
import time
from collections import deque
from dataclasses import dataclass, field
from datetime import datetime
from typing import Any

from brackenfen.sync_command.records import cause

EARLIEST = 946_684_800.0  # a time before the year 2000 is that of no event
SAME_OUTAGE_SECONDS = 40.0  # requests that met one outage come back within their longest pause of each other
LASTING_SECONDS = 120.0  # what fails goes on failing at every poll, so a failure that is older is over
CHANGES_KEPT, SPANS_KEPT, NAMES_KEPT, BUCKETS_KEPT = 12, 2000, 200, 4096
TEXT_KEPT = 400
SYNCED, MENDED = "Synced era %s to version %s: %d files, %d bytes, in %.1f s", "Synced era %s to version %s: mended %s in %.1f s"
TRANSITION = "Era transition to era %s completed in %.1f s: %d files, %d bytes"
DAMAGED = {
    "Manifest-tracked local file failed integrity check; re-downloading: %s",
    "Manifest version matched but local metadata needs repair: %s",
    "Local vocabulary %s failed validation; re-downloading: %s",
    "Local shuffle seed failed validation; re-downloading: %s",
}
FAILURES = ("Poll once failed", "Poll loop iteration failed", "Trigger era transition")


@dataclass(frozen=True)
class Change:
    """A pass that committed something, or a transition, of which the version is not in the log."""

    moment: float
    era_number: int
    version: int | None
    files: int
    bytes: int
    seconds: float


@dataclass(frozen=True)
class Span:
    """From `begin` to `end`, in seconds since the epoch; `end` is None while it lasts."""

    begin: float
    end: float | None
    label: str = ""


@dataclass
class Repeated:
    """A warning: how often it came, when last, and with which text."""

    count: int
    moment: float
    message: str


class Landed:
    """Bytes by time. Buckets grow to twice their width where there are too many."""

    def __init__(self) -> None:
        self.width = 1.0
        self.buckets: dict[int, int] = {}

    def add(self, moment: float, count: int) -> None:
        self._put(int(moment // self.width), count)
        while len(self.buckets) > BUCKETS_KEPT:
            self.width *= 2
            finer, self.buckets = self.buckets, {}
            for place, bytes_there in finer.items():
                self._put(place // 2, bytes_there)

    def _put(self, place: int, count: int) -> None:
        self.buckets[place] = self.buckets.get(place, 0) + count


def short(value: object) -> str:
    return str(value)[:TEXT_KEPT]


def whole(value: object) -> int:
    """Raises TypeError for what is no whole number that a pass could have told."""
    if not isinstance(value, int) or isinstance(value, bool) or not 0 <= value < 2**63:
        raise TypeError(value)
    return value


def seconds_of(value: object) -> float:
    if not isinstance(value, (int, float)) or not 0 <= value < 1e10:
        raise TypeError(value)
    return float(value)


@dataclass
class History:
    """Events are taken in one after the other; `settle` ends that for those of a file."""

    first: float | None = None
    last: float | None = None
    unreadable: int = 0
    """Lines that are no events: not JSON, too long, without a time."""
    begins_later: bool = False
    """The file is longer than what is read of it."""
    is_cut: bool = False
    """The last line is half-written."""
    change_count: int = 0
    """Passes that committed something, and transitions."""
    transition_count: int = 0
    changes: deque[Change] = field(default_factory=lambda: deque(maxlen=CHANGES_KEPT))
    landed: Landed = field(default_factory=Landed)
    landed_files: int = 0
    landed_bytes: int = 0
    outage_count: int = 0
    outages: deque[Span] = field(default_factory=deque)
    forgotten_seconds: float = 0.0
    """Of outages before those that are kept."""
    eras: deque[tuple[float, int]] = field(default_factory=lambda: deque(maxlen=SPANS_KEPT))
    """When each began, as far as the log tells."""
    watched: deque[Span] = field(default_factory=lambda: deque(maxlen=SPANS_KEPT))
    warnings: dict[str, Repeated] = field(default_factory=dict)
    warning_count: int = 0
    repaired: int = 0
    """Files that were fetched again since their bytes were not the ones promised."""
    damaged: int = 0
    """Files here that a pass found damaged, and fetched anew."""
    failure_count: int = 0
    verified: dict[str, Any] | None = None
    """The last verify: `moment`, `valid`, `files`, `corrupted`, `missing`."""
    failure: tuple[float, str] | None = None
    """The last failure of the background work that no change followed."""
    _down: dict[str, tuple[float, str]] = field(default_factory=dict)
    """Requests that wait: by endpoint, since when and why."""

    @property
    def is_watched(self) -> bool:
        """Whether watch runs, once the history is settled."""
        return bool(self.watched) and self.watched[-1].end is None

    @property
    def outage(self) -> Span | None:
        """The one that lasts, if one does."""
        return self.outages[-1] if self.outages and self.outages[-1].end is None else None

    @property
    def outage_seconds(self) -> float:
        """Of all outages together; of one that lasts, to the last event. Never goes down."""
        known = sum(max(0.0, (span.end or self.last or span.begin) - span.begin) for span in self.outages)
        return round(self.forgotten_seconds + known, 3)

    def lasting_failure(self, now: float) -> tuple[float, str] | None:
        until = now if self.is_watched else (self.last or now)
        return self.failure if self.failure and until - self.failure[0] < LASTING_SECONDS else None

    def take(self, line: bytes) -> None:
        """Raises whatever a line raises that is no event."""
        event = json.loads(line)
        moment = datetime.fromisoformat(event["time"]).timestamp()
        if not EARLIEST <= moment <= time.time() + 86400:
            raise ValueError(event["time"])
        self.take_event(event, moment)

    def take_event(self, event: dict[str, Any], moment: float) -> None:
        """Raises as `take` does."""
        kind = event["event_type"]
        before = self.last
        self.first, self.last = min(self.first or moment, moment), max(before or moment, moment)
        if kind == "watch_started":
            self._unwatched(before or moment)
            self.watched.append(Span(moment, None))
        elif kind == "watch_ended":
            self._unwatched(moment)
        elif kind == "sync_unavailable_status":
            if len(self._down) < NAMES_KEPT:
                self._down.setdefault(short(event["endpoint"]), (moment, short(cause(event))))
        elif kind == "sync_recovered_status":
            # A process tells of the same begin ten times at most, and of every end.
            begin = max(self.first, moment - seconds_of(event["elapsed_seconds"]))
            begin, why = self._down.pop(short(event["endpoint"]), (begin, short(cause(event))))
            self._outage(Span(begin, moment, why))
        elif kind == "era" and event["event"] == "kill" and not self.eras:
            self.eras.append((self.first, whole(event["era_number"])))
        elif kind == "checksum_repair":
            self.repaired += 1
        elif kind == "verified":
            counts = {name: whole(event[name]) for name in ("files", "corrupted", "missing")}
            self.verified = {"moment": moment, "valid": not counts["corrupted"] + counts["missing"], **counts}
        elif kind == "log":
            self._line(moment, event["format"], event["args"], short(event["message"]))
        if event.get("level") in ("WARNING", "ERROR", "CRITICAL"):
            self._warning(moment, event)

    def _line(self, moment: float, form: str, args: list[Any], message: str) -> None:
        if form == SYNCED:
            era_number, version, files, count = map(whole, args[:4])
            self._change(Change(moment, era_number, version, files, count, seconds_of(args[4])))
        elif form == MENDED:
            self._change(Change(moment, whole(args[0]), whole(args[1]), 0, 0, seconds_of(args[3])))
        elif form == TRANSITION:
            self._change(Change(moment, whole(args[0]), None, whole(args[2]), whole(args[3]), seconds_of(args[1])))
            self.transition_count += 1
        elif form in DAMAGED:
            self.damaged += 1
        elif message.startswith(FAILURES):
            self.failure = (moment, message)
            self.failure_count += 1
            self._answered(moment)

    def _change(self, change: Change) -> None:
        self.changes.append(change)
        self.change_count += 1
        if change.bytes:
            self.landed.add(change.moment, change.bytes)
        self.landed_files += change.files
        self.landed_bytes += change.bytes
        self.failure = None
        self._answered(change.moment)
        if not self.eras:
            self.eras.append((self.first if change.version is not None and self.first else change.moment, change.era_number))
        elif self.eras[-1][1] != change.era_number:
            self.eras.append((change.moment, change.era_number))

    def _answered(self, moment: float) -> None:
        """A poll or pass has ended, one way or the other: none of its requests waits any more."""
        for endpoint in [endpoint for endpoint in self._down if endpoint.startswith("/data/")]:
            begin, why = self._down.pop(endpoint)
            self._outage(Span(begin, moment, why))

    def _outage(self, span: Span) -> None:
        begin, end = span.begin, span.end
        if self.outages and begin <= (self.outages[-1].end or begin) + SAME_OUTAGE_SECONDS:
            known = self.outages.pop()
            span = Span(min(known.begin, begin), None if end is None else max(known.end or end, end), known.label)
        else:
            self.outage_count += 1
        self.outages.append(span)
        if len(self.outages) > SPANS_KEPT:
            begin, end = self.outages[0].begin, self.outages.popleft().end
            self.forgotten_seconds += max(0.0, (end or begin) - begin)

    def _unwatched(self, moment: float) -> None:
        """The process has ended, and with it what it waited for."""
        for begin, why in self._down.values():
            self._outage(Span(begin, moment, why))
        self._down.clear()
        if self.is_watched:
            self.watched.append(Span(self.watched.pop().begin, moment))

    def _warning(self, moment: float, event: dict[str, Any]) -> None:
        message = short(event.get("message") or f"{event['event_type']}: {cause(event) or event.get('file', '')}")
        key = short(event.get("format") or message)
        if key not in self.warnings and len(self.warnings) >= NAMES_KEPT:
            del self.warnings[next(iter(self.warnings))]
        known = self.warnings.pop(key, None)
        self.warning_count += 1
        self.warnings[key] = Repeated(known.count + 1 if known else 1, moment, message)

    def settle(self, is_written: bool) -> None:
        """is_written: whether a process has the file open. Where none has, what the log leaves open ended with its last line."""
        if not is_written:
            self._unwatched(self.last or 0.0)
        elif self._down:
            begin, why = min(self._down.values())
            self._outage(Span(begin, None, why))
