"""The command plan: what a pass would do, without doing it."""

from __future__ import annotations

import shutil
from typing import Any

from brackenfen import sync

from brackenfen.sync_command import library
from brackenfen.sync_command.exits import Exit
from brackenfen.sync_command.output import Output
from brackenfen.sync_command.passes import entry_size
from brackenfen.sync_command.session import Outcome, Session
from brackenfen.sync_command.texts import counted, size


def differing(session: Session, manager: sync.SyncManager, manifest: sync.Manifest, active: tuple[str, ...]) -> dict[str, int]:
    """The active files that are not what the server's manifest says, with their sizes. Files that the hash cache does not
    know are read."""
    files = manifest.files
    wanted = {}
    for path in active:
        entry = files.get(path)
        if library.is_for_another_platform(entry):
            continue
        if not library.matches(manager, path, library.local_path(session.directory, path), entry):
            wanted[path] = entry_size(entry)
    return wanted


def plan(session: Session, list_files: bool) -> Outcome:
    """Tell what a pass would fetch, which files leave, and what disk that needs. Changes nothing."""
    manager = session.manager()
    local = manager.get_manifest()
    with session.working(manager):
        manifest = library.server_manifest(manager)
        another_era = local is not None and local.era_number != manifest.era_number
        free = shutil.disk_usage(session.directory).free
        newer = local is None or another_era or local.version < manifest.version
        selection = library.planned_selection(manager, manifest, free, newer or library.rotation_is_due(manager, manifest))
        fetch = differing(session, manager, manifest, selection.active_relative_paths)
    active = set(selection.active_relative_paths)
    state = sync.load_feature_rotation_state(session.directory)
    unlisted = sorted(set(local.files) - set(manifest.files)) if local else []
    leaving = sorted(set(state.active_relative_paths) - active - set(unlisted)) if state else []
    needed = sum(fetch.values())
    fits = needed <= free
    document: dict[str, Any] = {
        "directory": str(session.directory),
        "local": {"era_number": local.era_number, "version": local.version} if local else None,
        "server": {"era_number": manifest.era_number, "version": manifest.version},
        "era_transition": another_era,
        "fetch": [{"path": path, "size_bytes": count} for path, count in fetch.items()],
        "fetch_bytes": needed,
        "no_longer_listed": unlisted,
        "rotated_out": leaving,
        "free_bytes": free,
        "fits": fits,
    }

    def tell(output: Output) -> None:
        here = f"era {local.era_number}, version {local.version}" if local else "nothing yet"
        output.pairs(
            [
                ("here", here),
                ("server", f"era {manifest.era_number}, version {manifest.version}{' (a transition)' if another_era else ''}"),
                ("to fetch", f"{counted(len(fetch), 'file')}, {size(needed)}"),
                ("no longer listed", counted(len(unlisted), "file")),
                ("rotated out", counted(len(leaving), "file")),
                ("free on the disk", f"{size(free)}{'' if fits else ', which is too little'}"),
            ]
        )
        if list_files:
            rows = [("fetch", size(count), path) for path, count in fetch.items()]
            rows += [("unlisted", "", path) for path in unlisted] + [("rotated out", "", path) for path in leaving]
            output.table(("", "size ", "file"), rows, {"fetch": "green"})

    return Outcome(document, tell, Exit.FINE if fits else Exit.DISK)
