"""The command clean: tells what is left over, and removes what it is told to."""

from __future__ import annotations

import logging
import sys
from pathlib import Path
from typing import Any

import click
from brackenfen import sync

from brackenfen.sync_command import library
from brackenfen.sync_command.events import Spoken, listening
from brackenfen.sync_command.files import Kind, Leftover, by_kind, leftovers, remove, rotation_state_error
from brackenfen.sync_command.output import Output
from brackenfen.sync_command.session import NO_SERVER, Outcome, Session
from brackenfen.sync_command.telling import read_manifest
from brackenfen.sync_command.texts import clean as cleaned
from brackenfen.sync_command.texts import counted, holder_text, size

DAMAGED_STATE = Kind(
    "damaged rotation state", lambda _path, _era: False, "the record of which features are held, which cannot be read",
    "no pass runs and no host starts", "brackenfen-sync clean; the rotation then begins anew with another seed",
)  # fmt: skip


def found(directory: Path) -> list[Leftover]:
    manifest, _ = read_manifest(directory)
    things = [thing for thing in leftovers(directory, manifest.era_number if manifest else None) if thing.kind.ask]
    if rotation_state_error(directory) is not None:
        state = Path(sync.feature_rotation_state_path(directory))
        things.append(Leftover(DAMAGED_STATE, state.name, state.lstat().st_size))
    return things


def told(thing: Leftover) -> dict[str, Any]:
    return {"path": thing.relative_path, "kind": thing.kind.name, "size_bytes": thing.size_bytes}


def clean(session: Session, yes: bool) -> Outcome:
    """Tell what killed processes and old eras left behind, and remove it, asking for each kind. Data files stay.

    Without a terminal and without --yes it only tells.
    """
    directory, output = session.directory, session.output
    things = found(directory)
    asks = not yes and not output.as_json and sys.stdin.isatty()
    if things and (yes or asks) and (holder := sync.lock_holder(directory)):
        raise sync.StateError(f"{holder_text(holder.pid, holder.command)} works on {directory}: nothing is cleaned under its feet")
    removed: list[Leftover] = []
    for kind, group in by_kind(things):
        if not output.as_json:
            output.line(cleaned(f"{kind.name}: {counted(len(group), 'thing')}, {size(sum(thing.size_bytes for thing in group))}"), "bold")
            output.line(f"  {kind.what}; harm: {kind.harm}; goes with {kind.goes}", hanging=2)
            for thing in group:
                output.line(cleaned(f"  {thing.relative_path}"))
        if yes or (asks and click.confirm("  remove?", default=False, err=True)):
            removed += group
    if removed:
        discard(directory, removed, output)
    freed = sum(thing.size_bytes for thing in removed)
    document = {
        "directory": str(directory), "found": [told(thing) for thing in things],
        "removed": [thing.relative_path for thing in removed], "freed_bytes": freed,
    }  # fmt: skip

    def tell(output: Output) -> None:
        if not things:
            output.line("nothing is left over", "green")
        elif removed:
            output.line(f"removed {counted(len(removed), 'thing')}, {size(freed)}", "green")
        else:
            output.line("nothing was removed" if asks else "nothing was removed; --yes removes all of it")

    return Outcome(document, tell)


def discard(directory: Path, things: list[Leftover], output: Output) -> None:
    """Removes what was told, while no other process works on the directory. A damaged rotation state goes first, since with
    it there is no manager to take the lock."""
    for thing in things:
        if thing.kind is DAMAGED_STATE:
            remove(directory, thing)
    with listening(Spoken(output), logging.WARNING):
        manager = sync.SyncManager(directory, NO_SERVER, lambda: "")
    with library.unit_of_work(manager):
        for thing in things:
            if thing.kind is not DAMAGED_STATE:
                remove(directory, thing)
