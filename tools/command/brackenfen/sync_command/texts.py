"""How figures and foreign texts are written for people."""

from __future__ import annotations

import time
from datetime import UTC, datetime

FACTORS = ((1e12, "TB"), (1e9, "GB"), (1e6, "MB"), (1e3, "kB"))


def clean(value: object) -> str:
    """A text that a server, a file name or another program gave, fit for a terminal: what is not printable shows as its escape."""
    return "".join(char if char.isprintable() else char.encode("unicode_escape").decode() for char in str(value))


def cause(reason: object) -> str:
    """Why a request waits, as the library's events and files put it: "http_503" is what people know as HTTP 503."""
    return str(reason).replace("http_", "HTTP ")


def holder_text(pid: int | None, command: str | None) -> str:
    """The process that works on a directory; what it was started with at most to 120 characters."""
    if pid is None:
        return "a process that this one cannot see"
    if not command:
        return f"process {pid}"
    return f"process {pid} ({command if len(command) <= 120 else command[:117] + '...'})"


def size(count: float) -> str:
    """Bytes in decimal units, as disks are sold."""
    for factor, unit in FACTORS:
        if abs(count) >= factor:
            return f"{count / factor:,.1f} {unit}"
    return f"{count:.0f} B"


def duration(seconds: float) -> str:
    """The two greatest units that matter."""
    whole = max(0, round(seconds))
    if seconds < 10:
        return f"{max(0.0, seconds):.1f} s"
    for unit, length, part, part_length in (("d", 86400, "h", 3600), ("h", 3600, "min", 60), ("min", 60, "s", 1)):
        if whole >= length:
            return f"{whole // length} {unit} {whole % length // part_length} {part}"
    return f"{whole} s"


def moment(seconds: float) -> str:
    """Local time, and the date where it is not today."""
    then = datetime.fromtimestamp(seconds).astimezone()
    return then.strftime("%H:%M:%S" if then.date() == datetime.now().date() else "%Y-%m-%d %H:%M:%S")


def ago(seconds: float) -> str:
    return f"{moment(seconds)}, {duration(time.time() - seconds)} ago"


def stamp(seconds: float) -> str:
    """For machines: UTC in milliseconds."""
    return datetime.fromtimestamp(seconds, UTC).isoformat(timespec="milliseconds").replace("+00:00", "Z")


def utc(seconds: float | None) -> str:
    """For a page that travels: the minute, and in which zone."""
    return "an unknown time" if seconds is None else datetime.fromtimestamp(seconds, UTC).strftime("%-d %b %Y, %H:%M UTC")


def counted(count: int, one: str, many: str | None = None) -> str:
    return f"{count:,} {one if count == 1 else many or one + 's'}"
