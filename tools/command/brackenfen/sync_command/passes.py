"""Commands that change the data: sync, repair, features; and verify, which reads them all."""

from __future__ import annotations

import contextlib
import time
from pathlib import Path
from typing import Any

import click
from brackenfen import sync

from brackenfen.sync_command import library
from brackenfen.sync_command.events import recording
from brackenfen.sync_command.exits import Exit
from brackenfen.sync_command.output import Output
from brackenfen.sync_command.session import Outcome, Session
from brackenfen.sync_command.telling import MANIFEST_MENDS, read_manifest
from brackenfen.sync_command.texts import clean, counted, duration, size

NAMES_TOLD = 20


def pass_document(session: Session, manager: sync.SyncManager, result: sync.SyncResult | None, seconds: float) -> dict[str, Any]:
    manifest = manager.get_manifest()
    files = manifest.files if manifest else {}
    held = result.active_relative_paths if result and result.active_relative_paths else tuple(files)
    document: dict[str, Any] = {
        "directory": str(session.directory),
        "era_number": manifest.era_number if manifest else None,
        "version": manifest.version if manifest else None,
        "files": len(held),
        "bytes": sum(library.stated_size(files.get(path)) for path in held),
        "seconds": round(seconds, 3),
    }
    if result is not None:
        document |= {
            name: getattr(result, name)
            for name in ("bytes_downloaded", "features_downloaded", "vocabulary_downloaded", "shuffle_seed_downloaded", "rotation_seed")
        }
        document["skipped_features"] = len(result.skipped_relative_paths)
    return document


def tell_pass(output: Output, document: dict[str, Any]) -> None:
    output.line(clean(f"era {document['era_number']}, version {document['version']} in {document['directory']}"), "bold")
    if document.get("skipped_features"):
        output.line(f"not held now: {counted(document['skipped_features'], 'feature')}, see brackenfen-sync rotation")
    if downloaded := document.get("bytes_downloaded"):
        rate = size(downloaded / max(document["seconds"], 0.001))
        output.line(f"{size(downloaded)} landed in {duration(document['seconds'])} ({rate}/s), each file checked as it landed", "green")
    elif "transition_from" in document:
        output.line(clean(f"came from era {document['transition_from']} in {duration(document['seconds'])}"), "green")
    else:
        held = f"{counted(document['files'], 'file')}, {size(document['bytes'])}"
        output.line(f"up to date: {held}, checked in {duration(document['seconds'])}", "green")


def run_pass(session: Session, manager: sync.SyncManager) -> dict[str, Any]:
    """One pass, or the transition where the server is in another era."""
    began = time.monotonic()
    result, left = None, None
    try:
        result = manager.sync()
    except sync.EraError as error:
        if error.server_era_number is None or error.local_era_number is None:
            raise
        left = error.local_era_number
        session.output.say(f"the server is in era {error.server_era_number}, the directory in era {left}: going there")
        manager.trigger_era_transition(error.server_era_number)
    document = pass_document(session, manager, result, time.monotonic() - began)
    return document if left is None else document | {"transition_from": left}


def sync_(session: Session, create: bool) -> Outcome:
    """Bring the directory up to date: one pass; where the server is in another era, the transition to it.

    An outage of the server is waited out, unless --wait says for how long. Ctrl-C stops cleanly, and the next run
    goes on where this one was.
    """
    if create and session.settings.directory is not None:
        session.settings.directory.mkdir(parents=True, exist_ok=True)
    manager = session.manager()
    with session.working(manager, writes=True):
        document = run_pass(session, manager)
    return Outcome(document, lambda output: tell_pass(output, document))


def tell_damaged(output: Output, corrupted: list[str], missing: list[str]) -> None:
    for paths, word in ((corrupted, "damaged"), (missing, "missing")):
        for path in paths[:NAMES_TOLD]:
            output.line(clean(f"{word}  {path}"), "red")
        if len(paths) > NAMES_TOLD:
            output.line(f"and {len(paths) - NAMES_TOLD:,} more that are {word}")


def without_manifest(session: Session, therefore: str) -> Exception:
    """The error of a command that goes by the manifest, where the library has found none that it can read."""
    if (damage := read_manifest(session.directory)[1]) is not None:
        return sync.ManifestError(f"manifest.json is damaged: {damage}; {MANIFEST_MENDS}")
    return sync.StateError(f"there is no manifest yet, so {therefore}: brackenfen-sync sync fills the directory")


def verify(session: Session, events: Path | None = None) -> Outcome:
    """Read every local file and compare it with the manifest. Makes no request; exit code 3 where one is not right."""
    with contextlib.ExitStack() as stack:
        lines = stack.enter_context(recording(events, session.output)) if events is not None else None
        manager = session.local_manager()
        manifest = manager.get_manifest()
        if manifest is None and isinstance(error := without_manifest(session, ""), sync.ManifestError):
            raise error
        began = time.monotonic()
        with session.working(manager):
            found = manager.verify()
        seconds = time.monotonic() - began
        files = len(manifest.files) if manifest else 0
        if lines is not None:
            told = {"files": files, "corrupted": len(found.corrupted_files), "missing": len(found.missing_files), "seconds": round(seconds, 3)}
            lines.write({"event_type": "verified", "directory": str(session.directory), **told})
    document = {
        "directory": str(session.directory), "valid": found.valid, "has_manifest": manifest is not None, "files": files,
        "corrupted_files": found.corrupted_files, "missing_files": found.missing_files, "seconds": round(seconds, 3),
    }  # fmt: skip

    def tell(output: Output) -> None:
        tell_damaged(output, found.corrupted_files, found.missing_files)
        if manifest is None:
            output.line("there is no manifest yet: brackenfen-sync sync fills the directory", "yellow")
        elif found.valid:
            output.line(f"every file is right: {counted(files, 'file')} of the manifest looked at in {duration(seconds)}", "green")
        else:
            count = len(found.corrupted_files) + len(found.missing_files)
            output.line(f"{counted(count, 'file')} of {files:,} not right; brackenfen-sync repair fetches them anew", "red")

    return Outcome(document, tell, Exit.FINE if found.valid else Exit.INTEGRITY)


def relative(directory: Path, path: str) -> str:
    """A path as the manifest has it; one below the directory may be given as people see it."""
    given = Path(path)
    if given.is_absolute() and given.is_relative_to(directory.absolute()):
        return str(given.relative_to(directory.absolute()))
    return path


def repair(session: Session, paths: tuple[str, ...]) -> Outcome:
    """Fetch files anew: those named, or else all that verify finds. PATH is relative to the directory."""
    manager = session.manager()
    manifest = manager.get_manifest()
    if manifest is None:
        raise without_manifest(session, "nothing to repair")
    named = [relative(session.directory, path) for path in paths]
    files = manifest.files
    if unknown := [path for path in named if path not in files]:
        raise click.BadArgumentUsage(f"the manifest has no file {unknown[0]}")
    began = time.monotonic()
    with session.working(manager, writes=True):
        found = sync.VerifyResult() if named else manager.verify()
        wanted = named or found.corrupted_files + found.missing_files
        result = manager.repair(wanted) if wanted else None
    document = pass_document(session, manager, result, time.monotonic() - began) | {"repaired": wanted}

    def tell(output: Output) -> None:
        for path in wanted[:NAMES_TOLD]:
            output.line(clean(f"fetched anew  {path}"))
        if len(wanted) > NAMES_TOLD:
            output.line(f"and {len(wanted) - NAMES_TOLD:,} more")
        seconds = duration(document["seconds"])
        told = (
            f"{counted(len(wanted), 'file')} fetched anew in {seconds}" if wanted else f"nothing to repair, as {seconds} of reading showed"
        )
        output.line(told, "green")

    return Outcome(document, tell)


def features(session: Session, names: tuple[str, ...], strategy: bool, universe: str | None) -> Outcome:
    """Fetch features and their companions by name, whatever the rotation selects. They stay until the era ends."""
    manager = session.manager()
    if manager.get_manifest() is None:
        raise without_manifest(session, "no feature is known")
    kind = "STRATEGY" if strategy else "SIGNAL"
    with session.working(manager, writes=True):
        found = {name: manager.fetch_features([name], expression_type=kind, named_universe=universe) for name in names}
    unknown = [name for name, paths in found.items() if not paths]
    document = {"directory": str(session.directory), "features": found, "unknown": unknown}

    def tell(output: Output) -> None:
        for path in dict.fromkeys(path for paths in found.values() for path in paths):
            output.line(clean(path))
        if unknown:
            output.say(clean(f"the manifest knows no feature {', '.join(unknown)}"), "red")

    return Outcome(document, tell, Exit.FAILED if unknown else Exit.FINE)
