"""The command metrics: figures of a directory for Prometheus and what reads its text format."""

from __future__ import annotations

import dataclasses
import errno
import sys
import time
from collections.abc import Iterable
from pathlib import Path
from typing import Any

from brackenfen.sync_command.event_file import read_history
from brackenfen.sync_command.exits import SettingsError
from brackenfen.sync_command.history import History
from brackenfen.sync_command.output import Output, writing
from brackenfen.sync_command.reporting import gathered, place_for
from brackenfen.sync_command.session import Outcome, Session
from brackenfen.sync_command.standing import Server, asked, standing
from brackenfen.sync_command.texts import clean, counted


def require_client(what: str) -> None:
    try:
        import prometheus_client  # noqa: F401
    except ModuleNotFoundError as error:
        if (error.name or "").partition(".")[0] != "prometheus_client":
            raise
        raise SettingsError(f"{what} needs the package prometheus-client: pip install 'brackenfen-sync[metrics]'") from None


def place_of(target: Path, directory: Path, events: Iterable[Path] = ()) -> Path:
    """Where a file of figures goes. Raises SettingsError for one that no collector would read, or that must not be written."""
    if target.suffix != ".prom":
        raise SettingsError(f"no collector reads {target}: give the figures a name that ends in .prom")
    for path in events:
        place_for(target, directory, path)
    return place_for(target, directory, None)


def server_figures(
    server: Server | None, here: dict[str, Any], histories: list[History], state: str, now: float
) -> dict[str, float | None]:
    """Of an outage its begin is known from the log alone."""
    figures: dict[str, float | None] = {"in_step": None if state == "unknown" else state == "in_step"}
    if server is not None:
        figures["server_up"] = server.version is not None
    if server is not None and server.version is not None:
        figures |= {"server_era_number": server.era_number, "server_manifest_version": server.version}
        changes = [history.changes[-1].moment for history in histories if history.changes]
        figures["last_good_pass_timestamp_seconds"] = now if state == "in_step" else max([here["written_at"] or 0.0, *changes]) or None
    if any(history.is_watched for history in histories):
        outages = [history.outage.begin for history in histories if history.outage]
        figures["server_wait_seconds"] = max(0.0, now - min(outages)) if outages else 0.0
    return figures


def log_figures(histories: list[History], now: float) -> dict[str, float | None]:
    if not histories:
        return {}
    verified = max((history.verified for history in histories if history.verified), key=lambda told: float(told["moment"]), default=None)
    figures: dict[str, float | None] = {
        "running": any(history.is_watched for history in histories),
        "failing": any(history.lasting_failure(now) for history in histories),
        "log_unreadable_lines": sum(history.unreadable for history in histories),
    }
    if verified is not None:
        figures |= {"verified_timestamp_seconds": verified["moment"], "verified_bad_files": verified["corrupted"] + verified["missing"]}
    return figures


def metrics(session: Session, place: Path | None, target: Path | None, events: tuple[Path, ...]) -> Outcome:
    """Print figures of a directory for a system that watches many, in the text format of Prometheus.

    DIR is the data directory. The server, if one is set, is asked once and not waited for: without it, nobody knows
    whether the directory is in step. Counters come from the files of events. What is not known is left out.
    """
    if place is not None:
        session = dataclasses.replace(session, settings=dataclasses.replace(session.settings, directory=place))
    require_client("metrics")
    from brackenfen.sync_metrics import directory as files, figures, textfile

    directory = session.directory
    page = place_of(target, directory, events) if target is not None else None
    histories = [read_history(path) for path in events]
    for path, history in zip(events, histories, strict=True):
        if history.begins_later:
            session.output.say(clean(f"warning: {path} is longer than what is read of it, so its counters go down: rotate it"), "yellow")
    here = gathered(session)
    server = asked(session)
    now = time.time()
    latest = max(histories, key=lambda history: history.last or 0.0, default=None)
    stands = standing(here, server, latest, None, now)
    known: dict[str, float | None] = {
        "collected_timestamp_seconds": now,
        **files.DirectoryFigures(directory).now(time.monotonic()),
        "locked": here["holder"] is not None,
        "listed_files": here["files"] if here["version"] is not None else None,
        "listed_bytes": here["bytes"] if here["version"] is not None else None,
        **(figures.counted(histories) if histories else {}),
        **log_figures(histories, now),
        **server_figures(server, here, histories, stands.state, now),
    }
    content = figures.exposition(directory, known)
    if page is not None:
        try:
            textfile.write_whole(page, content)
        except OSError as error:
            if error.errno in (errno.ENOSPC, errno.EDQUOT):
                raise
            raise SettingsError(f"{target} cannot be written: {error.strerror}") from None

    def tell(output: Output) -> None:
        if page is None:
            with writing():
                sys.stdout.flush()
                sys.stdout.buffer.write(content)  # UTF-8, whatever the terminal speaks
        else:
            output.line(clean(f"{target}, {counted(content.count(b'# TYPE'), 'figure')}"))

    document = {
        "directory": str(directory), "output": str(target) if target else None,
        "figures": {name: float(value) for name, value in known.items() if value is not None},
    }  # fmt: skip
    return Outcome(document, tell)
