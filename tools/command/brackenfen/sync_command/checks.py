"""What the doctor's checks have in common: findings, and the patient whose facts are found out once."""

from __future__ import annotations

import contextlib
import dataclasses
import os
from collections.abc import Callable, Iterator
from dataclasses import dataclass
from functools import cached_property
from pathlib import Path
from typing import Any

from brackenfen import sync

from brackenfen.sync_command import library
from brackenfen.sync_command.events import Heard, listening
from brackenfen.sync_command.exits import TokenError
from brackenfen.sync_command.probe import Probe, ask
from brackenfen.sync_command.session import NO_SERVER, Session
from brackenfen.sync_command.telling import read_manifest

FINE, NOTE, FAULT = "fine", "note", "fault"


@dataclass(frozen=True)
class Finding:
    level: str
    what: str
    do: str = ""
    check: str = ""

    def of(self, check: str) -> Finding:
        return dataclasses.replace(self, check=check)

    def document(self) -> dict[str, str]:
        return {"check": self.check, "level": self.level, "what": self.what, "do": self.do}


def fine(what: str) -> Finding:
    return Finding(FINE, what)


def note(what: str, do: str = "") -> Finding:
    return Finding(NOTE, what, do)


def fault(what: str, do: str) -> Finding:
    return Finding(FAULT, what, do)


class Patient:
    """The facts about one directory and one server; each is None where it cannot be had, and the check that is about it says why."""

    def __init__(self, session: Session, asking: sync.SyncManager | None, refusal: Exception | None) -> None:
        self.session = session
        self.asking = asking
        self.refusal = refusal
        self.token_error: Exception | None = None
        self.heard = Heard()

    @classmethod
    @contextlib.contextmanager
    def of(cls, session: Session) -> Iterator[Patient]:
        with contextlib.ExitStack() as stack:
            asking, refusal = None, None
            try:
                asking = stack.enter_context(session.asking_manager())
            except Exception as error:
                refusal = error
            yield cls(session, asking, refusal)

    @cached_property
    def directory(self) -> Path | None:
        """Only one that can be looked into."""
        given = self.session.settings.directory
        return given if given is not None and os.path.isdir(given) and os.access(given, os.R_OK | os.X_OK) else None

    @cached_property
    def manifest(self) -> sync.Manifest | None:
        with contextlib.suppress(PermissionError):
            return read_manifest(self.directory)[0] if self.directory else None
        return None

    @cached_property
    def holder(self) -> sync.LockHolder | None:
        return sync.lock_holder(self.directory) if self.directory else None

    @cached_property
    def manager(self) -> sync.SyncManager | None:
        """Built as for any command; what it warns of is in `heard`."""
        if self.directory is None:
            return None
        with listening(self.heard):
            try:
                # Without `asking` there is no server, or none that is acceptable.
                server = NO_SERVER if self.asking is None else self.session.server
                return sync.SyncManager(self.directory, server, self.session.settings.token)
            except (sync.StateError, OSError):
                return None

    def probe(self, path: str) -> Probe | None:
        if self.asking is None:
            return None
        try:
            return ask(self.session, self.asking, path)
        except TokenError as error:
            self.token_error = error
        except ValueError as error:  # the library refuses a token that no header can hold, without showing it
            self.token_error = error
        return None

    @cached_property
    def version(self) -> Probe | None:
        return self.probe(library.VERSION_PATH)

    @property
    def is_answered(self) -> bool:
        """Whether the server takes the token and is a data server."""
        return self.version is not None and self.version.is_data

    @cached_property
    def era(self) -> dict[str, Any] | None:
        if self.asking is None or not self.is_answered:
            return None
        try:
            with self.session.one_try():
                return library.current_era(self.asking)
        except (sync.SyncError, sync.SyncBackoffCancelled):
            return None


type Check = Callable[[Patient], Iterator[Finding]]
