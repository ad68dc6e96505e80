"""The command report: one page about a directory, for people who would rather look than read."""

from __future__ import annotations

import dataclasses
import errno
import os
import time
from datetime import datetime
from pathlib import Path
from typing import Any

from brackenfen import sync

from brackenfen.sync_command import library
from brackenfen.sync_command.event_file import read_history
from brackenfen.sync_command.exits import Exit, SettingsError
from brackenfen.sync_command.history import History
from brackenfen.sync_command.output import Output
from brackenfen.sync_command.passes import verify
from brackenfen.sync_command.session import Outcome, Session
from brackenfen.sync_command.settings import TokenCommand
from brackenfen.sync_command.standing import asked, standing
from brackenfen.sync_command.telling import read_manifest, settings_payload, status
from brackenfen.sync_command.texts import clean, holder_text, size

ROWS_SHOWN = 12
LIBRARIES = {"jinja2": "jinja2", "markupsafe": "jinja2", "vl_convert": "vl-convert-python"}


def place_for(page: Path, directory: Path, events: Path | None) -> Path:
    """Where the page goes: links are followed, and nothing that is no page of ours to write is written over."""
    place = Path(os.path.realpath(page))
    if any(folder.exists() and os.path.samefile(folder, directory) for folder in (place, *place.parents)):
        raise SettingsError(f"{page} is in the data directory, which is the library's own: give --output another folder")
    if events is not None and place.exists() and events.exists() and os.path.samefile(place, events):
        raise SettingsError(f"{page} is the file of events: give --output another name")
    if place.exists() and not place.is_file():
        raise SettingsError(f"{page} is no regular file")
    return place


def write_page(place: Path, content: bytes) -> None:
    """Whole or not at all."""
    staged = place.with_name(f".{place.name[:100]}.{os.getpid()}.tmp")
    try:
        with open(os.open(staged, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o666), "wb") as stream:
            stream.write(content)
        staged.replace(place)
    except OSError as error:
        staged.unlink(missing_ok=True)
        if error.errno in (errno.ENOSPC, errno.EDQUOT):
            raise
        raise SettingsError(f"the page {place} cannot be written: {error.strerror}") from None


def summed(sizes: dict[str, dict[str, int]], shown: int = ROWS_SHOWN) -> list[dict[str, Any]]:
    """The largest rows by bytes, and one for all others."""
    ordered = sorted(sizes.items(), key=lambda item: -item[1]["bytes"])
    rows: list[dict[str, Any]] = [{"name": name or "without a kind", **row} for name, row in ordered]
    if len(rows) <= shown:
        return rows
    rest = rows[shown - 1 :]
    others = {key: sum(row[key] for row in rest) for key in rest[0] if key != "name"}
    return [*rows[: shown - 1], {"name": f"{len(rest):,} others", **others}]


def rotation_of(directory: Path, manifest: sync.Manifest) -> dict[str, Any]:
    """What is held of the features, as a whole and by universe."""
    payload = sync.feature_rotation_status_payload(directory, settings_payload=settings_payload(directory))
    files = manifest.files  # a copy of all of them at each look
    groups: dict[str, dict[str, int]] = {}
    for held, paths in ((True, payload["selected_relative_paths"]), (False, payload["skipped_relative_paths"])):
        for path in paths:
            folders = path.split("/")
            row = groups.setdefault(folders[1] if len(folders) > 2 else folders[0], {"files": 0, "held": 0, "bytes": 0, "held_bytes": 0})
            count = library.stated_size(files.get(path))
            row["files"] += 1
            row["bytes"] += count
            row["held"] += held
            row["held_bytes"] += count * held
    due = payload["next_rotation_at"]
    names = ("generation", "eligible_feature_count", "selected_feature_count", "next_rotation_at", "next_rotation_due")
    totals = {key: sum(row[key] for row in groups.values()) for key in ("bytes", "held_bytes")}
    return {
        **{name: payload[name] for name in names}, **totals, "groups": summed(groups), "missing": payload["missing_active_path_count"],
        "next_rotation": datetime.fromisoformat(due).timestamp() if due else None,
    }  # fmt: skip


def gathered(session: Session) -> dict[str, Any]:
    """What the directory tells by itself; asks no server."""
    here = dict(status(session).document)
    manifest = None if here["damage"] else read_manifest(session.directory)[0]
    try:
        here["rotation"] = rotation_of(session.directory, manifest) if manifest else None
    except (sync.SyncError, OSError, ValueError, TypeError, AttributeError) as error:  # changed meanwhile
        here |= {"rotation": None, "damage": here["damage"] or str(error)}
    here["kind_rows"] = summed(here["kinds"])
    here["missing"] = here["rotation"]["missing"] if here["rotation"] else 0
    here["holder"] = holder_text(**here["holder"]) if here["holder"] else None
    return here


def secret_of(session: Session, was_asked: bool) -> str:
    """The token, so that no page shows it wherever it was found; a program that prints one is not run for this."""
    if isinstance(session.settings.token, TokenCommand) and not was_asked:
        return ""
    try:
        return session.settings.token()
    except Exception:
        return ""


def report(session: Session, place: Path | None, page: Path, events: Path | None, read_all: bool) -> Outcome:
    """Write one page about a directory: how it stands, what happened, what it holds, what rotates, whether it is whole.

    DIR is the data directory. The page needs no network and no other file. The server, if one is set, is asked once. Exit
    code 3 where something is damaged; the page is written all the same.
    """
    if place is not None:
        session = dataclasses.replace(session, settings=dataclasses.replace(session.settings, directory=place))
    try:
        from brackenfen.sync_command.page import rendered, shown
    except ModuleNotFoundError as error:
        if (package := LIBRARIES.get((error.name or "").partition(".")[0])) is None:
            raise
        raise SettingsError(f"report needs the package {package}: pip install 'brackenfen-sync[report]'") from None
    directory = session.directory
    target = place_for(page, directory, events)
    history: History | None = read_history(events) if events is not None else None
    here = gathered(session)
    found = dict(verify(session).document) if read_all and not here["damage"] else None
    server = asked(session)
    now = time.time()
    secret = secret_of(session, server is not None)
    stands = standing(here, server, history, found, now)
    stands = dataclasses.replace(stands, sentence=str(shown(stands.sentence, secret)))
    content = rendered(here, stands, server, history, found, now, secret).encode(errors="replace")
    write_page(target, content)
    document = {
        "directory": str(directory), "output": str(page), "size_bytes": len(content), **dataclasses.asdict(stands),
        "era_number": here["era_number"], "version": here["version"], "damage": here["damage"],
        "verified": found and {name: found[name] for name in ("valid", "corrupted_files", "missing_files")},
    }  # fmt: skip

    def tell(output: Output) -> None:
        output.line(clean(f"{stands.word}. {stands.sentence}"), "green" if stands.level == "good" else "yellow")
        output.line(clean(f"{page}, {size(len(content))}"))

    return Outcome(document, tell, Exit.INTEGRITY if stands.state == "damaged" else Exit.FINE)
