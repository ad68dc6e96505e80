"""Exit codes, which stay as they are from version to version, and which error has which."""

from __future__ import annotations

import errno
from enum import IntEnum

import click
from brackenfen import sync


class Exit(IntEnum):
    FINE = 0
    FAILED = 1
    USAGE = 2
    INTEGRITY = 3
    UNAVAILABLE = 4
    AUTH = 5
    DISK = 6
    ERA = 7
    INTERRUPTED = 130


class SettingsError(Exception):
    """What the command was told does not do: a setting is missing, unreadable or none."""


class TokenError(Exception):
    """The token's file or command gives none."""


class OutputError(Exception):
    """Standard output takes no more; what was to be done is done."""


class Interrupted(Exception):
    """A KeyboardInterrupt on its way through the parser of the command line, which would say something of its own."""


class UnavailableError(Exception):
    """The server was away for longer than the command was to wait."""


# What to do where the library's own notes say nothing.
ADVICE = {
    Exit.INTEGRITY: "brackenfen-sync doctor tells what is damaged and what mends it",
    Exit.UNAVAILABLE: "brackenfen-sync why tells what is waited for",
    Exit.AUTH: "the token comes from --token-file, --token-command or BRACKENFEN_TOKEN; brackenfen-sync doctor tries it",
    Exit.DISK: "brackenfen-sync plan tells what a pass needs",
    Exit.ERA: "brackenfen-sync era tells where directory and server are",
}


def exit_code(error: BaseException) -> Exit:
    """What a script is told of an error. The classes come from the host's modules where it has them."""
    status = getattr(error, "status", None)
    if isinstance(error, (KeyboardInterrupt, Interrupted, click.Abort)):
        return Exit.INTERRUPTED
    if isinstance(error, (SettingsError, click.UsageError)):
        return Exit.USAGE
    if isinstance(error, (TokenError, sync.AuthError)) or status in (401, 403):
        return Exit.AUTH
    if isinstance(error, (sync.IntegrityError, sync.ManifestError, sync.FeatureRotationStateError)):
        return Exit.INTEGRITY
    if isinstance(error, sync.DiskSpaceError) or (isinstance(error, OSError) and error.errno in (errno.ENOSPC, errno.EDQUOT)):
        return Exit.DISK
    if isinstance(error, (sync.EraError, sync.LibraryUpdateRequired)):
        return Exit.ERA
    if isinstance(error, (UnavailableError, ConnectionError, TimeoutError, sync.SyncBackoffCancelled)):
        return Exit.UNAVAILABLE
    return Exit.FAILED
