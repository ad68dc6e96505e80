"""Files that are there whole or not at all, for readers that may come at any moment."""

from __future__ import annotations

import os
from pathlib import Path


def write_whole(place: Path, content: bytes) -> None:
    """Puts a file that everybody may read into its place. Raises OSError, and then what was there stays.

    Until then it lies beside it, under a name that collectors of *.prom files pass over. It is not flushed to the disk:
    after a power failure the figures of before would be of no use either.
    """
    staged = place.with_name(f".{place.name[:100]}.{os.getpid()}.tmp")
    staged.unlink(missing_ok=True)  # of a process that had this number and was killed
    try:
        with open(os.open(staged, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600), "wb") as stream:
            os.fchmod(stream.fileno(), 0o644)
            stream.write(content)
        staged.replace(place)
    except OSError:
        staged.unlink(missing_ok=True)
        raise
