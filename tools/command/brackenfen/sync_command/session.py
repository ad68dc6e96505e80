"""What every command begins with: its settings, a manager for them, and the log and progress of its work."""

from __future__ import annotations

import contextlib
import logging
import os
import tempfile
from collections.abc import Callable, Iterator, Mapping
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from brackenfen import sync

from brackenfen.sync_command.events import Heard, OutageLimit, Spoken, listening
from brackenfen.sync_command.exits import Exit, SettingsError, UnavailableError
from brackenfen.sync_command.output import Output
from brackenfen.sync_command.progress import Display
from brackenfen.sync_command.settings import Settings

# A manager is built with an address that it never asks, where a command needs no server.
NO_SERVER = "http://localhost"


@dataclass(frozen=True)
class Outcome:
    """What a command came to: a document for scripts, and how it is told to people."""

    document: Mapping[str, Any]
    tell: Callable[[Output], None]
    code: Exit = Exit.FINE


@dataclass
class Session:
    settings: Settings
    output: Output
    verbose: bool = False
    wait_seconds: float | None = None
    """How long an outage may last before the command gives up; None without a limit."""

    @property
    def directory(self) -> Path:
        directory = self.settings.directory
        if directory is None:
            raise SettingsError("no data directory: give --directory, BRACKENFEN_DIRECTORY, or directory in the settings file")
        if not os.path.exists(directory):
            raise SettingsError(f"the data directory {directory} does not exist; make it (mkdir -p), or mount what belongs there")
        if not os.path.isdir(directory):
            raise SettingsError(f"{directory} is no directory")
        return directory

    @property
    def server(self) -> str:
        if not self.settings.server:
            raise SettingsError("no server: give --server, BRACKENFEN_SERVER, or server in the settings file")
        return self.settings.server

    def manager(self) -> sync.SyncManager:
        """The directory's manager. Raises SettingsError for a server address that is not acceptable."""
        return self._build(self.directory, self.server)

    def local_manager(self) -> sync.SyncManager:
        """The directory's manager for what makes no request."""
        return self._build(self.directory, self.settings.server or NO_SERVER)

    @contextlib.contextmanager
    def asking_manager(self) -> Iterator[sync.SyncManager]:
        """A manager that only asks the server: of an empty directory, so that nothing local can be in the way."""
        with tempfile.TemporaryDirectory(prefix="brackenfen-sync-") as nothing:
            yield self._build(Path(nothing), self.server)

    def _build(self, directory: Path, server: str) -> sync.SyncManager:
        try:
            with listening(Spoken(self.output, self.verbose), logging.WARNING):
                return sync.SyncManager.get_or_create(directory, server, self.settings.token, self.settings.poll_interval_seconds)
        except ValueError as error:
            raise SettingsError(f"the server's address is not acceptable: {error}") from None  # it may hold a password

    @contextlib.contextmanager
    def working(self, manager: sync.SyncManager, writes: bool = False, idle: Callable[[], str] | None = None) -> Iterator[None]:
        """The log is spoken, progress shows, and outages end after --wait, if that was given.

        writes: whether waits show in the directory's sync-progress.json; what only tells changes nothing there.
        idle: what shows while nothing runs, for work in the background, whose passes are told then too.
        """
        level = logging.DEBUG if self.verbose else logging.INFO
        with self._giving_up(), contextlib.ExitStack() as stack:
            spoken = Spoken(self.output, self.verbose, idle is not None)
            stack.push(lambda _type, error, _traceback: spoken.end(error))
            stack.enter_context(listening(spoken, level))
            stack.enter_context(Display(manager, self.output, idle))
            limit = None if self.wait_seconds is None else OutageLimit(self.wait_seconds)
            if limit is not None:
                stack.enter_context(listening(limit))
            surface = f"brackenfen-sync {self.output.command}"
            shown_in = self.settings.directory if writes else None
            stack.enter_context(sync.backoff_context(data_dir=shown_in, surface=surface, stop_requested=limit))
            yield

    @contextlib.contextmanager
    def _giving_up(self) -> Iterator[None]:
        try:
            yield
        except sync.SyncBackoffCancelled:
            raise UnavailableError(f"the server did not come back within {self.wait_seconds:g} s") from None

    @contextlib.contextmanager
    def one_try(self) -> Iterator[Heard]:
        """Requests in the block do not wait: a failure that others would be waited out is a SyncBackoffCancelled."""
        heard = Heard()
        with listening(heard, logging.DEBUG), sync.backoff_context(stop_requested=lambda: True):
            yield heard
