"""The entry point: nothing is imported before an interrupt and a missing extra have their one line."""

from __future__ import annotations

import os
import signal
import sys
from types import FrameType

INTERRUPTED = 130


class Terminated(KeyboardInterrupt):
    """SIGTERM: ends a command as Ctrl-C does; for one that runs until it is stopped it is the proper end."""


def _leave(_signal: int, _frame: FrameType | None) -> None:
    """Before anything has begun: an exception could be lost in a callback of the import system, and the command would run on."""
    try:
        os.write(2, b"interrupted\n")
    finally:
        os._exit(INTERRUPTED)


def _terminate(_signal: int, _frame: FrameType | None) -> None:
    raise Terminated


def main() -> int:
    """Run the command line; the result is the exit code."""
    try:
        for name, mode in (("stdin", "r"), ("stdout", "w"), ("stderr", "w")):
            if getattr(sys, name) is None:  # closed: it leads nowhere, rather than to the file that is opened next
                setattr(sys, name, open(os.devnull, mode))  # noqa: SIM115
        interrupt = signal.getsignal(signal.SIGINT)
        if interrupt is signal.default_int_handler:  # a shell has its background jobs ignore it
            signal.signal(signal.SIGINT, _leave)
        signal.signal(signal.SIGTERM, _leave)
        hears_hangup = signal.getsignal(signal.SIGHUP) is signal.SIG_DFL  # nohup has it ignored
        if hears_hangup:
            signal.signal(signal.SIGHUP, _leave)
        try:
            from brackenfen.sync_command.cli import run
        except ModuleNotFoundError as error:
            if (error.name or "").partition(".")[0] not in ("click", "rich"):
                raise
            print(f"brackenfen-sync needs the package {error.name}: pip install 'brackenfen-sync[cli]'", file=sys.stderr)
            return 2
        signal.signal(signal.SIGTERM, _terminate)
        signal.signal(signal.SIGINT, interrupt)
        if hears_hangup:
            signal.signal(signal.SIGHUP, signal.default_int_handler)
        return run(sys.argv[1:])
    except KeyboardInterrupt:
        print("interrupted", file=sys.stderr)
        return INTERRUPTED
