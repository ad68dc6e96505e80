"""Files that are there whole or not at all, for readers that may come at any moment."""

from __future__ import annotations

import os
import tempfile
from pathlib import Path


def write_whole(place: Path, content: bytes) -> None:
    """Puts a file that everybody may read into its place. Raises OSError, and then what was there stays.

    Until then it lies beside it, under a name of its own that collectors of *.prom files pass over. It is not flushed to
    the disk: after a power failure the figures of before would be of no use either.
    """
    descriptor, staged = tempfile.mkstemp(dir=place.parent, prefix=f".{place.name[:50]}.", suffix=".tmp")
    try:
        with open(descriptor, "wb") as stream:
            os.fchmod(stream.fileno(), 0o644)
            stream.write(content)
        os.replace(staged, place)
    except OSError:
        Path(staged).unlink(missing_ok=True)
        raise
