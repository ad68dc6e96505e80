"""Reading a file of events.

Read once, whatever it holds: `watch --events` may be writing it at the moment, a killed process or a full disk may have cut
a line, and other programs may have written into it.
"""

from __future__ import annotations

import glob
import os
from pathlib import Path
from typing import IO

from brackenfen.sync_command.exits import SettingsError
from brackenfen.sync_command.history import History

READ_BYTES = 128 * 2**20  # of a longer file its end
LINE_BYTES = 2**20


def is_open(path: Path) -> bool:
    """Whether a process that this user may look into has a file open."""
    place = path.stat()
    for descriptor in glob.iglob("/proc/[0-9]*/fd/*"):
        try:
            if os.path.samestat(os.stat(descriptor), place):
                return True
        except OSError:
            continue  # it has ended meanwhile, or is another user's
    return False


def read_lines(stream: IO[bytes], history: History) -> None:
    while line := stream.readline(LINE_BYTES):
        rest = line
        while len(rest) == LINE_BYTES and not rest.endswith(b"\n"):
            rest = stream.readline(LINE_BYTES)  # of a line that is too long to be an event
        try:
            history.take(line)
        except (ValueError, TypeError, KeyError, IndexError, AttributeError, OverflowError, RecursionError):
            if rest.endswith(b"\n"):
                history.unreadable += 1
            else:
                history.is_cut = True


def read_history(path: Path) -> History:
    """Raises SettingsError where the file cannot be read at all."""
    history = History()
    try:
        if not path.is_file():  # a pipe would be waited for
            raise SettingsError(f"the file of events {path} {'is no regular file' if path.exists() else 'does not exist'}")
        with path.open("rb") as stream:
            excess = path.stat().st_size - READ_BYTES
            if excess > 0:
                history.begins_later = True
                stream.seek(excess)
                while (rest := stream.readline(LINE_BYTES)) and not rest.endswith(b"\n"):
                    pass
            read_lines(stream, history)
    except OSError as error:
        raise SettingsError(f"the file of events {path} cannot be read: {error.strerror}") from None
    history.settle(is_open(path))
    return history
