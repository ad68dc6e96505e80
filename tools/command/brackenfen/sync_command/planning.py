"""The command plan: what a pass would do, without doing it."""

from __future__ import annotations

from brackenfen.sync_command.exits import Exit
from brackenfen.sync_command.output import Output
from brackenfen.sync_command.session import Outcome, Session
from brackenfen.sync_command.texts import counted, size


def plan(session: Session, list_files: bool) -> Outcome:
    """Tell what a pass would fetch, which files it would remove, and what disk that needs. Changes nothing."""
    manager = session.manager()
    local = manager.get_manifest()
    with session.working(manager):
        found = manager.plan()
    document = {
        "directory": str(session.directory),
        "local": {"era_number": local.era_number, "version": local.version} if local else None,
        "server": {"era_number": found.era_number, "version": found.version},
        "is_transition": found.is_transition,
        "fetch": [{"path": path, "size_bytes": count} for path, count in found.fetch.items()],
        "fetch_bytes": found.fetch_bytes,
        "keep": found.keep,
        "remove": found.remove,
        "free_bytes": found.free_bytes,
        "fits": found.fits,
    }

    def tell(output: Output) -> None:
        here = f"era {local.era_number}, version {local.version}" if local else "nothing yet"
        output.pairs(
            [
                ("here", here),
                ("server", f"era {found.era_number}, version {found.version}{' (a transition)' if found.is_transition else ''}"),
                ("to fetch", f"{counted(len(found.fetch), 'file')}, {size(found.fetch_bytes)}"),
                ("to remove", counted(len(found.remove), "file")),
                ("with the pass after", counted(len(found.keep), "file")),
                ("free on the disk", f"{size(found.free_bytes)}{'' if found.fits else ', which is too little'}"),
            ]
        )
        if list_files:
            rows = [("fetch", size(count), path) for path, count in found.fetch.items()]
            rows += [("remove", "", path) for path in found.remove] + [("later", "", path) for path in found.keep]
            if rows:
                output.table(("", "size ", "file"), rows, {"fetch": "green"})

    return Outcome(document, tell, Exit.FINE if found.fits else Exit.DISK)
