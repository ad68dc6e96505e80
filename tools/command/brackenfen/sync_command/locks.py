"""Which process works on a directory, from the system's table of locks."""

from __future__ import annotations

import os
from dataclasses import dataclass
from pathlib import Path

LOCK_TABLE = Path("/proc/locks")


@dataclass(frozen=True)
class Holder:
    """`pid` is None where the table shows none: the process lives in another container."""

    pid: int | None
    command: str | None

    def __str__(self) -> str:
        if self.pid is None:
            return "a process of another container"
        return f"process {self.pid}{f' ({self.command})' if self.command else ''}"


def command_of(pid: int) -> str | None:
    """The words that the process was started with, as far as this user may see them; at most 120 characters."""
    try:
        words = Path(f"/proc/{pid}/cmdline").read_bytes().rstrip(b"\0").split(b"\0")
    except OSError:
        return None
    text = b" ".join(words).decode(errors="replace")
    return text if len(text) <= 120 else text[:117] + "..."


def _holds(pid: int, places: list[os.stat_result]) -> bool | None:
    """Whether the process has one of the places open; None where this user may not look."""
    try:
        descriptors = list(os.scandir(f"/proc/{pid}/fd"))
    except OSError:
        return None
    for descriptor in descriptors:
        try:
            opened = descriptor.stat()
        except OSError:
            continue
        if any(os.path.samestat(opened, place) for place in places):
            return True
    return False


def lock_holder(directory: Path) -> Holder | None:
    """The process whose pass, repair or transition runs; other readers of the directory hold no lock. None for nobody.

    The table names a file by device and inode. The device is not compared, since layered file systems show another one there:
    what the process has open decides, and where that is not to be seen, the inode alone.
    """
    places = []
    for path in (directory, directory / ".sync_flock"):
        try:
            places.append(path.stat())
        except OSError:
            continue
    inodes = {str(place.st_ino) for place in places}
    try:
        table = LOCK_TABLE.read_text().splitlines()
    except OSError:
        return None
    for row in table:
        # 1: FLOCK  ADVISORY  WRITE 1234 08:01:5678 0 EOF; "->" in the second place marks one that waits
        words = row.split()
        if len(words) < 6 or words[1] != "FLOCK" or words[3] != "WRITE" or words[5].rpartition(":")[2] not in inodes:
            continue
        pid = int(words[4])
        if pid <= 0:
            return Holder(None, None)
        if _holds(pid, places) is not False:
            return Holder(pid, command_of(pid))
    return None
