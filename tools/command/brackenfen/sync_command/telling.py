"""Commands that change nothing: status and rotation from the directory alone, why and era with a look at the server."""

from __future__ import annotations

import time
from collections import Counter
from dataclasses import asdict
from pathlib import Path
from typing import Any

from brackenfen import sync

from brackenfen.sync_command import library
from brackenfen.sync_command.exits import Exit, TokenError
from brackenfen.sync_command.files import EMPTY, leftovers, read_state, rotation_state_error, state_size
from brackenfen.sync_command.output import Output
from brackenfen.sync_command.probe import Probe, ask
from brackenfen.sync_command.session import Outcome, Session
from brackenfen.sync_command.texts import ago, cause, clean, counted, duration, holder_text, moment, size


MANIFEST_MENDS = "brackenfen-sync sync writes it anew, and files that are right stay"


def read_manifest(directory: Path) -> tuple[sync.Manifest | None, str | None]:
    """The local manifest, read without a manager, and why there is none: it is missing or damaged.

    Raises PermissionError: what may not be read is not damaged.
    """
    try:
        if not state_size(directory / "manifest.json"):
            return None, EMPTY
        return library.stored_manifest(directory), None
    except FileNotFoundError:
        return None, None
    except PermissionError:
        raise
    except (OSError, ValueError, sync.FeatureRotationStateError) as error:
        return None, str(error).rpartition("for feature rotation status")[2].lstrip(": ")


def settings_payload(directory: Path) -> dict[str, object]:
    """What decides when the rotation is due: the directory's own settings, else the library's defaults."""
    defaults: dict[str, object] = {"rotation_frequency": sync.RotationSettings().rotation_frequency}
    try:
        given = read_state(directory / "feature-rotation-settings.json")
    except (OSError, ValueError):
        return defaults  # doctor names a file that is none
    frequency = given.get("rotation_frequency") if isinstance(given, dict) else None
    return {"rotation_frequency": frequency} if frequency else defaults


def wait_of(directory: Path) -> dict[str, Any] | None:
    """The wait that sync-progress.json shows, if it lasts: `reason`, `attempt`, `surface`, `next_try_at`."""
    try:
        progress = read_state(directory / "sync-progress.json")
        backoff = progress["backoff"]
        next_try_at = progress["updated_at"] + backoff["wait_seconds"]
        told = {"reason": cause(backoff["reason"]), "attempt": backoff["attempt"], "surface": backoff["surface"]}
    except (OSError, ValueError, KeyError, TypeError, AttributeError):
        return None
    return {**told, "next_try_at": next_try_at} if next_try_at > time.time() - 1 else None


def kinds_of(files: dict[str, Any]) -> dict[str, dict[str, int]]:
    """By kind, sorted: `files` counts them, `bytes` is what the manifest states of their sizes."""
    counts: Counter[str] = Counter()
    sizes: Counter[str] = Counter()
    for entry in files.values():
        kind = str(entry.get("kind", "")) if isinstance(entry, dict) else ""
        counts[kind] += 1
        sizes[kind] += library.stated_size(entry)
    return {kind: {"files": counts[kind], "bytes": sizes[kind]} for kind in sorted(counts)}


def status(session: Session) -> Outcome:
    """Tell what the directory holds and what goes on in it, from its files alone."""
    directory = session.directory
    manifest, damage = read_manifest(directory)
    files = manifest.files if manifest else {}
    kinds = kinds_of(files)
    if damage is not None:
        damage = f"manifest.json: {damage}"
    elif (damage := rotation_state_error(directory)) is not None:
        damage = f"feature-rotation-state.json: {damage}"
    rotation = None if damage else sync.feature_rotation_status_payload(directory, settings_payload=settings_payload(directory))
    holder = sync.lock_holder(directory)
    era_number = manifest.era_number if manifest else None
    left: Counter[str] = Counter()
    if holder is None:  # what belongs to the work under way is not left over
        left.update(thing.kind.name for thing in leftovers(directory, era_number))
    document: dict[str, Any] = {
        "directory": str(directory),
        "era_number": era_number,
        "version": manifest.version if manifest else None,
        "written_at": (directory / "manifest.json").stat().st_mtime if manifest else None,
        "files": len(files),
        "bytes": sum(kind["bytes"] for kind in kinds.values()),
        "kinds": kinds,
        "damage": damage,
        "holder": asdict(holder) if holder else None,
        "wait": wait_of(directory),
        "rotation": rotation
        and {name: rotation[name] for name in ("state", "generation", "selected_feature_count", "skipped_feature_count")},
        "leftovers": dict(left),
    }
    return Outcome(document, lambda output: tell_status(output, document, rotation), Exit.INTEGRITY if damage else Exit.FINE)


def tell_status(output: Output, here: dict[str, Any], rotation: dict[str, Any] | None) -> None:
    """here: the document of status. rotation: all that the library says of it, None for a directory that is damaged."""
    if here["written_at"] is not None:
        rows = [("era", f"{here['era_number']}, version {here['version']}"), ("written", ago(here["written_at"]))]
        rows.append(("listed", f"{counted(here['files'], 'file')}, {size(here['bytes'])}"))
    else:
        rows = [("era", "not known" if here["damage"] else "none yet: brackenfen-sync sync fills the directory")]
    if rotation and rotation["skipped_feature_count"]:
        rows.append(("rotation", f"{rotation['selected_feature_count']:,} of {rotation['eligible_feature_count']:,} features are held"))
    rows.append(("at work", holder_text(here["holder"]["pid"], here["holder"]["command"]) if here["holder"] else "nobody"))
    if here["wait"]:
        rows.append(("waiting", "for the server, see brackenfen-sync why"))
    if here["leftovers"]:
        rows.append(("left over", ", ".join(f"{count} x {name}" for name, count in here["leftovers"].items())))
    output.line(clean(here["directory"]), "bold")
    output.pairs(rows)
    if len(here["kinds"]) > 1:
        output.line("")
        output.table(("kind", "files ", "size "), [(name, f"{kind['files']:,}", size(kind["bytes"])) for name, kind in here["kinds"].items()])
    if here["damage"]:
        output.line(clean(f"damaged: {here['damage']}; brackenfen-sync doctor tells what to do"), "red")


def server_text(probe: Probe) -> str:
    if probe.failure is not None:
        return f"it does not answer: {probe.failure.reason}. {probe.failure.next_action}"
    if probe.status == 200:
        return "it answers" if probe.is_data else "it answers, but not as a data server: is the address right, is a login page before it?"
    return f"it refuses the token: HTTP {probe.status}" if probe.status in (401, 403) else f"it answers HTTP {probe.status}"


def look(session: Session) -> tuple[dict[str, Any], str]:
    """Whether the server answers, as a document and in words. What keeps it from being asked is told too."""
    refusal = "no server is given"
    if session.settings.server is not None:
        try:
            with session.asking_manager() as manager:
                probe = ask(session, manager, library.VERSION_PATH)
            return {"address": session.server, **probe.document()}, server_text(probe)
        except TokenError as error:
            refusal = str(error)
    return {"address": session.settings.server, **Probe(None, None).document(), "reason": refusal}, f"not asked: {refusal}"


def why(session: Session) -> Outcome:
    """Tell what is waited for: which process holds the directory, which try of the server comes next, and whether the server
    answers now."""
    directory = session.directory
    holder, wait = sync.lock_holder(directory), wait_of(directory)
    server, told = look(session)
    in_transition = (directory / ".transition_lock").exists()
    document = {
        "directory": str(directory), "holder": asdict(holder) if holder else None, "wait": wait, "in_transition": in_transition,
        "server": server,
    }  # fmt: skip

    def tell(output: Output) -> None:
        rows = [("directory", f"{holder_text(holder.pid, holder.command)} works on it; others wait" if holder else "nobody works on it")]
        if in_transition:
            rows.append(("transition", "one runs" if holder else "one was killed: brackenfen-sync clean, or the next transition"))
        if wait:
            left = wait["next_try_at"] - time.time()
            when = f"next try in {duration(left)}" if left > 0 else "trying now"
            rows.append(("waits", f"{wait['surface']} for the server: {wait['reason']}, attempt {wait['attempt']}, {when}"))
        rows.append(("server", told))
        output.pairs(rows)

    return Outcome(document, tell)


def rotation(session: Session) -> Outcome:
    """Tell which features the directory holds, and when they change next."""
    directory = session.directory
    payload = sync.feature_rotation_status_payload(directory, settings_payload=settings_payload(directory))
    document = {"directory": str(directory), **payload}

    def tell(output: Output) -> None:
        rows = [("state", payload["state"])]
        if payload["generation"] is not None:
            rows += [("generation", f"{payload['generation']}, seed {payload['seed']}")]
        rows += [
            ("held", f"{payload['selected_feature_count']:,} of {counted(payload['eligible_feature_count'], 'feature')}"),
            ("not held now", f"{payload['skipped_feature_count']:,}"),
            ("next rotation", f"{payload['next_rotation_at'] or 'not known'}{', which is due' if payload['next_rotation_due'] else ''}"),
        ]
        if payload["missing_active_path_count"]:
            rows.append(("missing", f"{counted(payload['missing_active_path_count'], 'file')}; brackenfen-sync sync fetches them"))
        output.pairs(rows)

    return Outcome(document, tell)


def era_text(current: dict[str, Any]) -> str:
    """The server's era, and what it says of its state."""
    number = current.get("era_number")
    state = str(current.get("state") or "state not told").replace("_", " ")
    return state if number is None and state == "between eras" else f"{'between eras' if number is None else f'era {number}'}, {state}"


def era(session: Session) -> Outcome:
    """Tell which era the directory is in, and what the server says of its own. Exit code 7 where they differ."""
    local, damage = read_manifest(session.directory)
    with session.asking_manager() as manager, session.working(manager):
        current = library.current_era(manager)
    here, there = (local.era_number if local else None), current.get("era_number")
    differ = here is not None and there is not None and here != there
    document = {"directory": str(session.directory), "local_era_number": here, "server": current, "differ": differ, "damage": damage}

    def tell(output: Output) -> None:
        nothing = "none yet" if damage is None else f"not known: manifest.json is damaged; {MANIFEST_MENDS}"
        rows = [("here", nothing if here is None else f"era {here}")]
        rows.append(("server", era_text(current)))
        for key, label in (("next_closing_at", "closes"), ("min_library_version", "needs library")):
            if (value := current.get(key)) not in (None, "0.0.0"):
                rows.append((label, moment(value) if isinstance(value, (int, float)) and 0 < value < 1e11 else str(value)))
        output.pairs(rows)
        if differ:
            output.line("brackenfen-sync sync goes to the server's era; watch does so by itself", "yellow")

    return Outcome(document, tell, Exit.INTEGRITY if damage else Exit.ERA if differ else Exit.FINE)
