"""The command watch: background work until it is stopped, through outages and eras."""

from __future__ import annotations

import contextlib
import logging
import sys
import time
from collections.abc import Iterator
from pathlib import Path

from brackenfen import sync

from brackenfen.sync_command.events import EventLines, Spoken, listening, recording
from brackenfen.sync_command.exits import Exit
from brackenfen.sync_command.main import Terminated
from brackenfen.sync_command.metrics import place_of, require_client
from brackenfen.sync_command.output import writing
from brackenfen.sync_command.passes import run_pass
from brackenfen.sync_command.progress import wait_text
from brackenfen.sync_command.session import Session
from brackenfen.sync_command.settings import TokenCommand
from brackenfen.sync_command.texts import clean, duration

LOOK_SECONDS = 0.2
WRITER = logging.getLogger("brackenfen.sync_metrics")


def idle_text(manager: sync.SyncManager) -> str:
    health = manager.health()
    if health.waiting_for is not None:
        return wait_text(health.waiting_for, time.time())
    age = "" if health.last_good_pass_age_s is None else f", last good pass {duration(health.last_good_pass_age_s)} ago"
    failure = f"; {health.last_error}" if health.last_error else ""
    return clean(f"era {health.era_number}, version {health.version}{age}{failure}")


def work(session: Session, manager: sync.SyncManager, lines: list[EventLines]) -> None:
    """Until an interrupt, or until standard output takes no more events where it is for those.

    A watcher that starts without a manifest follows no era, so a first pass comes before it.
    """
    if manager.get_manifest() is None:
        run_pass(session, manager)
    manager.stop_ends_waits = True  # an outage does not keep anybody from ending the command
    manager.acquire()
    try:
        while (failure := lines[0].error if session.output.as_json else None) is None:
            time.sleep(LOOK_SECONDS)
        with writing():
            raise failure
    finally:
        if isinstance(session.settings.token, TokenCommand):
            session.settings.token.end()  # nor does a program that gives no token
        manager.release()
        manager.stop()  # also where a count that another host left behind keeps the threads up


@contextlib.contextmanager
def figures(session: Session, manager: sync.SyncManager, target: Path) -> Iterator[None]:
    """A file of figures that is kept up to date for the duration of the block."""
    from brackenfen.sync_metrics import MetricsFile

    with listening(Spoken(session.output), logging.WARNING, WRITER), MetricsFile(manager, session.directory, target):
        yield


def watch(session: Session, events: Path | None, target: Path | None) -> Exit:
    """Keep the directory up to date until it is stopped, and follow the server from era to era.

    Outages are waited out. Ctrl-C ends it with 130, SIGTERM with 0. With --json every event of the library is a line.
    """
    if target is not None:
        require_client("--metrics")
        target = place_of(target, session.directory, [events] if events else [])
    manager = session.manager()
    with contextlib.ExitStack() as stack:
        lines = [EventLines(sys.stdout)] if session.output.as_json else []
        if events is not None:
            lines.append(stack.enter_context(recording(events, session.output)))
        for handler in lines:
            stack.enter_context(listening(handler))

        def write(event_type: str, **fields: object) -> None:
            for handler in lines:
                handler.write({"event_type": event_type, **fields})

        def on_era(event: str, era_number: int) -> None:
            write("era", event=event, era_number=era_number)

        stack.enter_context(session.working(manager, writes=True, idle=lambda: idle_text(manager)))
        if target is not None:
            stack.enter_context(figures(session, manager, target))
        manager.register_era_callback(on_era)
        try:
            write("watch_started", directory=str(session.directory), server=session.server)
            session.output.say(clean(f"watching {session.directory}; Ctrl-C ends it"))
            work(session, manager, lines)
        except Terminated:
            session.output.say("stopped")
        finally:
            manager.unregister_era_callback(on_era)
            write("watch_ended")
    return Exit.FINE
