"""The entry point: nothing is imported before an interrupt and a missing extra have their one line."""

from __future__ import annotations

import signal
import sys
from types import FrameType

INTERRUPTED = 130


class Terminated(KeyboardInterrupt):
    """SIGTERM: ends a command as Ctrl-C does; for one that runs until it is stopped it is the proper end."""


def _terminate(_signal: int, _frame: FrameType | None) -> None:
    raise Terminated


def main() -> int:
    """Run the command line; the result is the exit code."""
    try:
        signal.signal(signal.SIGTERM, _terminate)
        try:
            from brackenfen.sync_command.cli import run
        except ModuleNotFoundError as error:
            if (error.name or "").partition(".")[0] not in ("click", "rich"):
                raise
            print(f"brackenfen-sync needs the package {error.name}: pip install 'brackenfen-sync[cli]'", file=sys.stderr)
            return 2
        return run(sys.argv[1:])
    except KeyboardInterrupt:
        print("interrupted", file=sys.stderr)
        return INTERRUPTED
